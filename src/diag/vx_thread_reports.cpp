#include "diag/vx_thread_reports.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "agent/vx_instance.h"
#include "core/vx_atomic.h"
#include "core/vx_text.h"
#include "core/vx_thread.h"
#include "core/vx_trace_log.h"
#include "link/vx_as_buffers.h"
#include "link/vx_as_link.h"

namespace {

constexpr long long kMinTimeReset = 2147483647; /* "no hot spot yet" for the minima */

/* The settings of the current instance; null before agent_init (host
 * setters may come that early). */
VXASSettings_t* settings()
{
    VXProxyInstance_t* app = vx_app();
    return app ? &app->vxAutoSensorUsingStackTrace : nullptr;
}

/* `text` into `member` when it lies within [lo, hi]; otherwise logged (by
 * number_in) and the old value kept. */
template <typename T>
void store_in(const char* what, const char* text, long long lo, long long hi, T& member)
{
    long long v = 0;
    if (vx::number_in(what, text, lo, hi, &v)) vx::store_relaxed(member, v);
}

/* Modes 1 and 3 write records 52 and 53; the others compute them only. */
bool dump_mode_writes(const VXProxyInstance_t* app)
{
    const int mode = vx::load_relaxed(app->vxAutoSensorUsingStackTrace.threadReportDumpMode);
    return mode == 1 || mode == 3;
}

const char* name_or_na(const char* name)
{
    return name ? name : "NA";
}

/* A snprintf result as the bytes the buffer holds: a text that did not fit
 * is handed off at the buffer's own limit. */
int held(int n, int cap)
{
    return n < 0 ? 0 : (n < cap ? n : cap - 1);
}

}  // namespace

extern "C" void VXASSettingInit(void)
{
    VXASSettings_t* s = settings();
    if (!s) return;
    vx::store_relaxed(s->threadSampleInterval, 500);
    vx::store_relaxed(s->threadReportInterval, 10000);
    vx::store_relaxed(s->thresholdMatchCount, 5);
    vx::store_relaxed(s->threadReportDumpMode, 1);
    vx::store_relaxed(s->threadStackCompareDepth, 10);
    vx::store_relaxed(s->enableHotspotRecord, 1);
    vx::store_relaxed(s->onlyAPICall, 0);
    vx::store_relaxed(s->ASNegativeThreadFilter, 0);
    vx::store_relaxed(s->ASPositiveThreadFilters, 0);
    vx::store_relaxed(s->ASEnableFPInSummaryReport, 0);
    vx::store_relaxed(s->threadStackCompareOption, 1);
    vx::store_relaxed(s->threadFilteringStackDepth, 10);
    vx::store_relaxed(s->threadStateReport, 1);
    vx::store_relaxed(s->enableFPInSummaryReport, 0);
    vx::store_relaxed(s->autoSensorTraceLevel, 0);
}

/* Keyword parsers. */

extern "C" void setThreadSampleInterval(char* value, char* keyword, int)
{
    store_in(keyword, value, 0, vx::kDayMs, settings()->threadSampleInterval);
}

extern "C" void setThreadReportInterval(char* value, char* keyword, int)
{
    long long ms = 0;
    if (!vx::number_in(keyword, value, 0, vx::kDayMs, &ms)) return;
    VXASSettings_t* s = settings();
    /* A report spans many samples: one at or below the sample interval in
     * force becomes a hundred of them. */
    const int sample = vx::load_relaxed(s->threadSampleInterval);
    if (ms <= sample) ms = 100LL * sample;
    vx::store_relaxed(s->threadReportInterval, ms);
}

extern "C" void setThresholdMatchCount(char* value, char* keyword, int)
{
    store_in(keyword, value, 1, INT_MAX, settings()->thresholdMatchCount);
}

extern "C" void setThreadStackCompareDepth(char* value, char* keyword, int)
{
    store_in(keyword, value, 1, vx::kStackDepthMax, settings()->threadStackCompareDepth);
}

extern "C" void setThreadReportDumpMode(char* value, char* keyword, int)
{
    store_in(keyword, value, 0, 4, settings()->threadReportDumpMode);
}

extern "C" void setASEnableHotspotRecord(char* value, char*, int)
{
    const long long v = atoll(value ? value : "");
    vx::store_relaxed(settings()->enableHotspotRecord, v >= 0 && v <= 2 ? v : 1);
}

/* Host setters. */

extern "C" void setThreadStackCompareOption(char* value)
{
    if (VXASSettings_t* s = settings())
        store_in("threadStackCompareOption", value, 1, 2, s->threadStackCompareOption);
}

