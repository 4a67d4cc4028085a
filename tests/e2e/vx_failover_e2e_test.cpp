/*
 * The agent moving between collectors: from a lost primary to its backup
 * and home again, and to a collector a reroute names. The collectors come
 * from the agent's vxsettings.conf; a one-second retry interval keeps each
 * move within seconds.
 */
#include <gtest/gtest.h>

#include <string>

#include "vx_e2e_support.h"

namespace {

using vxc_test::summary_value;

/* One retry, one second apart, a single agent heartbeat after the first
 * idle poll (an interval under 10 s). */
vxc::Options quick_collector(int port = 0)
{
    vxc::Options o = e2e::collector_options(port);
    o.retry_policy = "1%1%10%0";
    return o;
}

std::string settings(int primary, int backup)
{
    std::string s =
        "tier=E2ETier\nserver=e2e-server\nvxcHost=127.0.0.1\nvxcPort=" + std::to_string(primary) +
        "\nVXC_COMM_PROTOCOL=TCP:" + std::to_string(primary) + "\n";
    if (backup) s += "backupVxcHostName=127.0.0.1\nbackupVxcPort=" + std::to_string(backup) + "\n";
    return s;
}

bool has(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

}  // namespace

TEST(Failover, LostPrimaryMovesTheAgentToTheBackupAndStateZeroSendsItHome)
{
    e2e::Collector primary(quick_collector());
    vxc::Options silent = quick_collector();
    silent.heartbeat_ms = 0; /* the agent's heartbeats go out only on a quiet link */
    e2e::Collector backup(silent);
    ASSERT_EQ(primary.start(), 0);
    ASSERT_EQ(backup.start(), 0);
    const int primary_port = primary.port(), backup_port = backup.port();
    e2e::Host host({"idle", "60"}, 0, {}, settings(primary_port, backup_port));
    ASSERT_TRUE(e2e::eventually([&] { return !primary.control_requests().empty(); }, 10));
    primary.stop();

    ASSERT_TRUE(e2e::eventually(
        [&] { return atoi(summary_value(backup.run_dir(), "agent_heartbeats").c_str()) >= 1; }, 20))
        << host.trace_log();
    const auto on_backup = backup.control_requests();
    ASSERT_FALSE(on_backup.empty());
    /* Retries ran out on the primary, and the request says where it came from. */
    EXPECT_TRUE(has(on_backup[0], ";requestType=3;")) << on_backup[0];
    EXPECT_TRUE(
        has(on_backup[0], ";connDestination=127.0.0.1:" + std::to_string(primary_port) + ";"))
        << on_backup[0];
    EXPECT_TRUE(has(host.trace_log(), "[VX DR Feature]; Max number of retry attempt reached"));

    /* The primary is back; the backup now answers state=0. */
    e2e::Collector primary_again(quick_collector(primary_port));
    ASSERT_EQ(primary_again.start(), 0);
    backup.stop();
    vxc::Options refusing = silent;
    refusing.port = backup_port;
    refusing.state = 0;
    e2e::Collector backup_again(refusing);
    ASSERT_EQ(backup_again.start(), 0);
    ASSERT_TRUE(e2e::eventually([&] { return !primary_again.control_requests().empty(); }, 20))
        << host.trace_log();
    backup_again.stop();
    primary_again.stop();
    EXPECT_GE(atoi(summary_value(backup_again.run_dir(), "control_connections").c_str()), 1);
    EXPECT_TRUE(has(host.trace_log(), "[VX DR Feature]; Received DR status 0."));
}

TEST(Failover, RerouteMovesTheAgentToTheNamedCollectorAndRewritesItsSettings)
{
    e2e::Collector target(e2e::collector_options());
    ASSERT_EQ(target.start(), 0);
    vxc::Options o = e2e::collector_options();
    o.reroute_fields = "vxcHost=127.0.0.1;vxcPort=" + std::to_string(target.port()) +
                       ";tier=RerouteTier;server=ALL";
    o.reroute_after_ms = 300;
    e2e::Collector first(o);
    ASSERT_EQ(first.start(), 0);
    const std::string first_port = std::to_string(first.port());
    e2e::Host host({"idle", "60"}, 0, {}, settings(first.port(), 0));

    ASSERT_TRUE(e2e::eventually([&] { return !target.control_requests().empty(); }, 15))
        << host.trace_log();
    const std::string request = target.control_requests()[0];
    EXPECT_TRUE(has(request, ";requestType=2;")) << request;
    EXPECT_TRUE(has(request, ";connDestination=127.0.0.1:" + first_port + ";")) << request;
    EXPECT_TRUE(has(request, "tierName=RerouteTier;")) << request;
    EXPECT_EQ(host.settings(), "tier=RerouteTier\nserver=e2e-server\nvxcHost=127.0.0.1\nvxcPort=" +
                                   std::to_string(target.port()) +
                                   "\nVXC_COMM_PROTOCOL=TCP:" + first_port + "\n");
    first.stop();
    target.stop();
    first.expect_counts("reroutes_sent=1 control_connections=1");
    EXPECT_EQ(summary_value(target.run_dir(), "control.1")
                  .rfind("request=vx_ctrl_msg_req requestType=2 ", 0),
              0u);
}
