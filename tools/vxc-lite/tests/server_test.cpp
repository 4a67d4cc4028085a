/* Loopback round trips of the connections themselves: control and data
 * connections answered, stored and counted; strangers closed. */
#include <gtest/gtest.h>

#include <string>

#include "loopback.h"

namespace {

using namespace vxc_test;

TEST_F(Loopback, ControlAndDataConnectionsAreAnsweredStoredAndCounted)
{
    vxc::Options o;
    o.heartbeat_ms = 50;
    o.status = "RUNNING";
    o.after_reply_line = "vx_control_req:action=start_instrumentation;testIdx=12;";
    start(o);

    Client ctrl(port_);
    ASSERT_TRUE(ctrl.connected());
    ASSERT_TRUE(ctrl.send(kRequest));
    std::string line;
    ASSERT_TRUE(ctrl.read_line(&line));
    EXPECT_EQ(line,
              "vx_ctrl_msg_rep:result=Ok;status=RUNNING;state=1;retryPolicy=3%60%10%30;"
              "ProtoVersion=1;supportedProtocols=TCP:" +
                  std::to_string(port_) + ";");
    ASSERT_TRUE(ctrl.read_line(&line));
    EXPECT_EQ(line, "vx_control_req:action=start_instrumentation;testIdx=12;");
    ASSERT_TRUE(ctrl.read_line(&line));
    EXPECT_EQ(line,
              "vx_control_req:action=reconnect;heartBeat 0;dataConnState=1;AutosensorConnState=1;");
    ASSERT_TRUE(ctrl.read_line(&line));
    EXPECT_EQ(line,
              "vx_control_req:action=reconnect;heartBeat 1;dataConnState=1;AutosensorConnState=1;");
    ASSERT_TRUE(
        ctrl.send("vx_control_rep:action=start_instrumentation;status=starting;result=Ok;\n"));

    Client data(port_);
    ASSERT_TRUE(data.connected());
    const std::string record2 =
        "2,123456789,5000,77,77.1,3,/shop/cart,,123456789,000000000000000000077,55,,0,15,,,\n";
    ASSERT_TRUE(data.send("\n" + std::string(kOpening) + "\n" +
                          "\n99,NewConnection,FPGVersion:1.0\n"
                          "5,main,1\n7,3,/shop/cart\n" +
                          record2.substr(0, 30)));
    ASSERT_TRUE(data.send(record2.substr(30) + std::string("\0", 1) + "\n"));
    ASSERT_TRUE(
        data.send("3,123456789,1:0_0_0__\n4,123456789,200,10,250000,40,3,0,,0,-1,1:0_0_0__\n"
                  "4,123456789,oops\n" +
                  std::string(300, 'z') + "\n10,\n"));
    data.shut();
    ASSERT_TRUE(wait_for_text(dir_, "-data.lines", "\n10,\n"));
    ASSERT_TRUE(wait_for_text(dir_, "-control.lines", "status=starting"));
    stop();
    EXPECT_EQ(run_result_, 0);

    EXPECT_EQ(slurp(find_file(dir_, "-data.lines")),
              std::string(kOpening) +
                  "\n\n99,NewConnection,FPGVersion:1.0\n5,main,1\n7,3,/shop/cart\n" + record2 +
                  "\n3,123456789,1:0_0_0__\n"
                  "4,123456789,200,10,250000,40,3,0,,0,-1,1:0_0_0__\n4,123456789,oops\n" +
                  std::string(300, 'z') + "\n10,\n");
    EXPECT_EQ(slurp(find_file(dir_, "-control.lines")),
              std::string(kRequest) +
                  "vx_control_rep:action=start_instrumentation;status=starting;result=Ok;\n");
    const std::string malformed = slurp(dir_ + "/malformed.txt");
    EXPECT_NE(malformed.find("| 4,123456789,oops\n"), std::string::npos) << malformed;
    EXPECT_NE(malformed.find("| zzz"), std::string::npos) << malformed;

    expect_summary(
        "connections=2 control_connections=1 data_connections=1 "
        "control_requests_with_problems=0 agent_control_lines=1 records=7 malformed=2 "
        "data_heartbeats=3 nul_bytes=1 record.99=1 record.2=1 record.4=1 record.10=1");
    EXPECT_NE(summary_value("heartbeats_sent"), "0");
    const std::string conn1 = summary_value("conn.1"), conn2 = summary_value("conn.2");
    EXPECT_EQ(conn1.rfind("control peer=127.0.0.1:", 0), 0u) << conn1;
    EXPECT_NE(conn1.find(" appName=shop agentName=shop-1 pid=4242 lines=2 records=0 malformed=0 "
                         "state=closed: "),
              std::string::npos)
        << conn1;
    EXPECT_EQ(conn2.rfind("data peer=127.0.0.1:", 0), 0u) << conn2;
    EXPECT_NE(conn2.find(" appName=shop agentName=shop-1 pid=4242 lines=13 records=7 malformed=2 "
                         "state=closed: "),
              std::string::npos)
        << conn2;
}

TEST_F(Loopback, BusinessTransactionIdsAreDeclaredForTheWholeRunBeforeUse)
{
    start(vxc::Options{});
    const std::string record4 = ",5000,200,10,250000,40,";
    const std::string tail = ",0,,0,-1,1:0_0_0__\n";
    {
        Client data(port_);
        ASSERT_TRUE(data.send(std::string(kOpening) + "7,3,/shop/cart\n4" + record4 + "3" + tail +
                              "4" + record4 + "9" + tail +
                              "2,77,5000,77,77.1,9,/x,,77,000000000000000000077,55,,0,15,,,\n"));
        data.shut();
        ASSERT_TRUE(wait_for_text(dir_, "0001-data.lines", "/x,,77"));
    }
    /* A reconnected agent does not announce again; a later record 7 renames. */
    Client again(port_);
    ASSERT_TRUE(again.send(std::string(kOpening) + "4" + record4 + "3" + tail +
                           "7,3,/shop/basket,v2\n7,9,/x\n4" + record4 + "9" + tail + "10,\n"));
    again.shut();
    ASSERT_TRUE(wait_for_text(dir_, "0002-data.lines", "\n10,\n"));
    stop();

    const std::vector<std::string> malformed = read_lines(dir_ + "/malformed.txt");
    ASSERT_EQ(malformed.size(), 2u) << slurp(dir_ + "/malformed.txt");
    EXPECT_EQ(malformed[0],
              "1 record 4: business transaction id 9 not declared by a record 7 or the served "
              "rules | 4" +
                  record4 + "9" + tail.substr(0, tail.size() - 1));
    EXPECT_EQ(malformed[1].rfind("1 record 2: business transaction id 9 not declared", 0), 0u);
    expect_summary(
        "records=9 record.4=4 record.2=1 record.7=3 malformed=2 undeclared_bt=2 "
        "bt_declarations=3 bt.3=/shop/basket,v2 bt.9=/x");
    EXPECT_NE(summary_value("conn.1").find(" records=4 malformed=2 "), std::string::npos);
}

TEST_F(Loopback, StrangersSilentPeersAndOverflowAreClosed)
{
    vxc::Options o;
    o.max_connections = 2;
    o.idle_first_line_ms = 100;
    o.max_line = 1024;
    start(o);

    Client http(port_);
    ASSERT_TRUE(http.connected());
    ASSERT_TRUE(http.send("GET / HTTP/1.1\r\n\r\n"));
    EXPECT_TRUE(http.closed_by_peer()) << "an unknown first line closes the connection";

    Client silent(port_);
    ASSERT_TRUE(silent.connected());
    EXPECT_TRUE(silent.closed_by_peer()) << "no first line in time closes the connection";

    Client overlong(port_);
    ASSERT_TRUE(overlong.connected());
    overlong.send(std::string(5000, 'x'));
    EXPECT_TRUE(overlong.closed_by_peer()) << "an overlong first line never identifies it";

    /* Two held connections fill the limit; the third is refused. */
    Client a(port_), b(port_);
    ASSERT_TRUE(a.send(kOpening));
    ASSERT_TRUE(b.send(kOpening));
    ASSERT_TRUE(wait_for_text(dir_, "0004-data.lines", "vx_data_msg_req"));
    ASSERT_TRUE(wait_for_text(dir_, "0005-data.lines", "vx_data_msg_req"));
    Client c(port_);
    EXPECT_TRUE(c.closed_by_peer()) << "a connection over the limit is closed at once";
    stop();
    expect_summary("connections_refused=1 unknown_connections=3 overlong=1 data_connections=2");
}

}  // namespace
