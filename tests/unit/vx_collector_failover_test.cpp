/*
 * Moving the agent to another collector: the retry policy of the reply, the
 * reroute line and the settings file it rewrites, and the hosted entry
 * point's answer. No socket is open; the files live in a home of the test's
 * own.
 */
#include "link/vx_collector_failover.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <tuple>

#include "agent/vx_bci_setting.h"
#include "agent/vx_collector_servers.h"
#include "agent/vx_instance.h"
#include "link/vx_control_reply.h"
#include "session/vx_control_dispatch.h"
#include "vx_test_support.h"

namespace {

using vx_test::logged;
using vx_test::str;

const std::string kReroute = "vx_control_req:action=reroute_ctrl_con;";
const std::string kHostedOk = "klv_saas_auth_agent_msg_rep:status=OK;";

size_t count_of(const std::string& text, const std::string& needle)
{
    size_t n = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1))
        ++n;
    return n;
}

/* Entry 0 the master at 10.0.0.1:7892, entry 1 the backup, identity T0/S0/I0
 * and a home of its own. The identity texts the setters replace are the
 * test's; the shared agent gets its own back afterwards. */
class Failover : public testing::Test {
protected:
    void SetUp() override
    {
        app_->controlLink.vxc_server_arr = app_->controlLink.active_vxc = nullptr;
        app_->controlLink.server_arr_size = 0;
        for (int i : {0, 1}) {
            vx_collector_entry(i)->vxc_host = strdup(i ? "10.0.0.2" : "10.0.0.1");
            vx_collector_entry(i)->vxc_port = i ? 7893 : 7892;
        }
        active_vxc_idx = 0;
        app_->VXBCISetting.num_vxc_config = 2;
        app_->Server.isClusterMode = 0;
        for (char** p : owned()) *p = nullptr;
        set_identity();
        setVXCHost(vx_test::S("10.0.0.1"));
        app_->VXBCISetting.vxcPort = 7892;
        home_ = vx_test::make_temp_dir("vx_failover_home_");
        mkdir((home_ + "/config").c_str(), 0755);
        app_->VXSys.vxHomePath = strdup(home_.c_str());
        init_vxc_server_config();
    }

    void TearDown() override
    {
        for (int i = 0; i < app_->controlLink.server_arr_size; ++i)
            free(app_->controlLink.vxc_server_arr[i].vxc_host);
        free(app_->controlLink.vxc_server_arr);
        for (char** p : owned()) free(*p);
        free(app_->VXSys.vxHomePath);
        std::system(("rm -rf " + home_).c_str());
    }

    std::vector<char**> owned()
    {
        VXBCISetting_t& s = app_->VXBCISetting;
        return {&s.tierName, &s.encodedtierName, &s.appServerName, &s.encodedappServerName,
                &s.appName,  &s.encodedappName,  &s.vxcHost,       &s.authToken};
    }

    static void set_identity()
    {
        setTierName(vx_test::S("T0"), nullptr, 0);
        setAppServerName(vx_test::S("S0"), nullptr, 0);
        setAppName(vx_test::S("I0"), nullptr, 0);
    }

    std::string settings_path() const { return home_ + "/config/vxsettings.conf"; }
    void write_settings(const std::string& text) const { std::ofstream(settings_path()) << text; }
    std::string settings() const { return vx_test::read_file(settings_path()); }

    int reroute(std::string line)
    {
        resetVXCHostAndPort();
        return parseReRouteMessageAndUpdateClientInfo(line.data());
    }

    VXProxyInstance_t* app_ = vx_test::agent();
    std::string home_;

private:
    vx_test::Restore keep_{app_->controlLink, app_->VXSys, app_->Server, app_->VXBCISetting,
                           active_vxc_idx};
};

TEST_F(Failover, RetryPolicyAppliesTheNumbersGivenAndKeepsTheOthers)
{
    const std::string error = "[VX DR Feature]; Error in parsing VX DR retry policy";
    struct Case {
        const char* policy;
        int retries;
        long long interval_s;
        int misses;
        int ticks;
        bool complete;
    } cases[] = {
        {"3%60%10%30", 3, 60, 10, 3, true}, {"5%2", 5, 2, 10, 6, false},
        {"5%%4%20", 5, 60, 4, 2, false},    /* an empty item keeps its place */
        {"1000%2%4%20", 3, 2, 4, 2, false}, /* a count out of range is kept */
        {"", 3, 60, 10, 6, false},
    };
    for (const Case& c : cases) {
        init_vxc_server_config();
        const size_t errors = count_of(vx_test::trace_log_text(), error);
        std::string reply =
            std::string("vx_ctrl_msg_rep:result=Ok;status=RUNNING;state=1;retryPolicy=") +
            c.policy + ";ProtoVersion=1;";
        EXPECT_EQ(parse_policy_from_clientMsg(reply.data()), 0) << c.policy;
        const retryPolicy_t& p = app_->controlLink.retry_policy;
        EXPECT_EQ(std::tuple(int{p.num_retry}, p.time_interval, p.reply_unsuccessful_count,
                             p.heartbeat_reply_timeout_check),
                  std::tuple(c.retries, apr_time_from_sec(c.interval_s), c.misses, c.ticks))
            << c.policy;
        EXPECT_EQ(count_of(vx_test::trace_log_text(), error), errors + (c.complete ? 0 : 1))
            << c.policy;
    }
}

