/*
 * The flowpath life cycle as the collector sees it: records 2, 3 and 4, the
 * capture decision, categories, exclusion and the session's end.
 */
#include "flowpath/vx_flowpath.h"

#include <gtest/gtest.h>

#include <cstring>
#include <ostream>
#include <string>
#include <vector>

#include "agent/vx_instance.h"
#include "http/vx_trace_context.h"
#include "vx_sdk.h"
#include "vx_test_support.h"

namespace {

using namespace vx_test;

using Lines = std::vector<std::string>;

constexpr long long kStart = kEpoch + 5000123; /* 5000.123 s into the session */

VXPerThreadData_t* start(const char* fpi, const char* url, const char* kp = "77-1-2-55")
{
    return static_cast<VXPerThreadData_t*>(
        startFP(S(fpi), S(url), nullptr, nullptr, nullptr, S(kp), nullptr, 15, 0));
}

/* Values of the record under test that the golden lines leave open. */
std::vector<std::pair<std::string, std::string>> ids(VXPerThreadData_t* td)
{
    return {{"inst", std::to_string(td->flowpathInstance)},
            {"tid", std::to_string(td->tlThreadId)},
            {"bt", std::to_string(td->tlBTObj ? td->tlBTObj->bt_id : -1)},
            {"mid", std::to_string(vx_test::agent()->methodTable.DefaultMethod->methodId)}};
}

struct RecordCase {
    const char* name;
    const char* fpi;
    const char* url;
    bool otel;
    bool tags;
    const char* record2;
    const char* record4;
};

/* One captured transaction of 40 ms that used 250 us of CPU, for each shape
 * of record 2 and record 4. */
const RecordCase kRecordCases[] = {
    {"Plain", "123456789", "/shop/cart", false, true,
     "2,123456789,5000,{tid},{tid}.1,{bt},/shop/"
     "cart,,123456789,000000000000000000077,55,,0,15,,,\n",
     "4,123456789,200,10,250000,40,{bt},0,,0,-1,{mid}:0_0_0__{mid}:0_1_0_250000___\n"},
    {"WithParameters", "123456789", "/shop/cart?item=5&qty=2|GET", false, true,
     "2,123456789,5000,{tid},{tid}.1,{bt},/shop/"
     "cart?item=5&qty=2,,123456789,000000000000000000077,55,,0,15,,,\n",
     "4,123456789,200,10,250000,40,{bt},0,,0,-1,{mid}:0_0_0__{mid}:0_1_0_250000___\n"},
    {"Forced", "123456789F", "/shop/cart", false, true,
     "2,123456789F,5000,{tid},{tid}.1,{bt},/shop/"
     "cart,,123456789,000000000000000000077,55,,0,15,,,\n",
     "4,123456789F,200,10,250000,40,{bt},0,,0,-1,{mid}:0_0_0__{mid}:0_1_0_250000___\n"},
    {"Chain", "111_222_7.3_NA", "/shop/cart", false, true,
     "2,{inst}:111:222,5000,{tid},7.3.1,{bt},/shop/"
     "cart,,{inst},000000000000000000077,55,,0,15,,,\n",
     "4,{inst},200,10,250000,40,{bt},0,,0,-1,{mid}:0_0_0__{mid}:0_1_0_250000___\n"},
    {"ForcedChainWithParameters", "111F_222_7.3_NA", "/a?b=1", false, true,
     "2,{inst}F:111F:222F,5000,{tid},7.3.1,{bt},/a?b=1,,{inst},000000000000000000077,55,,0,15,,,\n",
     "4,{inst}F,200,10,250000,40,{bt},0,,0,-1,{mid}:0_0_0__{mid}:0_1_0_250000___\n"},
    {"TraceContext", "123456789", "/shop/cart", true, true,
     "2,123456789,5000,{tid},{tid}.1,{bt},/shop/cart,,123456789,000000000000000000077,55,,0,15,"
     "4bf92f3577b34da6a3ce929d0e0e4736,00f067aa0ba902b7,01\n",
     "4,123456789,200,10,250000,40,{bt},0,,0,-1,{mid}:0_0_0__{mid}:0_1_0_250000___\n"},
    {"TagsOff", "123456789", "/shop/cart", false, false,
     "2,123456789,5000,{tid},{tid}.1,{bt},/shop/"
     "cart,,123456789,000000000000000000077,55,,0,15,,,\n",
     "4,123456789,200,10,250000,40,{bt},0,,0,{mid}:0_0_0__{mid}:0_1_0_250000___\n"},
};

void PrintTo(const RecordCase& c, std::ostream* os) { *os << c.name; }

class FlowpathRecords : public testing::TestWithParam<RecordCase> {};

TEST_P(FlowpathRecords, HeaderAndCompletionMatchGoldenLines)
{
    const RecordCase& c = GetParam();
    FrozenClock clock(kStart, 1000);
    SessionScope session(7, kEpoch);
    VXProxyInstance_t* app = vx_test::agent();
    app->VXSys.bciInstrSessionPct = 100;
    app->VXSys.enableCpuTime = 1;
    app->VXSys.enableTagsSupport = c.tags;
    app->VXSys.enableOTELStandard = c.otel;
    arrPropagationHeaders[0] = c.otel;
    RecordSink sink;

    VXPerThreadData_t* td = start(c.fpi, c.url);
    ASSERT_NE(td, nullptr);
    if (c.otel) {
        char trace[] = "4bf92f3577b34da6a3ce929d0e0e4736", parent[] = "00f067aa0ba902b7";
        ASSERT_EQ(OTL_storeData(td, 0, 1, trace, parent), 0);
    }
    FrozenClock::set(kStart + 40, 251000);
    endFP(td, 200, nullptr, 0, 0, 0, nullptr);

    EXPECT_EQ(sink.of_type(2), Lines{vx_test::fill(c.record2, ids(td))});
    EXPECT_EQ(sink.of_type(4), Lines{vx_test::fill(c.record4, ids(td))});
    reset(td);
    arrPropagationHeaders[0] = 0;
}

INSTANTIATE_TEST_SUITE_P(Shapes, FlowpathRecords, testing::ValuesIn(kRecordCases),
                         [](const auto& info) { return std::string(info.param.name); });

/* Runs one transaction of `ms` milliseconds ending with `status`; returns the
 * lines it produced. */
std::vector<std::string> run_transaction(int pct, long long ms, int status, const char* url = "/t")
{
    FrozenClock clock(kStart, 0);
    SessionScope session(7, kEpoch);
    vx_test::agent()->VXSys.bciInstrSessionPct = pct;
    RecordSink sink;
    VXPerThreadData_t* td = start("", url);
    if (!td) return {"no record"};
    FrozenClock::advance_ms(ms);
    endFP(td, status, nullptr, 0, 0, 0, nullptr);
    reset(td);
    std::vector<std::string> out;
    for (const std::string& l : sink.lines())
        /* BT and tag-sequence metadata are not the subject here. */
        if (l[0] != '7' && l.rfind("112,", 0) != 0) out.push_back(l);
    return out;
}

TEST(FlowpathCapture, FastUncapturedSendsNothingSlowAndErrorsGoOutAndOddStatusIsNoError)
{
    EXPECT_EQ(run_transaction(0, 20, 200), std::vector<std::string>{});
    const struct {
        int pct;
        long long ms;
        int status;
        const char* reported; /* status field of record 4 */
        const char* category;
    } cases[] = {
        {100, 20, 200, "200", "10"},
        {0, 3500, 200, "200", "11"},
        {0, 6000, 200, "200", "12"},
        {0, 4000, 500, "500", "13"}, /* an error is an error even when it is slow */
        /* outside the table: never an error; a negative one keeps the methods' */
        {100, 10, 600, "600", "10"},
        {100, 10, 1000, "1000", "10"},
        {100, 10, -5, "200", "10"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.pct) + "% " + std::to_string(c.ms) + " ms " +
                     std::to_string(c.status));
        auto lines = run_transaction(c.pct, c.ms, c.status);
        ASSERT_EQ(lines.size(), 2u);
        EXPECT_EQ(field(lines[1], 2), c.reported);
        EXPECT_EQ(field(lines[1], 3), c.category);
    }
}

