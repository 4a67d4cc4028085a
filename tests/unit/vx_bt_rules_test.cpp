/*
 * Business transactions by rule: names and ids a request gets under the
 * default, global and pattern rules, record 7, the fold into "Others", the
 * rule and threshold files (also hostile ones), categories and tags. A rule
 * file replaced while host threads run is tested end to end.
 */
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "agent/vx_instance.h"
#include "bt/vx_bt_object.h"
#include "bt/vx_bt_rule_exec.h"
#include "bt/vx_bt_rule_file.h"
#include "bt/vx_bt_tags.h"
#include "core/vx_atomic.h"
#include "flowpath/vx_flowpath.h"
#include "monitor/vx_bt_monitor.h"
#include "vx_sdk.h"
#include "vx_test_support.h"

namespace {

using namespace vx_test;

/* A fresh model with no rule files in the home directory: the default
 * global rule is in force. */
class BTRules : public testing::Test {
protected:
    void SetUp() override
    {
        app_ = vx_test::agent();
        VXBTConfigModelInit();
    }
    void TearDown() override
    {
        app_->isRunTime = 0;
        app_->allSlow = 3000;
        app_->allVerySlow = 5000;
        app_->maxStates = 128;
        app_->skipCount = 0;
        VXBTConfigModelInit();
    }

    void rules(std::string text) { vxbt_read_rule_file(text.data()); }

    /* The BT of a request "path?query|METHOD" with a BT header, or null. */
    BTObject* classify(std::string url, std::string header = "")
    {
        std::string method, query;
        if (size_t bar = url.find('|'); bar != std::string::npos) {
            method = url.substr(bar + 1);
            url.resize(bar);
        }
        if (size_t q = url.find('?'); q != std::string::npos) {
            query = url.substr(q + 1);
            url.resize(q);
        }
        return get_obj_from_bt_name(url.data(), query.data(),
                                    header.empty() ? nullptr : header.data(), nullptr,
                                    method.data());
    }
    std::string name_of(std::string url, std::string header = "")
    {
        BTObject* bt = classify(std::move(url), std::move(header));
        return bt ? std::to_string(bt->bt_id) + ":" + bt->bt_name : "excluded";
    }
    std::string global_name(std::string rule, const char* url, const char* query = "",
                            const char* method = "", const char* header = nullptr)
    {
        rules(rule);
        char name[vx::kBTNameSize];
        char* r =
            vxbt_execute_global_rule(S(url), S(query), S(method), S(header), name, sizeof name);
        return r ? r : "<null>";
    }

