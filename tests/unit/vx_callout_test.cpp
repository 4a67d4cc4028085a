/*
 * Callouts seen from both ends: backend names by rule, the correlation header
 * a tier sends and the next one reads, record 91 per distinct caller,
 * resource ids, session cookies on a fixed clock, and thread callouts.
 */
#include "flowpath/vx_callout.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "agent/vx_bci_setting.h"
#include "agent/vx_instance.h"
#include "flowpath/vx_backend_naming.h"
#include "flowpath/vx_callout_header.h"
#include "flowpath/vx_resource_ids.h"
#include "flowpath/vx_session_settings.h"
#include "flowpath/vx_thread_callout.h"
#include "flowpath/vx_thread_id_map.h"
#include "session/vx_keyword_parsers.h"
#include "vx_sdk.h"
#include "vx_test_support.h"

namespace {

using namespace vx_test;

constexpr long long kStart = kEpoch + 9000000;

std::string name_of(const char* description, const char* rule)
{
    char out[kBackendNameSize];
    char desc[2048];
    char r[2048];
    strcpy(desc, description);
    strcpy(r, rule);
    return settingBackendName(desc, r, out, sizeof out);
}

/* Names the test tier with underscores, so that the header must carry them
 * encoded; restores the identity afterwards. */
class Tiers : public testing::Test {
protected:
    void SetUp() override
    {
        /* The setters free the names they replace: keep copies. */
        const VXBCISetting_t& b = app_->VXBCISetting;
        saved_ = {b.tierName ? b.tierName : "", b.appServerName ? b.appServerName : "",
                  b.appName ? b.appName : ""};
        setTierName(S("shop_front"), nullptr, 0);
        setAppServerName(S("host_1"), nullptr, 0);
        setAppName(S("front_a"), nullptr, 0);
        app_->VXSys.bciInstrSessionPct = 100;
    }
    void TearDown() override
    {
        setTierName(saved_[0].data(), nullptr, 0);
        setAppServerName(saved_[1].data(), nullptr, 0);
        setAppName(saved_[2].data(), nullptr, 0);
        free_backendNameHashMap();
    }
    VXPerThreadData_t* begin(const char* fpi)
    {
        return static_cast<VXPerThreadData_t*>(
            startFP(S(fpi), S("/pay"), nullptr, nullptr, nullptr, nullptr, nullptr, -1, 0));
    }
    static void end(VXPerThreadData_t* td)
    {
        endFP(td, 200, nullptr, 0, 0, 0, nullptr);
        reset(td);
    }

