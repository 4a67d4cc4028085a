/*
 * The SDK calls on the test binary's agent: argument checks and their log
 * lines, the hand-over of transactions to the engine, the handle map, the
 * callouts' session gate, the helpers and the host callbacks. Start-up
 * (vx_init2) is tested in tests/init.
 */
#include "vx_sdk.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "agent/vx_host_callbacks.h"
#include "agent/vx_instance.h"
#include "agent/vx_sdk_api.h"
#include "agent/vx_sdk_api_private.h"
#include "agent/vx_sdk_log.h"
#include "vx_test_support.h"

namespace {

using namespace vx_test;

VXPerThreadData_t* record(vxBTHandle h)
{
    return static_cast<VXPerThreadData_t*>(h);
}

vxBTHandle begin(const char* name, const char* kpcookie = nullptr)
{
    return vx_bt_begin(S(name), nullptr, nullptr, S(kpcookie), nullptr, nullptr);
}

/* Every case runs on the binary's agent with the SDK log open in its home
 * and the handle map made, as vx_init2 leaves them. */
class Sdk : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        vx_test::agent();
        static const bool ready = [] {
            std::string dir = vx_test::agent_home() + "/cppAgent";
            vx_sdk_log_init(dir.data());
            vx::sdk_bt_map_create();
            return true;
        }();
        (void)ready;
    }

    void SetUp() override
    {
        ASSERT_NE(vx_sdk_log, nullptr);
        ASSERT_NE(vx_sdk_log->file_fp, nullptr);
        sdk_log_level = VX_SDK_ERROR;
        from_ = log_text().size();
    }

    void TearDown() override { sdk_log_level = VX_SDK_ERROR; }

    static std::string log_text() { return read_file(vx_sdk_log->file_name[0]); }

    /* "LEVEL|message" of each SDK log line written since the case began (or
     * since the last call); a line is "<when> |<pid> |<LEVEL> |<func> : <n> |<message>". */
    std::vector<std::string> messages()
    {
        std::string text = log_text();
        std::istringstream in(text.substr(std::min(from_, text.size())));
        from_ = text.size();
        std::vector<std::string> out;
        for (std::string line; std::getline(in, line);) {
            size_t level = line.find(" |", line.find(" |") + 2) + 2;
            size_t func = line.find(" |", level);
            size_t msg = line.find(" |", func + 2);
            out.push_back(msg == std::string::npos
                              ? "<malformed>" + line
                              : line.substr(level, func - level) + "|" + line.substr(msg + 2));
        }
        return out;
    }

    size_t from_ = 0;
};

using Lines = std::vector<std::string>;

TEST_F(Sdk, BeginAndEndRunOneTransactionWithZeroStatusReportedAs200)
{
    SessionScope session;
    VXProxyInstance_t* app = vx_test::agent();
    app->VXSys.bciInstrSessionPct = 100;
    RecordSink sink;
    const int busy = app->tlsPool.gBusyTLSCnt;

    vxBTHandle h = begin("/sdk/cart");
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(bt_int_to_handle(bt_handle_to_int(h)), h);
    const std::string fpi = record(h)->flowpathInstanceStr;
    EXPECT_EQ(vx_bt_end(h, 0, 0, nullptr), 0);
    Lines r2 = sink.of_type(2);
    Lines r4 = sink.of_type(4);
    ASSERT_EQ(r2.size(), 1u);
    ASSERT_EQ(r4.size(), 1u);
    EXPECT_EQ(field(r2[0], 1), fpi);
    EXPECT_EQ(field(r2[0], 6), "/sdk/cart"); /* the name is the transaction's URL */
    EXPECT_EQ(field(r4[0], 1), fpi);
    EXPECT_EQ(field(r4[0], 2), "200");
    EXPECT_EQ(app->tlsPool.gBusyTLSCnt, busy); /* the record went back to the pool */

    /* A status the host gives is reported as given. */
    h = begin("/sdk/pay");
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(vx_bt_end(h, 503, 0, nullptr), 0);
    r4 = sink.of_type(4);
    ASSERT_EQ(r4.size(), 2u);
    EXPECT_EQ(field(r4[1], 2), "503");
    EXPECT_EQ(messages(), Lines{});
}