    VXProxyInstance_t* app_ = nullptr;
};

TEST_F(BTRules, DefaultRuleNamesByTwoSegmentsAndTheHeaderItemAndAnnouncesEachNewBTOnce)
{
    SessionScope session;
    RecordSink sink;
    EXPECT_EQ(name_of("/a/b/c"), "2:/a/b");
    EXPECT_EQ(name_of("/a/b/d"), "2:/a/b");
    EXPECT_EQ(name_of("/x"), "3:/x");
    EXPECT_EQ(name_of("/a/b/c", "CustomeHeader=v&k=1"), "4:/a/b.v");
    EXPECT_EQ(name_of("/a/b/c", "k=1&CustomeHeader=v"), "2:/a/b"); /* no '&' behind it */
    EXPECT_EQ(sink.of_type(7),
              (std::vector<std::string>{"7,2,/a/b\n", "7,3,/x\n", "7,4,/a/b.v\n"}));
}

TEST_F(BTRules, PastMaxBTCountNewNamesFoldIntoOthersAnnouncedOnceAndIdsAreNeverReused)
{
    SessionScope session;
    RecordSink sink;
    app_->config.max_bt_count = 3;
    EXPECT_EQ(name_of("/a"), "2:/a");
    EXPECT_EQ(name_of("/b"), "3:/b");
    EXPECT_EQ(name_of("/c"), "1:Others");
    EXPECT_EQ(name_of("/d"), "1:Others");
    EXPECT_EQ(name_of("/b"), "3:/b");
    EXPECT_EQ(sink.of_type(7), (std::vector<std::string>{"7,2,/a\n", "7,3,/b\n", "7,1,Others\n"}));
    /* An empty name makes no object: the transaction is excluded. */
    EXPECT_EQ(name_of("/a", ""), "2:/a");
    app_->config.max_bt_count = 4;
    rules("1|2|n|t|FromFirst|0|-|-|-");
    EXPECT_EQ(name_of("/q/r"), "excluded");
    EXPECT_EQ(name_of("/q/s"), "excluded"); /* and takes no id */
    rules("1|1|n|t|-|-|-|-|-");
    EXPECT_EQ(name_of("/e"), "4:/e");
}

TEST_F(BTRules, EveryGlobalRuleVariantBuildsItsName)
{
    struct Case {
        const char* rule;
        const char* url;
        const char* query;
        const char* method;
        const char* header;
        const char* name;
    } cases[] = {
        {"1|1|n|t|-|-|-|-|-", "/a/b/c", "", "", nullptr, "/a/b/c"},
        {"1|2|n|t|FromLast|3|-|-|-", "/a/b/c/d/e", "", "", nullptr, "/c/d/e"},
        {"1|2|n|t|FromLast|3|-|-|-", "/a/b", "", "", nullptr, "/a/b"},
        {"1|2|n|t|FromFirst|2|-|-|-", "/a", "", "", nullptr, "/a"},
        {"1|2|n|t|whole|2|-|-|-", "/a/b/c/d", "", "", nullptr, "/a/b/c/d"},
        {"1|1|n|t|-|-|Request-Method|-|-", "/a/b", "", "", nullptr, "/a/b"},
        {"1|1|n|t|-|-|Request-Method|-|-", "/a/b", "", "GET", nullptr, "/a/b.GET"},
        {"1|2|n|t|FromFirst|1|Request-Method|-|-", "/a/b", "", "PUT", nullptr, "/a.PUT"},
        {"1|2|n|t|FromFirst|1|Request-Parameter-Value|id|-", "/a/b", "x=1&id=7&y=2", "", nullptr,
         "/a.7"},
        {"1|2|n|t|FromFirst|1|Request-Parameter-Value|id|-", "/a/b", "id=9", "", nullptr, "/a.9"},
        {"1|2|n|t|FromFirst|1|Request-Parameter-Value|id|-", "/a/b", "xid=9", "", nullptr, "/a"},
        {"1|1|n|t|-|-|Request-Parameter-Value|id|-", "/a/b", "id=", "", nullptr, "/a/b"},
        {"1|2|n|t|FromFirst|1|Request-Header|tenant|-", "/a/b", "", "", "gold", "/a.gold"},
        {"1|2|n|t|FromFirst|1|Request-URI-Segments-Numbers|3%2C1|-", "/a/b/c", "", "", nullptr,
         "/a/c/a"},
        {"1|2|n|t|FromFirst|1|Request-URI-Segments-Numbers|2%2C5%2C1|-", "/a/b", "", "", nullptr,
         "/a/b"},
        {"1|2|n|t|FromFirst|1|Request-URI-Segments-Numbers|-|-", "/a/b/c", "", "", nullptr,
         "/a/a/b"},
        {"1|2|n|t|FromFirst|1|-|-", "/a/b/c", "", "", "v",
         "/a/b.v"}, /* 8 fields: the default rule */
    };
    for (const Case& c : cases)
        EXPECT_EQ(global_name(c.rule, c.url, c.query, c.method, c.header), c.name)
            << c.rule << " " << c.url;
    /* Segments are chosen on a copy: the caller's URL stays whole. */
    rules("1|2|n|t|FromFirst|1|Request-URI-Segments-Numbers|2|-");
    char url[] = "/a/b/c";
    char name[vx::kBTNameSize];
    vxbt_execute_global_rule(url, nullptr, nullptr, nullptr, name, sizeof name);
    EXPECT_STREQ(url, "/a/b/c");
}

TEST_F(BTRules, PatternRulesClassifyWithoutNamesAndHeaderTokensRefineThem)
{
    rules(
        "# shop\n"
        "7|Cart|5|0|/cart|0|-\n"
        "7|Item|6|1|/item/|0|-\n"
        "7|Admin|7|0|/admin|1|-\n"
        "7|Search|9|0|/search|0|1|q=shoes|-|-|-|-|-|-|-\n"
        "7|Huge|70000|0|/huge|0|-\n");
    EXPECT_EQ(vx::load_relaxed(app_->bt_rule), kBTRulePattern);
    EXPECT_EQ(name_of("/cart"), "5:Cart");
    EXPECT_EQ(name_of("/item/42"), "6:Item");
    EXPECT_EQ(name_of("/item/7?x=1"), "6:Item");
    EXPECT_EQ(name_of("/admin"), "excluded");
    EXPECT_EQ(name_of("/search?page=2&q=shoes"), "9:Search");
    EXPECT_EQ(name_of("/search?q=boots"), "1:Others");
    EXPECT_EQ(name_of("/nowhere"), "1:Others");
    EXPECT_EQ(name_of("/huge"), "excluded"); /* beyond the monitor's array */

    /* A header token names one tenant's requests; a rule without one keeps
     * its id for any header, and an empty header sends both to "Others". */
    rules("7|Api|8|0|/api|0|0|-|-|tenant=gold|-|-|-|-|-\n7|Cart|5|0|/cart|0|-\n");
    EXPECT_EQ(name_of("/api", "x=1&tenant%3Dgold"), "8:Api");
    EXPECT_EQ(name_of("/api", "tenant=silver"), "1:Others");
    EXPECT_EQ(name_of("/cart", "tenant=silver"), "5:Cart");
    EXPECT_EQ(name_of("/cart"), "1:Others");

    /* A host names the header it passes through the exported header rule. */
    EXPECT_EQ(getBTHeaderName(), nullptr);
    EXPECT_EQ(parse_header_rule(S("no bar")), -1);
    EXPECT_EQ(parse_header_rule(S("rule|X-Tenant")), 0);
    EXPECT_STREQ(getBTHeaderName(), "X-Tenant");
}

TEST_F(BTRules, TheRuleFileAppliesPatternOverCustomOverGlobalAndKindsWhereverTheyStand)
{
    rules("1|1|n|t|-|-|-|-|-\n7|Cart|5|0|/cart|0|-\n5|4096\n4|3\n");
    EXPECT_EQ(app_->maxStates, 4096); /* a kind 5 line after the pattern lines still sizes them */
    EXPECT_EQ(app_->skipCount, 3);
    EXPECT_EQ(vx::bt_pattern_machines()->stateMachine.max_state, 4096);
    EXPECT_EQ(name_of("/cart"), "5:Cart");

    rules("1|1|n|t|-|-|-|-|-\n2|2|r|Matched|x|1|1|[input1=contains&&input2=shop&&input3=none]|-\n");
    EXPECT_EQ(vx::load_relaxed(app_->bt_rule), kBTRuleGlobal);
    EXPECT_EQ(app_->custom_rule.keyword_count, 1u);
    EXPECT_EQ(name_of("/a/b"), "3:others"); /* the custom rule wins; its own "others" BT */

    /* A refused pattern line leaves the others standing. */
    VXBTConfigModelInit();
    rules("7|Bad|5|0|/bad|0|3|x=1|-\n7|Good|6|0|/good|0|-\n");
    EXPECT_EQ(name_of("/good"), "6:Good");
    EXPECT_EQ(name_of("/bad?x=1"), "1:Others");
}

TEST_F(BTRules, HostileRuleAndThresholdFilesAreLoggedAndTheAgentKeepsServing)
{
    std::string huge = "7|Long|5|0|/" + std::string(3000, 'a') + "|0|-\n";
    std::string binary = "7|Bin|6|0|/b\x01\xff\x80|0|-\n\x01|\n";
    std::string many;
    for (int i = 0; i < 3000; ++i)
        many += "7|Page" + std::to_string(i) + "|" + std::to_string(i + 10) + "|0|/p/" +
                std::to_string(i) + "|0|-\n";
    rules(huge + binary + "7|\n7||||\n1|\n2|\n8|\n9|x\n11|\n|||||\n" + many +
          "7|Cart|5|0|/cart|0|-\n");
    EXPECT_EQ(name_of("/cart"), "5:Cart");
    EXPECT_EQ(name_of("/p/2999"), "3009:Page2999");
    EXPECT_EQ(name_of("/b\x01"), "1:Others");

    app_->allSlow = 3000;
    app_->allVerySlow = 5000;
    std::string t =
        "ALL|100|100\nALL|0|5\nx|1\n" + std::string(5000, '|') + "\nall|100|200\n\x01|\xff|2\n";
    EXPECT_EQ(vxbt_read_threshold_file(t.data()), 0);
    EXPECT_EQ(app_->allSlow, 100);
    EXPECT_EQ(app_->allVerySlow, 200);
    EXPECT_EQ(vxbt_read_threshold_file(nullptr), -1);
    const std::string log = vx_test::trace_log_text();
    EXPECT_NE(
        log.find(
            "Number of fields in BTRule File for pattern based is  < 6, hence BTname = others"),
        std::string::npos);
    EXPECT_NE(log.find("Invalid values: slow '100' >= very slow '100'"), std::string::npos);
    EXPECT_NE(log.find("Invalid value(s): slow '0', very slow '5'"), std::string::npos);
    EXPECT_NE(log.find("Invalid threshold line = 'x|1', num_fields = 2"), std::string::npos);
}

TEST_F(BTRules, CategoriesComeFromTheErrorTableFirstThenTheThresholdsInclusive)
{
    const Threshold t{100, 200};
    EXPECT_EQ(findCategoryOfBT(t, 99, 200, nullptr), kCategoryNormal);
    EXPECT_EQ(findCategoryOfBT(t, 100, 200, nullptr), kCategorySlow);
    EXPECT_EQ(findCategoryOfBT(t, 200, 200, nullptr), kCategoryVerySlow);
    EXPECT_EQ(findCategoryOfBT(t, 1, 500, nullptr), kCategoryError);
    EXPECT_EQ(findCategoryOfBT(t, 5000, 503, nullptr), kCategoryError);
    EXPECT_EQ(findCategoryOfBT(t, 5000, 600, nullptr), kCategoryVerySlow);
    EXPECT_EQ(findCategoryOfBT(t, 1, -99, nullptr), kCategoryNormal);
}

TEST_F(BTRules, TagListsTakeNewKeysOnlyAndResolveInlineValuesAtOnce)
{
    rules(
        "1|2|n|t|FromFirst|2|-|-|g1%200%20one&Technology%200%20x\n"
        "7|Cart|5|0|/cart|0|0|-|-|-|-|-|-|-|k1%200%20v1&g1%200%20dup&k2%202%20hdr&k3%20x%20\n");
    std::vector<std::string> got;
    vx::bt_tags_each(5, [&](const BTTagArray& t) {
        got.push_back(std::string(t.key) + "/" + std::to_string(t.type) + "/" +
                      (t.resolvedValue ? t.resolvedValue : "-"));
    });
    /* The global line is not applied (a pattern line was), but pattern tags
     * meet an empty global list. */
    EXPECT_EQ(got, (std::vector<std::string>{"k1/0/v1", "g1/0/dup", "k2/2/-"}));
    VXBTConfigModelInit();
    rules("1|2|n|t|FromFirst|2|-|-|k1%200%20bt&g2%200%20one&Technology%200%20x&g2%200%20two");
    got.clear();
    vx::bt_tags_each(-1, [&](const BTTagArray& t) {
        got.push_back(std::string(t.key) + "=" + t.resolvedValue);
    });
    EXPECT_EQ(got, (std::vector<std::string>{"g2=one"})); /* k1 is a BT's key */
}

}  // namespace