extern "C" void setThreadFilteringStackDepth(char* value)
{
    if (VXASSettings_t* s = settings())
        store_in("threadFilteringStackDepth", value, 0, vx::kStackDepthMax,
                 s->threadFilteringStackDepth);
}

extern "C" void setThreadStateReport(char* value)
{
    if (VXASSettings_t* s = settings())
        store_in("threadStateReport", value, 0, INT_MAX, s->threadStateReport);
}

extern "C" void setAutoSensorTraceLevel(char* value)
{
    const long long v = atoll(value ? value : "");
    if (VXASSettings_t* s = settings())
        vx::store_relaxed(s->autoSensorTraceLevel, v >= 0 && v <= INT_MAX ? v : 0);
}

extern "C" void setASEnableFPInSummaryReport(char* value)
{
    VXASSettings_t* s = settings();
    if (!s || !value) return;
    if (strcmp(value, "1") == 0 || strcmp(value, "2") == 0) {
        vx::store_relaxed(s->enableFPInSummaryReport, value[0] - '0');
        vx::store_relaxed(s->ASEnableFPInSummaryReport, 1);
    } else if (strcmp(value, "0") == 0) {
        vx::store_relaxed(s->enableFPInSummaryReport, 0);
        vx::store_relaxed(s->ASEnableFPInSummaryReport, 0);
    } else {
        VX_ERROR("AUTO_SENSOR", "Invalid value %s of ASEnableFPInSummaryReport; the value is kept",
                 value);
    }
}

extern "C" void setOnlyAPICall(char* value)
{
    if (VXASSettings_t* s = settings()) vx::store_relaxed(s->onlyAPICall, atoi(value ? value : ""));
}

extern "C" void setASNegativeThreadFilter(char* value)
{
    if (VXASSettings_t* s = settings())
        vx::store_relaxed(s->ASNegativeThreadFilter, atoi(value ? value : ""));
}

extern "C" void setASPositiveThreadFilters(char* value)
{
    if (VXASSettings_t* s = settings())
        vx::store_relaxed(s->ASPositiveThreadFilters, atoi(value ? value : ""));
}

/* Counters and records. */

extern "C" void asGraphDataInit(void)
{
    VXThreadReports_t& r = vx_app()->asReports;
    vx::VXLockGuard guard(r.counterLock);
    r.asGraphData = ASGraphData_t{};
    r.asGraphData.MinTimeAllHotSpotThread = kMinTimeReset;
    r.asGraphData.MinTimeNewHotSpotThreads = kMinTimeReset;
}

extern "C" void createVectorPrefixForHotSpot(void)
{
    VXProxyInstance_t* app = vx_app();
    VXThreadReports_t& r = app->asReports;
    const VXBCISetting_t& s = app->VXBCISetting;
    const char sep = app->monitorSettings.vxVectorSeperator;
    vx::VXLockGuard guard(r.counterLock);
    snprintf(r.vectorPrefix_ID, sizeof r.vectorPrefix_ID, "%d|%d|", s.tierID, s.appID);
    snprintf(r.vectorPrefixHtsp, sizeof r.vectorPrefixHtsp, "%s%c%s%c%s", name_or_na(s.tierName),
             sep, name_or_na(s.appServerName), sep, name_or_na(s.appName));
}

extern "C" void validateStackTraceBuf(char* buf, int len)
{
    for (int i = 0; buf && i < len; ++i) {
        if (buf[i] == '\r')
            buf[i] = ' ';
        else if (buf[i] == '\n')
            buf[i] = '|';
        else if (buf[i] == ',')
            buf[i] = ';';
    }
}

extern "C" void setHotSpotDuration(long long time, char isNewHotspot,
                                   int totalNumOfThreads) VX_NOEXCEPT
{
    VXProxyInstance_t* app = vx_app();
    /* Acquire: the lock was made before a session start raised the flag. */
    if (!app || !vx::load_acquire(app->Server.testRunRunning) || !app->asReports.counterLock)
        return;
    vx::VXLockGuard guard(app->asReports.counterLock);
    ASGraphData_t& g = app->asReports.asGraphData;
    g.totalNumOfThreads = totalNumOfThreads;
    if (time == 0) return;
    g.TotalTimeAllHotSpotThreads += time;
    ++g.TotalCountAllHotSpotThreads;
    if (time < g.MinTimeAllHotSpotThread) g.MinTimeAllHotSpotThread = time;
    if (time > g.MaxTimeAllHotSpotThread) g.MaxTimeAllHotSpotThread = time;
    if (!isNewHotspot) return;
    g.TotalTimeNewHotSpotThreads += time;
    ++g.TotalCountNewHotSpotThreads;
    if (time < g.MinTimeNewHotSpotThreads) g.MinTimeNewHotSpotThreads = time;
    if (time > g.MaxTimeNewHotSpotThreads) g.MaxTimeNewHotSpotThreads = time;
}

