/*
 * Method events as they appear in the sequence blob: the token forms, the
 * callout tokens, the limits, and what an uncaptured flowpath still writes.
 */
#include "flowpath/vx_method_events.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "agent/vx_bci_setting.h"
#include "agent/vx_instance.h"
#include "core/vx_platform.h"
#include "flowpath/vx_method_table.h"
#include "http/vx_header_ids.h"
#include "vx_sdk.h"
#include "vx_test_support.h"

namespace {

using namespace vx_test;

constexpr long long kStart = kEpoch + 7000000;

constexpr const char kProfile[] =
    "# methods of the test application\n"
    "shop|Shop|checkout|0|0\n"
    "shop|Shop|helper|0|0\n"
    "shop|Async|run|0|0|1\n"
    "shop|Db|query|0|2\n"
    "shop|Front|handle|1|0\n"
    "shop|Tx|commit|4|0\n";

constexpr const char kEntryPoints[] =
    "shop|Db.query|SQL_CALLOUT|2\n"
    "shop|Pay.charge|CUSTOM_CALLOUT:PayGW|2\n"
    "shop|Front.handle|HTTP_ENTRY|2\n"
    "shop|Tx.commit|TX_EXIT|2\n";

class MethodEvents : public testing::Test {
protected:
    void SetUp() override
    {
        app_ = vx_test::agent();
        std::string profile = kProfile, entries = kEntryPoints;
        setMethodHashMapNode(profile.data());
        parseEntryFile(entries.data());
        app_->VXSys.bciInstrSessionPct = 100;
        sink_.clear();
    }

    int id(const char* name)
    {
        methodPropProperties* m = getMethodPropFromMethodName(S(name), app_->methodTable.methodHashMapNode);
        return m ? m->methodId : -1;
    }

    /* The clock moves to `ms` after the flowpath's start and `cpu` ns. */
    static void at(long long ms, long long cpu) { FrozenClock::set(kStart + ms, cpu); }

    VXPerThreadData_t* begin()
    {
        at(0, 1000);
        return static_cast<VXPerThreadData_t*>(
            startFP(S("4242"), S("/events"), nullptr, nullptr, nullptr, nullptr, nullptr, -1, 0));
    }
    void* enter(VXPerThreadData_t* td, const char* name, long long tid = 0, const char* url = nullptr)
    {
        return vxMethodEntry(nullptr, td, S(name), S(url), nullptr, tid, nullptr, nullptr, 0, nullptr);
    }
    void* leave(VXPerThreadData_t* td, const char* name, long long tid = 0, int status = -1,
                const char* backend = nullptr, const char* arg = nullptr)
    {
        return vxMethodExit(nullptr, td, S(name), 0, status, S(backend), 0, tid, 0, nullptr, 1, S(arg),
                            my_gettimeofday(), nullptr);
    }
    /* Ends the flowpath and gives the blob of its record 4. */
    std::string finish(VXPerThreadData_t* td, int status = 200)
    {
        endFP(td, status, nullptr, 0, 0, 0, nullptr);
        reset(td);
        auto r4 = sink_.of_type(4);
        if (r4.empty()) return "<no record 4>";
        const std::string& line = r4.back();
        size_t at = 0;
        for (int i = 0; i < 11; ++i) at = line.find(',', at) + 1;
        return line.substr(at, line.size() - at - 1);
    }
    /* A golden blob with the profile's ids, and `more`, filled in. */
    std::string golden(std::string text,
                       const std::vector<std::pair<std::string, std::string>>& more = {})
    {
        text = vx_test::fill(text, more);
        return vx_test::fill(text, {{"r", std::to_string(id(kRootMethodName))},
                                    {"co", std::to_string(id("Shop.checkout"))},
                                    {"hp", std::to_string(id("Shop.helper"))},
                                    {"as", std::to_string(id("Async.run"))},
                                    {"q", std::to_string(id("Db.query"))},
                                    {"fe", std::to_string(id("Front.handle"))},
                                    {"tx", std::to_string(id("Tx.commit"))},
                                    {"pc", std::to_string(id("Pay.charge"))},
                                    {"gw", std::to_string(id("CUSTOM_PayGW"))}});
    }