    VXProxyInstance_t* app_ = vx_test::agent();
    std::array<std::string, 3> saved_;
    FrozenClock clock_{kStart, 0};
    SessionScope session_{7, kEpoch};
    RecordSink sink_;
};

TEST(BackendNaming, RulesPickDescriptionItemsByPositionCaseAndPrefix)
{
    const std::string server = vx_test::agent()->VXBCISetting.appServerName;
    EXPECT_EQ(name_of("payments", "Port_Host"), "payments") << "no '|': the description is the name";
    EXPECT_EQ(name_of("http|NA|NA|/x", "Host_Port"), server + "_Default");
    EXPECT_EQ(name_of("http|pay|8443|/x", "port_HOST"), "8443_pay") << "rule order, case ignored";
    EXPECT_EQ(name_of("http|pay|8443|/x", "Prot_Ho_U"), "http_pay_/x") << "prefixes of the words";
    EXPECT_EQ(name_of("jdbc|db|5432|select 1|oracle|orders|19c", "DataBaseN_Query_QueryP"),
              "orders_select 1_oracle")
        << "'Query' alone is the URL or query; a longer prefix of QueryParameter the next item";
    EXPECT_EQ(name_of("jdbc|db|5432|q|oracle|orders|19c", "Data"), "oracle_orders_19c");
    EXPECT_EQ(name_of("http|pay|8443", "Hostname_URL"), "http|pay|8443") << "nothing named: as given";
    EXPECT_EQ(name_of("a|b|c|d|e|f|g|h|i|j|k|l|m", "ServiceName_Host"), "k_b") << "past position 10 ignored";

    char file[] = "# naming\r\nHTTP|Host,Port\nDB|NA\nMQ|ServiceName\nXX|Host\nDB|DataBaseName\n";
    parseBackendRuleFile(file);
    EXPECT_STREQ(vx::backend_rule(1), "Host_Port");
    EXPECT_STREQ(vx::backend_rule(2), "DataBaseName") << "a void line leaves the kind; a later line replaces";
    EXPECT_STREQ(vx::backend_rule(27), "ServiceName");
    free_backendNameHashMap();
    EXPECT_STREQ(vx::backend_rule(2), "Host");
}

TEST_F(Tiers, HeaderOfOneTierTiesTheNextTiersFlowpathIntoTheChain)
{
    char rules[] = "HTTP|Host,Port\n";
    parseBackendRuleFile(rules);
    auto* front = begin("4242");
    ASSERT_NE(front, nullptr);
    front->seqNum = 6;
    const std::string header = getTierCallOut(front, S("http|stock_svc|8080|/api"));
    EXPECT_EQ(front->tierCallOutSeqNum, 7) << "the call is the flowpath's next event";
    EXPECT_EQ(header, "4242_4242_" + std::to_string(front->tlThreadId) +
                          ".7_HTTP&#95;stock&#95;svc&#95;8080_9000000_NA_shop&#95;front_host&#95;1_front&#95;a");

    /* The next tier: its own identity, the caller's chain. */
    setTierName(S("stock"), nullptr, 0);
    setAppServerName(S("host2"), nullptr, 0);
    setAppName(S("back"), nullptr, 0);
    auto* back = begin(header.c_str());
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(back->firstFlowpathInstance, 4242);
    EXPECT_EQ(back->prevFlowpathInstance, 4242);
    EXPECT_NE(back->flowpathInstance, 4242);
    EXPECT_STREQ(back->prevTierSeq, (std::to_string(front->tlThreadId) + ".7").c_str());

    /* The back calls further: the chain's root passes on, sequences nest. */
    const std::string onward = getTierCallOut(back, nullptr);
    EXPECT_EQ(onward.rfind("4242_" + std::to_string(back->flowpathInstance) + "_" +
                               std::to_string(front->tlThreadId) + ".7." +
                               std::to_string(back->tierCallOutSeqNum) + "_NA_",
                           0),
              0u)
        << onward;
    end(back);
    auto* again = begin(header.c_str());
    end(again);
    end(front);

    EXPECT_EQ(sink_.of_type(91),
              std::vector<std::string>{"91,HTTP_stock_svc_8080,shop_front,stock,host_1,front_a,host2,back,NA\n"})
        << "one record 91 per distinct caller and backend, names decoded";
}

TEST_F(Tiers, ForcedCallerForcesTheCalleeAndHostileHeadersAreRefused)
{
    auto* front = begin("777F");
    ASSERT_EQ(front->tlIsForceDump, 1);
    const std::string header = getTierCallOut(front, nullptr);
    EXPECT_EQ(header.rfind("777F_777F_", 0), 0u) << header;
    end(front);
    auto* back = begin(header.c_str());
    EXPECT_EQ(back->tlIsForceDump, 1);
    end(back);
    const auto r2 = sink_.of_type(2);
    ASSERT_FALSE(r2.empty());
    EXPECT_NE(r2.back().find("F:777F:777F,"), std::string::npos) << r2.back();
    EXPECT_TRUE(sink_.of_type(91).empty()) << "backend NA: the chain without a record 91";

    /* Too few fields, or fields of no sense: logged, the transaction runs
     * with its own instance and no chain. */
    app_->VXSys.fpTraceLevel = 1;
    for (const char* bad : {"1_2", "x_y_z_w", "_____", "9_-5_a.b_&#95;_zz_NA_a_b_c"}) {
        auto* td = begin(bad);
        ASSERT_NE(td, nullptr) << bad;
        EXPECT_GT(td->flowpathInstance, 0) << bad;
        EXPECT_EQ(td->firstFlowpathInstance, 0) << bad;
        end(td);
    }
    EXPECT_TRUE(vx_test::logged("Error in received string '1_2'"));

    /* A flood of distinct callers is bounded. */
    const int before = app_->tierCallers.count;
    for (int i = 0; i < vx::kATDMax + 10; ++i) {
        std::string h = "1_2_3.4_HTTP&#95;b" + std::to_string(i) + "_5_NA_t_s_i";
        auto* td = begin(h.c_str());
        end(td);
    }
    EXPECT_LE(app_->tierCallers.count, vx::kATDMax);
    EXPECT_GE(app_->tierCallers.count, before);
}

TEST_F(Tiers, ResourcesGetOneIdEachShapedByTheKeyword)
{
    auto id = [](const char* desc) { return getIDForIPResourceURL(S(desc)); };
    const long long a = id("http|pay|443|/charge?card=1");
    EXPECT_GT(a, 0);
    EXPECT_EQ(id("http|pay|443|/charge?card=1"), a);
    EXPECT_NE(id("http|pay|443|/charge?card=2"), a) << "mode 0: the query is part of the name";

    char kw[] = "1";
    parseFormatIPResourceURL(kw, nullptr, 0);
    const long long b = id("http|pay|443|/refund?x=1");
    EXPECT_EQ(id("http|pay|443|/refund?x=2"), b) << "mode 1 cuts the query";
    char cut[] = "1%202%204";
    parseFormatIPResourceURL(cut, nullptr, 0);
    id("/v1/orders?id=3");
    const auto r26 = sink_.of_type(26);
    ASSERT_GE(r26.size(), 4u);
    EXPECT_EQ(r26[0], "26," + std::to_string(a) + ",/charge?card=1\n");
    EXPECT_EQ(r26[2], "26," + std::to_string(b) + ",/refund\n");
    EXPECT_EQ(r26.back().substr(r26.back().rfind(',')), ",1/or\n") << "offset 2, length 4";
    char off[] = "0";
    parseFormatIPResourceURL(off, nullptr, 0);
}

TEST_F(Tiers, SessionCookiesExpireByIdleTimeAndCountOnAFixedClock)
{
    VXSys_t& s = app_->VXSys;
    char on[] = "1%200%201%201%20Sess_X%20-%20600000%203";
    setEnableVXSession(on, S("enableVXSession"), 0);
    EXPECT_STREQ(getVXSessionCookieName(), "Sess_X");
    EXPECT_STREQ(getXSessionCookieName(), "X-Sess_X");
    EXPECT_EQ(getCookieDomainName(), nullptr);
    EXPECT_EQ(s.vxSessionIdleTimeOutSecs, 600);
    EXPECT_EQ(getCookieMethodPosition(), 2) << "the entry depth (the first field) before the commit";
    s.bciInstrSessionPct = 0;

    auto cookie_of = [](VXPerThreadData_t* td) {
        char* c = getVXSessionCookie(td);
        std::string text = c ? c : "";
        freePtr(c);
        return text;
    };
    auto serve = [&](const std::string& cookie) {
        auto* td = static_cast<VXPerThreadData_t*>(startFP(nullptr, S("/s"), nullptr, nullptr,
                                                           S(cookie.c_str()), nullptr, nullptr, -1, 0));
        std::string next = cookie_of(td);
        reset(td);
        return std::pair<long long, std::string>{td->vxSessionId, next};
    };
    /* An instrumented session on the cookie: captured without a draw. */
    auto [same, next] = serve("55-7-9000000-1-9-0-1-0-0-0");
    EXPECT_EQ(same, 55);
    EXPECT_EQ(next, "55-7-9000000-1-9-0-2-" + std::to_string(app_->VXBCISetting.tierID) + "-" +
                        std::to_string(app_->VXBCISetting.serverID) + "-" +
                        std::to_string(app_->VXBCISetting.appID));
    FrozenClock::advance_ms(599000);
    EXPECT_EQ(serve("55-7-9000000-1-9-0-2-0-0-0").first, 55) << "idle 599 s of 600";
    FrozenClock::advance_ms(1000);
    EXPECT_NE(serve("55-7-9000000-1-9-0-2-0-0-0").first, 55) << "idle 600 s: a new session";
    EXPECT_NE(serve("55-7-9599000-1-9-0-3-0-0-0").first, 55) << "the 4th flowpath past a limit of 3";
    s.maxFPCountInSession = 0;
    s.vxSessionIdleTimeOutSecs = 0;
    EXPECT_EQ(serve("55-7-1-1-9-0-999999-0-0-0").first, 55) << "0 limits expire nothing";

    char off[] = "0%201%200";
    setEnableVXSession(off, S("enableVXSession"), 0);
    auto* td = static_cast<VXPerThreadData_t*>(startFP(nullptr, S("/s"), nullptr, nullptr, nullptr, nullptr,
                                                       nullptr, -1, 0));
    EXPECT_EQ(getVXSessionCookie(td), nullptr) << "sessions off";
    reset(td);
    s.maxFPCountInSession = 1000;
    s.vxSessionIdleTimeOutSecs = 1800;
    setVXSessionCookieName(S("KlvKP"));
    s.methodEntryDepth2SetCookie = s.methodExitDepth2SetCookie = s.cookieOnResponseCommit = 0;
    s.headerInResponse = 0;
}

TEST_F(Tiers, EightThreadsCallOutOfOneParentAndEveryTokenIsThere)
{
    auto* parent = begin("31337");
    ASSERT_NE(parent, nullptr);
    parent->firstFlowpathInstance = 0;
    const long long base = parent->seqNum;
    constexpr int kThreads = 8;
    constexpr int kEach = 200;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < kEach; ++i) vxThreadCallOut(parent, 5000000 + t);
        });
    for (auto& th : threads) th.join();
    EXPECT_EQ(parent->seqNum, base + kThreads * kEach);
    for (int t = 0; t < kThreads; ++t) {
        auto* child = static_cast<VXPerThreadData_t*>(getThreadIdToThreadLocal(5000000 + t));
        ASSERT_NE(child, nullptr);
        EXPECT_EQ(child->firstFlowpathInstance, 31337) << "a parent that starts the chain is its root";
        EXPECT_EQ(child->prevFlowpathInstance, 31337);
        EXPECT_EQ(child->tlStatusCode, kChildThreadStatus);
    }
    end(parent);
    /* Every token left in records 3 and 4, in the parent's order. */
    std::string blobs;
    for (const auto& l : sink_.lines())
        if (l.rfind("3,", 0) == 0 || l.rfind("4,", 0) == 0) blobs += l;
    std::vector<bool> seen(static_cast<size_t>(base + kThreads * kEach + 1), false);
    for (size_t at = blobs.find("t"); at != std::string::npos; at = blobs.find("t", at + 1)) {
        const long long seq = atoll(blobs.c_str() + at + 1);
        if (seq > 0 && seq < static_cast<long long>(seen.size()) && blobs[at + 1 + std::to_string(seq).size()] == '_')
            seen[static_cast<size_t>(seq)] = true;
    }
    int found = 0;
    for (size_t i = static_cast<size_t>(base + 1); i < seen.size(); ++i) found += seen[i] ? 1 : 0;
    EXPECT_EQ(found, kThreads * kEach);

    /* Ids are told apart by seven digits; a clean frees the shared entry. */
    EXPECT_EQ(getThreadIdToThreadLocal(50000001), getThreadIdToThreadLocal(5000000));
    for (int t = 0; t < kThreads; ++t) cleanThreadIdToThreadLocal(5000000 + t);
    EXPECT_EQ(getThreadIdToThreadLocal(5000000), nullptr);
    cleanThreadIdToThreadLocal(5000000);
}