TEST_F(Sdk, RefusedArgumentsAreReportedOnceEachAndBeginWaitsForASession)
{
    {
        SessionScope session;
        RecordSink sink;
        EXPECT_EQ(begin(""), nullptr);
        EXPECT_EQ(begin(nullptr), nullptr);
        EXPECT_EQ(vx_bt_end(nullptr, 200, 0, nullptr), -1);
        EXPECT_EQ(sink.size(), 0u);
        EXPECT_EQ(messages().size(), 3u);

        vxBTHandle h = begin("/sdk/methods");
        ASSERT_NE(h, nullptr);
        vx_method_entry(nullptr, S("Shop.pay"));
        vx_method_entry(h, S(""));
        vx_method_exit(h, nullptr, nullptr);
        vx_method_exit(nullptr, S("Shop.pay"), nullptr);
        EXPECT_EQ(messages().size(), 4u);
        /* Well-formed calls are handed over without complaint. */
        vx_method_entry(h, S("Shop.pay"));
        vx_method_exit(h, S("Shop.pay"), nullptr);
        vx_bt_end(h, 0, 0, nullptr);
        EXPECT_EQ(messages(), Lines{});
    }
    /* No session: no handle, and nothing wrong with the call. */
    EXPECT_EQ(begin("/sdk/cart"), nullptr);
    EXPECT_EQ(messages(), Lines{});
}

TEST_F(Sdk, StoreKeepsTheFirstHandleOfAnIdAndGetFindsItByText)
{
    static char id[] = "sdk-order-1";
    static char other[] = "sdk-order-2";
    static int first, second;

    vx_bt_store(&first, id);
    vx_bt_store(&second, id); /* refused: the id is taken */
    EXPECT_EQ(vx_bt_get(id), &first);
    std::string same = "sdk-order-1"; /* another copy of the text */
    EXPECT_EQ(vx_bt_get(same.data()), &first);
    EXPECT_EQ(vx_bt_get(S("sdk-never-stored")), nullptr);
    EXPECT_EQ(vx_bt_get(S("")), nullptr);
    vx_bt_store(nullptr, other);
    vx_bt_store(&second, S(""));
    EXPECT_EQ(vx_bt_get(other), nullptr);
    EXPECT_EQ(messages().size(), 4u);
}