    FrozenClock clock_{kStart, 1000};
    SessionScope session_{7, kEpoch};
    RecordSink sink_;
    VXProxyInstance_t* app_ = nullptr;
};

TEST_F(MethodEvents, EntryAndExitTokensCarryIdsOffsetsWallAndCpu)
{
    auto* td = begin();
    at(5, 2000);
    enter(td, "Shop.checkout", 11);
    at(12, 2300);
    leave(td, "Shop.checkout", 11);
    at(20, 2400);
    enter(td, "Async.run", 11, "/cb");
    leave(td, "Async.run", 11);
    EXPECT_EQ(finish(td), golden("{r}:0_0_0__{co}:11_0_5__{co}:11_1_7_300___"
                                 "{as}:11:1:/cb_0_20__{as}:11_1_0_0___{r}:0_1_0_1400___"));
}

TEST_F(MethodEvents, ArgumentAndExceptionExitsHaveTheirOwnForms)
{
    app_->VXSys.enableProcessNotificationPhase = 1;
    auto* td = begin();
    at(5, 2000);
    enter(td, "Shop.checkout");
    at(12, 2300);
    leave(td, "Shop.checkout", 0, -1, nullptr, "order-17");
    at(13, 2300);
    enter(td, "Shop.helper");
    vxMethodExitException(nullptr, td, S("Shop.helper"), 250, 500, nullptr, 9, 0, 0, 0, nullptr, 3);
    app_->VXSys.enableProcessNotificationPhase = 0;

    auto r19 = sink_.of_type(19);
    ASSERT_EQ(r19.size(), 1u);
    httpHeaderInfo* header =
        searchAndUpdatehttpHashMapNode(S("Custom_Header"), app_->httpHashMapNode, 0);
    ASSERT_NE(header, nullptr);
    EXPECT_EQ(r19[0],
              golden("19,4242,2:{co}:4:{h}:1:<order-17>|\n", {{"h", std::to_string(header->id)}}));
    EXPECT_EQ(finish(td, -1), golden("{r}:0_0_0__{co}:0_0_5__{co}:0_1:4_7_300___{hp}:0_0_13__{hp}:0_3_9_250___"
                                     "{r}:0_1_0_1300___"));
}

TEST_F(MethodEvents, IdsBeyondTheCountersAreNeverRefusedAndKeepTheHostsWallTime)
{
    vx_test::Restore keep(app_->methodTable.methodIDGlobal);
    app_->methodTable.methodIDGlobal = 9000;
    auto* td = begin();
    /* An exit of a method never entered has no effect at all... */
    EXPECT_EQ(leave(td, "Shop.helper"), nullptr);
    /* ...except beyond the counters, where nothing tracks the entry. */
    auto* big = static_cast<methodPropProperties*>(enter(td, "Big.method"));
    ASSERT_NE(big, nullptr);
    EXPECT_GE(big->methodId, vx::kMethodCounterSize);
    vxMethodExit(big, td, S("Big.method"), -1, -1, nullptr, 42, 0, 0, nullptr, 1, nullptr, 0, nullptr);
    vxMethodExit(big, td, S("Big.method"), -1, -1, nullptr, 43, 0, 0, nullptr, 1, nullptr, 0, nullptr);
    EXPECT_EQ(finish(td), golden("{r}:0_0_0__{b}:0_0_0__{b}:0_1_42____{b}:0_1_43____{r}:0_1_0_0___",
                                 {{"b", std::to_string(big->methodId)}}));
}

TEST_F(MethodEvents, DatabaseCalloutWritesOnlyTheOutermostCallAndErrorsUseE)
{
    auto* td = begin();
    at(5, 2000);
    enter(td, "Db.query", 0, "select 1");
    enter(td, "Db.query", 0, "select 2"); /* nested: the driver calling itself */
    at(12, 2300);
    leave(td, "Db.query", 0, -1, "mysql|dbhost|3306");
    leave(td, "Db.query", 0, -1, "mysql|dbhost|3306");
    std::string ok = finish(td);
    const std::string backend = std::to_string(id("DB_dbhost"));
    EXPECT_EQ(ok, golden("{r}:0_0_0__{q}:0_0_5__{q}:0_0_5__{q}:0_1_7_300___{q}:0_1_7_300___"
                         "T7:{db}:7:10:6:0::::200:_{r}:0_1_0_1300___",
                         {{"db", backend}}));

    td = begin();
    vx_test::Restore otel(app_->VXSys.enableOTELStandard);
    app_->VXSys.enableOTELStandard = 1;
    at(5, 2000);
    enter(td, "Db.query", 0, "select 3");
    char* end = nullptr; /* the call's span id: a fresh instance number in hex */
    EXPECT_GT(strtoull(td->callout_span_id, &end, 16), 0u);
    EXPECT_EQ(*end, '\0');
    at(12, 2300);
    leave(td, "Db.query", 0, 500, "mysql|dbhost|3306");
    EXPECT_EQ(finish(td, -1), golden("{r}:0_0_0__{q}:0_0_5__{q}:0_1_7_300___"
                                     "E4:{db}:7:10:8:0::::500:_{r}:0_1_0_1300___",
                                     {{"db", backend}}));
}

TEST_F(MethodEvents, CustomCalloutNamesItsOwnBackend)
{
    auto* td = begin();
    at(5, 2000);
    enter(td, "Pay.charge");
    at(12, 2300);
    leave(td, "Pay.charge");
    EXPECT_EQ(finish(td), golden("{r}:0_0_0__{pc}:0_0_5__T3:{gw}:7:8:-:0_{pc}:0_1_7_300___{r}:0_1_0_1300___"));
}

TEST_F(MethodEvents, NonServiceMethodLimitStopsTokensButKeepsCounting)
{
    app_->VXSys.bciMaxNonServiceMethodsPerFP = 2; /* the root counts as one */
    auto* td = begin();
    enter(td, "Shop.checkout");
    enter(td, "Shop.helper");
    EXPECT_EQ(td->tlNonServiceMethodCount, 3);
    leave(td, "Shop.helper");
    EXPECT_EQ(td->tlNonServiceMethodCount, 2) << "an exit beyond the limit lowers the count";
    leave(td, "Shop.checkout");
    app_->VXSys.bciMaxNonServiceMethodsPerFP = 50000;
    EXPECT_EQ(finish(td), golden("{r}:0_0_0__{co}:0_0_0__{co}:0_1_0_0___{r}:0_1_0_0___"));
}

TEST_F(MethodEvents, FullBlobLeavesAsRecordThreeEveryHundredCharacters)
{
    app_->VXFlowpathGenerator.maxCharactersInSeqBlob = 100;
    auto* td = begin();
    for (int i = 0; i < 40; ++i) {
        enter(td, "Shop.checkout");
        leave(td, "Shop.checkout");
    }
    finish(td);
    auto r3 = sink_.of_type(3);
    ASSERT_GE(r3.size(), 8u);
    for (const std::string& line : r3) {
        const std::string blob = line.substr(line.find(',', 2) + 1);
        EXPECT_GE(blob.size(), 101u) << line; /* the threshold plus the newline */
        EXPECT_LT(blob.size(), 140u) << line;
    }
    EXPECT_EQ(sink_.of_type(2).size(), 1u);
}

TEST_F(MethodEvents, UncapturedFlowpathStillWritesForcedTokensAndCallouts)
{
    app_->VXSys.bciInstrSessionPct = 0;
    auto* td = begin();
    ASSERT_EQ(td->tlIsFPCaptured, 0);
    enter(td, "Shop.checkout");
    leave(td, "Shop.checkout");
    at(5, 1000);
    enter(td, "Front.handle");
    leave(td, "Front.handle");
    enter(td, "Tx.commit");
    leave(td, "Tx.commit");
    enter(td, "Db.query", 0, "select 1");
    leave(td, "Db.query", 0, -1, "pg|h|5432");
    at(3500, 1000); /* slow, so it is reported */
    EXPECT_EQ(finish(td), golden("{r}:0_0_0__{fe}:0_0_5__{tx}:0_1_0_0___T7:{db}:0:10:6:0::::200:_"
                                 "{r}:0_1_0_0___",
                                 {{"db", std::to_string(id("DB_h"))}}));
}

TEST_F(MethodEvents, GoHostsReportNoCpuBelowTheFullCpuMode)
{
    const std::string type = app_->VXBCISetting.agentType;
    setAgentType(S("go"));
    for (int mode : {0, 1, 2, 3}) {
        app_->VXSys.enableCpuTime = mode;
        auto* td = begin();
        at(5, 2000);
        enter(td, "Shop.checkout");
        at(12, 2300);
        leave(td, "Shop.checkout");
        std::string blob = finish(td);
        const char* expected = mode == 3 ? "{co}:0_1_7_300___" : "{co}:0_1_7_0___";
        EXPECT_NE(blob.find(golden(expected)), std::string::npos) << "mode " << mode << ": " << blob;
    }
    setAgentType(S(type.c_str()));
    app_->VXSys.enableCpuTime = 0;
}

TEST_F(MethodEvents, DebugDataListsEventsOnceAtTheEnd)
{
    app_->VXSys.dumpDebugData = 1;
    auto* td = begin();
    enter(td, "Shop.checkout");
    leave(td, "Shop.checkout");
    const std::string prefix = golden("100,4242,{r}:") + std::to_string(td->tlThreadId) + "_0_1_0x";
    finish(td);
    app_->VXSys.dumpDebugData = 0;
    auto r100 = sink_.of_type(100);
    ASSERT_EQ(r100.size(), 1u);
    EXPECT_EQ(r100[0].rfind(prefix, 0), 0u) << r100[0];
    EXPECT_NE(r100[0].find(golden("|{co}:")), std::string::npos);
    EXPECT_EQ(r100[0].back(), '\n');
    EXPECT_EQ(td->debugModeLen, 0);
}

}  // namespace