TEST(FlowpathCapture, CaptureForAllMethodsHonoursTheSessionPercentage)
{
    FrozenClock clock(kStart, 0);
    SessionScope session(7, kEpoch);
    VXProxyInstance_t* app = vx_test::agent();
    app->VXSys.captureMethodForAllFP = 1;

    app->VXSys.bciInstrSessionPct = -1;
    auto* off = start("", "/m");
    EXPECT_EQ(off->tlIsFPCaptured, 0);

    app->VXSys.bciInstrSessionPct = 0;
    auto* on = start("", "/m");
    EXPECT_EQ(on->tlIsFPCaptured, 1);
    /* Kept only for its method data, it is dropped when it turns out fast. */
    RecordSink sink;
    endFP(on, 200, nullptr, 0, 0, 0, nullptr);
    EXPECT_TRUE(sink.of_type(4).empty());
    reset(on);
    reset(off);
}

TEST(FlowpathCapture, ForcedInstanceIsCapturedEvenAtZeroPercent)
{
    FrozenClock clock(kStart, 0);
    SessionScope session(7, kEpoch);
    auto* td = start("123F", "/f");
    EXPECT_EQ(td->tlIsForceDump, 1);
    EXPECT_EQ(td->tlIsFPCaptured, 1);
    EXPECT_EQ(td->flowpathInstance, 123);
    EXPECT_EQ(getTLFromFPInstance(S("123")), td);
    reset(td);
    EXPECT_EQ(getTLFromFPInstance(S("123")), nullptr) << "a reset without endFP forgets it";
}