TEST_F(Sdk, CalloutsCheckArgumentsOnlyWhileASessionRunsAndIsNotStopping)
{
    /* No session: inert, whatever the arguments. */
    EXPECT_EQ(vx_ip_db_callout_end(S("q"), S(""), nullptr, nullptr), 0);
    EXPECT_EQ(vx_ip_http_callout_end(S("h"), nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(vx_ip_http_callout_begin(S("h"), nullptr, nullptr), 0);
    EXPECT_EQ(messages(), Lines{});

    SessionScope session;
    VXProxyInstance_t* app = vx_test::agent();
    vxBTHandle h = begin("/sdk/callouts");
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(vx_ip_db_callout_end(S("q"), S(""), h, nullptr), -1);
    EXPECT_EQ(vx_ip_db_callout_end(S("q"), S("DB|mysql|db1:3306"), nullptr, nullptr), -1);
    EXPECT_EQ(vx_ip_http_callout_end(S("h"), nullptr, h, nullptr), -1);
    EXPECT_EQ(vx_ip_http_callout_begin(S("h"), h, S("")), 0);
    EXPECT_EQ(vx_ip_db_callout_begin(S("q"), h, S(""), nullptr), 0); /* DEBUG: not at ERROR */
    EXPECT_EQ(messages().size(), 4u);
    sdk_log_level = VX_SDK_DEBUG;
    EXPECT_EQ(vx_ip_db_callout_begin(nullptr, nullptr, S("select 1"), nullptr), 0);
    EXPECT_EQ(messages().size(), 1u);

    /* A stop under way closes the gate again. */
    app->Server.gettingstopInstrumenatation = 1;
    EXPECT_EQ(vx_ip_db_callout_end(S("q"), S(""), h, nullptr), 0);
    EXPECT_EQ(vx_ip_http_callout_end(S("h"), nullptr, h, nullptr), 0);
    EXPECT_EQ(vx_ip_db_callout_begin(S("q"), nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(messages(), Lines{});
    app->Server.gettingstopInstrumenatation = 0;

    sdk_log_level = VX_SDK_ERROR;
    EXPECT_EQ(vx_ip_http_callout_begin(S("h"), h, S("http://pay.example/charge")), 0);
    EXPECT_EQ(vx_ip_http_callout_end(S("h"), S("HTTP|pay.example|80"), h, nullptr), 0);
    EXPECT_EQ(vx_ip_db_callout_begin(S("q"), h, S("select 1"), S("")), 0);
    EXPECT_EQ(vx_ip_db_callout_end(S("q"), S("DB|mysql|db1:3306"), h, nullptr), 0);
    EXPECT_EQ(messages(), Lines{});
    vx_bt_end(h, 0, 0, nullptr);
}

TEST_F(Sdk, SessionCookieAndTopologyTagDescribeTheTransaction)
{
    FrozenClock clock(kEpoch + 5000123, 0);
    SessionScope session(7, kEpoch);
    VXProxyInstance_t* app = vx_test::agent();
    app->VXSys.bciInstrSessionPct = 100;
    vxBTHandle h = begin("/sdk/topo", "77-1-2-55");
    ASSERT_NE(h, nullptr);
    const VXBCISetting_t& bci = app->VXBCISetting;
    const std::vector<std::pair<std::string, std::string>> ids = {
        {"fpi", record(h)->flowpathInstanceStr},
        {"ids", std::to_string(bci.tierID) + "-" + std::to_string(bci.serverID) + "-" +
                    std::to_string(bci.appID)}};

    EXPECT_EQ(sdk_getVXSessionCookie(h), nullptr); /* sessions are off */
    app->VXSys.enableVXSession = 1;
    char* cookie = sdk_getVXSessionCookie(h);
    ASSERT_NE(cookie, nullptr);
    /* A new session: its id is this flowpath, captured, category 9 until
     * the end, one flowpath so far. */
    EXPECT_EQ(std::string(cookie), vx_test::fill("{fpi}-7-5000123-1-9-0-1-{ids}", ids));
    sdk_free_memory(cookie);
    EXPECT_EQ(sdk_getVXSessionCookie(nullptr), nullptr);
    app->VXSys.enableVXSession = 0;
    EXPECT_EQ(messages().size(), 1u);

    EXPECT_EQ(sdk_getTopoFpStr(h), nullptr); /* tags are off */
    VXBCISetting_t& names = app->VXBCISetting;
    vx_test::Restore keep(names.tierName, names.appServerName, names.appName);
    names.tierName = S("Shop");
    names.appServerName = S("srv1");
    names.appName = S("inst1");
    app->VXSys.enableUpdateLogMsgForLQ = 1;
    char* topo = sdk_getTopoFpStr(h);
    ASSERT_NE(topo, nullptr);
    EXPECT_EQ(std::string(topo),
              vx_test::fill(" [TOPO:7:Shop:srv1:inst1][FP:7:{fpi}:0:{fpi}:77:55] ", ids));
    sdk_free_memory(topo);
    EXPECT_EQ(sdk_getTopoFpStr(nullptr), nullptr);
    vx_bt_end(h, 0, 0, nullptr);
    app->VXSys.enableUpdateLogMsgForLQ = 0;
}

/* Host callbacks the cases register; each notes its call. */
std::vector<std::string> g_calls;

void on_cookie(char* name, char* domain, int header, int position, long long idle)
{
    g_calls.push_back("cookie:" + std::string(name ? name : "-") + ":" +
                      std::string(domain ? domain : "-") + ":" + std::to_string(header) + ":" +
                      std::to_string(position) + ":" + std::to_string(idle));
}
void on_kp(char* name)
{
    g_calls.push_back("kp:" + std::string(name ? name : "-"));
}
void on_status(int running)
{
    g_calls.push_back("status:" + std::to_string(running));
}
char* on_thread_dump()
{
    return nullptr;
}

TEST_F(Sdk, ThreadDumpRegistrationPushesCookieSettingsThenCookieNameThenSession)
{
    VXProxyInstance_t* app = vx_test::agent();
    VXSys_t& s = app->VXSys;
    vx_test::Restore keep(s);
    static char domain[] = "shop.example";
    static char kp_name[] = "UXC";
    strcpy(s.cookieDomainName, domain);
    s.KPCookieName = kp_name;
    s.headerInResponse = 1;
    s.vxSessionIdleTimeOutSecs = 900;

    const std::string cache = vx_test::agent_home() + "/cppAgent/.cache";
    rmdir(cache.c_str());
    register_vx_cookie_callback(on_cookie);
    register_kp_cookie_callback(on_kp);
    register_test_status_for_agent(on_status);
    struct stat st;
    EXPECT_EQ(stat(cache.c_str(), &st), 0); /* the host's cache directory */

    /* The method position: exit depth wins over entry depth, entry over
     * response commit. */
    struct {
        int exit, entry, commit, position;
    } const positions[] = {{1, 1, 1, 1}, {0, 1, 1, 2}, {0, 0, 1, 3}, {0, 0, 0, 0}};
    for (const auto& p : positions) {
        s.methodExitDepth2SetCookie = p.exit;
        s.methodEntryDepth2SetCookie = p.entry;
        s.cookieOnResponseCommit = p.commit;
        g_calls.clear();
        register_thread_dump_callback(on_thread_dump);
        EXPECT_EQ(g_calls,
                  (Lines{"cookie:KlvKP:shop.example:1:" + std::to_string(p.position) + ":900",
                         "kp:UXC", "status:0"}))
            << "position " << p.position;
    }
    EXPECT_EQ(thread_dump_callback_func, &on_thread_dump);

    /* Only what is registered is called; the session shows as running. */
    register_kp_cookie_callback(nullptr);
    {
        SessionScope session;
        g_calls.clear();
        register_thread_dump_callback(on_thread_dump);
        EXPECT_EQ(g_calls, (Lines{"cookie:KlvKP:shop.example:1:0:900", "status:1"}));
    }

    register_vx_cookie_callback(nullptr);
    register_test_status_for_agent(nullptr);
    register_thread_dump_callback(nullptr);
}

/* The calls agent_callback_func received, as "name|value|text|data|f1|f2". */
Lines g_settings;

int on_setting(char* name, long long value, char* text, char* data, char* f1, char* f2)
{
    g_settings.push_back(str(name) + "|" + std::to_string(value) + "|" + str(text) + "|" +
                         str(data) + "|" + str(f1) + "|" + str(f2));
    return 7;
}

TEST_F(Sdk, SettingsReachTheHostWithTheirFourFieldsAndTheCallAnswersZero)
{
    /* Nobody listening is no error. */
    EXPECT_EQ(callback_function_sdk(S("AgentTraceLevel"), 3, S("3"), nullptr, S("a"), S("b")), 0);

    register_callback_for_agent(on_setting);
    g_settings.clear();
    sdk_log_level = VX_SDK_DEBUG;
    std::string data(400, 'x');
    EXPECT_EQ(
        callback_function_sdk(S("AgentTraceLevel"), 3, S("three"), data.data(), S("a"), S("b")), 0);
    transfer_data_callback(S("enableGCMonitor"), 1, S("1"), nullptr);
    EXPECT_EQ(g_settings, (Lines{"AgentTraceLevel|3|three|" + data + "|<null>|<null>",
                                 "enableGCMonitor|1|1|<null>|<null>|<null>"}));
    /* The file data is logged cut at 300 characters. */
    Lines lines = messages();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0],
              "DEBUG|Method Called with values keywordName = AgentTraceLevel, "
              "keywordValue = 3, fileData = [" +
                  std::string(300, 'x') + "]");
    EXPECT_EQ(lines[1], "DEBUG|Method exit");
    register_callback_for_agent(nullptr);
}

}  // namespace
