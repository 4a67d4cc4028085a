/*
 * The agent against a collector over loopback: the agent runs in a child
 * process (vx_e2e_host), the collector is vxc-lite in this process or a raw
 * listener that misbehaves on purpose.
 */
#include <apr_general.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <cstdlib>
#include <regex>
#include <set>
#include <string>

#include "vx_e2e_support.h"

namespace {

/* The sequence numbers of the e2e records ("100,<seq>,e2e") of a connection. */
std::vector<long long> sequence(const std::vector<std::string>& lines)
{
    static const std::regex e2e_record(R"(100,(\d+),e2e)");
    std::vector<long long> seq;
    std::smatch m;
    for (const std::string& l : lines)
        if (std::regex_match(l, m, e2e_record)) seq.push_back(std::stoll(m[1]));
    return seq;
}

bool consecutive(const std::vector<long long>& seq)
{
    for (size_t i = 1; i < seq.size(); ++i)
        if (seq[i] != seq[i - 1] + 1) return false;
    return true;
}

/* A free loopback port, for a collector that starts later. */
int free_port()
{
    e2e::Collector probe(e2e::collector_options());
    probe.start();
    const int port = probe.port();
    probe.stop();
    return port;
}

}  // namespace

TEST(CollectorLink, RegistersAndStreamsASessionFromRecord99ToRecord10)
{
    e2e::Collector vxc(e2e::collector_options());
    ASSERT_EQ(vxc.start(), 0);
    e2e::Host host({"stream", "4"}, vxc.port());
    ASSERT_EQ(host.wait(60), 0);
    vxc.stop();

    vxc.expect_counts(
        "control_connections=1 control_requests_with_problems=0 "
        "data_openings_with_problems=0 malformed=0");
    const auto requests = vxc.control_requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_NE(requests[0].find("tierName=E2ETier;"), std::string::npos) << requests[0];
    EXPECT_NE(requests[0].find("requestType=1;"), std::string::npos) << requests[0];
    EXPECT_NE(requests[0].find("supportedProtocols=TCP;"), std::string::npos) << requests[0];

    const auto data = vxc.data_connections();
    ASSERT_EQ(data.size(), 1u);
    const auto& lines = data[0];
    ASSERT_GE(lines.size(), 4u);
    EXPECT_EQ(lines[0].rfind("vx_data_msg_req:appName=e2e;", 0), 0u) << lines[0];
    EXPECT_NE(lines[0].find(";testIdx=1;"), std::string::npos) << lines[0];
    /* The opening line's extra line feed and record 99's own come first. */
    EXPECT_EQ(lines[1], "");
    EXPECT_EQ(lines[2], "");
    EXPECT_EQ(lines[3], "99,NewConnection,FPGVersion:1.0");
    EXPECT_EQ(lines.back(), "10,");

    const auto seq = sequence(lines);
    EXPECT_EQ(static_cast<long long>(seq.size()), host.number("offered"));
    EXPECT_TRUE(consecutive(seq));
    EXPECT_EQ(host.number("discard"), 0);
}

