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
using vx_test::str;

constexpr long long kFpi = 0x4000000000000123LL;
const std::string kT = "4bf92f3577b34da6a3ce929d0e0e4736";
const std::string kP = "00f067aa0ba902b7";
const std::string kGenTrace = "00000000000000004000000000000123";
const std::string kGenParent = "4000000000000123";
const std::string kOwnOfP = "kelvane=MDBmMDY3YWEwYmE5MDJiNw==";
const std::string kOwnOfGen = "kelvane=NDAwMDAwMDAwMDAwMDEyMw==";

/* A record alone, as the pool makes them; its context block goes with it. */
auto free_record = [](VXPerThreadData_t* r) { free(r->otlStore), free(r); };
using Record = std::unique_ptr<VXPerThreadData_t, decltype(free_record)>;

Record new_record()
{
    Record r(static_cast<VXPerThreadData_t*>(calloc(1, sizeof(VXPerThreadData_t))), free_record);
    r->flowpathInstance = kFpi;
    return r;
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

using Headers = std::vector<std::pair<std::string, std::string>>;

Headers w3c(const std::string& traceparent, const std::string& tracestate = "")
{
    Headers h = {{"traceparent", traceparent}};
    if (!tracestate.empty()) h.emplace_back("tracestate", tracestate);
    return h;
}

TEST_F(TraceContext, FirstUsableFormWinsAndInvalidOnesFallThrough)
{
    const std::string tp = "00-" + kT + "-" + kP + "-01";
    const std::string z = "80f198ee56343ba864fe8b2a57d3eff7";
    const std::string id40 = z + "01234567";
    const Headers xb3 = {{"X-B3-TraceId", z},
                         {"X-B3-ParentSpanId", "05e3"},
                         {"X-B3-SpanId", "e457b5a2e4d86bd1"},
                         {"X-B3-Sampled", "1"}};
    Headers all = xb3;
    all.insert(all.begin(), {"TRACEPARENT", tp});
    all.emplace_back("b3", z + "-e457-1-05e3");
    Headers bad_tp_xb3 = xb3;
    bad_tp_xb3.insert(bad_tp_xb3.begin(), {{"traceparent", "00-" + kT}, {"tracestate", "a=b"}});
    const Headers unsampled = {{"x-b3-traceid", z},
                               {"x-b3-parentspanid", "1"},
                               {"x-b3-spanid", "2"},
                               {"x-b3-sampled", "0"},
                               {"B3", z + "-b7ad6b7169203331-7-05e3"}};
    const Headers no_parent = {{"X-B3-TraceId", z}, {"X-B3-SpanId", "e457"}, {"X-B3-Sampled", "1"}};
    const std::string gen = kGenTrace + "|" + kGenParent + "|";
    struct Row {
        const char* what;
        int w, x, b;
        Headers headers;
        std::string context; /* trace|parent|state, "<null>" for none */
        int version, flags;
    } rows[] = {
        {"valid, state kept before ours", 1, 0, 0, w3c(tp, "congo=t61rcWkgMzE"),
         kT + "|" + kP + "|congo=t61rcWkgMzE," + kOwnOfP, 0, 1},
        {"three fields", 1, 0, 0, w3c("00-" + kT + "-" + kP), gen + kOwnOfGen, 0, 1},
        {"five fields", 1, 0, 0, w3c(tp + "-00"), gen + kOwnOfGen, 0, 1},
        {"31-char trace id", 1, 0, 0, w3c("00-" + kT.substr(1) + "-" + kP + "-01"), gen + kOwnOfGen,
         0, 1},
        {"40-char trace id kept whole", 1, 0, 0, w3c("00-" + id40 + "-" + kP + "-01"),
         id40 + "|" + kP + "|" + kOwnOfP, 0, 1},
        {"all-zero trace id", 1, 0, 0, w3c("00-" + std::string(32, '0') + "-" + kP + "-01"),
         gen + kOwnOfGen, 0, 1},
        {"all-zero parent id, state ignored", 1, 0, 0,
         w3c("00-" + kT + "-0000000000000000-01", "x=1"), gen + kOwnOfGen, 0, 1},
        {"version ff, flags 0a: decimal", 1, 0, 0, w3c("ff-" + kT + "-" + kP + "-0a"),
         kT + "|" + kP + "|" + kOwnOfP, 0, 0},
        {"version 3, flags 12: decimal", 1, 0, 0, w3c("03-" + kT + "-" + kP + "-12"),
         kT + "|" + kP + "|" + kOwnOfP, 3, 12},
        {"one-char state dropped", 1, 0, 0, w3c(tp, "x"), kT + "|" + kP + "|" + kOwnOfP, 0, 1},
        {"over-long trace id refused", 1, 0, 0,
         w3c("00-" + std::string(vx::kOTLIdSize, 'a') + "-" + kP + "-01"), gen + kOwnOfGen, 0, 1},
        {"over-long state dropped whole", 1, 0, 0, w3c(tp, "a=" + std::string(2030, 'b')),
         kT + "|" + kP + "|" + kOwnOfP, 0, 1},
        {"all present: W3C first", 1, 1, 1, all, kT + "|" + kP + "|" + kOwnOfP, 0, 1},
        {"bad traceparent: X-B3, state of its span", 1, 1, 0, bad_tp_xb3,
         z + "|e457b5a2e4d86bd1|kelvane=ZTQ1N2I1YTJlNGQ4NmJkMQ==", 0, 1},
        {"X-B3 sampled 0: B3", 0, 1, 1, unsampled, z + "|b7ad6b7169203331|<null>", 0, 7},
        {"X-B3 without ParentSpanId", 0, 1, 0, no_parent, gen + "<null>", 0, 1},
        {"B3 of three fields", 0, 0, 1, {{"b3", z + "-b7ad-1"}}, gen + "<null>", 0, 1},
        {"W3C off, X-B3 on, no headers", 0, 1, 0, {}, gen + "<null>", 0, 1},
        {"all forms off", 0, 0, 0, w3c(tp), "<null>|<null>|<null>", 0, 0},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        set_forms(row.w, row.x, row.b);
        Record r = read_headers(row.headers);
        EXPECT_EQ(str(r->OTL_traceID) + "|" + str(r->OTL_parentID) + "|" + str(r->OTL_tracestate),
                  row.context);
        EXPECT_EQ(r->OTL_version, row.version);
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
    const std::string golden =
        "X:1\ntraceparent:00-{T}-4000000000000123-01\n"
        "tracestate:a=b,kelvane=MDBmMDY3YWEwYmE5MDJiNw==\n"
        "X-B3-TraceId:{T}\nX-B3-ParentSpanId:4000000000000123\n"
        "X-B3-SpanId:4000000000000456\nX-B3-Sampled:01\n"
        "B3:{T}-4000000000000456-01-4000000000000123";
    EXPECT_EQ(std::string(buf), vx_test::fill(golden, {{"T", kT}}));

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
    /* A state made elsewhere (a proxied agent's frame) is copied, within bounds. */
    EXPECT_EQ(vx_otl_store_tracestate(in.get(), std::string(vx::kOTLTextSize, 'a').c_str()), -1);
    EXPECT_EQ(vx_otl_store_tracestate(in.get(), "p=q"), 0);
    EXPECT_EQ(str(get_otl_tracestate_header(in.get())), "p=q");
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
    std::string pblock = "traceparent$00-" + kT + "-" + kP + "-01|tracestate$c=d";
    OTL_headers(r.get(), pblock.data());
    EXPECT_EQ(str(r->OTL_tracestate), "c=d," + kOwnOfP);
}

TEST(TraceContextHelpers, HexSumsIdsAndBase64KeepTheirBounds)
{
    /* Only hexadecimal digits count, and only the last 16 of them. */
    std::string sums;
    for (const char* hex :
         {"", "0000", "xyz", "0-0-1", "F", "10000000000000000", "1000000000000000"})
        sums += std::to_string(HexToDec(hex));
    EXPECT_EQ(sums, "0001101");

    EXPECT_TRUE(ValidateTraceId((std::string(2045, '0') + "1").c_str()));
    EXPECT_FALSE(ValidateTraceId((std::string(2046, '0') + "1").c_str()));
    EXPECT_FALSE(ValidateTraceId(std::string(32, '0').c_str()));

    char* b = base64Encoder("ab", 2);
    EXPECT_EQ(str(b), "YWI=");
    free(b);
    const std::string in(766, 'x');
    b = base64Encoder(in.c_str(), 765);
    EXPECT_EQ(b ? strlen(b) : 0, 1020u);
    free(b);
    EXPECT_EQ(base64Encoder(in.c_str(), 766), nullptr);
}

}  // namespace
