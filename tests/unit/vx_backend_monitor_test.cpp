/*
 * The backend monitor: calls counted on their records' models and folded
 * into record 75 (also while host threads count), the lines it leaves out,
 * the "Others" backend past maxIPCount, and the backends' digests in
 * records 96 and 121.
 */
#include "monitor/vx_backend_monitor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "agent/vx_instance.h"
#include "flowpath/vx_method_table.h"
#include "flowpath/vx_per_thread_data.h"
#include "monitor/vx_backend_percentiles.h"
#include "session/vx_keyword_parsers.h"
#include "vx_test_support.h"

namespace {

using namespace vx_test;
using Lines = std::vector<std::string>;

constexpr long long kStart = kEpoch + 7000000;

/* The values of a record 75 line, behind its head. */
std::vector<double> values(const std::string& line)
{
    std::istringstream in(line.substr(line.rfind('|') + 1));
    std::vector<double> out;
    for (double v; in >> v;) out.push_back(v);
    return out;
}

class BackendMonitor : public testing::Test {
protected:
    void SetUp() override
    {
        vx_test::fresh_backend_monitor();
        app_->monitorSettings.vxMonitorIntervalInSecs = 10;
        clock_.emplace(kStart, 0);
        session_.emplace(7, kEpoch);
        records_ = {get_free_tls_slot(), get_free_tls_slot()};
    }
    void TearDown() override
    {
        vx::ip_digests_release_all();
        for (VXPerThreadData_t* td : records_) {
            resetAllThreadLocals(td, nullptr);
            free_tls_slot(td);
        }
    }

    /* One interval's records 75, as the reporting thread gets them. */
    static Lines fold()
    {
        std::vector<char> buf(vx::kASWorkBufferSize);
        int len = 0;
        generateAndDumpBackendMonitoringRecord(buf.data(), &len, vx::kASWorkBufferSize);
        return vx_test::split_lines(std::string(buf.data(), static_cast<size_t>(len)));
    }

    /* A backend as a callout's exit makes it (database by default). */
    methodPropProperties* backend(const char* name, int type = 2, int callOutValue = 10)
    {
        return searchAndUpdateMethodHashMap(S(name), app_->methodTable.methodHashMapNode, 1, type,
                                            callOutValue);
    }

    int call(int record, methodPropProperties* b, long long ms, int isError = 0)
    {
        return updateCounterAndDurationForBackend(records_[static_cast<size_t>(record)], b, ms,
                                                  isError);
    }

    static std::string head(const methodPropProperties* b, const char* name)
    {
        return "75,3|4|" + std::to_string(b->methodId) + ":T>S>I>" + name + "|";
    }

