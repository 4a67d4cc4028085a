/*
 * Thread reports: the settings that pace the auto-sensor thread, the
 * hot-spot counters the host feeds, and the records they make on the
 * auto-sensor channel: 52 (one hot spot), 53 (the interval's summary).
 *
 * The agent samples no threads itself: the host's sampler finds hot spots
 * and calls sendHotSpotRecord and setHotSpotDuration on its own threads. The
 * auto-sensor thread writes record 53 once per report interval and resets
 * the counters.
 *
 * Threads: the keyword parsers run on the control thread, the host setters
 * on host threads; settings others read are stored and read atomically.
 * asGraphData and the vector prefixes are under counterLock; reportBuffer is
 * the auto-sensor thread's alone.
 */
#ifndef VX_THREAD_REPORTS_H
#define VX_THREAD_REPORTS_H

#include <apr_thread_mutex.h>

#include "core/vx_limits.h"
#include "vx_sdk.h"

/* What paces the thread and what the host's sampler reads; VXASSettingInit
 * gives the start values at every session start. */
struct VXASSettings_t {
    int threadSampleInterval;       /* ms; 0 turns the periodic reports off */
    long long threadReportInterval; /* ms between reports; <= 0 opens no connection */
    int thresholdMatchCount;        /* the host's, kept for it */
    int threadReportDumpMode;       /* 1 or 3 write records 52 and 53 */
    int threadStackCompareDepth;    /* the host's, kept for it */
    int enableHotspotRecord;        /* 0, 1 or 2 */
    char onlyAPICall;               /* the thread opens no connection */
    char ASNegativeThreadFilter;
    char ASPositiveThreadFilters;
    char ASEnableFPInSummaryReport;
    int threadStackCompareOption;
    int threadFilteringStackDepth;
    int threadStateReport;
    int enableFPInSummaryReport;
    int autoSensorTraceLevel;
};

/* The counters behind record 53; asGraphDataInit resets them. */
struct ASGraphData_t {
    long long MinTimeAllHotSpotThread;
    long long MaxTimeAllHotSpotThread;
    int TotalCountAllHotSpotThreads;
    long long TotalTimeAllHotSpotThreads;
    int TotalCountNewHotSpotThreads;
    long long TotalTimeNewHotSpotThreads;
    long long MinTimeNewHotSpotThreads;
    long long MaxTimeNewHotSpotThreads;
    int numOfBlockedThreads;
    int numOfRunnableThreads;
    int numOfTerminatedThreads;
    int numOfTimedWaitingThreads;
    int numOfWaitingThreads;
    long long totalNumOfThreads;
};

/* The thread reports of an instance. counterLock and reportBuffer are made
 * once by VXAutoSensorUsingStackTraceInit and live as long as the instance:
 * a closed connection does not take them away from the next one. */
struct VXThreadReports_t {
    ASGraphData_t asGraphData;
    apr_thread_mutex_t* counterLock;
    char* reportBuffer; /* kASReportBufferSize bytes: record 53 */
    /* kASWorkBufferSize bytes: the monitors' rows of a pass. The thread may
     * end inside a pass (a stop met while it sends), so the buffer is the
     * instance's, not the pass's. */
    char* workBuffer;
    char vectorPrefix_ID[vx::kASVectorPrefixSize];
    char vectorPrefixHtsp[vx::kASVectorPrefixSize];
};

extern "C" {

/* The host's entry points sendHotSpotRecord (record 52, written with
 * threadReportDumpMode 1 or 3, sent with the thread's next drain) and
 * setHotSpotDuration (the counters) are declared in vx_sdk.h. */

/* Setters for the host's sampler, value as text; a refused value is logged
 * and the old one kept. */
void setThreadStackCompareOption(char* value);  /* 1 or 2 */
void setThreadFilteringStackDepth(char* value); /* 0 or more */
void setThreadStateReport(char* value);         /* 0 or more */
void setAutoSensorTraceLevel(char* value);      /* 0 or more; anything else stores 0 */
void setASEnableFPInSummaryReport(char* value); /* "1" or "2" sets it, "0" clears it */
void setOnlyAPICall(char* value);
void setASNegativeThreadFilter(char* value);
void setASPositiveThreadFilters(char* value);

/* Keyword parsers (value, keyword, row index). */
void setThreadSampleInterval(char* value, char* keyword, int index);
void setThreadReportInterval(char* value, char* keyword, int index);
void setThresholdMatchCount(char* value, char* keyword, int index);
void setThreadStackCompareDepth(char* value, char* keyword, int index);
void setThreadReportDumpMode(char* value, char* keyword, int index);
void setASEnableHotspotRecord(char* value, char* keyword, int index);

/* Start values of the settings. Control thread, at agent start and at every
 * session start. */
void VXASSettingInit(void);

/* Reset asGraphData (takes counterLock). */
void asGraphDataInit(void);

/* vectorPrefix_ID ("<tierID>|<appID>|") and vectorPrefixHtsp (tier,
 * server and instance names joined by vxVectorSeperator). */
void createVectorPrefixForHotSpot(void);

/* Make stack text fit one record line, in place: carriage return to blank,
 * line feed to "|", comma to ";". `len` bytes from `buf`. */
void validateStackTraceBuf(char* buf, int len);

/* Record 53 from the counters, which then start again; written with
 * threadReportDumpMode 1 or 3, and sent at once. Auto-sensor thread. */
void sendThreadSummaryReport(void);
void sendASReport(void);
}

#endif