TEST_F(Failover, RerouteLineSetsTargetAndIdentityAndRefusesHostileValues)
{
    const std::string long_name(vx::kRerouteNameSize, 'x');
    struct Case {
        std::string fields;
        int result;
        const char* host;
        int port;
        const char* tier;
        const char* server;
        const char* instance;
        int cluster;
    } cases[] = {
        {"vxcHost=10.1.1.9;vxcPort=7900;tier=T2;server=S2;instance=I2;", 0, "10.1.1.9", 7900, "T2",
         "S2", "I2", 0},
        {"vxcHost=ALL;vxcPort=7900;tier=all;server=ALL;instance=I3;", 1, nullptr, 7900, "T0", "S0",
         "I3", 0},
        {"vxcHost=10.1.1.9;clusterMode=1;", 0, "10.1.1.9", 443, "T0", "S0", "I0", 1},
        {"vxcHost=collector.example;vxcPort=7900;", 1, nullptr, 7900, "T0", "S0", "I0", 0},
        {"vxcHost=10.1.1.9;vxcPort=99999;", 1, nullptr, 443, "T0", "S0", "I0", 0},
        {"vxcHost=10.1.1.9;tier=" + long_name + ";server=" + long_name + ";", 0, "10.1.1.9", 443,
         "T0", "S0", "I0", 0},
        {"vxcHost=" + std::string(100000, '1') + ";", 1, nullptr, 443, "T0", "S0", "I0", 0},
    };
    for (const Case& c : cases) {
        app_->Server.isClusterMode = 0;
        set_identity();
        EXPECT_EQ(reroute(kReroute + c.fields), c.result) << c.fields.substr(0, 80);
        const VXBCISetting_t& s = app_->VXBCISetting;
        EXPECT_EQ(
            std::tuple(str(s.vxcHost), s.vxcPort, str(s.tierName), str(s.appServerName),
                       str(s.appName), app_->Server.isClusterMode),
            std::tuple(str(c.host), c.port, std::string(c.tier), std::string(c.server),
                       std::string(c.instance), c.cluster))
            << c.fields.substr(0, 80);
    }
    EXPECT_EQ(reroute("vx_control_req:action=reroute_ctrl_con"), -1);
    EXPECT_TRUE(logged("Message not sent properly fron VXC. numFields = 1"));
}

TEST_F(Failover, InClusterModeTheRerouteTargetReplacesTheBackupEntry)
{
    ASSERT_EQ(reroute(kReroute + "vxcHost=10.1.1.8;vxcPort=7901;clusterMode=1;"), 0);
    ASSERT_EQ(vx_collector_take_reroute_target(), 0);
    const vxc_servers_t* e = app_->controlLink.vxc_server_arr;
    EXPECT_EQ(std::tuple(std::string(e[1].vxc_host), e[1].vxc_port), std::tuple("10.1.1.8", 7901u));
    EXPECT_NE(e[1].vxc_host, app_->VXBCISetting.vxcHost) << "the entry owns a copy";
    EXPECT_EQ(std::string(e[0].vxc_host), "10.0.0.1");
    ASSERT_EQ(reroute(kReroute + "tier=T9;"), 1); /* no host: the list stays */
    EXPECT_EQ(vx_collector_take_reroute_target(), -1);
    EXPECT_EQ(std::string(e[1].vxc_host), "10.1.1.8");
}

TEST_F(Failover, SettingsFileGetsTheNewValuesAndKeepsUnsetOnesAndOtherLines)
{
    const std::string long_line = "tags=" + std::string(5000, 't') + "\n";
    const std::string before =
        "# collector\ntier=T0\nserver=S0\nvxcHost=10.0.0.1\nVXCPORT=7892\n"
        "backupVxcHostName=10.0.0.2\nVXC_COMM_PROTOCOL=TCP\n" +
        long_line + "instance=I0";
    struct Case {
        std::string fields;
        std::string after;
    } cases[] = {
        {"vxcHost=10.1.1.9;vxcPort=7900;tier=T2;server=S2;",
         "# collector\ntier=T2\nserver=S2\nvxcHost=10.1.1.9\nvxcPort=7900\n"
         "backupVxcHostName=10.0.0.2\nVXC_COMM_PROTOCOL=TCP\n" +
             long_line + "instance=I0"},
        /* No host: its lines and the port's stay, never "(null)". */
        {"vxcPort=7900;tier=T3;",
         "# collector\ntier=T3\nserver=S2\nvxcHost=10.0.0.1\nVXCPORT=7892\n"
         "backupVxcHostName=10.0.0.2\nVXC_COMM_PROTOCOL=TCP\n" +
             long_line + "instance=I0"},
    };
    for (const Case& c : cases) {
        write_settings(before);
        reroute(kReroute + c.fields);
        EXPECT_EQ(updateVXSettingFile(), 0);
        EXPECT_EQ(settings(), c.after) << c.fields;
    }

    std::remove(settings_path().c_str());
    EXPECT_EQ(updateVXSettingFile(), -1);
    mkdir(settings_path().c_str(), 0755); /* cannot be opened for update, even by root */
    EXPECT_EQ(updateVXSettingFile(), -1);
    EXPECT_TRUE(logged("Error in opening file '" + settings_path() +
                       "'. Hence can't update vxsetting file."));
}