TEST(CollectorLink, SurvivesACollectorRestartAndStreamsAgainAfterRecord99)
{
    e2e::Collector first(e2e::collector_options());
    ASSERT_EQ(first.start(), 0);
    const int port = first.port();
    e2e::Host host({"stream", "30"}, port);
    ASSERT_TRUE(e2e::eventually([&] { return !first.data_connections().empty() &&
                                             sequence(first.data_connections()[0]).size() > 50; },
                                20));
    first.stop();

    apr_sleep(apr_time_from_sec(2));
    e2e::Collector second(e2e::collector_options(port));
    ASSERT_EQ(second.start(), 0);
    ASSERT_EQ(host.wait(60), 0);
    const vxc::Counts& counts = second.stop();

    EXPECT_GE(counts.control_connections, 1u);
    EXPECT_EQ(counts.malformed, 0u);
    EXPECT_EQ(host.values("session").size(), 2u) << "one session before the restart, one after";
    const auto before = sequence(first.data_connections()[0]);
    const auto after_conns = second.data_connections();
    ASSERT_FALSE(after_conns.empty());
    const auto& after = after_conns[0];
    ASSERT_GE(after.size(), 4u) << host.trace_log();
    EXPECT_NE(after[0].find(";testIdx=2;"), std::string::npos) << after[0];

    /* What the first collector took is not sent again. What the old
     * connection left unsent goes first on the new one; then record 99, then
     * the new session's records. */
    std::set<long long> seen(before.begin(), before.end());
    const auto resumed = sequence(after);
    ASSERT_FALSE(resumed.empty());
    for (long long s : resumed) EXPECT_EQ(seen.count(s), 0u) << "record " << s << " twice";
    EXPECT_TRUE(consecutive(resumed));
    EXPECT_EQ(resumed.back() + 1, host.number("offered"));
    const long long second_session_from = atoll(host.values("session_from").at(1).c_str());
    bool saw99 = false;
    for (const std::string& l : after) {
        if (l == "99,NewConnection,FPGVersion:1.0") saw99 = true;
        const auto one = sequence({l});
        if (one.empty()) continue;
        if (saw99)
            EXPECT_GE(one[0], second_session_from) << l;
        else
            EXPECT_LT(one[0], second_session_from) << "only leftovers come ahead of record 99: " << l;
    }
    EXPECT_TRUE(saw99);
}

TEST(CollectorLink, RetriesWhileNoCollectorListensAndRegistersWhenOneAppears)
{
    const int port = free_port();
    e2e::Host host({"idle", "150"}, port);
    apr_sleep(apr_time_from_sec(90));
    e2e::Collector vxc(e2e::collector_options(port));
    ASSERT_EQ(vxc.start(), 0);
    ASSERT_EQ(host.wait(200), 0);
    const vxc::Counts& counts = vxc.stop();
    EXPECT_EQ(counts.control_connections, 1u) << "registered once the collector was there";
    EXPECT_EQ(host.number("registered"), 1);
    EXPECT_GT(host.number("calls"), 100000);
    /* The host never waited on the agent's retries. */
    EXPECT_LT(host.number("slowest_call_us"), 1000000);
    EXPECT_NE(host.trace_log().find("Socket was not created and retry after 60seconds"),
              std::string::npos);
}

TEST(CollectorLink, ReconnectsWhenARegisteredCollectorFallsSilent)
{
    vxc::Options opts = e2e::collector_options();
    opts.heartbeat_ms = 0; /* the collector answers and then says nothing */
    e2e::Collector vxc(opts);
    ASSERT_EQ(vxc.start(), 0);
    e2e::Host host({"idle", "105"}, vxc.port());
    ASSERT_EQ(host.wait(150), 0);
    const vxc::Counts& counts = vxc.stop();
    EXPECT_EQ(counts.control_connections, 2u) << "a new connection after 90 s of silence";
    EXPECT_NE(host.trace_log().find("Last Received heartbeat msg time is greater than "
                                    "vxcHeartBeatThreshold"),
              std::string::npos);
    EXPECT_LT(host.number("slowest_call_us"), 1000000);
}

TEST(CollectorLink, AcceptsButNeverRepliesMeansANewAttempt)
{
    e2e::RawCollector mute([](apr_socket_t* skt, int) {
        e2e::RawCollector::read_line(skt);
        apr_sleep(apr_time_from_sec(40)); /* the request is read, nothing is said */
    });
    e2e::Host host({"idle", "40"}, mute.port());
    ASSERT_EQ(host.wait(80), 0);
    EXPECT_GE(mute.connections(), 2);
    EXPECT_NE(host.trace_log().find("No reply from the collector within 30 seconds"),
              std::string::npos);
    EXPECT_LT(host.number("slowest_call_us"), 1000000);
}

