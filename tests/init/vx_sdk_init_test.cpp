/*
 * Start-up of an SDK host: vx_init2 makes the process's one agent, so every
 * case runs in a child process of its own. The 30-second wait is replaced by
 * a sleep that only notes its argument and moves a frozen clock on.
 */
#include <dirent.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "agent/vx_instance.h"
#include "agent/vx_sdk_api.h"
#include "agent/vx_sdk_api_private.h"
#include "agent/vx_sdk_log.h"
#include "core/vx_atomic.h"
#include "vx_sdk.h"
#include "vx_test_support.h"

namespace {

using vx_test::S;

int g_sleeps = 0;
int g_slept = -1;

void noted_sleep(int seconds)
{
    ++g_sleeps;
    g_slept = seconds;
    vx_test::FrozenClock::advance_ms(seconds * 1000LL);
}

/* Names in `dir` that begin with `prefix`. */
std::vector<std::string> files_in(const std::string& dir, const std::string& prefix = "")
{
    std::vector<std::string> out;
    DIR* d = opendir(dir.c_str());
    if (!d) return out;
    while (dirent* e = readdir(d)) {
        std::string name = e->d_name;
        if (name == "." || name == "..") continue;
        if (name.rfind(prefix, 0) == 0) out.push_back(name);
    }
    closedir(d);
    return out;
}

std::vector<std::string> lines_of(const std::string& path)
{
    std::ifstream in(path);
    std::vector<std::string> out;
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

/* "LEVEL|function|message" of an SDK log line whose prefix has the exact
 * shape "DD-Mon-YY hh:mm:ss |<pid> |LEVEL |function : line |"; "" when it
 * does not. */
std::string parse_sdk_line(const std::string& line)
{
    static const std::regex shape(
        R"(\d\d-[A-Za-z]{3}-\d\d \d\d:\d\d:\d\d \|(\d+) \|(\S+) \|(\S+) : \d+ \|(.*))");
    std::smatch m;
    if (!std::regex_match(line, m, shape) || m[1] != std::to_string(getpid())) return "";
    return m[2].str() + "|" + m[3].str() + "|" + m[4].str();
}

constexpr char kHeader[] = "#Date      TimeStamp|PID   |level|function_name:line|format";

TEST(SdkInit, WithoutAnExistingHomeNothingStartsAndEveryCallIsInert)
{
    EXPECT_IN_CHILD([](const std::string& home) {
        vx::sdk_sleep_set(noted_sleep);
        unsetenv("VXHOME");
        vx_init();
        CHILD_CHECK(tlvxApplication == nullptr);
        CHILD_CHECK(initializeSDK == 0 && g_vx_sdk_log_init == 0 && vx_sdk_log == nullptr);
        CHILD_CHECK(g_sleeps == 0);
        CHILD_CHECK(vx_bt_begin(S("/a"), nullptr, nullptr, nullptr, nullptr, nullptr) == nullptr);
        static int h;
        CHILD_CHECK(vx_bt_end(&h, 0, 0, nullptr) == -1);
        CHILD_CHECK(vx_ip_db_callout_end(S("q"), S(""), &h, nullptr) == 0);
        vx_bt_store(&h, S("id"));
        CHILD_CHECK(vx_bt_get(S("id")) == nullptr);

        /* A home that does not exist is no home. */
        setenv("VXHOME", (home + "/missing").c_str(), 1);
        vx_init_sdk(S("worker"));
        CHILD_CHECK(tlvxApplication == nullptr && g_sleeps == 0 && vx_sdk_log == nullptr);
        CHILD_CHECK(files_in(home).empty()); /* not a file was made */
        return 0;
    });
}

TEST(SdkInit, Init2OpensTheSdkLogStartsTheAgentAndReturnsAfterItsWait)
{
    EXPECT_IN_CHILD([](const std::string& home) {
        setenv("KLV_APP_AGENT_LOGGINGLEVEL", "INFO", 1);
        constexpr long long kNow = 1700000000000LL;
        vx_test::FrozenClock clock(kNow, 0);
        vx::sdk_sleep_set(noted_sleep);

        vx_init2(S("cppAgent"), S("worker"), S("v2"), S("shop"));
        CHILD_CHECK(g_sleeps == 1 && g_slept == 30);
        CHILD_CHECK(initializeSDK == 1 && g_vx_sdk_log_init == 1);
        CHILD_CHECK(sdk_log_level == VX_SDK_INFO);
        VXProxyInstance_t* app = tlvxApplication;
        CHILD_CHECK(app != nullptr);
        CHILD_CHECK(strcmp(app->agentName, "shop") == 0);
        CHILD_CHECK(proc_name && strcmp(proc_name, "worker") == 0);
        CHILD_CHECK(strcmp(app->VXBCISetting.agentType, "cppAgent") == 0);
        CHILD_CHECK(strcmp(app->VXBCISetting.agentVersion, "v2") == 0);
        CHILD_CHECK(app->controlLink.control_thread_id != nullptr);
        /* Stamped once the wait is over. */
        CHILD_CHECK(vx::load_relaxed(app->Server.lastHeartBeatRcvTime) == kNow + 30000);
        CHILD_CHECK(sdk_pool && bt_lock && g_bt_hash);

        /* "<home>/<type>/logs/vx_sdk_<14 digits>_<pid>.log_0", alone. */
        const std::string logs = home + "/cppAgent/logs";
        std::vector<std::string> names = files_in(logs, "vx_sdk_");
        CHILD_CHECK(names.size() == 1);
        const std::string& name = names[0];
        CHILD_CHECK(std::regex_match(
            name, std::regex(R"(vx_sdk_\d{14}_)" + std::to_string(getpid()) + R"(\.log_0)")));
        CHILD_CHECK(logs + "/" + name == vx_sdk_log->file_name[0]);
        std::string second = logs + "/" + name;
        second.back() = '1';
        CHILD_CHECK(second == vx_sdk_log->file_name[1]);

        std::vector<std::string> lines = lines_of(logs + "/" + name);
        CHILD_CHECK(lines.size() == 3);
        CHILD_CHECK(lines[0] == kHeader);
        CHILD_CHECK(parse_sdk_line(lines[1]) ==
                    "INFO|sdk_bt_map_create|Method Called, sdk_pool created");
        CHILD_CHECK(parse_sdk_line(lines[2]) == "INFO|sdk_bt_map_create|Method End");

        static char id[] = "order-9";
        static int h;
        vx_bt_store(&h, id);
        CHILD_CHECK(vx_bt_get(id) == &h);

        vx_free();
        CHILD_CHECK(!vx_sdk_log && !g_bt_hash && !sdk_pool && !bt_lock);
        lines = lines_of(logs + "/" + name);
        CHILD_CHECK(parse_sdk_line(lines.back()) == "INFO|vx_free|Method Called");
        /* After vx_free nothing is logged and the map is gone. */
        const size_t count = lines.size();
        CHILD_CHECK(vx_bt_begin(S(""), nullptr, nullptr, nullptr, nullptr, nullptr) == nullptr);
        CHILD_CHECK(vx_bt_get(id) == nullptr);
        CHILD_CHECK(lines_of(logs + "/" + name).size() == count);
        return 0;
    });
}

TEST(SdkInit, Init2FallsBackToTheProgramNameTheHomeAndTheErrorLevel)
{
    EXPECT_IN_CHILD([](const std::string& home) {
        vx::sdk_sleep_set(noted_sleep);
        vx_init();
        VXProxyInstance_t* app = tlvxApplication;
        CHILD_CHECK(app != nullptr && g_sleeps == 1);
        CHILD_CHECK(strcmp(app->agentName, program_invocation_short_name) == 0);
        CHILD_CHECK(strcmp(proc_name, "klvgolib") == 0);
        CHILD_CHECK(sdk_log_level == VX_SDK_ERROR);
        /* At the default level only the header is written. */
        std::vector<std::string> names = files_in(home + "/cppAgent/logs", "vx_sdk_");
        CHILD_CHECK(names.size() == 1);
        CHILD_CHECK(lines_of(home + "/cppAgent/logs/" + names[0]) ==
                    std::vector<std::string>{kHeader});
        return 0;
    });
    /* Without an agent type the log lies under the home itself. */
    EXPECT_IN_CHILD([](const std::string& home) {
        vx::sdk_sleep_set(noted_sleep);
        vx_init2(nullptr, S("worker"), nullptr, nullptr);
        CHILD_CHECK(tlvxApplication != nullptr && initializeSDK == 1);
        CHILD_CHECK(files_in(home + "/logs", "vx_sdk_").size() == 1);
        return 0;
    });
}

TEST(SdkInit, SdkLogLevelComesFromTheEnvironmentAndGatesEachLine)
{
    EXPECT_IN_CHILD([](const std::string& home) {
        std::string dir = home + "/cppAgent";
        const struct {
            const char* value;
            int level;
        } cases[] = {{"CRITICAL", 4}, {"warning", 3}, {"Info", 2},
                     {"debug", 1},    {"TRACE", 5},   {"", 5}};
        for (const auto& c : cases) {
            sdk_log_level = VX_SDK_ERROR;
            setenv("KLV_APP_AGENT_LOGGINGLEVEL", c.value, 1);
            vx_sdk_log_init(dir.data());
            CHILD_CHECK(vx_sdk_log && vx_sdk_log->file_fp);
            CHILD_CHECK(sdk_log_level == c.level);
        }

        /* WARNING lets through WARNING, CRITICAL and ERROR. */
        sdk_log_level = VX_SDK_WARNING;
        for (int level = VX_SDK_DEBUG; level <= VX_SDK_ERROR; ++level)
            VX_SDK_LOG(level, "m%d", level);
        std::vector<std::string> lines = lines_of(vx_sdk_log->file_name[0]);
        CHILD_CHECK(lines.size() == 4 && lines[0] == kHeader);
        /* The logging function here is the lambda's operator(). */
        CHILD_CHECK(parse_sdk_line(lines[1]) == "WARNING|operator()|m3");
        CHILD_CHECK(parse_sdk_line(lines[2]) == "CRITICAL|operator()|m4");
        CHILD_CHECK(parse_sdk_line(lines[3]) == "ERROR|operator()|m5");

        /* A directory that cannot be made: no file, the level stays,
         * and lines are refused. */
        std::ofstream(home + "/blocker") << "x";
        setenv("KLV_APP_AGENT_LOGGINGLEVEL", "DEBUG", 1);
        std::string blocked = home + "/blocker";
        vx_sdk_log_init(blocked.data());
        CHILD_CHECK(vx_sdk_log && vx_sdk_log->file_fp == nullptr);
        CHILD_CHECK(sdk_log_level == VX_SDK_WARNING);
        CHILD_CHECK(vx_sdk_trace_log(VX_SDK_ERROR, "host_fn", 7, "lost") == -1);
        return 0;
    });
}

}  // namespace