TEST(FlowpathBlob, FullBlobLeavesAsRecordThreeAndUncapturedNormalEndIsMarked)
{
    FrozenClock clock(kStart, 0);
    SessionScope session(7, kEpoch);
    VXProxyInstance_t* app = vx_test::agent();
    app->VXFlowpathGenerator.maxCharactersInSeqBlob = 5;
    RecordSink sink;

    /* Uncaptured: only the root's forced tokens are written, and the first
     * one already fills the blob. */
    auto* td = start("99", "/flush");
    ASSERT_EQ(sink.of_type(2).size(), 1u);
    EXPECT_EQ(sink.of_type(3), Lines{vx_test::fill("3,99,{mid}:0_0_0__\n", ids(td))});
    EXPECT_EQ(td->sequenceBlobLen, 0);

    endFP(td, 200, nullptr, 0, 0, 0, nullptr);
    EXPECT_EQ(sink.of_type(4), Lines{vx_test::fill("4,99,-99,10,0,0,{bt},0,,0,-1,\n", ids(td))});
    EXPECT_EQ(sink.of_type(2).size(), 1u) << "record 2 goes out once";
    reset(td);
}

TEST(FlowpathExclusion, TransactionWithoutBusinessTransactionSendsNothing)
{
    FrozenClock clock(kStart, 0);
    SessionScope session(7, kEpoch);
    vx_test::agent()->VXSys.bciInstrSessionPct = 100;
    RecordSink sink;
    for (const char* url : {static_cast<const char*>(nullptr), ""}) {
        auto* td = static_cast<VXPerThreadData_t*>(
            startFP(nullptr, S(url), nullptr, nullptr, nullptr, nullptr, nullptr, -1, 0));
        ASSERT_NE(td, nullptr);
        EXPECT_EQ(td->tlIsBTExcluded, 1);
        FrozenClock::advance_ms(9000);
        endFP(td, 500, nullptr, 0, 0, 0, nullptr);
        reset(td);
    }
    EXPECT_EQ(sink.size(), 0u);
}

TEST(FlowpathExclusion, LateUrlReplacesUnknownUrlOnce)
{
    FrozenClock clock(kStart, 0);
    SessionScope session(7, kEpoch);
    auto* td = start("", "UnknownUrl");
    ASSERT_NE(td->tlBTObj, nullptr);
    setBTObjInThreadLocal(td, S("/late?x=1|POST"), nullptr);
    EXPECT_STREQ(td->tlURL, "/late");
    EXPECT_STREQ(td->tlURLParameters, "x=1");
    setBTObjInThreadLocal(td, S("/again"), nullptr);
    EXPECT_STREQ(td->tlURL, "/late");
    reset(td);
}