    VXProxyInstance_t* app_ = vx_test::agent();
    vx_test::Restore keep_{
        app_->VXBCISetting, app_->monitorSettings, app_->percentiles.TDigestPercentileIP,
        app_->VXBackendMonitor.isBackendMonitorOn, app_->VXBackendMonitor.maxIPCount};
    std::optional<vx_test::FrozenClock> clock_;
    std::optional<vx_test::SessionScope> session_;
    std::vector<VXPerThreadData_t*> records_;
};

TEST_F(BackendMonitor, TwoThreadsFoldIntoOneLineAndField1CountsTheSessionOnEveryRecord)
{
    methodPropProperties* db = backend("orders");
    ASSERT_NE(db, nullptr);
    /* 10, 20, 30, 40 ms, the last failed, in a 10 s interval, on two host
     * threads each counting on a record of its own. */
    std::thread a([&] { call(0, db, 10), call(0, db, 20); });
    std::thread b([&] { call(1, db, 30), call(1, db, 40, 1); });
    a.join();
    b.join();
    EXPECT_EQ(fold(), Lines{head(db, "DB_orders") +
                            "4 0.400000 25.000000 10 40 4 1 0.0 0 0 4 0.0 0 0 4 0.100000 "
                            "0 0 0 0 0 0\n"});
    /* One call on the second record; the first one's two calls still count
     * in field 1. */
    EXPECT_EQ(call(1, db, 15), 0);
    EXPECT_EQ(fold(), Lines{head(db, "DB_orders") +
                            "5 0.100000 15.000000 15 15 1 0 0.0 0 0 1 0.0 0 0 1 0.000000 "
                            "0 0 0 0 0 0\n"});
}

TEST_F(BackendMonitor, FoldsWhileThreadsCountLoseNoCallAndCountNoneTwice)
{
    methodPropProperties* db = backend("busy");
    constexpr int kCalls = 100000;
    long long sum = 0, errors = 0;
    for (int i = 0; i < kCalls; ++i) sum += (i * 7) % 113 + 1, errors += i % 9 == 0;
    std::atomic<int> done{0};
    auto work = [&](int record) {
        for (int i = 0; i < kCalls; ++i) call(record, db, (i * 7) % 113 + 1, i % 9 == 0);
        ++done;
    };
    std::thread a(work, 0), b(work, 1);
    Lines lines;
    while (done < 2)
        for (const std::string& l : fold()) lines.push_back(l);
    a.join();
    b.join();
    call(0, db, 113);
    for (const std::string& l : fold()) lines.push_back(l);

    double calls = 0, failed = 0, total = 0, mn = 1e9, mx = 0;
    for (const std::string& l : lines) {
        const std::vector<double> v = values(l);
        ASSERT_EQ(v.size(), 22u) << l;
        EXPECT_DOUBLE_EQ(v[1], v[5] / 10) << l;
        EXPECT_EQ(v[5], v[10]);
        EXPECT_EQ(v[5], v[14]);
        EXPECT_DOUBLE_EQ(v[15], v[6] / 10) << l;
        calls += v[5], failed += v[6], total += v[2] * v[5];
        mn = std::min(mn, v[3]), mx = std::max(mx, v[4]);
    }
    EXPECT_EQ(calls, 2 * kCalls + 1);
    EXPECT_EQ(failed, 2 * errors);
    EXPECT_NEAR(total, 2 * sum + 113, 1e-6 * calls); /* means have 6 decimals */
    EXPECT_EQ(mn, 1);
    EXPECT_EQ(mx, 113);
    EXPECT_EQ(values(lines.back())[0], 2 * kCalls + 1) << "field 1: every call of the session";
}

TEST_F(BackendMonitor, AnIdleBackendHasNoLineAndBackendsPastMaxIPCountShareOthers)
{
    parseMaxIPCount(S("2"), S("maxIPCount"), 0);
    methodPropProperties* http = backend("api.shop.com:8443", 1, 3);
    ASSERT_NE(backend("idle"), nullptr);
    methodPropProperties* c = backend("c");
    ASSERT_STREQ(c->methodName, "Others");
    ASSERT_EQ(backend("d"), c);
    EXPECT_EQ(call(0, http, 5), 0);
    EXPECT_EQ(call(0, c, 7), 0);
    EXPECT_EQ(call(1, c, 9, 1), 0);
    setBackendMonitorEnabled(S("0"), S("enableBackendMonitor"), 0);
    EXPECT_EQ(call(0, http, 100), 1) << "not counted while the monitor is off";
    setBackendMonitorEnabled(S("1"), S("enableBackendMonitor"), 0);
    EXPECT_EQ(call(0, nullptr, 5), 1);
    ASSERT_LT(http->methodId, c->methodId);
    /* The HTTP backend's line carries its name decoded. */
    EXPECT_EQ(fold(),
              (Lines{head(http, "HTTP_api.shop.com:8443") +
                         "1 0.100000 5.000000 5 5 1 0 0.0 0 0 1 0.0 0 0 1 0.000000 "
                         "0 0 0 0 0 0\n",
                     head(c, "Others") + "2 0.200000 8.000000 7 9 2 1 0.0 0 0 2 0.0 0 0 2 0.100000 "
                                         "0 0 0 0 0 0\n"}));
    EXPECT_TRUE(fold().empty()) << "an interval without calls has no line";
}

TEST_F(BackendMonitor, TDigestsGoWithTheirDumpAndCDigestsAreCumulativeWithTheBackendIdAsSeries)
{
    vx_test::ASChannelScope channel;
    auto keyword = [](const char* value) {
        std::string v = value;
        setDigestPercentileIP(v.data(), S("tDigestPercentileIP"), 0);
    };
    auto sent = [&] { return vx_test::digest_records(channel.take()); };
    methodPropProperties* http = backend("api.shop.com:8443", 1, 3);
    methodPropProperties* db = backend("zero");
    const std::string name = "T>S>I>HTTP_api.shop.com:8443";

    keyword("1%205%201");
    /* A record's calls of an interval are one value: 10 + 20. A 0 ms total
     * is below the t-digest's floor. */
    call(0, http, 10), call(0, http, 20), call(1, http, 50), call(1, db, 0);
    fold();
    call(0, http, 70);
    fold();
    sent();
    generateAndDumpPartialDigestIPRecords();
    std::vector<vx_test::DigestRecord> recs = sent();
    ASSERT_EQ(recs.size(), 1u) << "no overall record for backends";
    EXPECT_EQ(recs[0].head, "96,3|4|794|1:" + name + ",7000000,52");
    EXPECT_EQ(vx_test::tdigest_means(recs[0].body), (std::vector<double>{30, 50, 70}));
    EXPECT_EQ(app_->percentiles.TDigestPercentileIP.nextLogTime, 7000000 + 300000);
    generateAndDumpPartialDigestIPRecords();
    EXPECT_TRUE(sent().empty()) << "a t-digest goes with its dump";

    keyword("2%201");
    std::vector<char> buf(vx::kASWorkBufferSize);
    const std::string id = std::to_string(http->methodId);
    auto dump_at = [&](long long now) {
        vx::ip_percentiles_dump_due(buf.data(), vx::kASWorkBufferSize, now);
        return sent();
    };
    call(0, http, 1), call(1, http, 70);
    fold();
    EXPECT_TRUE(dump_at(7000000 + 59999).empty()) << "not due before its period";
    recs = dump_at(7000000 + 60000);
    ASSERT_EQ(recs.size(), 1u);
    /* Buckets 1 to 67 (70 and 71 share bucket 67), a byte each. */
    EXPECT_EQ(recs[0].head, "121,3|4|794|1|" + id + ":" + name + "||7000000,115");
    call(0, http, 5);
    fold();
    recs = dump_at(7000000 + 120000);
    ASSERT_EQ(recs.size(), 1u);
    unsigned long long count = 0;
    memcpy(&count, recs[0].body.data() + 16, sizeof count);
    EXPECT_EQ(count, 3u) << "the session's values, not the period's";
    double q[2];
    const double at[2] = {0.67, 1.0};
    ASSERT_EQ(tslb_cdigest_get_quantile_many(
                  reinterpret_cast<const tslb_cdigest_packed*>(recs[0].body.data()),
                  recs[0].body.size(), at, 2, q),
              2);
    EXPECT_EQ(q[0], 5);
    EXPECT_EQ(q[1], 70);
}

}  // namespace
