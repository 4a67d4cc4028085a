/*
 * The BT monitor: flowpaths counted on their records' models, folded into
 * record 74 (by BT, by tag set and the overall line), the growth of one
 * record's array, the reset that frees it, the keywords, and the hand-off of
 * a full report buffer to the auto-sensor channel.
 */
#include "monitor/vx_bt_monitor.h"

#include <gtest/gtest.h>
#include <malloc.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "agent/vx_instance.h"
#include "core/vx_thread.h"
#include "monitor/vx_monitor_model.h"
#include "session/vx_keyword_parsers.h"
#include "vx_sdk.h"
#include "vx_test_support.h"

namespace {

using namespace vx_test;
using Lines = std::vector<std::string>;

constexpr long long kStart = kEpoch + 5000000;

/* The overall line of an interval without transactions. */
constexpr char kIdleOverall[] =
    "74,3|4|0:T>S>I>AllTransactions|0.000000 0.000000 500000.000000 0 0 0.0 0.000000 0.000000 "
    "500000.000000 0 0 0.000000 500000.000000 0 0 0.000000 500000.000000 0 0 0.000000 "
    "500000.000000 0 0 0.000000 0.000000 0.500000 0.000000 0 0.000000 2147483647 0 0 0.000000 "
    "2147483647 0 0 0.000000 2147483647 0 0\n";

class BTMonitor : public testing::Test {
protected:
    void SetUp() override
    {
        vx_test::fresh_bt_monitor();
        app_->monitorSettings.vxMonitorIntervalInSecs = 10;
    }
    void TearDown() override { vx::bt_tag_seq_source_set(nullptr); }

    /* One interval's records, as the reporting thread gets them. */
    static Lines fold(int bufLen = 65536)
    {
        std::vector<char> buf(static_cast<size_t>(bufLen));
        int len = 0;
        generateAndDumpBTMonitoringRecord(buf.data(), &len, bufLen);
        return vx_test::split_lines(std::string(buf.data(), static_cast<size_t>(len)));
    }

    /* Counts one transaction of `bt` on record `td` directly. */
    static int count(VXPerThreadData_t* td, BTObject* bt, long long ms = 1)
    {
        td->tlBTObj = bt;
        td->tlCategory = kCategoryNormal;
        td->tlDuration = ms;
        return updateCounterAndDurationForBT(td);
    }

    static BTObject* bt_named(const std::string& name)
    {
        char buf[vx::kBTNameSize];
        snprintf(buf, sizeof buf, "%s", name.c_str());
        return updateBTObject(buf);
    }

