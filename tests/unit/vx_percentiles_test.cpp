/*
 * BT percentiles: the keyword's fields, what the fold feeds the digests (one
 * total per record and interval), records 96 and 121 as the channel carries
 * them, the life of each kind of digest, and a digest that follows its BT.
 */
#include "monitor/vx_bt_percentiles.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "agent/vx_instance.h"
#include "core/vx_thread.h"
#include "monitor/vx_bt_monitor.h"
#include "monitor/vx_percentiles.h"
#include "session/vx_keyword_parsers.h"
#include "vx_sdk.h"
#include "vx_test_support.h"

namespace {

using namespace vx_test;

constexpr long long kStart = kEpoch + 7000000;

const auto records = vx_test::digest_records;
const auto means = vx_test::tdigest_means;

class Percentiles : public testing::Test {
protected:
    void SetUp() override
    {
        vx_test::fresh_bt_monitor();
        app_->VXSys.enableTagsSupport = 0;
    }
    void TearDown() override
    {
        vx::bt_digests_release_all();
        for (VXPerThreadData_t* r : records_) free_tls_slot(r);
    }

    /* A session at kStart with the auto-sensor channel, two records to
     * count on, and the keyword's value. */
    void live(const char* value)
    {
        clock_.emplace(kStart, 0);
        session_.emplace(7, kEpoch);
        channel_.emplace();
        keyword(value);
        records_ = {get_free_tls_slot(), get_free_tls_slot()};
    }

    static void keyword(const char* value)
    {
        std::string v = value;
        setDigestPercentileBT(v.data(), S("tDigestPercentileBT"), 0);
    }

    /* One interval: each (record, BT, ms) counted, then the fold. */
    struct Count {
        int record;
        BTObject* bt;
        long long ms;
    };
    void interval(std::initializer_list<Count> counts)
    {
        for (const Count& c : counts) {
            VXPerThreadData_t* td = records_[static_cast<size_t>(c.record)];
            td->tlBTObj = c.bt;
            td->tlCategory = kCategoryNormal;
            td->tlDuration = c.ms;
            updateCounterAndDurationForBT(td);
        }
        std::vector<char> buf(65536);
        int len = 0;
        generateAndDumpBTMonitoringRecord(buf.data(), &len, 65536);
    }

    /* What the channel holds, as records. */
    std::vector<DigestRecord> sent() { return records(channel_->take()); }

    static BTObject* bt_named(const char* name)
    {
        char buf[vx::kBTNameSize];
        snprintf(buf, sizeof buf, "%s", name);
        return updateBTObject(buf);
    }

