/*
 * Trace context: which incoming form a flowpath takes its context from, what
 * it makes when none is usable, and the exact texts it sends on.
 */
#include "http/vx_trace_context.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "agent/vx_bci_setting.h"
#include "agent/vx_instance.h"
#include "core/vx_limits.h"
#include "flowpath/vx_per_thread_data.h"
#include "http/vx_trace_headers.h"
#include "vx_test_support.h"

namespace {

using vx_test::Restore;

constexpr long long kFpi = 0x4000000000000123LL;
const std::string kT = "4bf92f3577b34da6a3ce929d0e0e4736";
const std::string kP = "00f067aa0ba902b7";
const std::string kGenTrace = "00000000000000004000000000000123";
const std::string kGenParent = "4000000000000123";
const std::string kOwnOfP = "kelvane=MDBmMDY3YWEwYmE5MDJiNw==";
const std::string kOwnOfGen = "kelvane=NDAwMDAwMDAwMDAwMDEyMw==";

struct RecordFree {
    void operator()(VXPerThreadData_t* r) const
    {
        free(r->otlStore);
        free(r);
    }
};
using Record = std::unique_ptr<VXPerThreadData_t, RecordFree>;

Record new_record()
{
    Record r(static_cast<VXPerThreadData_t*>(calloc(1, sizeof(VXPerThreadData_t))));
    r->flowpathInstance = kFpi;
    return r;
}

std::string str(const char* s)
{
    return s ? s : "<null>";
}

/* Runs the headers through store_propagation_header and
 * Validate_propheader as header capture does, on a fresh record. */
Record read_headers(const std::vector<std::pair<std::string, std::string>>& headers)
{
    Record r = new_record();
    std::vector<std::string> values;
    values.reserve(headers.size());
    Propheaderdata pd;
    init_propagation_header(&pd);
    int flag = 0;
    for (const auto& [name, value] : headers) {
        values.push_back(value);
        flag |= store_propagation_header(&pd, name.c_str(), values.back().data());
    }
    Validate_propheader(r.get(), &pd, flag);
    return r;
}

void set_forms(int w3c, int xb3, int b3)
{
    arrPropagationHeaders[0] = w3c;
    arrPropagationHeaders[1] = xb3;
    arrPropagationHeaders[2] = b3;
}

class TraceContext : public testing::Test {
protected:
    VXProxyInstance_t* app_ = vx_test::agent();
    Restore keep_{arrPropagationHeaders, app_->VXSys};
    void SetUp() override { app_->VXSys.enableOTELStandard = 1; }
};

TEST_F(TraceContext, TraceparentIsTakenOnlyWhenEveryFieldIsValid)
{
    set_forms(1, 0, 0);
    const std::string zeros32(32, '0');
    const std::string id40 = "0123456789abcdef0123456789abcdef01234567";
    const std::string long_id(vx::kOTLIdSize, 'a');
    struct Row {
        const char* what;
        std::string traceparent, tracestate;
        std::string trace, parent, state;
        int version, flags;
    } rows[] = {
        {"valid, state kept before ours", "00-" + kT + "-" + kP + "-01", "congo=t61rcWkgMzE", kT,
         kP, "congo=t61rcWkgMzE," + kOwnOfP, 0, 1},
        {"three fields", "00-" + kT + "-" + kP, "", kGenTrace, kGenParent, kOwnOfGen, 0, 1},
        {"five fields", "00-" + kT + "-" + kP + "-01-00", "", kGenTrace, kGenParent, kOwnOfGen, 0,
         1},
        {"31-char trace id", "00-" + kT.substr(1) + "-" + kP + "-01", "", kGenTrace, kGenParent,
         kOwnOfGen, 0, 1},
        {"40-char trace id kept whole", "00-" + id40 + "-" + kP + "-01", "", id40, kP, kOwnOfP, 0,
         1},
        {"all-zero trace id", "00-" + zeros32 + "-" + kP + "-01", "", kGenTrace, kGenParent,
         kOwnOfGen, 0, 1},
        {"all-zero parent id", "00-" + kT + "-0000000000000000-01", "x=1", kGenTrace, kGenParent,
         kOwnOfGen, 0, 1},
        {"version ff and flags 0a read as decimal", "ff-" + kT + "-" + kP + "-0a", "", kT, kP,
         kOwnOfP, 0, 0},
        {"decimal flags 12", "03-" + kT + "-" + kP + "-12", "", kT, kP, kOwnOfP, 3, 12},
        {"one-char state dropped", "00-" + kT + "-" + kP + "-01", "x", kT, kP, kOwnOfP, 0, 1},
        {"over-long trace id refused", "00-" + long_id + "-" + kP + "-01", "", kGenTrace,
         kGenParent, kOwnOfGen, 0, 1},
        {"over-long state dropped whole", "00-" + kT + "-" + kP + "-01",
         "a=" + std::string(2030, 'b'), kT, kP, kOwnOfP, 0, 1},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        std::vector<std::pair<std::string, std::string>> h = {{"traceparent", row.traceparent}};
        if (!row.tracestate.empty()) h.emplace_back("tracestate", row.tracestate);
        Record r = read_headers(h);
        EXPECT_EQ(str(r->OTL_traceID), row.trace);
        EXPECT_EQ(str(r->OTL_parentID), row.parent);
        EXPECT_EQ(str(r->OTL_tracestate), row.state);
        EXPECT_EQ(r->OTL_version, row.version);
        EXPECT_EQ(r->OTL_traceflag, row.flags);
    }
}

TEST_F(TraceContext, FirstUsableFormWinsAndTheRestFallThrough)
{
    const std::string tp = "00-" + kT + "-" + kP + "-01";
    const std::string b3t = "80f198ee56343ba864fe8b2a57d3eff7";
    const std::vector<std::pair<std::string, std::string>> xb3 = {
        {"X-B3-TraceId", b3t},
        {"X-B3-ParentSpanId", "05e3ac9a4f6e3b90"},
        {"X-B3-SpanId", "e457b5a2e4d86bd1"},
        {"X-B3-Sampled", "1"}};
    auto with = [&](std::vector<std::pair<std::string, std::string>> h,
                    std::vector<std::pair<std::string, std::string>> more) {
        h.insert(h.end(), more.begin(), more.end());
        return h;
    };
    struct Row {
        const char* what;
        int w3c, x, b;
        std::vector<std::pair<std::string, std::string>> headers;
        std::string trace, parent, state;
        int flags;
    } rows[] = {
        {"all present: W3C first", 1, 1, 1,
         with(with({{"TRACEPARENT", tp}}, xb3), {{"b3", b3t + "-e457b5a2e4d86bd1-1-05e3"}}), kT, kP,
         kOwnOfP, 1},
        {"bad traceparent: X-B3, state of its span", 1, 1, 0,
         with({{"traceparent", "00-" + kT}, {"tracestate", "a=b"}}, xb3), b3t, "e457b5a2e4d86bd1",
         "kelvane=ZTQ1N2I1YTJlNGQ4NmJkMQ==", 1},
        {"X-B3 sampled 0: B3", 0, 1, 1,
         with({{"x-b3-traceid", b3t},
               {"x-b3-parentspanid", "1"},
               {"x-b3-spanid", "2"},
               {"x-b3-sampled", "0"}},
              {{"B3", b3t + "-b7ad6b7169203331-7-05e3"}}),
         b3t, "b7ad6b7169203331", "<null>", 7},
        {"X-B3 without ParentSpanId",
         0,
         1,
         0,
         {{"X-B3-TraceId", b3t}, {"X-B3-SpanId", "e457"}, {"X-B3-Sampled", "1"}},
         kGenTrace,
         kGenParent,
         "<null>",
         1},
        {"B3 of three fields",
         0,
         0,
         1,
         {{"b3", b3t + "-b7ad6b7169203331-1"}},
         kGenTrace,
         kGenParent,
         "<null>",
         1},
        {"W3C off, X-B3 on, no headers", 0, 1, 0, {}, kGenTrace, kGenParent, "<null>", 1},
        {"form off: its header is not read",
         0,
         0,
         1,
         {{"traceparent", tp}},
         kGenTrace,
         kGenParent,
         "<null>",
         1},
        {"all forms off", 0, 0, 0, {{"traceparent", tp}}, "<null>", "<null>", "<null>", 0},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        set_forms(row.w3c, row.x, row.b);
        Record r = read_headers(row.headers);
        EXPECT_EQ(str(r->OTL_traceID), row.trace);
        EXPECT_EQ(str(r->OTL_parentID), row.parent);
        EXPECT_EQ(str(r->OTL_tracestate), row.state);
        EXPECT_EQ(r->OTL_traceflag, row.flags);
    }
}

TEST_F(TraceContext, OutgoingTextsOfTheWorkedExample)
{
    set_forms(1, 0, 0);
    Record fresh = new_record();
    EXPECT_EQ(get_otl_traceparent_header(fresh.get()), nullptr);
    char buf[vx::kOTLTextSize] = "";
    get_propagation_header(fresh.get(), buf);
    EXPECT_STREQ(buf, "");

    Record gen = read_headers({});
    char* tp = get_otl_traceparent_header(gen.get());
    EXPECT_EQ(str(tp), "00-00000000000000004000000000000123-4000000000000123-01");
    free(tp);
    EXPECT_EQ(str(get_otl_tracestate_header(gen.get())), "kelvane=NDAwMDAwMDAwMDAwMDEyMw==");

    Record in =
        read_headers({{"traceparent", "00-" + kT + "-" + kP + "-01"}, {"tracestate", "a=b"}});
    tp = get_otl_traceparent_header(in.get());
    EXPECT_EQ(str(tp), "00-" + kT + "-4000000000000123-01");
    free(tp);
    EXPECT_EQ(str(get_otl_tracestate_header(in.get())), "a=b,kelvane=MDBmMDY3YWEwYmE5MDJiNw==");

    /* All forms, in their order, behind what the buffer held. */
    set_forms(1, 1, 1);
    strcpy(in->trans_span_id, "4000000000000123");
    strcpy(in->callout_span_id, "4000000000000456");
    strcpy(buf, "X:1\n");
    get_propagation_header(in.get(), buf);
    EXPECT_EQ(std::string(buf), "X:1\ntraceparent:00-" + kT +
                                    "-4000000000000123-01\n"
                                    "tracestate:a=b,kelvane=MDBmMDY3YWEwYmE5MDJiNw==\n"
                                    "X-B3-TraceId:" +
                                    kT +
                                    "\nX-B3-ParentSpanId:4000000000000123\n"
                                    "X-B3-SpanId:4000000000000456\nX-B3-Sampled:01\n"
                                    "B3:" +
                                    kT + "-4000000000000456-01-4000000000000123");

    app_->VXSys.enableOTELStandard = 0;
    buf[0] = '\0';
    get_propagation_header(in.get(), buf);
    EXPECT_STREQ(buf, "");

    /* The reset drops the context but keeps its storage for the next
     * flowpath. */
    char* store = in->otlStore;
    resetAllThreadLocals(in.get(), nullptr);
    EXPECT_EQ(in->OTL_traceID, nullptr);
    EXPECT_EQ(in->OTL_tracestate, nullptr);
    EXPECT_EQ(in->otlStore, store);
    EXPECT_EQ(get_otl_traceparent_header(in.get()), nullptr);
}

TEST_F(TraceContext, BlockOfAProxiedAgentIsReadLikeCapturedHeaders)
{
    set_forms(1, 0, 0);
    Restore keep_type(app_->VXBCISetting);
    Record r = new_record();
    std::string block = "Host$shop\x7ftraceparent$00-" + kT + "-" + kP + "-01\x7ftracestate$a=b";
    OTL_headers(r.get(), block.data());
    EXPECT_EQ(str(r->OTL_traceID), kT);
    EXPECT_EQ(str(r->OTL_tracestate), "a=b," + kOwnOfP);
    EXPECT_EQ(block.find('\x7f'), 9u) << "the caller's block is left as it was";

    /* A Python agent separates entries with "|". */
    app_->VXBCISetting.agentType = vx_test::S("python");
    Record py = new_record();
    std::string pblock = "traceparent$00-" + kT + "-" + kP + "-01|tracestate$c=d";
    OTL_headers(py.get(), pblock.data());
    EXPECT_EQ(str(py->OTL_tracestate), "c=d," + kOwnOfP);
}

TEST(TraceContextHelpers, HexSumsIdsAndBase64KeepTheirBounds)
{
    struct {
        const char* hex;
        int nonzero;
    } sums[] = {{"", 0},
                {"0000", 0},
                {"xyz", 0},
                {"0-0-1", 1},
                {"F", 1},
                /* only the last 16 digits count */
                {"10000000000000000", 0},
                {"1000000000000000", 1}};
    for (const auto& s : sums) EXPECT_EQ(HexToDec(s.hex), s.nonzero) << s.hex;

    EXPECT_TRUE(ValidateTraceId((std::string(2045, '0') + "1").c_str()));
    EXPECT_FALSE(ValidateTraceId((std::string(2046, '0') + "1").c_str()));
    EXPECT_FALSE(ValidateTraceId(std::string(32, '0').c_str()));

    char* b = base64Encoder("ab", 2);
    EXPECT_EQ(str(b), "YWI=");
    free(b);
    const std::string in(766, 'x');
    b = base64Encoder(in.c_str(), 765);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(strlen(b), 1020u);
    free(b);
    EXPECT_EQ(base64Encoder(in.c_str(), 766), nullptr);
}

}  // namespace
