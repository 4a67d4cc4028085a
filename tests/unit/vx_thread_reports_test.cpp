/*
 * Thread reports: record 52 as one clean line with the host's text left
 * alone, record 53 from the counters (and zeros without hot spots), the
 * garbage-collection report's two heads, the dump modes that write nothing,
 * nothing outside a session, and the AS* keywords' ranges.
 */
#include "diag/vx_thread_reports.h"

#include <gtest/gtest.h>

#include <string>

#include "agent/vx_instance.h"
#include "diag/vx_gc_report.h"
#include "session/vx_keywords.h"
#include "vx_test_support.h"

namespace {

using vx_test::S;

class ThreadReports : public testing::Test {
protected:
    void SetUp() override
    {
        VXBCISetting_t& s = app_->VXBCISetting;
        s.tierName = S("T");
        s.appServerName = S("S");
        s.appName = S("I");
        s.tierID = 1;
        s.serverID = 4;
        s.appID = 2;
        app_->monitorSettings.vxVectorSeperator = '>';
        VXASSettingInit();
        createVectorPrefixForHotSpot();
        asGraphDataInit();
    }

    VXProxyInstance_t* app_ = vx_test::agent();
    vx_test::Restore keep_{app_->VXBCISetting, app_->VXSys, app_->monitorSettings,
                           app_->vxAutoSensorUsingStackTrace};
    vx_test::ASChannelScope as_;
};

TEST_F(ThreadReports, HotSpotRecordIsOneCleanLineAndTheHostTextStaysAsGiven)
{
    vx_test::SessionScope session(7, 1388534400000LL);
    char stack[] = "a.B.run(B.java:1)\r\n\tat c.D, e\nend";
    const std::string given = stack;
    sendHotSpotRecord(77, S("worker"), 1388534401500LL, 250, 1, S("RUNNABLE"), 5, 3,
                      1388534405000LL, S("fpi"), stack, 99);
    sendHotSpotRecord(8, nullptr, 1388534400000LL, 0, 0, nullptr, 0, 0, 1388534400000LL, nullptr,
                      nullptr, 0);
    EXPECT_EQ(as_.take(),
              "52,1,4,2,77,no name-77,1,250,1,RUNNABLE,5,3,0,0,99,5,0,0,0,0,0,"
              "a.B.run(B.java:1) |\tat c.D; e|end\n"
              "52,1,4,2,8,no name-8,0,0,0,,0,0,0,0,0,0,0,0,0,0,0,\n");
    EXPECT_EQ(stack, given);

    /* A stack longer than the record's buffer is cut at its last byte. */
    std::string huge(200000, ',');
    sendHotSpotRecord(1, nullptr, 0, 0, 0, nullptr, 0, 0, 0, nullptr, huge.data(), 0);
    const std::string cut = as_.take();
    EXPECT_EQ(cut.size(), 131071u);
    EXPECT_EQ(cut.back(), ';');
}

TEST_F(ThreadReports, SummaryCountsHotSpotsAndStartsAgainAfterEachReport)
{
    const std::string zeros =
        "53,1|2|1:T>S>I|0 0 0.000000 0.000000 0.000000 0 0 0.000000 0.000000 0.000000 0 0 0 0 0 "
        "0\n";
    {
        vx_test::SessionScope session;
        setHotSpotDuration(2000, 1, 40);
        setHotSpotDuration(500, 0, 41);
        setHotSpotDuration(0, 1, 45); /* the thread count only */
        sendThreadSummaryReport();
        sendThreadSummaryReport();
        EXPECT_EQ(
            as_.take(),
            "53,1|2|1:T>S>I|45 2 1.250000 0.500000 2.000000 2 1 2.000000 2.000000 2.000000 1 0 0 "
            "0 0 0\n" +
                zeros);

        /* Mode 2 computes and drops: counters reset, nothing written. */
        app_->vxAutoSensorUsingStackTrace.threadReportDumpMode = 2;
        setHotSpotDuration(900, 1, 10);
        sendThreadSummaryReport();
        sendHotSpotRecord(1, nullptr, 0, 0, 0, nullptr, 0, 0, 0, nullptr, S("s"), 0);
        EXPECT_EQ(as_.take(), "");
        app_->vxAutoSensorUsingStackTrace.threadReportDumpMode = 3;
        sendThreadSummaryReport();
        EXPECT_EQ(as_.take(), zeros);
    }
    /* Outside a session the host's reports are not taken. */
    setHotSpotDuration(700, 1, 12);
    sendHotSpotRecord(1, nullptr, 0, 0, 0, nullptr, 0, 0, 0, nullptr, S("s"), 0);
    EXPECT_EQ(as_.take(), "");
    sendThreadSummaryReport();
    EXPECT_EQ(as_.take(), zeros);
}

TEST_F(ThreadReports, GarbageCollectionReportsWhileTheThreadRunsWithTheProxyHeadBehindOne)
{
    sendGCReport(9, S("none yet"));
    app_->VXBCISetting.autoSensor_thread_running = 1;
    sendGCReport(9, S("young 12ms"));
    app_->VXSys.proxyMode = 1;
    sendGCReport(9, S("old"));
    EXPECT_EQ(as_.take(), "9,1|2|0:T>S>I|young 12ms\nauto_sensor_GCDump:9,1|2|0:T>S>I|old\n");
}

TEST_F(ThreadReports, KeywordsKeepTheirRangesAndAReportSpansManySamples)
{
    const VXASSettings_t& s = app_->vxAutoSensorUsingStackTrace;
    const struct {
        const char* field;
        long long (*member)(const VXASSettings_t&);
        long long after;
    } steps[] = {
#define AT(m) [](const VXASSettings_t& a) -> long long { return a.m; }
        {"ASReportInterval=100", AT(threadReportInterval), 50000}, /* 100 samples of 500 ms */
        {"ASReportInterval=500", AT(threadReportInterval), 50000},
        {"ASReportInterval=25000", AT(threadReportInterval), 25000},
        {"ASReportInterval=-1", AT(threadReportInterval), 25000},
        {"ASSampleInterval=0", AT(threadSampleInterval), 0},
        {"ASReportInterval=0", AT(threadReportInterval), 0},
        {"ASSampleInterval=-5", AT(threadSampleInterval), 0},
        {"ASThresholdMatchCount=0", AT(thresholdMatchCount), 5},
        {"ASStackComparingDepth=12", AT(threadStackCompareDepth), 12},
        {"ASReportDumpMode=5", AT(threadReportDumpMode), 1},
        {"ASReportDumpMode=4", AT(threadReportDumpMode), 4},
        {"ASEnableHotspotRecord=2", AT(enableHotspotRecord), 2},
        {"ASEnableHotspotRecord=7", AT(enableHotspotRecord), 1},
#undef AT
    };
    for (const auto& step : steps) {
        SCOPED_TRACE(step.field);
        std::string msg = std::string("vx_control_req:action=modify;") + step.field;
        findStatusFromClientMsg(msg.data());
        EXPECT_EQ(step.member(s), step.after);
    }
}

}  // namespace
