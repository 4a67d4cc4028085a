/*
 * The pool of per-transaction records and flowpath instance numbers.
 */
#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <thread>
#include <vector>

#include "agent/vx_instance.h"
#include "flowpath/vx_per_thread_data.h"
#include "vx_sdk.h"
#include "vx_test_support.h"

namespace {

using namespace vx_test;

VXTLSPool_t& pool() { return vx_test::agent()->tlsPool; }

TEST(RecordPool, GrowsByBlocksOf64AndNumbersRecordsOnFromTheBusyCount)
{
    SessionScope session(7, kEpoch);
    const int before = pool().g_tlsidx;
    ASSERT_EQ(before % 64, 0);
    ASSERT_EQ(pool().gBusyTLSCnt, 0);

    /* Take every free record, then one more. */
    std::vector<VXPerThreadData_t*> taken;
    for (int i = 0; i < before; ++i) taken.push_back(get_free_tls_slot());
    EXPECT_EQ(pool().gFreeTLSCnt, 0);
    VXPerThreadData_t* extra = get_free_tls_slot();
    ASSERT_NE(extra, nullptr);
    EXPECT_EQ(pool().g_tlsidx, before + 64);
    EXPECT_EQ(extra->tlsIdx, before);
    EXPECT_EQ(extra->tlThreadId, before + 1) << "numbers go on from the busy records";
    EXPECT_EQ(pool().gFreeTLSCnt, 63);
    EXPECT_EQ(pool().gBusyTLSCnt, before + 1);

    for (VXPerThreadData_t* r : taken) free_tls_slot(r);
    free_tls_slot(extra);
    EXPECT_EQ(pool().gBusyTLSCnt, 0);
    EXPECT_EQ(pool().gFreeTLSCnt, pool().g_tlsidx);
    EXPECT_EQ(pool().gBusyTLSHead, nullptr);
    EXPECT_EQ(pool().gBusyTLSTail, nullptr);
}

TEST(RecordPool, ReturnedRecordIsReusedAndBadReturnsAreRefused)
{
    SessionScope session(7, kEpoch);
    /* Drain the free list so that the next return is its only element. */
    std::vector<VXPerThreadData_t*> taken;
    while (pool().gFreeTLSCnt > 0) taken.push_back(get_free_tls_slot());
    VXPerThreadData_t* last = taken.back();
    taken.pop_back();
    free_tls_slot(last);
    EXPECT_EQ(get_free_tls_slot(), last);

    free_tls_slot(nullptr); /* logs and returns */
    free_tls_slot(last);
    const int free_count = pool().gFreeTLSCnt;
    free_tls_slot(last); /* a second return of the same record is refused */
    EXPECT_EQ(pool().gFreeTLSCnt, free_count);
    for (VXPerThreadData_t* r : taken) free_tls_slot(r);
    EXPECT_EQ(pool().gFreeTLSCnt, pool().g_tlsidx);
}

TEST(FlowpathInstance, LayoutHoldsTimestampAndOddSequence)
{
    VXProxyInstance_t* app = vx_test::agent();
    FrozenClock clock(kEpoch + 0x1234, 0);
    SessionScope session(7, kEpoch);
    app->VXSys.rSeq = 0;
    long long first = generate_flowpath_instance();
    long long second = generate_flowpath_instance();
    EXPECT_EQ(first, 0x4000000000000000LL + (0x1234LL << 8) + 1);
    EXPECT_EQ(second - first, 2) << "consecutive instances differ by 2 in the low byte";

    /* 128 instances in one millisecond are distinct; the 129th wraps. */
    app->VXSys.rSeq = 0;
    std::set<long long> seen;
    for (int i = 0; i < 128; ++i) seen.insert(generate_flowpath_instance());
    EXPECT_EQ(seen.size(), 128u);
    EXPECT_EQ(seen.count(generate_flowpath_instance()), 1u);
}

TEST(FlowpathInstance, MaskKeywordWidensTheSequenceAndIgnoresShortValues)
{
    VXProxyInstance_t* app = vx_test::agent();
    FrozenClock clock(kEpoch + 3, 0);
    SessionScope session(7, kEpoch);
    char short_value[] = "1%20ff%2010";
    parse_flowpath_mask(short_value);
    EXPECT_EQ(app->VXSys.timeStampMask, 0x3fffffffffLL);

    char value[] = "0%20fffffff%2012%20fff";
    parse_flowpath_mask(value);
    EXPECT_EQ(app->VXSys.flowPathInstanceInitialID, 0x4000000000000000LL) << "never changed";
    EXPECT_EQ(app->VXSys.timeStampMask, 0xfffffffLL);
    EXPECT_EQ(app->VXSys.seqNoDigits, 12);
    EXPECT_EQ(app->VXSys.seqNumMask, 0xfff);
    app->VXSys.rSeq = 0;
    EXPECT_EQ(generate_flowpath_instance(), 0x4000000000000000LL + (3LL << 12) + 1);

    char defaults[] = "0%203fffffffff%208%20ff";
    parse_flowpath_mask(defaults);
    EXPECT_EQ(app->VXSys.seqNumMask, 255);
}

TEST(FlowpathInstance, ConcurrentCallersNeverShareASequenceWithinOneMillisecond)
{
    FrozenClock clock(kEpoch + 77, 0);
    SessionScope session(7, kEpoch);
    /* 8 threads take 16 instances each: 128 in one millisecond, all distinct
     * only if the counter's steps are atomic. Repeated to give races a chance. */
    for (int round = 0; round < 200; ++round) {
        std::vector<long long> got(128);
        std::vector<std::thread> threads;
        for (int t = 0; t < 8; ++t)
            threads.emplace_back([&got, t] {
                for (int i = 0; i < 16; ++i) got[t * 16 + i] = generate_flowpath_instance();
            });
        for (auto& th : threads) th.join();
        ASSERT_EQ(std::set<long long>(got.begin(), got.end()).size(), 128u) << "round " << round;
    }
}

TEST(RecordPool, EightHostThreadsRunTenThousandTransactionsEach)
{
    SessionScope session(7, kEpoch);
    VXProxyInstance_t* app = vx_test::agent();
    app->VXSys.bciInstrSessionPct = 100;
    RecordSink sink;
    constexpr int kThreads = 8;
    constexpr int kCycles = 10000;
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&failures, t] {
            char url[32];
            snprintf(url, sizeof url, "/load/%d", t % 4);
            for (int i = 0; i < kCycles; ++i) {
                auto* td = static_cast<VXPerThreadData_t*>(
                    startFP(nullptr, url, nullptr, nullptr, nullptr, nullptr, nullptr, -1, 0));
                if (!td) {
                    ++failures;
                    continue;
                }
                endFP(td, 200, nullptr, 0, 0, 0, nullptr);
                reset(td);
            }
        });
    for (auto& th : threads) th.join();

    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(sink.of_type(2).size(), static_cast<size_t>(kThreads * kCycles));
    EXPECT_EQ(sink.of_type(4).size(), static_cast<size_t>(kThreads * kCycles));
    EXPECT_EQ(pool().gBusyTLSCnt, 0);
    EXPECT_EQ(pool().gFreeTLSCnt, pool().g_tlsidx);
    EXPECT_EQ(pool().g_tlsidx % 64, 0);
    int walked = 0;
    for (VXPerThreadData_t* r = pool().gFreeTLSHead; r; r = r->free_next) ++walked;
    EXPECT_EQ(walked, pool().gFreeTLSCnt) << "the free list holds every record once";
    EXPECT_EQ(app->methodTable.methodHashMapNode->ref_count, 0);
    /* More than 128 flowpaths a millisecond share instance numbers; the map
     * must still end empty, with no entry left behind by a shared number. */
    EXPECT_EQ(apr_hash_count(app->fpiToTLS), 0u);
}

}  // namespace