extern "C" void sendHotSpotRecord(long long ThreadID, char* ThreadName, long long hotSpotStartTime,
                                  long long hotSpotDuration, char isNewHotspot, char* ThreadState,
                                  int ThreadPriority, int ThreadStackDepth, long long timeStamp,
                                  char* fpi, char* stackTrace, long long flowpathId) VX_NOEXCEPT
{
    (void)ThreadName; /* the record names the thread by its id */
    (void)fpi;
    VXProxyInstance_t* app = vx_app();
    if (!app || !vx::load_acquire(app->Server.testRunRunning)) return;
    /* The other modes would compute the record only to drop it. */
    if (!dump_mode_writes(app)) return;
    constexpr int cap = vx::kHotSpotRecordSize;
    char* buf = static_cast<char*>(malloc(cap)); /* too large for a host thread's stack */
    if (!buf) {
        VX_ERROR("AUTO_SENSOR", "No memory for a hot-spot record of %d bytes", cap);
        return;
    }
    const VXBCISetting_t& s = app->VXBCISetting;
    const long long epoch = vx::load_relaxed(app->Server.klvEpochDiffTime);
    int len = held(
        snprintf(buf, cap,
                 "%d,%d,%d,%d,%lld,no name-%lld,%lld,%lld,%d,%s,%d,%d,0,0,%lld,%lld,0,0,0,0,0,", 52,
                 s.tierID, s.serverID, s.appID, ThreadID, ThreadID,
                 (hotSpotStartTime - epoch) / 1000, hotSpotDuration, isNewHotspot ? 1 : 0,
                 ThreadState ? ThreadState : "", ThreadPriority, ThreadStackDepth, flowpathId,
                 (timeStamp - epoch) / 1000),
        cap);
    /* The stack goes in as a copy, cleaned there: the host's text stays as
     * it was given. */
    const size_t room = static_cast<size_t>(cap - 1 - len);
    const size_t stack = stackTrace ? strnlen(stackTrace, room) : 0;
    memcpy(buf + len, stackTrace ? stackTrace : "", stack);
    validateStackTraceBuf(buf + len, static_cast<int>(stack));
    len += static_cast<int>(stack);
    if (len < cap - 1) buf[len++] = '\n';
    dumpAndSendDataToVXC(buf, len, 0);
    free(buf);
}

extern "C" void sendThreadSummaryReport(void)
{
    VXProxyInstance_t* app = vx_app();
    VXThreadReports_t& r = app->asReports;
    if (!r.reportBuffer) return;
    int len;
    {
        vx::VXLockGuard guard(r.counterLock);
        const ASGraphData_t& g = r.asGraphData;
        const int all = g.TotalCountAllHotSpotThreads;
        const int fresh = g.TotalCountNewHotSpotThreads;
        /* Seconds; an average or minimum without hot spots is 0. */
        auto avg = [](long long total, int count) { return count ? total / 1000.0 / count : 0.0; };
        auto low = [](long long min, int count) { return count ? min / 1000.0 : 0.0; };
        len = held(snprintf(r.reportBuffer, vx::kASReportBufferSize,
                            "%d,%s1:%s|%lld %d %lf %lf %lf %d %d %lf %lf %lf %d 0 0 0 0 0\n", 53,
                            r.vectorPrefix_ID, r.vectorPrefixHtsp, g.totalNumOfThreads, all,
                            avg(g.TotalTimeAllHotSpotThreads, all),
                            low(g.MinTimeAllHotSpotThread, all), g.MaxTimeAllHotSpotThread / 1000.0,
                            all, fresh, avg(g.TotalTimeNewHotSpotThreads, fresh),
                            low(g.MinTimeNewHotSpotThreads, fresh),
                            g.MaxTimeNewHotSpotThreads / 1000.0, fresh),
                   vx::kASReportBufferSize);
        /* Reset under the same hold: a hot spot counted meanwhile is in the
         * next report, not lost between the two. */
        asGraphDataInit();
    }
    if (dump_mode_writes(app)) dumpAndSendDataToVXC(r.reportBuffer, len, 1);
}

extern "C" void sendASReport(void)
{
    sendThreadSummaryReport();
}
