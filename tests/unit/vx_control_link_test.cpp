/*
 * The control connection once it is open: the reply's classification and
 * the protocol negotiation it carries, the failover policy and the walk over
 * the configured collectors, and the line buffer that cuts the stream into
 * messages. No socket is open, so a clean-up only drops the session flag.
 */
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "agent/vx_instance.h"
#include "agent/vx_collector_servers.h"
#include "agent/vx_settings.h"
#include "link/vx_collector_failover.h"
#include "link/vx_control_reply.h"
#include "link/vx_control_stream.h"
#include "vx_test_support.h"

namespace {

const std::string kOk = "vx_ctrl_msg_rep:result=Ok;status=RUNNING;";
const std::string kPolicy = "state=1;retryPolicy=3%60%10%30;ProtoVersion=1;";

std::string heartbeat(int dataConn, int sensorConn)
{
    return "vx_control_req:action=reconnect;heartBeat 3;dataConnState=" + std::to_string(dataConn) +
           ";AutosensorConnState=" + std::to_string(sensorConn) + ";";
}

/* A master and a backup collector, failover on, the agent on TCP port 7892
 * only, a session running. The shared agent gets its state back afterwards. */
class ControlLink : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(!app_->controlLink.control.skt && !app_->controlLink.control.lws_handler.wsi);
        app_->controlLink.vxc_server_arr = app_->controlLink.active_vxc = nullptr;
        app_->controlLink.server_arr_size = 0;
        for (int i : {0, 1}) vx_collector_entry(i)->vxc_host = strdup(i ? "10.0.0.2" : "10.0.0.1");
        app_->VXBCISetting.num_vxc_config = 2;
        app_->controlLink.vx_dr_state = 1;
        app_->controlLink.is_switch_over = 0;
        active_vxc_idx = 0;
        init_vxc_server_config();
        set_protocols({1}, 1);
        memset(app_->controlLink.supportedProtocolVXCArray, 0, sizeof app_->controlLink.supportedProtocolVXCArray);
        app_->VXBCISetting.vxcPort = 7892;
        app_->Server.testRunRunning = 1;
    }

    void TearDown() override
    {
        for (int i = 0; i < app_->controlLink.server_arr_size; ++i) free(app_->controlLink.vxc_server_arr[i].vxc_host);
        free(app_->controlLink.vxc_server_arr);
    }

    void set_protocols(std::vector<int> agent, int active)
    {
        memset(app_->controlLink.supportedProtocolArray, 0, sizeof app_->controlLink.supportedProtocolArray);
        for (size_t i = 0; i < agent.size(); ++i) app_->controlLink.supportedProtocolArray[i] = agent[i];
        app_->controlLink.ActiveAgentProtocolIndex = active;
    }

    int policy(std::string line) { return parse_policy_from_clientMsg(line.data()); }

    /* handle_vxc_con_res_msg on a buffer holding `text` as the first read left it. */
    int classify(std::string text)
    {
        const int n = static_cast<int>(text.size());
        controlSocketBuffer_t buf{text.data(), text.size(), 0, n, n};
        const int rv = handle_vxc_con_res_msg(&buf);
        EXPECT_EQ(buf.readBytes, n) << "the reply stays for the serving loop";
        return rv;
    }

    VXProxyInstance_t* app_ = vx_test::agent();

private:
    vx_test::Restore keep_{app_->controlLink, app_->VXSys, app_->Server, app_->VXBCISetting,
                           active_vxc_idx};
};

TEST_F(ControlLink, ReplyPolicyFieldsSetRetriesAndKeepFailoverOnOnlyWhenAllComeFirst)
{
    app_->controlLink.retry_policy = retryPolicy_t{};
    const retryPolicy_t& rp = app_->controlLink.retry_policy;
    EXPECT_EQ(policy(kOk + kPolicy), 0);
    /* Retries, interval in microseconds, failed replies, heartbeat ticks. */
    EXPECT_EQ(std::tuple(int{rp.num_retry}, rp.time_interval, rp.reply_unsuccessful_count,
                         rp.heartbeat_reply_timeout_check),
              std::tuple(3, apr_interval_time_t{60000000}, 10, 3));
    EXPECT_EQ(app_->controlLink.vx_dr_state, 1);
    EXPECT_EQ(policy(kOk + "state=1;retryPolicy=2%5%4%9;ProtoVersion=1;"), 0);
    EXPECT_EQ(app_->controlLink.retry_policy.heartbeat_reply_timeout_check, 0); /* under 10 s: no ticks */
    EXPECT_EQ(policy(kOk + "retryPolicy=7%8;"), 0); /* too short: the two given apply */
    EXPECT_EQ(app_->controlLink.retry_policy.num_retry, 7);

    struct Case {
        std::string reply;
        int dr;
    } cases[] = {
        {"vx_ctrl_msg_rep:result=Ok;junk;" + kPolicy, 1},
        {"vx_ctrl_msg_rep:result=Ok;state=1;retryPolicy=3%60%10%30;junk;ProtoVersion=1;", 0},
        {kOk + "state=1;retryPolicy=3%60%10%30;appId=1;ProtoVersion=1;", 0}, /* sixth field */
        {kOk, 0},
    };
    for (const Case& c : cases) {
        app_->controlLink.vx_dr_state = 1;
        EXPECT_EQ(policy(c.reply), 0) << c.reply;
        EXPECT_EQ(app_->controlLink.vx_dr_state, c.dr) << c.reply;
    }
    EXPECT_EQ(app_->controlLink.is_switch_over, 0);

    active_vxc_idx = 1;
    EXPECT_EQ(policy(kOk + "state=0;"), 1);
    EXPECT_EQ(app_->controlLink.is_switch_over, 1);
    EXPECT_EQ(app_->controlLink.vxc_server_arr[1].state, 0);
    EXPECT_EQ(parse_policy_from_clientMsg(nullptr), 1);
    EXPECT_EQ(policy(""), 1);
    EXPECT_EQ(policy(";;;"), 1);
}

