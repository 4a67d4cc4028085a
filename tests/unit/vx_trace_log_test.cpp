/* The trace log: file names, header, line layout, roll-over, routing to the
 * proxy, and the start-up cleaner of old log files. */
#include "core/vx_trace_log.h"
#include "agent/vx_trace_setup.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <regex>
#include <string>
#include <thread>

#include "agent/vx_instance.h"
#include "vx_test_support.h"

namespace {

using vx_test::read_file;
using vx_test::S;

const std::string kHeaderAndBuild =
    "#TimeStamp|TestRun|Thread Name|Thread ID|Module Name|Src file name|Line number|Function|"
    "Severity|Message\n9.9.9 build 42 ";

/* Size of a file, -1 when it does not exist. */
long long file_size(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : -1;
}

std::string tid_text()
{
    return std::to_string(static_cast<long long>(syscall(SYS_gettid)));
}

std::string local_date(const char* fmt)
{
    time_t now = time(nullptr);
    struct tm tm_now;
    localtime_r(&now, &tm_now);
    char buf[32];
    strftime(buf, sizeof buf, fmt, &tm_now);
    return buf;
}

/* Replace each line's time with "<date>", checking that it has the layout
 * "MM/DD/YY hh:mm:ss" and today's date (taken before or after the writes). */
std::string mask_dates(const std::string& text, const std::string& day_before,
                       const std::string& day_after)
{
    static const std::regex stamp(R"(\n(\d\d/\d\d/\d\d) \d\d:\d\d:\d\d\|)");
    std::string out;
    auto last = text.cbegin();
    for (std::sregex_iterator it(text.begin(), text.end(), stamp), end; it != end; ++it) {
        const std::string day = (*it)[1];
        EXPECT_TRUE(day == day_before || day == day_after) << "line date " << day;
        out.append(last, (*it)[0].first) += "\n<date>|";
        last = (*it)[0].second;
    }
    return out.append(last, text.cend());
}

/* A log of its own in a fresh directory, so that the agent's log is left
 * alone; it restores the globals the trace log tests change. */
class TraceLogTest : public testing::Test {
protected:
    void SetUp() override
    {
        app_->Server.TestRunIDValue = 0;
        dir_ = vx_test::make_temp_dir("vx_trace_unit_");
        key_ = vxlb_init_mt_trace_log_ex(dir_.data(), S("unit.log"), 0, 0);
        ASSERT_NE(key_, nullptr);
        path0_ = key_->log_file[0];
        path1_ = key_->log_file[1];
        ASSERT_EQ(path0_, dir_ + "/unit.log_0");
        ASSERT_EQ(path1_, dir_ + "/unit.log_1");
    }
    void TearDown() override
    {
        if (!key_) return;
        for (FILE* f : key_->fp)
            if (f) fclose(f);
        free(key_);
        remove(path0_.c_str());
        remove(path1_.c_str());
        rmdir(dir_.c_str());
    }

    void log(int line, const std::string& msg, const char* module = "FLOWPATH",
             const char* severity = "Info")
    {
        vxlb_mt_trace_log(key_, "UnitThread", 99, module, severity, "unit_file.cpp", line, "unitFn",
                          "%s", msg.c_str());
    }