    VXProxyInstance_t* app_ = vx_test::agent();
    VXTDigestPercentileBT_t& cfg_ = app_->percentiles.TDigestPercentileBT;
    vx_test::Restore keep_{app_->VXBCISetting, app_->VXSys, app_->percentiles.TDigestPercentileBT,
                           app_->percentiles.TDigestPercentileIP};
    std::optional<vx_test::FrozenClock> clock_;
    std::optional<vx_test::SessionScope> session_;
    std::optional<vx_test::ASChannelScope> channel_;
    std::vector<VXPerThreadData_t*> records_;
};

TEST_F(Percentiles, KeywordFieldsAreTakenFromTheLeftAndWhatIsOutOfRangeKeepsItsValue)
{
    keyword("1%2010");
    EXPECT_EQ(cfg_.is_enabled, 1);
    EXPECT_EQ(cfg_.aggregate_time, 600000);
    keyword("1%201h");
    EXPECT_EQ(cfg_.aggregate_time, 3600000);
    keyword("1%2010%201%20200%2050%20900%207");
    EXPECT_EQ(cfg_.serialization, 1);
    EXPECT_DOUBLE_EQ(cfg_.delta, 0.005);
    EXPECT_EQ(cfg_.k, 50u);
    EXPECT_EQ(cfg_.group_id, 900);
    EXPECT_EQ(cfg_.graph_id, 7);

    const VXTDigestPercentileBT_t before = cfg_;
    keyword("0%201"); /* kind 0 leaves everything */
    keyword("3");
    keyword("2%200%203%200%200");             /* period, form, 1/delta and K refused */
    EXPECT_EQ(cfg_.is_enabled, 2);           /* the kind alone was taken */
    EXPECT_EQ(cfg_.aggregate_time, before.aggregate_time);
    EXPECT_EQ(cfg_.serialization, before.serialization);
    EXPECT_EQ(cfg_.k, before.k);
    keyword("1%2010%202%2010000%201000"); /* 10^7 compression: too large a digest */
    EXPECT_DOUBLE_EQ(cfg_.delta, before.delta);
    EXPECT_EQ(cfg_.k, before.k);
    EXPECT_EQ(cfg_.serialization, 2);
    EXPECT_EQ(app_->percentiles.TDigestPercentileIP.is_enabled, 0) << "the other family";
}

TEST_F(Percentiles, EachRecordsIntervalTotalFeedsTheTDigestAndADumpSendsItOnce)
{
    live("1%205%201");
    BTObject* a = bt_named("/pct/a");
    BTObject* b = bt_named("/pct/b");
    /* Record 0 serves a twice in the first interval: one value, their
     * total. b's 0 ms is below the t-digest's floor of 1. */
    interval({{0, a, 10}, {0, a, 20}, {1, a, 50}, {1, b, 0}});
    interval({{1, a, 70}});
    sent();

    generateAndDumpPartialDigestBTRecords();
    const auto recs = sent();
    ASSERT_EQ(recs.size(), 2u);
    EXPECT_EQ(recs[0].head, "96,3|4|793|1:T>S>I>/pct/a,7000000,52");
    EXPECT_EQ(recs[1].head, "96,3|4|793|1:T>S>I>AllTransactions,7000000,52");
    EXPECT_EQ(recs[0].body.size(), 16u + 3 * 12); /* verbose: doubles and 32-bit counts */
    EXPECT_EQ(means(recs[0].body), (std::vector<double>{30, 50, 70}));
    EXPECT_EQ(means(recs[1].body), (std::vector<double>{30, 50, 70}));
    EXPECT_EQ(cfg_.nextLogTime, 7000000 + 300000);

    generateAndDumpPartialDigestBTRecords();
    EXPECT_TRUE(sent().empty()) << "a t-digest goes with its dump";

    /* A record larger than the work buffer goes to the channel on its own. */
    interval({{0, a, 5}});
    std::vector<char> small(64);
    int len = 0;
    {
        vx::VXLockGuard report(app_->VXBTMonitor.reportLock);
        vx::VXLockGuard lock(app_->percentiles.lock);
        EXPECT_EQ(generateAndDumpTDigestDataForBT(small.data(), &len, 64), 1);
    }
    EXPECT_EQ(len, 0);
    const auto alone = sent();
    ASSERT_EQ(alone.size(), 2u);
    EXPECT_EQ(means(alone[0].body), std::vector<double>{5});
}

TEST_F(Percentiles, CDigestsStayForTheSessionAndNameTheirSeriesAsRecord74Does)
{
    live("2%201");
    cfg_.nextLogTime = 0;
    vx::bt_percentiles_schedule(7000000);
    vx::bt_percentiles_schedule(7000000 + 30000); /* a reconnect puts nothing off */
    BTObject* a = bt_named("/cd/a");
    interval({{0, a, 1}, {1, a, 70}});
    sent();
    std::vector<char> buf(vx::kASWorkBufferSize);
    vx::bt_percentiles_dump_due(buf.data(), vx::kASWorkBufferSize, 7000000 + 59999);
    EXPECT_TRUE(sent().empty()) << "not due before its period";

    vx::bt_percentiles_dump_due(buf.data(), vx::kASWorkBufferSize, 7000000 + 60000);
    auto recs = sent();
    ASSERT_EQ(recs.size(), 2u);
    const std::string id = std::to_string(a->bt_id);
    /* Buckets 1 to 67 (70 and 71 share bucket 67), a byte each. */
    const std::string bytes = std::to_string(48 + 67);
    EXPECT_EQ(recs[0].head, "121,3|4|793|1|" + id + ":T>S>I>/cd/a||7000000," + bytes);
    EXPECT_EQ(recs[1].head, "121,3|4|793|1|0:T>S>I>AllTransactions||7000000," + bytes);
    EXPECT_EQ(recs[0].body, recs[1].body);
    double q[2];
    const double at[2] = {0.5, 1.0};
    ASSERT_EQ(tslb_cdigest_get_quantile_many(
                  reinterpret_cast<const tslb_cdigest_packed*>(recs[0].body.data()),
                  recs[0].body.size(), at, 2, q),
              2);
    EXPECT_EQ(q[0], 1);
    EXPECT_EQ(q[1], 70);
    EXPECT_EQ(cfg_.nextLogTime, 7000000 + 120000);

    /* Nothing new: the BT still has its record, a header alone. With tags
     * on, its series id is its counter slot + 1, as on record 74. */
    app_->VXSys.enableTagsSupport = 1;
    vx::bt_percentiles_dump_due(buf.data(), vx::kASWorkBufferSize, 7000000 + 120000);
    recs = sent();
    ASSERT_EQ(recs.size(), 2u);
    EXPECT_EQ(recs[0].head, "121,3|4|793|1|1:T>S>I>/cd/a||7000000,48");
    EXPECT_EQ(recs[1].body.size(), 48u);
}

TEST_F(Percentiles, ADigestFollowsItsBTWhenItsIdIsBoundAnew)
{
    live("1%205");
    BTObject* old = bt_named("/bound/old");
    interval({{0, old, 40}});
    /* A rule file gives the id to a new BT: the old one's values are not its. */
    BTObject* fresh = bt_named("/bound/new");
    const int id = old->bt_id;
    fresh->bt_id = id;
    {
        vx::VXLockGuard guard(app_->manager.bt_obj_map_lock);
        checkAndIncrementAggrBTDataArray(fresh);
    }
    interval({{0, fresh, 90}});
    sent();
    generateAndDumpPartialDigestBTRecords();
    const auto recs = sent();
    ASSERT_EQ(recs.size(), 2u);
    EXPECT_NE(recs[0].head.find(">/bound/new,"), std::string::npos) << recs[0].head;
    EXPECT_EQ(means(recs[0].body), std::vector<double>{90});
}

}  // namespace