TEST_F(Tiers, AChildOfAChainedParentKeepsTheRootAndAFullBlobIsClamped)
{
    auto* parent = begin("11_22_3.4_NA");
    updateChildThreadPrevFPI(parent, 42);
    auto* child = static_cast<VXPerThreadData_t*>(getThreadIdToThreadLocal(42));
    ASSERT_NE(child, nullptr);
    EXPECT_EQ(child->firstFlowpathInstance, 11);
    EXPECT_EQ(child->prevFlowpathInstance, parent->flowpathInstance);
    cleanThreadIdToThreadLocal(42);

    app_->VXFlowpathGenerator.maxCharactersInSeqBlob = vx::kSeqBlobSize;
    parent->sequenceBlobLen = vx::kSeqBlobSize - 3;
    memset(parent->sequenceBlob, 'x', vx::kSeqBlobSize - 3);
    parent->sequenceBlob[vx::kSeqBlobSize - 3] = '\0';
    parent->seqNum = 998;
    vxThreadCallOut(parent, 43);
    EXPECT_EQ(parent->seqNum, 999);
    EXPECT_EQ(parent->sequenceBlobLen, 0) << "clamped to the blob's size, then flushed";
    EXPECT_EQ(sink_.of_type(3).size(), 1u);
    cleanThreadIdToThreadLocal(43);
    end(parent);
}

}  // namespace