TEST_F(ControlLink, RetriesRunningOutWalkTheConfiguredCollectorsInTurn)
{
    vx_collector_entry(2)->vxc_host = strdup("10.0.0.3"); /* listed, but not counted as configured */
    std::vector<int> walk;
    for (int i = 0; i < 4; ++i) {
        connection_retry_failed();
        walk.push_back(active_vxc_idx);
        EXPECT_EQ(app_->controlLink.vxc_server_arr[active_vxc_idx].state, 1);
        EXPECT_EQ(app_->controlLink.vxc_server_arr[1 - active_vxc_idx].state, 0);
    }
    EXPECT_EQ(walk, (std::vector<int>{1, 0, 1, 0}));

    connection_retry_failed(); /* on the backup; without failover the next move is home */
    app_->controlLink.vx_dr_state = 0;
    connection_retry_failed();
    EXPECT_EQ(active_vxc_idx, 0);
    EXPECT_EQ(app_->controlLink.vxc_server_arr[0].state, 1);
}

TEST_F(ControlLink, ReplyIsServedDroppedOrSwitchedByItsFirstLine)
{
    vx_test::FrozenClock clock(5000, 0);
    EXPECT_EQ(classify(heartbeat(0, 1) + "\n" + kOk + "\n"), kReplyServe);
    EXPECT_EQ(app_->VXSys.dataConnState, 0);
    EXPECT_EQ(app_->VXSys.autosensorConnState, 1);
    EXPECT_EQ(app_->Server.lastHeartBeatRcvTime, 5000);
    EXPECT_EQ(app_->Server.testRunRunning, 1);

    for (const char* bad : {"vx_control_req:action=reconnect;heartBeat 3\n",
                            "klv_saas_auth_agent_msg_rep:status=ERROR;reason=x\n", "HTTP/1.1 400 Bad\n",
                            "vx_ctrl_msg_rep:result=Error;\n", "vx_ctrl_msg_rep:result=Ok;state=0;\n"}) {
        app_->Server.testRunRunning = 1;
        EXPECT_EQ(classify(bad), kReplyDrop) << bad;
        EXPECT_EQ(app_->Server.testRunRunning, 0) << bad;
    }

    app_->Server.retryForDataConn = 0;
    EXPECT_EQ(classify(kOk + kPolicy + "procIndex=3\n"), kReplyServe);
    EXPECT_EQ(app_->Server.retryForDataConn, 1);
    EXPECT_EQ(app_->VXSys.flowPathInstanceInitialID, 0x4000000000000000LL + (3LL << 46));
    EXPECT_EQ(app_->controlLink.vx_dr_state, 1);

    app_->Server.retryForAutoSensorConn = 1;
    EXPECT_EQ(classify("vx_ctrl_msg_rep:result=Ok;status=NOT_RUNNING;" + kPolicy + "\n"), kReplyServe);
    EXPECT_EQ(app_->Server.retryForDataConn, 0);
    EXPECT_EQ(app_->Server.retryForAutoSensorConn, 0);

    EXPECT_EQ(classify(kOk + kPolicy + "supportedProtocols=TCP:7900\n"), kReplySwitchProtocol);
    EXPECT_EQ(app_->Server.testRunRunning, 0);
}

