/*
 * Loaded-class discovery against vxc-lite: the collector asks on the control
 * connection, the agent answers there and streams the host's results on a
 * discovery connection of its own.
 */
#include <gtest/gtest.h>

#include <string>

#include "vx_e2e_support.h"

TEST(Discovery, TheHostsResultsAndSummaryReachTheCollectorAndNoCallbackSendsOnlyTheOpening)
{
    vxc::Options o = e2e::collector_options();
    o.discover_after_ms = 300;
    o.discover_id = "42";
    o.discover_classes = "com.shop.*,org.x";
    e2e::Collector vxc(o);
    ASSERT_EQ(vxc.start(), 0);
    /* Two agents at once: one host with a callback, one without. */
    e2e::Host with({"discover", "10", "1"}, vxc.port());
    e2e::Host without({"discover", "2", "0"}, vxc.port());
    ASSERT_EQ(with.wait(60), 0);
    ASSERT_EQ(without.wait(60), 0);
    vxc.stop();

    vxc.expect_counts(
        "control_connections=2 discovery_requests=2 discovery_answers=2 discovery_connections=2 "
        "discovery_bad_opening=0 discovery_results=2 discovery_summaries=1");
    for (const auto& lines : vxc.control_connections()) {
        int answers = 0;
        for (const std::string& l : lines)
            answers += l == "vxc_rep:action=discover_loaded_classes;Id=42;result=Success;";
        EXPECT_EQ(answers, 1);
    }
    EXPECT_EQ(with.number("discover_calls"), 1);
    EXPECT_EQ(with.value("discover_args"), "0:com.shop.*|org.x");
    EXPECT_EQ(without.number("discover_calls"), 0);

    const std::string opening =
        "agent_post_data_req:action=discover_loaded_classes;Id=42;Tier=E2ETier;Server=e2e-server;"
        "Instance=e2e;";
    const auto conns = vxc.discovery_connections();
    ASSERT_EQ(conns.size(), 2u);
    int bare = 0;
    for (const auto& lines : conns) {
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ(lines[0], opening);
        bare += lines.size() == 1;
    }
    EXPECT_EQ(bare, 1) << "without a callback nothing follows the opening line";

    const auto rows = vxc.discovery();
    ASSERT_EQ(rows.size(), 3u);
    EXPECT_EQ(rows[0].text, "com.shop.Cart|add,remove");
    EXPECT_EQ(rows[1].text, "com.shop.Order|place");
    EXPECT_EQ(rows[2].kind, "summary");
    EXPECT_EQ(rows[2].text, "agent_post_data_req:totalTimeTaken=15;classCount=2");
    for (const auto& r : rows) EXPECT_EQ(r.id, "42");
}
