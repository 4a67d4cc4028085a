/*
 * Exception capture: the five dictionaries shared by threads (one id and one
 * metadata record per text), record 38 and the blob token, what stops a
 * capture, hostile texts that must keep every record one line, the
 * dictionary limit, and the settings keyword.
 */
#include "core/vx_encode.h"
#include "diag/vx_exception_capture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "agent/vx_instance.h"
#include "flowpath/vx_method_table.h"
#include "vx_sdk.h"
#include "vx_test_support.h"

namespace {

using namespace vx_test;

constexpr long long kNow = kEpoch + 7250400; /* 7250.4 s into the session */

class Exceptions : public testing::Test {
protected:
    void SetUp() override
    {
        setdefaultValuesForException();
        exceptionMapInit();
        method_.methodId = 42;
    }
    void TearDown() override { setdefaultValuesForException(); }
    VXPerThreadData_t* start()
    {
        return static_cast<VXPerThreadData_t*>(
            startFP(S("fpi"), S("/x"), nullptr, nullptr, nullptr, nullptr, nullptr, -1, 0));
    }
    static void end(VXPerThreadData_t* td)
    {
        endFP(td, 200, nullptr, 0, 0, 0, nullptr);
        reset(td);
    }
    void raise(VXPerThreadData_t* td, const char* cls, const char* msg, const char* tcls, const char* tm,
               const char* cause, int line, const char* stack)
    {
        handleExceptionParameters(td, &method_, kNow, S(cls), S(msg), S(tcls), S(tm), S(cause), line, S(stack));
    }

    VXProxyInstance_t* app_ = vx_test::agent();
    vx_test::Restore keep_{app_->VXSys};
    methodPropProperties method_{};
};

TEST_F(Exceptions, FirstExceptionAnnouncesItsTextsThenRecord38AndAnEqualOneOnlyRecord38)
{
    SessionScope session(7, kEpoch);
    app_->VXSys.enableExceptionInSeqBlob = 1;
    VXPerThreadData_t* td = start();
    RecordSink sink;
    const std::string msg80(80, 'm');
    const long long seq0 = td->seqNum;
    raise(td, "java.io.IOException", msg80.c_str(), nullptr, "read", "disk gone", 0,
          "at a.B.read(B.java:3),x\nat c.D.run(D.java:9)");
    raise(td, "java.io.IOException", msg80.c_str(), nullptr, "read", "disk gone", 7, nullptr);
    const auto v = std::vector<std::pair<std::string, std::string>>{
        {"inst", std::to_string(td->flowpathInstance)},
        {"s1", std::to_string(seq0 + 1)},
        {"s2", std::to_string(seq0 + 2)}};
    EXPECT_EQ(sink.lines(),
              (std::vector<std::string>{
                  "32,1,java.io.IOException\n", "33,1,-\n", "34,1,read\n",
                  "35,1," + std::string(50, 'm') + "\n", "36,1,disk gone\n",
                  vx_test::fill("38,{inst},7250,42,{s1},-1,-1,1,1,1,-1,1,1,"
                                "at a.B.read(B.java:3),x|at c.D.run(D.java:9)\n", v),
                  vx_test::fill("38,{inst},7250,42,{s2},-1,-1,1,1,1,7,1,1,\n", v)}));
    EXPECT_EQ(td->exceptionCount, 2);
    const std::string blob(td->sequenceBlob, static_cast<size_t>(td->sequenceBlobLen));
    EXPECT_NE(blob.find(vx_test::fill("e{s1}_e{s2}_", v)), std::string::npos) << blob;

    /* Without the blob token the record carries 0; without a cause capture
     * and message, those ids are -1. */
    sink.clear();
    app_->VXSys.enableExceptionInSeqBlob = 0;
    app_->vxException.exceptionCauseCaptureMode = 0;
    raise(td, "java.io.IOException", "", "a.B", "read", "disk gone", 3, "");
    EXPECT_EQ(sink.lines(), (std::vector<std::string>{
                                "33,2,a.B\n",
                                vx_test::fill("38,{inst},7250,42,0,-1,-1,1,2,1,3,-1,-1,\n", v)}));
    end(td);
}

TEST_F(Exceptions, WhatStopsACapture)
{
    SessionScope session(7, kEpoch);
    VXPerThreadData_t* td = start();
    RecordSink sink;
    struct Case {
        const char* what;
        int mode;
        const char* cls;
        const char* msg;
    } cases[] = {
        {"mode 0", 0, "x.E", "m"},
        {"neither class nor message", 1, nullptr, ""},
    };
    for (const Case& c : cases) {
        app_->vxException.exceptionCaptureMode = c.mode;
        raise(td, c.cls, c.msg, "T", "m", nullptr, 1, "s");
        EXPECT_EQ(sink.size(), 0u) << c.what;
        EXPECT_EQ(td->exceptionCount, 0) << c.what;
    }
    /* A message with no class is not filtered. */
    app_->vxException.exceptionCaptureMode = 2;
    raise(td, nullptr, "only a message", "T", "m", nullptr, 1, "s");
    EXPECT_EQ(sink.of_type(38).size(), 1u);
    /* A method that is not instrumented is not reported. */
    getstacktracearray(td, S("s"), S("F.java"), S("x.E"), S("No.Such"), S("m"), S("method"), 1, nullptr);
    EXPECT_EQ(sink.of_type(38).size(), 1u);
    EXPECT_STREQ(td->exceptionStackTrace, "s");
    end(td);
}

TEST_F(Exceptions, DictionariesSharedByThreadsGiveOneIdAndOneRecordPerText)
{
    SessionScope session(7, kEpoch);
    RecordSink sink;
    constexpr int kThreads = 4, kTexts = 50;
    std::vector<std::vector<int>> seen(kThreads, std::vector<int>(kTexts));
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < kTexts; ++i) {
                const std::string text = "c" + std::to_string((i * 7 + t) % kTexts);
                seen[t][(i * 7 + t) % kTexts] = getIDAndDumpThrowingMethodName(S(text.c_str()));
            }
        });
    for (auto& th : threads) th.join();
    std::set<int> ids;
    for (int i = 0; i < kTexts; ++i) {
        for (int t = 1; t < kThreads; ++t) EXPECT_EQ(seen[t][i], seen[0][i]) << i;
        ids.insert(seen[0][i]);
    }
    EXPECT_EQ(ids.size(), static_cast<size_t>(kTexts));
    std::map<std::string, std::string> byText;
    for (const std::string& line : sink.of_type(34)) {
        const std::string text = vx_test::field(line, 2);
        EXPECT_TRUE(byText.emplace(text, vx_test::field(line, 1)).second) << "twice: " << text;
    }
    ASSERT_EQ(byText.size(), static_cast<size_t>(kTexts));
    for (int i = 0; i < kTexts; ++i) EXPECT_EQ(byText["c" + std::to_string(i)], std::to_string(seen[0][i]));
    /* A new session numbers from 1 again. */
    exceptionMapInit();
    EXPECT_EQ(getIDAndDumpThrowingMethodName(S("c9")), 1);
}