TEST_F(ControlLink, NegotiationKeepsTheConnectionUnlessProtocolOrPortChanges)
{
    auto negotiate = [](const std::string& protocols) {
        std::string line = kOk + "supportedProtocols=" + protocols + ";";
        return setProtocolFromResponseMessage(line.data());
    };
    EXPECT_EQ(negotiate("WSS:8443"), 0); /* nothing in common: stay */
    EXPECT_EQ(app_->VXBCISetting.vxc_WSS_Port, 8443);
    EXPECT_EQ(negotiate("TCP:7892"), 0);
    EXPECT_EQ(app_->Server.testRunRunning, 1);
    EXPECT_EQ(negotiate("TCP:7900"), 1); /* same protocol, new port */
    EXPECT_EQ(app_->VXBCISetting.vxcPort, 7900);
    EXPECT_EQ(app_->Server.testRunRunning, 0);

    set_protocols({3, 1}, 3);
    EXPECT_EQ(negotiate("TCP:7900"), 1);
    EXPECT_EQ(app_->controlLink.ActiveAgentProtocolIndex, 1);

    /* The collector's order decides, and each list replaces the last. */
    set_protocols({1, 3}, 3);
    EXPECT_EQ(negotiate("WS:80,TCP:7900,WSS:443"), 1);
    EXPECT_EQ(app_->controlLink.ActiveAgentProtocolIndex, 1);
    EXPECT_EQ(negotiate("WSS:443"), 1);
    EXPECT_EQ(app_->controlLink.ActiveAgentProtocolIndex, 3);
    EXPECT_EQ(std::vector<int>(app_->controlLink.supportedProtocolVXCArray, app_->controlLink.supportedProtocolVXCArray + 5),
              (std::vector<int>{3, 0, 0, 0, 0}));
}

/* The line buffer, fed the way a socket read fills it. */
class ControlLinkStream : public ControlLink {
protected:
    void feed(const std::string& chunk)
    {
        memcpy(buf_.read_socket_buf + buf_.writeOffset, chunk.data(), chunk.size());
        buf_.writeOffset += static_cast<int>(chunk.size());
        buf_.readBytes += static_cast<int>(chunk.size());
        processControlConnectionMessage(&buf_);
    }

    std::vector<char> mem_ = std::vector<char>(vx::kControlBufferSize + 1, '\0');
    controlSocketBuffer_t buf_{mem_.data(), vx::kControlBufferSize, 0, 0, 0};
};

TEST_F(ControlLinkStream, AnIncompleteLineMovesToTheFrontAndCompletesWithTheNextRead)
{
    const std::string first = "vx_control_req:action=reconnect;heartBeat 1;AutosensorConnState=5;\n";
    const std::string second = "vx_control_req:action=reconnect;heartBeat 2;dataConnState=2;\n";
    const std::string third = heartbeat(3, 6) + "\n";
    feed(first + second + third.substr(0, 30));
    EXPECT_EQ(app_->VXSys.autosensorConnState, 5);
    EXPECT_EQ(app_->VXSys.dataConnState, 2);
    EXPECT_EQ(std::tuple(buf_.readOffset, buf_.readBytes, buf_.writeOffset), std::tuple(0, 30, 30));
    EXPECT_EQ(std::string(buf_.read_socket_buf, 30), third.substr(0, 30));

    feed(third.substr(30, 10)); /* still no line feed: it waits where it is */
    EXPECT_EQ(buf_.writeOffset, 40);
    EXPECT_EQ(app_->VXSys.dataConnState, 2);
    feed(third.substr(40));
    EXPECT_EQ(app_->VXSys.dataConnState, 3);
    EXPECT_EQ(app_->VXSys.autosensorConnState, 6);
    EXPECT_EQ(std::tuple(buf_.readBytes, buf_.writeOffset), std::tuple(0, 0));
}

TEST_F(ControlLinkStream, NulBytesBetweenLinesAreSkippedAndEveryLineIsASignOfLife)
{
    vx_test::FrozenClock clock(9000, 0);
    app_->controlLink.heartbeat_count = 4;
    app_->VXSys.dataConnState = 1;
    feed(std::string("vx_control_req:action=no_such_action;\n") + '\0' + '\0' + heartbeat(0, 0) + "\n" + '\0');
    EXPECT_EQ(app_->controlLink.heartbeat_count, 0);
    EXPECT_EQ(app_->Server.lastHeartBeatRcvTime, 9000);
    EXPECT_EQ(app_->VXSys.dataConnState, 0);
    EXPECT_EQ(std::tuple(buf_.readBytes, buf_.readOffset), std::tuple(0, 0));

    /* A collector heartbeat of fewer than three fields leaves the states. */
    app_->VXSys.dataConnState = 1;
    app_->controlLink.heartbeat_count = 2;
    feed("vx_control_req:action=reconnect;dataConnState=0\n");
    EXPECT_EQ(app_->VXSys.dataConnState, 1);
    EXPECT_EQ(app_->controlLink.heartbeat_count, 0);
}

}  // namespace