    VXProxyInstance_t* app_ = vx_test::agent();
    vx_test::Restore keep_{app_->VXBCISetting, app_->monitorSettings};
};

struct Tx {
    long long ms;
    int status;
    long long cpuNs;
    long long sync, wait, queue;
    bool excluded;
};

TEST_F(BTMonitor, RecordsOfAllCategoriesFoldIntoOneLineThenAnIdleIntervalHasOnlyTheOverallLine)
{
    FrozenClock clock(kStart, 0);
    SessionScope session(7, kEpoch);
    app_->VXSys.enableTagsSupport = 0;
    /* slow from 3000 ms, very slow from 5000 ms, 500 is an error. */
    const Tx txs[] = {
        {10, 200, 2000000, 4, 6, 15, false},  {30, 200, 4000000, 2, 0, -1, false},
        {3500, 200, 1000000, 0, 0, 0, false}, {6000, 200, 8000000, 0, 0, 5, false},
        {40, 500, 5000000, 0, 0, -1, false},  {20, 200, 9000000, 9, 9, 99, true},
    };
    /* All open at once: each counts on a record (and model) of its own. */
    std::vector<VXPerThreadData_t*> tds;
    for (const Tx& tx : txs)
        tds.push_back(static_cast<VXPerThreadData_t*>(startFP(
            nullptr, S("/shop/cart"), nullptr, nullptr, nullptr, nullptr, nullptr, tx.queue, 0)));
    const std::string bt = std::to_string(tds[0]->tlBTObj->bt_id);
    for (size_t i = 0; i < tds.size(); ++i) {
        FrozenClock::set(kStart + txs[i].ms, txs[i].cpuNs);
        tds[i]->syncTime = txs[i].sync;
        tds[i]->waitTime = txs[i].wait;
        tds[i]->tlIsBTExcluded = txs[i].excluded;
        endFP(tds[i], txs[i].status, nullptr, 0, 0, 0, nullptr);
    }
    for (VXPerThreadData_t* td : tds) reset(td);

    /* 5 counted in 10 s: 2 normal (10, 30), slow 3500, very slow 6000,
     * error 40; CPU 2, 4, 1, 8, 5 ms; sync 4, 2, 0, 0, 0; wait 6, 0, 0, 0, 0;
     * queue 15, 5 and three without. */
    const std::string values =
        "0.500000 1916.000000 10.000000 6000 5 0.0 0.100000 20.000000 10.000000 30 2 3500.000000 "
        "3500.000000 3500 1 6000.000000 6000.000000 6000 1 40.000000 40.000000 40 1 40.000000 "
        "4.000000 1.000000 8.000000 5 1.200000 0 4 5 1.200000 0 6 5 4.000000 5 15 5\n";
    EXPECT_EQ(fold(), (Lines{"74,3|4|" + bt + ":T>S>I>/shop/cart|" + values,
                             "74,3|4|0:T>S>I>AllTransactions|" + values}));
    EXPECT_EQ(fold(), Lines{kIdleOverall});
}

TEST_F(BTMonitor, WithTagsLinesAreNumberedBySlotAndATagSetShowsItsTextOnce)
{
    FrozenClock clock(kStart, 0);
    SessionScope session(7, kEpoch);
    app_->VXSys.enableTagsSupport = 1;
    app_->VXSys.bciInstrSessionPct = 100;
    static int run = 0; /* tag sequences live with the instance */
    static std::string seq;
    seq = "{\"run\":\"" + std::to_string(++run) + "\"}";
    vx::bt_tag_seq_source_set([](VXPerThreadData_t*, int) {
        auto* n = static_cast<BTTagSeqArray*>(calloc(1, sizeof(BTTagSeqArray)));
        n->tagSeq = strdup(seq.c_str());
        return n;
    });
    RecordSink sink;
    auto transaction = [] {
        auto* td = static_cast<VXPerThreadData_t*>(
            startFP(nullptr, S("/tag/me"), nullptr, nullptr, nullptr, nullptr, nullptr, -1, 0));
        FrozenClock::advance_ms(20);
        endFP(td, 200, nullptr, 0, 0, 0, nullptr);
        reset(td);
    };
    transaction();
    ASSERT_EQ(sink.of_type(112).size(), 1u);
    const std::string tagId = vx_test::field(sink.of_type(112)[0], 1);
    EXPECT_EQ(sink.of_type(112)[0], "112," + tagId + "," + seq + "\n");
    EXPECT_EQ(vx_test::field(sink.of_type(4)[0], 10), tagId);

    /* The tag set takes its slot first ("<id>-<tag id>": 0), then the BT
     * ("<id>": 1); series ids are slots plus 1. */
    const std::string values =
        "0.100000 20.000000 20.000000 20 1 0.0 0.000000 20.000000 20.000000 20 1 0.000000 "
        "500000.000000 0 0 0.000000 500000.000000 0 0 0.000000 500000.000000 0 0 0.000000 "
        "0.000000 0.000000 0.000000 1 0.000000 0 0 1 0.000000 0 0 1 0.000000 2147483647 0 1\n";
    const Lines first = fold();
    EXPECT_EQ(first, (Lines{"74,3|4|2:T>S>I>/tag/me||" + values,
                            "74,3|4|1:T>S>I>/tag/me|" + seq + "|" + values,
                            "74,3|4|0:T>S>I>AllTransactions||" + values}));
    transaction();
    const Lines second = fold();
    ASSERT_EQ(second.size(), 3u);
    EXPECT_EQ(second[1], "74,3|4|1:T>S>I>/tag/me||" + values);
    EXPECT_EQ(sink.of_type(112).size(), 1u);
}

TEST_F(BTMonitor, GrowthIsPerRecordAndResetFreesEveryObject)
{
    SessionScope session;
    std::vector<BTObject*> bts;
    for (int i = 0; i < 130; ++i) bts.push_back(bt_named("/grow/" + std::to_string(i)));
    VXPerThreadData_t* a = get_free_tls_slot();
    VXPerThreadData_t* b = get_free_tls_slot();
    VXPerThreadData_t* c = get_free_tls_slot();
    for (BTObject* bt : bts) ASSERT_EQ(count(a, bt), 1); /* slots 0 to 129 exist */
    EXPECT_EQ(a->tlMonitorDataModel->currentSizeOfBTArray, 257);
    resetMonitorCounters(a->tlMonitorDataModel);
    EXPECT_EQ(a->tlMonitorDataModel->currentSizeOfBTArray, 128);

    const size_t before = mallinfo2().uordblks;
    for (BTObject* bt : bts) count(b, bt);
    count(c, bts[0]);
    EXPECT_EQ(b->tlMonitorDataModel->currentSizeOfBTArray, 257);
    EXPECT_EQ(c->tlMonitorDataModel->currentSizeOfBTArray, 128);
    EXPECT_EQ(a->tlMonitorDataModel->currentSizeOfBTArray, 128);
    const size_t grown = mallinfo2().uordblks;
    resetMonitorCounters(b->tlMonitorDataModel);
    resetMonitorCounters(c->tlMonitorDataModel);
    if (grown > 0) { /* a sanitizer's allocator may keep no statistics */
        EXPECT_GT(grown, before + 130 * sizeof(VXBTMonitorDataCounters));
        /* The allocator's per-thread cache keeps a few freed blocks counted. */
        EXPECT_GE(grown - mallinfo2().uordblks, 115 * sizeof(VXBTMonitorDataCounters))
            << "the reset frees the counter objects it drops";
    }
    for (int i = 0; i < 128; ++i) EXPECT_EQ(b->tlMonitorDataModel->btmDataArray[i], nullptr);
    for (VXPerThreadData_t* td : {a, b, c}) {
        resetAllThreadLocals(td, nullptr);
        free_tls_slot(td);
    }
}

TEST_F(BTMonitor, InTheProxyProcessModelsAreMadeOnUseAndTheirShellsKeptAtTheSessionsEnd)
{
    EXPECT_IN_CHILD([this](const std::string&) {
        VXProxy.proxyServerFlag = 1;
        auto models = [] {
            return vx::monitor_models_each([](VXMonitorDataModel*, void*) {}, nullptr);
        };
        free_threadBasedModelMap(); /* the end of a session: records forget their models */
        CHILD_CHECK(models() == 0);
        VXPerThreadData_t* td = get_free_tls_slot();
        CHILD_CHECK(td->tlMonitorDataModel == nullptr);
        BTObject* bt = bt_named("/proxy");
        CHILD_CHECK(count(td, bt) == 1);
        VXMonitorDataModel* made = td->tlMonitorDataModel;
        CHILD_CHECK(made && models() == 1 && fold().size() == 2);
        free_threadBasedModelMap();
        CHILD_CHECK(td->tlMonitorDataModel == nullptr && models() == 0);
        CHILD_CHECK(count(td, bt) == 1 && td->tlMonitorDataModel == made); /* its shell again */
        return 0;
    });
}

TEST_F(BTMonitor, KeywordsTurnTheMonitorOffAndOnlyRaiseTheDoNotDiscardFlag)
{
    SessionScope session;
    app_->VXSys.enableTagsSupport = 0;
    BTObject* bt = bt_named("/kw");
    VXPerThreadData_t* td = get_free_tls_slot();
    parseBTMonitorKeyword(S("0"), S("enableBTMonitor"), 0);
    EXPECT_EQ(count(td, bt), 0);
    parseBTMonitorKeyword(S("1"), S("enableBTMonitor"), 0);
    EXPECT_EQ(count(td, bt), 1);
    td->tlCategory = kCategoryNoUpdate; /* counted nowhere */
    updateCounterAndDurationForBT(td);
    EXPECT_EQ(td->tlMonitorDataModel->btmDataArray[0]->count, 1);

    parseDoNotDiscardVal(S("1"), S("doNotDiscardFlowPaths"), 0);
    parseDoNotDiscardVal(S("0"), S("doNotDiscardFlowPaths"), 0);
    EXPECT_NE(app_->VXBTMonitor.doNotDisacrdAnyTransaction, 0);
    parseBTMonitorErrorLevel(S("2"), S("enableBTMonitorError"), 0);
    parseBTMonitorErrorLevel(S("-1"), S("enableBTMonitorError"), 0);
    EXPECT_EQ(app_->VXBTMonitor.btMonitorErrorLevel, 2);
    resetAllThreadLocals(td, nullptr);
    free_tls_slot(td);
}

TEST_F(BTMonitor, AFullBufferGoesToTheChannelWholeAndNothingIsLost)
{
    SessionScope session;
    app_->VXSys.enableTagsSupport = 0;
    /* A channel of 64 KiB buffers, made for this test. */
    VXAutoSensorChannel_t& ch = app_->asChannel;
    ASSERT_EQ(ch.bufferWriteLockAS, nullptr);
    vx_test::Restore keepSys{app_->VXSys};
    apr_pool_t* pool = nullptr;
    ASSERT_EQ(apr_pool_create(&pool, nullptr), APR_SUCCESS);
    ch.bufferWriteLockAS = vx::mutex_create(pool);
    ch.bufferMoveLockAS = vx::mutex_create(pool);
    app_->VXSys.bciASDataBufferMaxSize = 65536;
    app_->VXSys.ASDataBuffMinCount = 4;
    app_->VXSys.ASDataBuffMaxCount = 4;

    VXPerThreadData_t* td = get_free_tls_slot();
    for (int i = 0; i < 40; ++i) count(td, bt_named("/full/" + std::to_string(i)), 7);
    const int bufLen = 4097 + 2000; /* handed on every few records */
    const Lines rest = fold(bufLen);

    std::string all;
    for (nioSettings_t* head : {ch.readListAS, ch.writeListAS})
        for (nioSettings_t* n = head; n; n = n->next)
            all.append(n->buff, static_cast<size_t>(n->use_len));
    for (const std::string& l : rest) all += l;
    size_t lines = 0, at = 0;
    for (size_t nl; (nl = all.find('\n', at)) != std::string::npos; at = nl + 1, ++lines)
        EXPECT_EQ(all.compare(at, 3, "74,"), 0) << all.substr(at, nl - at);
    EXPECT_EQ(at, all.size());
    EXPECT_EQ(lines, 41u); /* 40 BTs and the overall line */

    for (nioSettings_t* head : {ch.writeListAS, ch.readListAS})
        while (nioSettings_t* n = head) head = n->next, free(n->buff), free(n);
    ch = VXAutoSensorChannel_t{};
    apr_pool_destroy(pool);
    resetAllThreadLocals(td, nullptr);
    free_tls_slot(td);
}

}  // namespace