TEST(FlowpathSession, NothingStartsOrEndsOutsideASession)
{
    FrozenClock clock(kStart, 0);
    vx_test::agent();
    EXPECT_EQ(start("", "/x"), nullptr);

    RecordSink sink;
    VXPerThreadData_t* open_fp = nullptr;
    VXPerThreadData_t* ended_fp = nullptr;
    std::string expected;
    {
        SessionScope session(7, kEpoch);
        vx_test::agent()->VXSys.bciInstrSessionPct = 100;
        open_fp = start("501", "/open");
        ended_fp = start("502", "/ended");
        endFP(ended_fp, 200, nullptr, 0, 0, 0, nullptr);
        vx_test::agent()->Server.gettingstopInstrumenatation = 1;
        EXPECT_EQ(start("", "/late"), nullptr) << "no new flowpath while the session stops";
        vx_test::agent()->Server.gettingstopInstrumenatation = 0;
        FrozenClock::advance_ms(70);
        expected = vx_test::fill("4,501,200,10,0,70,{bt},7,,0,-1,{mid}:0_0_0__\n", ids(open_fp));
    } /* the session stops here and closes what is still open */

    auto r4 = sink.of_type(4);
    ASSERT_EQ(r4.size(), 2u) << "one for the ended flowpath, one for the open one";
    EXPECT_EQ(r4[1], expected);

    endFP(open_fp, 200, nullptr, 0, 0, 0, nullptr);
    reset(open_fp);
    EXPECT_EQ(sink.of_type(4).size(), 2u) << "endFP after the stop does nothing";
}

TEST(FlowpathSession, SessionCookieCarriesTheCaptureDecision)
{
    FrozenClock clock(kStart, 0);
    SessionScope session(7, kEpoch);
    VXProxyInstance_t* app = vx_test::agent();
    app->VXSys.bciInstrSessionPct = 0;
    /* session 42, run 7, last flowpath 1 s ago, instrumented, 3 flowpaths so far */
    char cookie[] = "42-7-5000000-1-9-0-3-0-0-0";
    auto* td = static_cast<VXPerThreadData_t*>(
        startFP(nullptr, S("/s"), nullptr, nullptr, cookie, nullptr, nullptr, -1, 0));
    EXPECT_EQ(td->tlIsFPCaptured, 1);
    EXPECT_EQ(td->vxSessionId, 42);
    EXPECT_EQ(td->totalFpcount, 4);
    reset(td);

    /* Idle past the timeout: a new session starts with this flowpath. */
    char stale[] = "42-7-1000-1-9-0-3-0-0-0";
    td = static_cast<VXPerThreadData_t*>(
        startFP(nullptr, S("/s"), nullptr, nullptr, stale, nullptr, nullptr, -1, 0));
    EXPECT_EQ(td->vxSessionId, td->flowpathInstance);
    EXPECT_EQ(td->tlIsFPCaptured, 0);
    EXPECT_EQ(td->totalFpcount, 1);
    reset(td);
}

TEST(FlowpathRecord, HostStringsAreNeverWrittenInto)
{
    FrozenClock clock(kStart, 0);
    SessionScope session(7, kEpoch);
    vx_test::agent()->VXSys.captureCorrelationEnabled = 1;
    char fpi[] = "111_222_7.3_NA";
    char url[] = "/a?b=1|GET";
    char header[] = "corr=abc&other=1";
    char name[] = "corr";
    auto* td = static_cast<VXPerThreadData_t*>(
        startFP(fpi, url, header, nullptr, nullptr, nullptr, name, -1, 0));
    EXPECT_STREQ(fpi, "111_222_7.3_NA");
    EXPECT_STREQ(url, "/a?b=1|GET");
    EXPECT_STREQ(header, "corr=abc&other=1");
    EXPECT_STREQ(td->tlCorrelationIdHeader, "abc");
    reset(td);
}

}  // namespace
