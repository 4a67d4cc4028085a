#include "vxc_lite.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

int parse(std::vector<const char*> args, vxc::Options* opts, std::string* error = nullptr)
{
    args.insert(args.begin(), "vxc-lite");
    std::string out;
    return vxc::parse_args(static_cast<int>(args.size()), args.data(), opts, &out, error);
}

TEST(Reply, DefaultKeepsTheAgentOnTcpAtTheListeningPortAndTheCommandLineSetsEachField)
{
    vxc::Options o;
    EXPECT_EQ(vxc::reply_line(o, 7892),
              "vx_ctrl_msg_rep:result=Ok;status=NOT_RUNNING;state=1;retryPolicy=3%60%10%30;"
              "ProtoVersion=1;supportedProtocols=TCP:7892;\n");
    ASSERT_EQ(parse({"--status", "RUNNING", "--state", "0", "--retry-policy", "1%5%2%10",
                     "--proto-version", "2", "--protocols", "TCP:1,WS:2,WSS:3"},
                    &o),
              0);
    EXPECT_EQ(vxc::reply_line(o, 7892),
              "vx_ctrl_msg_rep:result=Ok;status=RUNNING;state=0;retryPolicy=1%5%2%10;"
              "ProtoVersion=2;supportedProtocols=TCP:1,WS:2,WSS:3;\n");
    ASSERT_EQ(parse({"--reply", "vx_ctrl_msg_rep:result=Error;"}, &o), 0);
    EXPECT_EQ(vxc::reply_line(o, 7892), "vx_ctrl_msg_rep:result=Error;\n");
}

TEST(Reply, HostedEntryAndRerouteLinesAreTheCollectorsWireForm)
{
    vxc::Options o;
    ASSERT_EQ(parse({"--hosted", "127.0.0.1:7001", "--hosted-authtoken", "tok1", "--reroute",
                     "vxcHost=127.0.0.1;vxcPort=7002;tier=T2", "--reroute-after-ms", "50"},
                    &o),
              0);
    EXPECT_EQ(vxc::hosted_reply_line(o),
              "klv_saas_auth_agent_msg_rep:status=OK;host=127.0.0.1;port=7001;authtoken=tok1;"
              "protoVer=1;\n");
    EXPECT_EQ(vxc::reroute_line(o.reroute_fields),
              "vx_control_req:action=reroute_ctrl_con;vxcHost=127.0.0.1;vxcPort=7002;tier=T2;\n");
    EXPECT_EQ(vxc::reroute_line("tier=ALL;"), "vx_control_req:action=reroute_ctrl_con;tier=ALL;\n");
    EXPECT_EQ(o.reroute_after_ms, 50);
}

TEST(Arguments, HelpIsAnsweredAndBadValuesAreRefused)
{
    vxc::Options defaults;
    std::string help;
    const char* ask[] = {"vxc-lite", "--port", "7", "--help"};
    EXPECT_EQ(vxc::parse_args(4, ask, &defaults, &help, nullptr), 1);
    EXPECT_EQ(help, vxc::usage());

    const std::vector<std::vector<const char*>> bad = {
        {"--port", "65536"},
        {"--port", "-1"},
        {"--port", "12x"},
        {"--port"},
        {"--bogus", "1"},
        {"stray"},
        {"--max-connections", "0"},
        {"--max-line", "10"},
        {"--heartbeat-ms", "5"},
        {"--status", "RUNNING;state=0"},
        {"--protocols", "TCP:1\nx"},
        {"--reply", ""},
        {"--run-dir", ""},
        {"--session", ""},
        {"--start-after-ms", "-1"},
        {"--stop-after-ms", "x"},
        {"--refuse-file", "a;b"},
        {"--drop-during-fetch", ""},
        {"--as-close-after-ms", "-1"},
        {"--as-stop-reading-after-ms", "1s"},
        {"--as-conn-state-zero-after-ms", "99999999999"},
        {"--modify", "m.txt"},      /* a modify needs a session */
        {"--stop-after-ms", "100"}, /* so does a stop */
        {"--start-once"},
        {"--hosted", "127.0.0.1"},
        {"--hosted", "127.0.0.1:0"},
        {"--hosted", "a;b:7000"},
        {"--reroute", "vxcPort=1\nx"},
        {"--reroute-after-ms", "-5"},
    };
    for (const auto& args : bad) {
        vxc::Options o;
        std::string error;
        EXPECT_EQ(parse(args, &o, &error), -1) << args[0];
        EXPECT_FALSE(error.empty()) << args[0];
    }
}

}  // namespace