TEST_F(Exceptions, HostileTextsKeepEveryRecordOneLine)
{
    SessionScope session(7, kEpoch);
    VXPerThreadData_t* td = start();
    RecordSink sink;
    const std::string longName(5000, 'L');
    const std::string longStack = std::string(70000, 's') + "\n";
    raise(td, "evil\nclass,\r\n38,1,2", "line\none", longName.c_str(), "m\n", "why\r", 1, longStack.c_str());
    raise(td, "x.Y", "\xC3\xA9", "T", "m", nullptr, 1, "a\r\nb");
    const std::vector<std::string> lines = sink.lines();
    ASSERT_EQ(lines.size(), 11u); /* 32 to 36 and 38, then 32 to 35 and 38 */
    for (const std::string& l : lines) {
        ASSERT_FALSE(l.empty());
        EXPECT_EQ(l.find('\n'), l.size() - 1) << l.substr(0, 60);
        EXPECT_EQ(l.find('\r'), std::string::npos) << l.substr(0, 60);
    }
    EXPECT_EQ(lines[0], "32,1,evil|class, |38,1,2\n");
    EXPECT_EQ(lines[1].size(), 5u + vx::kExceptionTextMax + 1); /* "33,1," + cut text + \n */
    EXPECT_EQ(lines[5].size(), 65535u);
    EXPECT_EQ(lines[9], "35,2,\xC3\xA9\n");
    EXPECT_EQ(lines[10].substr(lines[10].size() - 6), ",a |b\n");
    /* A cut never splits a character. */
    char out[8];
    EXPECT_EQ(vx::exception_text_clean("ab\xC3\xA9z", 3, out, sizeof out), 2u);
    EXPECT_EQ(vx::exception_text_clean("ab\xC3\xA9", 4, out, sizeof out), 4u);
    end(td);
}