    VXProxyInstance_t* app_ = vx_test::agent();
    MTTraceLogKey* key_ = nullptr;
    std::string dir_, path0_, path1_;

private:
    vx_test::Restore keep_{app_->VXSys.traceMaxSize, app_->sendLogsToProxy,
                           app_->Server.TestRunIDValue};
};

TEST(TraceLog, AgentLogIsNamedByProcessPoolStampAndPid)
{
    ASSERT_NE(trace_log_key, nullptr);
    ASSERT_EQ(vx_test::agent()->sendLogsToProxy, 1);
    for (int i = 0; i < 2; ++i) {
        /* "<home>/cppAgent/logs/" + "/vx_trace_<process>_<pool>_<stamp>_<pid>.log_<i>" */
        const std::string path = trace_log_key->log_file[i];
        const std::string dir = vx_test::agent_home() + "/cppAgent/logs//vx_trace_unit_UnitPool_";
        const std::string tail = "_" + std::to_string(getpid()) + ".log_" + std::to_string(i);
        EXPECT_TRUE(path.starts_with(dir) && path.ends_with(tail) &&
                    path.size() == dir.size() + 14 + tail.size() &&
                    std::regex_match(path.substr(dir.size(), 14), std::regex(R"(\d{14})")))
            << path;
    }
}

TEST_F(TraceLogTest, LinesCarryTimeTestRunThreadModuleSourceAndMessage)
{
    const std::string before = local_date("%m/%d/%y");
    log(321, "value=42|end");
    app_->Server.TestRunIDValue = 1;
    vxlb_mt_trace_log(key_, "UnitThread", 99, "BT_MON", "Error", "f2.cpp", 9, "fn2", "%s=%d",
                      "second", 2);

    /* A null thread name is the calling thread's own name. */
    std::string other_tid;
    std::thread t([&] {
        pthread_setname_np(pthread_self(), "vx-named");
        other_tid = tid_text();
        vxlb_mt_trace_log(key_, nullptr, 0, "EXCP_MON", "Info", "t.cpp", 1, "run", "from thread");
    });
    t.join();
    const std::string after = local_date("%m/%d/%y");

    const std::string tid = tid_text();
    // clang-format off
    EXPECT_EQ(mask_dates(read_file(path0_), before, after), kHeaderAndBuild +
              "\n<date>|******|UnitThread|" + tid + "|FLOWPATH|unit_file.cpp|321|unitFn|Info|value=42|end"
              "\n<date>|TR1|UnitThread|" + tid + "|BT_MON|f2.cpp|9|fn2|Error|second=2"
              "\n<date>|TR1|vx-named|" + other_tid + "|EXCP_MON|t.cpp|1|run|Info|from thread");
    // clang-format on
    EXPECT_EQ(key_->log_file_size, file_size(path0_));
}

TEST_F(TraceLogTest, MessageLongerThanLineIsCutAndStillWritten)
{
    log(1, "short");
    const long long start = file_size(path0_);
    std::string longMsg(20000, 'y');
    longMsg += "TAIL";
    log(2, longMsg);
    const std::string text = read_file(path0_);
    const std::string line = text.substr(static_cast<size_t>(start));
    EXPECT_EQ(line.size(), 10239u) << "a line is one 10,240-byte buffer less its terminator";
    EXPECT_NE(line.find("|FLOWPATH|unit_file.cpp|2|unitFn|Info|yyyy"), std::string::npos);
    EXPECT_EQ(line.find("TAIL"), std::string::npos);
    EXPECT_EQ(line.back(), 'y');
    EXPECT_EQ(key_->log_file_size, file_size(path0_));
}

/* The two-letter tags that start the messages of `text`, in order. */
std::string tags(const std::string& text)
{
    std::string out;
    for (size_t p = text.find("|Info|"); p != std::string::npos; p = text.find("|Info|", p + 1))
        out += text.substr(p + 6, 2);
    return out;
}

TEST_F(TraceLogTest, RollOverSwitchesFileWithHeaderAndDeletesTheOlderOne)
{
    /* Header and build line take about 120 bytes, a line about 270: two
     * lines stay under 600, the third rolls over. */
    app_->VXSys.traceMaxSize = 600;
    const std::string pad(200, '.');
    log(1, "A1" + pad);
    log(2, "A2" + pad);
    EXPECT_EQ(file_size(path1_), -1);
    log(3, "B1" + pad);
    ASSERT_EQ(key_->cur_index, 1);
    EXPECT_EQ(tags(read_file(path0_)), "A1A2");
    EXPECT_TRUE(read_file(path1_).starts_with(kHeaderAndBuild + "\n")) << read_file(path1_);
    EXPECT_EQ(tags(read_file(path1_)), "B1");
    EXPECT_EQ(key_->log_file_size, file_size(path1_));

    log(4, "B2" + pad);
    log(5, "C1" + pad);
    ASSERT_EQ(key_->cur_index, 0);
    EXPECT_TRUE(read_file(path0_).starts_with(kHeaderAndBuild + "\n")) << read_file(path0_);
    EXPECT_EQ(tags(read_file(path0_)), "C1") << "the older file must have been deleted";
    EXPECT_EQ(tags(read_file(path1_)), "B1B2");
    EXPECT_EQ(key_->log_file_size, file_size(path0_));
}

TEST_F(TraceLogTest, ProxyRoutingBuffersLinesAndZeroWritesNothing)
{
    ASSERT_NE(app_->agentLogBuffer, nullptr);
    VXBCISetting_t& bci = app_->VXBCISetting;
    const std::string saved_buffer = app_->agentLogBuffer;
    vx_test::Restore keep(bci.tierName, bci.appServerName, bci.appName);
    bci.tierName = S("Tier1");
    bci.appServerName = S("Srv1");
    bci.appName = S("Inst1");
    app_->agentLogBuffer[0] = '\0';

    const std::string before = local_date("%m/%d/%y");
    app_->sendLogsToProxy = 2;
    log(77, "routed A");
    app_->Server.TestRunIDValue = 3;
    log(78, "routed B", "BT_MON", "Error");
    app_->Server.TestRunIDValue = 0;
    log(79, "routed C");
    const std::string after = local_date("%m/%d/%y");
    const std::string tid = tid_text();
    // clang-format off
    const std::string routed =
        "\n<date>|******|UnitThread|" + tid + "|AGENT-LOG<Tier1_Srv1_Inst1>|unit_file.cpp|77|unitFn|Info|routed A"
        "\n<date>|TR3|UnitThread|" + tid + "|AGENT-LOG<Tier1_Srv1_Inst1>|unit_file.cpp|78|unitFn|Error|routed B"
        "\n<date>|******|UnitThread|" + tid + "|AGENT-LOG<Tier1_Srv1_Inst1>|unit_file.cpp|79|unitFn|Info|routed C";
    // clang-format on
    EXPECT_EQ(mask_dates(app_->agentLogBuffer, before, after), routed);
    EXPECT_EQ(-1, file_size(path0_)) << "a routed line must not touch the file";

    /* Older text stays in front; the whole never exceeds one line's buffer. */
    const std::string pad(100, 'p');
    for (int i = 0; i < 300; ++i) log(i, pad);
    EXPECT_LT(strlen(app_->agentLogBuffer), 10240u);
    EXPECT_TRUE(
        mask_dates(app_->agentLogBuffer, before, local_date("%m/%d/%y")).starts_with(routed));

    app_->sendLogsToProxy = 0;
    app_->agentLogBuffer[0] = '\0';
    const long long agent_size = file_size(trace_log_key->log_file[trace_log_key->cur_index]);
    log(1, "dropped", "FLOWPATH", "Error");
    vxlb_mt_trace_log(trace_log_key, nullptr, 0, "FLOWPATH", "Error", "x.cpp", 1, "f", "dropped");
    EXPECT_STREQ(app_->agentLogBuffer, "");
    EXPECT_EQ(-1, file_size(path0_));
    EXPECT_EQ(file_size(trace_log_key->log_file[trace_log_key->cur_index]), agent_size);
    strcpy(app_->agentLogBuffer, saved_buffer.c_str());
}

int ymd(std::chrono::sys_days d)
{
    std::chrono::year_month_day v{d};
    return int(v.year()) * 10000 + int(unsigned(v.month())) * 100 + int(unsigned(v.day()));
}

TEST(TraceLogDates, PreviousDateStepsBackWithLeapYearsAndKeepsYearsOutsideRange)
{
    struct Case {
        int y, m, d, days, want;
    };
    const Case cases[] = {
        {2000, 3, 2, 7, 20000224}, /* leap by 400 */
        {2023, 3, 2, 0, 20230302},
        {1960, 3, 1, 1, 19600229}, /* first year accepted */
        {2050, 3, 1, 1, 20500228}, /* last year accepted */
        {1959, 3, 2, 7, 19590302}, /* outside: unchanged */
        {2051, 3, 2, 7, 20510302},
        /* Stepping from an accepted year reaches 1900, not leap by 100. */
        {1960, 1, 1, 21856, 19000228},
    };
    for (const Case& c : cases)
        EXPECT_EQ(vx::previous_date(c.y, c.m, c.d, c.days), c.want)
            << c.y << "/" << c.m << "/" << c.d << " - " << c.days;

    /* Every start day of three years against the civil calendar: leap and
     * common Februaries, 30-day months, steps across the year. */
    using namespace std::chrono;
    for (sys_days day = sys_days{2023y / 1 / 1}; day < sys_days{2026y / 1 / 1}; day += days{1}) {
        year_month_day v{day};
        for (int n : {1, 7, 31, 400})
            ASSERT_EQ(vx::previous_date(int(v.year()), int(unsigned(v.month())),
                                        int(unsigned(v.day())), n),
                      ymd(day - days{n}))
                << ymd(day) << " - " << n;
    }
}

TEST(TraceLogDates, CheckLogFileRemovesOldAgentLogsOnly)
{
    VXProxyInstance_t* app = vx_test::agent();
    const std::string dir = vx_test::agent_home() + "/cppAgent/logs/";
    const std::string today = local_date("%Y%m%d");
    const int limit = get_Previous_Date();
    using namespace std::chrono;
    const sys_days limit_day{year{limit / 10000} / month(unsigned(limit / 100 % 100)) /
                             day(unsigned(limit % 100))};
    const std::string at_limit = std::to_string(limit) + "235959";
    const std::string after_limit = std::to_string(ymd(limit_day + days{1})) + "000000";
    const std::string removed[] = {
        "vx_trace_p_x_20000101120000_1.log_0", "vx_trace_p_x_20000101120000_1.log_1",
        "vx_trace_p_20000101120000_1.log_0", "vx_sdk_20000101120000_1.log_0",
        "vx_trace_p_x_" + at_limit + "_1.log_0"};
    const std::string kept[] = {"vx_trace_p_x_" + today + "120000_1.log_0",
                                "vx_sdk_" + today + "120000_1.log_1",
                                "vx_trace_p_x_" + after_limit + "_1.log_0",
                                "vx_trace_20000101.log", /* fewer than four parts */
                                "vx_trace_x"};
    for (const std::string& n : removed) std::ofstream(dir + n) << "old";
    for (const std::string& n : kept) std::ofstream(dir + n) << "new";

    {
        vx_test::Restore keep(app->VXBCISetting.pastLog);
        app->VXBCISetting.pastLog = 0;
        vx_check_log_file();
        EXPECT_EQ(app->VXBCISetting.pastLog, 7) << "a past-log setting below 1 becomes 7";
    }

    for (const std::string& n : kept) {
        EXPECT_LE(0, file_size(dir + n)) << n;
        remove((dir + n).c_str());
    }
    if (get_Previous_Date() != limit) GTEST_SKIP() << "the day changed during the test";
    for (const std::string& n : removed) EXPECT_EQ(-1, file_size(dir + n)) << n;
}

}  // namespace