TEST(CollectorLink, HostileRepliesAreRefusedAndTheAgentKeepsTrying)
{
    const std::string reply =
        "vx_ctrl_msg_rep:result=Ok;status=NOT_RUNNING;state=1;retryPolicy=3%1%10%30;"
        "ProtoVersion=1;supportedProtocols=TCP:";
    std::atomic<int> port{0};
    /* Each connection gets the next kind of trouble; the last one is served
     * properly and then sent more trouble inside the stream. */
    e2e::RawCollector hostile([&](apr_socket_t* skt, int index) {
        const std::string request = e2e::RawCollector::read_line(skt);
        if (request.rfind("vx_ctrl_msg_req:", 0) != 0) return;
        const std::string good = reply + std::to_string(port.load()) + ";\n";
        switch (index) {
            case 0: /* an overlong line */
                e2e::RawCollector::send(skt, std::string(300000, 'x'));
                break;
            case 1: { /* binary garbage with NUL bytes */
                std::string junk(4096, '\0');
                for (size_t i = 0; i < junk.size(); ++i) junk[i] = static_cast<char>(i * 37 % 256);
                e2e::RawCollector::send(skt, junk);
                break;
            }
            case 2: /* a line of another head */
                e2e::RawCollector::send(skt, "vx_control_rep:action=modify;result=Ok;\n");
                break;
            case 3: /* half a reply's head, then the connection closes */
                e2e::RawCollector::send(skt, good.substr(0, 20));
                break;
            case 4: /* a good reply, then half a line and a close */
                e2e::RawCollector::send(skt, good);
                e2e::RawCollector::send(skt, "vx_control_req:action=stop_instr");
                break;
            default: /* a good reply, then garbage and an overlong line in the stream */
                e2e::RawCollector::send(skt, good);
                e2e::RawCollector::send(skt, std::string(1, '\0') + "nonsense without a head\n");
                e2e::RawCollector::send(skt, std::string(200000, 'y') + "\n");
                apr_sleep(apr_time_from_sec(3));
                break;
        }
    });
    port = hostile.port();
    e2e::Host host({"idle", "20"}, hostile.port());
    ASSERT_EQ(host.wait(60), 0);
    EXPECT_GE(hostile.connections(), 7) << "every refusal is followed by a new attempt";
    const std::string log = host.trace_log();
    EXPECT_NE(log.find("due to invalid message receive"), std::string::npos);
    EXPECT_NE(log.find("Control line longer than 131072 bytes"), std::string::npos);
    EXPECT_LT(host.number("slowest_call_us"), 1000000);
}

TEST(CollectorLink, LoadAgainstASlowCollectorCountsEveryRecordOnceAndNeverBlocks)
{
    vxc::Options opts = e2e::collector_options();
    opts.data_read_rate = 4 * 1024 * 1024; /* 4 MB/s: the producers are far faster */
    e2e::Collector vxc(opts);
    ASSERT_EQ(vxc.start(), 0);
    /* A PHP agent keeps 31 buffers of 100 KB. */
    e2e::Host host({"load", "10", "4"}, vxc.port(), {"E2E_AGENT_TYPE=php"});
    ASSERT_EQ(host.wait(180), 0);
    const vxc::Counts& counts = vxc.stop();

    const long long offered = host.number("offered");
    const long long discard = host.number("discard");
    EXPECT_EQ(host.number("drained"), 1);
    EXPECT_EQ(host.number("buffers"), 31);
    EXPECT_GT(discard, 0) << "a slow collector makes the agent drop, not wait";
    auto it = counts.per_record.find(100);
    const long long received = it == counts.per_record.end() ? 0 : static_cast<long long>(it->second);
    EXPECT_EQ(offered, received + discard);
    EXPECT_EQ(counts.malformed, 0u);
    /* Far more was offered than memory could hold: the rings bound it. */
    const long long grown_kb = host.number("peak_rss_kb") - host.number("base_rss_kb");
    EXPECT_GT(offered * 200 / 1024, 10 * (grown_kb + host.number("ring_bytes") / 1024));
    EXPECT_LT(grown_kb, 64 * 1024);
}