TEST_F(Exceptions, AFullDictionaryGivesNoIdAndLogsOnce)
{
    SessionScope session(7, kEpoch);
    RecordSink sink;
    for (int i = 0; i < vx::kExceptionDictionaryMax; ++i)
        ASSERT_EQ(getIDAndDumpExceptionCause(S(("r" + std::to_string(i)).c_str())), i + 1);
    EXPECT_EQ(getIDAndDumpExceptionCause(S("one more")), -1);
    EXPECT_EQ(getIDAndDumpExceptionCause(S("and another")), -1);
    EXPECT_EQ(getIDAndDumpExceptionCause(S("r5")), 6);
    EXPECT_EQ(sink.size(), static_cast<size_t>(vx::kExceptionDictionaryMax));
    const std::string log = vx_test::trace_log_text();
    const size_t first = log.find("cause dictionary is full");
    ASSERT_NE(first, std::string::npos);
    EXPECT_EQ(log.find("cause dictionary is full", first + 1), std::string::npos);
    exceptionMapInit();
}

TEST_F(Exceptions, TheFilterListChangesWhileAHostThreadRaises)
{
    /* Host threads read the list without a lock: a change must never free
     * what a reader holds (caught under the sanitizers). */
    SessionScope session(7, kEpoch);
    RecordSink sink;
    std::atomic<bool> stop{false};
    std::thread host([&] {
        VXPerThreadData_t* td = start();
        while (!stop.load()) raise(td, "c.Busy", "m", "T", "m", nullptr, 1, "s");
        end(td);
    });
    for (int i = 0; i < 300; ++i) {
        if (i % 100 == 0) setdefaultValuesForException(); /* a session's reset */
        parseExceptionFilteringList(S(("n" + std::to_string(i) + ",c.Busy").c_str()), nullptr, 0);
    }
    stop = true;
    host.join();
    EXPECT_EQ(app_->vxException.filterSizeCount, 101) << "names since the last reset";
    const size_t before = sink.of_type(38).size();
    VXPerThreadData_t* td = start();
    raise(td, "c.Busy", "m", "T", "m", nullptr, 1, "s");
    EXPECT_EQ(sink.of_type(38).size(), before) << "a listed class is filtered";
    end(td);
}

TEST_F(Exceptions, CaptureSettingsKeywordStopsAtTheFirstBadField)
{
    struct Case {
        const char* value;
        int mode, stack, type, depth, cause;
    } cases[] = {
        {"2%201%203%2020%200", 2, 1, 3, 20, 0},
        {"0", 0, 1, 0, 9999, 1},
        {"5%200%201%2020%200", 1, 1, 0, 9999, 1},  /* bad mode: nothing read */
        {"1%200%203%2020%200", 1, 0, 0, 9999, 0},  /* no stack: type and depth unread */
        {"1%201%202%2020", 1, 1, 0, 9999, 1},      /* bad type stops before depth */
        {"1%201%201%200", 1, 1, 1, 9999, 1},       /* depth below 1 */
        {"1%207%201%2010%201", 1, 1, 0, 9999, 1},  /* bad stack mode; cause set before it */
    };
    for (const Case& c : cases) {
        setdefaultValuesForException();
        setExceptionCaptureSettings(S(c.value), nullptr, 0);
        const VXException_t& e = app_->vxException;
        EXPECT_EQ(e.exceptionCaptureMode, c.mode) << c.value;
        EXPECT_EQ(e.stackTraceCaptureMode, c.stack) << c.value;
        EXPECT_EQ(e.exceptionType, c.type) << c.value;
        EXPECT_EQ(e.stackTraceMaxDepth, c.depth) << c.value;
        EXPECT_EQ(e.exceptionCauseCaptureMode, c.cause) << c.value;
    }
    setBackendErrorDetectionMode(S("2"), nullptr, 0);
    EXPECT_EQ(app_->vxException.enableLogger, 0);
    EXPECT_EQ(app_->vxException.enableTrycatch, 1);
    parseExceptionFilteringList(S("a,b,a,c,d,e,f"), nullptr, 0);
    EXPECT_EQ(app_->vxException.filterSizeCount, 6);
    parseExceptionFilteringList(S(""), nullptr, 0);
    EXPECT_EQ(checkIfFilteringIsEnabled(), 0);
    EXPECT_EQ(app_->vxException.filterSizeCount, 6);
}

}  // namespace