TEST_F(Failover, RerouteDuringASessionEndsItWithRecord10AndClosesTheConnection)
{
    write_settings("tier=T0\nvxcHost=10.0.0.1\nvxcPort=7892\n");
    vx_test::FrozenClock clock(50000, 0);
    app_->Server.lastConnectionTime = 20000;
    app_->Server.requestType = 1;
    vx_test::RecordSink sink;
    {
        vx_test::SessionScope session;
        app_->Server.InstrumentationBusy = 1;
        app_->Server.numberOfTestRunsTillNow = 2;
        std::string line = kReroute + "vxcHost=10.1.1.9;vxcPort=7900;tier=T2;";
        handleReceivedClientMessageFromVXCollector(line.data());
        EXPECT_EQ(sink.of_type(10).size(), 1u);
        EXPECT_EQ(app_->Server.testRunRunning, 0);
    }
    const Server_t& srv = app_->Server;
    EXPECT_EQ(std::tuple(srv.requestType, std::string(srv.connDestination), srv.connDuration,
                         srv.numberOfTestRunsTillNow, int{srv.InstrumentationBusy}),
              std::tuple(2, "10.0.0.1:7892", 30000LL, 0, 0));
    EXPECT_EQ(app_->VXSys.closeCtrlConFlag, 1);
    EXPECT_EQ(std::string(app_->controlLink.vxc_server_arr[0].vxc_host), "10.1.1.9");
    EXPECT_EQ(app_->controlLink.vxc_server_arr[0].vxc_port, 7900u);
    EXPECT_EQ(settings(), "tier=T2\nvxcHost=10.1.1.9\nvxcPort=7900\n");
}

TEST_F(Failover, HostedReplyNamesTheCollectorAndTheConnectionGoesOnServing)
{
    struct Case {
        std::string fields;
        int result;
    } cases[] = {
        {"host=10.2.2.2;port=7901;authtoken=tok1;protoVer=1;", 0},
        {"HOST=10.2.2.3;", 0},
        {"port=7901;authtoken=tok1;", 1}, /* no host */
        {"host=hosted.example;port=7901;", 1},
        {"host=10.2.2.2;port=70000;", 1},
        {"host=10.2.2.2;protoVer=7;", 1},
    };
    for (const Case& c : cases) {
        vx_collector_entry(0)->saasServer = 1;
        std::string line = kHostedOk + c.fields;
        EXPECT_EQ(parseSAASClientMsg(line.data()), c.result) << c.fields;
        if (c.result == 0) {
            EXPECT_EQ(vx_collector_entry(0)->saasServer, 0) << c.fields;
        }
    }
    std::string empty = ";;";
    EXPECT_EQ(parseSAASClientMsg(empty.data()), 1);

    /* On TCP the reply is taken and the buffer emptied for the session. */
    std::string text = kHostedOk + "host=10.2.2.2;port=7901;authtoken=tok1;protoVer=1;\n";
    int n = static_cast<int>(text.size());
    controlSocketBuffer_t buf{text.data(), text.size(), 0, n, n};
    app_->lws_active = 0;
    EXPECT_EQ(handle_vxc_con_res_msg(&buf), kReplyServe);
    EXPECT_EQ(buf.readBytes, 0);
    const vxc_servers_t& e = app_->controlLink.vxc_server_arr[0];
    EXPECT_EQ(std::tuple(std::string(e.vxc_host), e.vxc_port, e.saasServer),
              std::tuple("10.2.2.2", 7901u, 0));
    EXPECT_EQ(
        std::tuple(std::string(app_->Server.connDestination),
                   std::string(app_->controlLink.control.dstIp), app_->controlLink.control.dstPort,
                   std::string(app_->VXBCISetting.authToken), app_->VXBCISetting.ProtoVer),
        std::tuple("10.2.2.2:7901", "10.2.2.2", 7901, "tok1", 1));

    text = kHostedOk + "port=7901;\n";
    n = static_cast<int>(text.size());
    buf = controlSocketBuffer_t{text.data(), text.size(), 0, n, n};
    EXPECT_EQ(handle_vxc_con_res_msg(&buf), kReplyDrop);
    EXPECT_TRUE(logged("Closing Control Connection with SAAS"));
}

}  // namespace
