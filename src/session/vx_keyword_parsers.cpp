#include "session/vx_keyword_parsers.h"

#include <strings.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

#include "agent/vx_feature_settings.h"
#include "agent/vx_host_callbacks.h"
#include "agent/vx_instance.h"
#include "bt/vx_bt_object.h"
#include "core/vx_atomic.h"
#include "core/vx_text.h"
#include "core/vx_trace_log.h"
#include "flowpath/vx_per_thread_data.h"
#include "http/vx_trace_context.h"
#include "session/vx_file_keywords.h"

vxAppLogStruct_t vxAppLogStruct = {};

namespace {

constexpr int kSubValuesMax = 16;

VXProxyInstance_t* app() { return vx_app(); }

void trace(const char* keyword, const char* value)
{
    VX_TRACE(app()->VXSys.controlTraceLevel, 1, "CONTROL_THREAD", "Keyword %s = %s", keyword,
             value ? value : "(null)");
}

void copy_feature_text(char* dst, const char* value) { vx::copy_text(dst, kFeatureTextSize, value); }

/* "-", "NA" and the empty value mean "none". */
bool none(const char* value)
{
    return !value || !*value || strcmp(value, "-") == 0 || strcasecmp(value, "NA") == 0;
}

/* The first `n` sub-values as numbers into `out` (missing ones 0). */
void sub_numbers(char* value, int* out, int n)
{
    char* parts[kSubValuesMax];
    const int m = split_sub_values(value, parts, kSubValuesMax);
    for (int i = 0; i < n; ++i) out[i] = i < m ? atoi(parts[i]) : 0;
}

}  // namespace

int split_sub_values(char* value, char** out, int max)
{
    if (!value) return 0;
    return tokenize(value, out, const_cast<char*>("%20"), max);
}

extern "C" void setFileBasedKeywd(char* value, char* keyword, int index)
{
    if (!value || !keyword || index < 0) {
        VX_ERROR("CONTROL_THREAD", "Invalid argument passed, value=[%s], keyword=[%s], index=[%d]",
                 value ? value : "(null)", keyword ? keyword : "(null)", index);
        return;
    }
    handleFileBasedKeyword(value, keyword, index);
}

extern "C" void setvxFlowpathMasks(char* value, char*, int) { parse_flowpath_mask(value); }

extern "C" void setCurrentTR(char* value, char* keyword, int)
{
    const int id = atoi(value);
    Server_t& srv = app()->Server;
    srv.doNotDumpMetaData = id != vx::load_relaxed(srv.TestRunIDValue) ? 1 : 0;
    vx::store_relaxed(srv.TestRunIDValue, id);
    trace(keyword, value);
}

extern "C" void setKlvEpochDiff(char* value, char*, int)
{
    Server_t& srv = app()->Server;
    const long long seconds = atoll(value);
    if (seconds < 0 || seconds > LLONG_MAX / 1000) {
        VX_ERROR("CONTROL_THREAD", "Invalid value %s of keyword klvEpochDiff; the time base is kept", value);
        return;
    }
    vx::store_relaxed(srv.klvEpochDiffTime, seconds * 1000);
    srv.originalKlvEpochDiffTime = vx::load_relaxed(srv.klvEpochDiffTime);
    srv.changeOriginalTime = seconds != 0 ? 1 : 0;
}

extern "C" void parseEnableCPUTime(char* value, char*, int)
{
    VXSys_t& sys = app()->VXSys;
    int v[2];
    sub_numbers(value, v, 2);
    sys.enableCpuTime = v[0];
    sys.captureChildFPCPUTime = (v[1] > 0 && (v[0] == 1 || v[0] == 3)) ? 1 : 0;
}

extern "C" void sethbWDir(char* value, char* keyword, int) { trace(keyword, value); }
extern "C" void setASData(char* value, char* keyword, int) { trace(keyword, value); }

extern "C" void setDBIPName(char* value, char*, int)
{
    copy_feature_text(app()->VXSQLProcessor.DBIPName, none(value) ? "DB_SQLDB" : value);
}

extern "C" void setThreadSampleInterval(char* value, char*, int) { app()->asSettings.sampleInterval = atoi(value); }
extern "C" void setThreadReportInterval(char* value, char*, int) { app()->asSettings.reportInterval = atoi(value); }
extern "C" void setThresholdMatchCount(char* value, char*, int) { app()->asSettings.thresholdMatchCount = atoi(value); }
extern "C" void setThreadStackCompareDepth(char* value, char*, int) { app()->asSettings.stackCompareDepth = atoi(value); }
extern "C" void setThreadReportDumpMode(char* value, char*, int) { app()->asSettings.reportDumpMode = atoi(value); }
extern "C" void setASEnableHotspotRecord(char* value, char*, int) { app()->asSettings.enableHotspotRecord = atoi(value); }

extern "C" void setVXMonitorInterval(char* value, char* keyword, int)
{
    long long ms = atoll(value);
    if (ms < 0) {
        VX_ERROR("CONTROL_THREAD", "Invalid value %s of keyword %s; the interval stays %lld ms", value,
                 keyword, app()->monitorSettings.vxMonitorInterval);
        return;
    }
    if (ms < 1000) ms *= 1000; /* seconds */
    app()->monitorSettings.vxMonitorInterval = ms;
    app()->monitorSettings.vxMonitorIntervalInSecs = static_cast<int>(ms / 1000);
}

extern "C" void parseBTMonitorKeyword(char* value, char*, int) { app()->monitorSettings.enableBTMonitor = atoi(value); }
extern "C" void parseMaxBTCount(char* value, char* keyword, int)
{
    const int n = atoi(value);
    if (n <= 0) {
        VX_ERROR("CONTROL_THREAD", "Invalid value %s of keyword %s", value, keyword);
        return;
    }
    app()->manager.max_bt_count = n;
}
extern "C" void parseDoNotDiscardVal(char* value, char*, int) { app()->VXBTMonitor.doNotDisacrdAnyTransaction = atoi(value); }
extern "C" void parseBTMonitorErrorLevel(char* value, char*, int) { app()->monitorSettings.enableBTMonitorError = atoi(value); }
extern "C" void parseBTAggDataArraySize(char* value, char*, int) { app()->monitorSettings.BTAggDataArraySize = atoi(value); }
extern "C" void parseMaxIPCount(char* value, char* keyword, int)
{
    const int n = atoi(value);
    if (n <= 0) {
        VX_ERROR("CONTROL_THREAD", "Invalid value %s of keyword %s", value, keyword);
        return;
    }
    app()->VXBackendMonitor.maxIPCount = n;
}
extern "C" void setBackendMonitorEnabled(char* value, char*, int) { app()->monitorSettings.enableBackendMonitor = atoi(value); }

extern "C" void setVXVectorSeperator(char* value, char*, int)
{
    if (value && *value) app()->monitorSettings.vxVectorSeperator = value[0];
}

extern "C" void setMonitorEnabledForID(char* value, char*, int)
{
    app()->monitorSettings.isNewMonitorRecordEnabled = atoi(value) >= 1 ? 1 : 0;
}

extern "C" void sethdrListForValueAsId(char* value, char*, int)
{
    copy_feature_text(app()->httpSettings.hdrListForValueAsId, value);
}

/* The cookie's method position: 1 exit, 2 entry, 3 response commit. */
static int cookie_position(const VXSys_t& s)
{
    if (s.methodExitDepth2SetCookie) return 1;
    if (s.methodEntryDepth2SetCookie) return 2;
    if (s.cookieOnResponseCommit) return 3;
    return 0;
}

extern "C" void setEnableVXSession(char* value, char* keyword, int)
{
    VXSys_t& s = app()->VXSys;
    if (!value) {
        s.enableVXSession = 0;
        return;
    }
    s.enableVXSession = atoi(value);
    if (s.enableVXSession == 0) return;
    VXProxy.enableVXSession = s.enableVXSession;
    char* parts[kSubValuesMax];
    const int n = split_sub_values(value, parts, 8);
    if (n < 3) {
        if (vx_cookie_callback_func) vx_cookie_callback_func(nullptr, nullptr, 0, 0, 0);
        VX_ERROR("CONTROL_THREAD", "Error in setting keyword for enableVXSession.Invalid Keyword.");
        return;
    }
    /* Entry depth, exit depth, commit, header, name, domain, idle time (ms),
     * flowpaths per session; the first number also switches sessions on. */
    s.methodEntryDepth2SetCookie = atoi(parts[0]);
    s.methodExitDepth2SetCookie = atoi(parts[1]);
    s.cookieOnResponseCommit = atoi(parts[2]) ? 1 : 0;
    if (n > 3) s.headerInResponse = atoi(parts[3]) ? 1 : 0;
    if (n > 4 && *parts[4]) {
        s.vxSessionCookieName = strdup(parts[4]);
        const std::string x = std::string("X-") + parts[4];
        s.xSessionCookieName = strdup(x.c_str());
    }
    if (n > 5 && *parts[5]) s.cookieDomainName = strdup(parts[5]);
    if (n > 6) s.vxSessionIdleTimeOutSecs = atoll(parts[6]) / 1000;
    if (n > 7) s.maxFPCountInSession = atoi(parts[7]);
    if (vx_cookie_callback_func)
        vx_cookie_callback_func(s.vxSessionCookieName, s.cookieDomainName, s.headerInResponse,
                                cookie_position(s), static_cast<int>(s.vxSessionIdleTimeOutSecs));
    trace(keyword, value);
}

extern "C" void setKPCookie(char* value, char*, int)
{
    if (none(value)) return;
    app()->VXSys.KPCookieName = strdup(value);
    if (kp_cookie_callback_func) kp_cookie_callback_func(app()->VXSys.KPCookieName);
}

extern "C" void setCorrelationID(char* value, char*, int)
{
    VXSys_t& s = app()->VXSys;
    if (none(value)) {
        vx::store_relaxed(s.captureCorrelationEnabled, 0);
        s.correlationIdHeader[0] = '\0';
        return;
    }
    char text[vx::kCorrelationHeaderNameSize];
    vx::copy_text(text, sizeof text - 1, value);
    strcat(text, "=");
    vx::copy_text(s.correlationIdHeader, sizeof s.correlationIdHeader, text);
    vx::store_relaxed(s.captureCorrelationEnabled, 1);
}

extern "C" void setHttpReqRespCaptureSettings(char* value, char* keyword, int)
{
    VXHttpSettings_t& h = app()->httpSettings;
    VXHttpReqRespCaptureSettings_t& c = strcmp(keyword, "captureHTTPReqFullFp") == 0
                                            ? h.vxHttpReqCaptureSettings
                                            : h.vxHttpRespCaptureSettings;
    int v[4];
    sub_numbers(value, v, 4);
    c.captureLevel = v[0];
    c.headerMode = v[1];
    c.valueLengthMode = v[2];
    c.further = v[3];
}

extern "C" void setClassWeight(char* value, char*, int) { app()->vxAutoInstrumentation.classWeight = atoi(value); }
extern "C" void setAutoInstrSessionInterval(char* value, char*, int) { app()->vxAutoInstrumentation.sessionInterval = atoi(value); }
extern "C" void setRetainAutoInstrMethods(char* value, char*, int) { app()->vxAutoInstrumentation.retainChanges = atoi(value); }
extern "C" void setDebugSessionMode(char* value, char*, int) { app()->vxAutoInstrumentation.debugSessionMode = atoi(value); }
extern "C" void setMinStackDepthForDebugSession(char* value, char*, int) { app()->vxAutoInstrumentation.minStackDepth = atoi(value); }

extern "C" void setBackendErrorDetectionMode(char* value, char*, int) { app()->VXSys.backendErrorDetectionMode = atoi(value); }
extern "C" void setExceptionCaptureSettings(char* value, char*, int) { copy_feature_text(app()->exceptionSettings.instrExceptions, value); }
extern "C" void parseExceptionFilteringList(char* value, char*, int) { copy_feature_text(app()->exceptionSettings.vxExceptionFilterList, value); }
extern "C" void setEnableExceptionInSeqBlob(char* value, char*, int) { app()->VXSys.enableExceptionInSeqBlob = static_cast<char>(atoi(value)); }

extern "C" void setEnableDDKeywd(char* value, char*, int) { sub_numbers(value, app()->vxDynamicSettings.enableDDAI, 5); }

extern "C" void setenableVXLQDataTransfer(char* value, char*, int) { vxAppLogStruct.enableVXLQDataTransfer = atoi(value); }
extern "C" void setbciVXLQDataBufferSetting(char* value, char*, int) { copy_feature_text(vxAppLogStruct.bufferSetting, value); }
extern "C" void setVXLQLogPath(char* value, char*, int) { copy_feature_text(vxAppLogStruct.logPath, value); }

extern "C" void parseFormatIPResourceURL(char* value, char*, int) { sub_numbers(value, app()->resourceURLSettings.formatIPResourceURL, 3); }

extern "C" void setDigestPercentileBT(char* value, char*, int) { copy_feature_text(app()->monitorSettings.tDigestPercentileBT, value); }
extern "C" void setDigestPercentileIP(char* value, char*, int) { copy_feature_text(app()->monitorSettings.tDigestPercentileIP, value); }

extern "C" void setvxAgentDebugLogging(char* value, char*, int) { app()->sendLogsToProxy = atoi(value); }

extern "C" void setEnableCaptureDataOutsideTxn(char* value, char*, int)
{
    int v[2];
    sub_numbers(value, v, 2);
    app()->VXSys.enableCaptureDataOutsideTxn = static_cast<char>(v[0]);
    app()->VXSys.dumpCaptureDataOutsideTxn = static_cast<char>(v[1]);
}

extern "C" void setpropheadcheck(char* value, char*, int)
{
    VXSys_t& s = app()->VXSys;
    char* parts[kSubValuesMax];
    const int n = split_sub_values(value, parts, kSubValuesMax);
    if (n < 9 || atoi(parts[0]) == 0) {
        s.enableOTELStandard = 0;
        return;
    }
    memset(arrPropagationHeaders, 0, sizeof arrPropagationHeaders);
    memset(arSpanType, 0, sizeof arSpanType);
    s.enableOTELStandard = atoi(parts[0]);
    const int headerSlot[] = {0, 2, 1};
    for (int i = 0; i < 3; ++i)
        if (atoi(parts[1 + i]) == 1) arrPropagationHeaders[headerSlot[i]] = 1;
    const int spanSlot[] = {0, 2, 1, 3, 4};
    for (int i = 0; i < 5; ++i)
        if (atoi(parts[4 + i]) == 1) arSpanType[spanSlot[i]] = 1;
}

extern "C" void checkgcmonitor(char* value, char*, int)
{
    app()->VXSys.enableGCMonitor = atoi(value) == 1 ? 1 : 0;
    if (GC_status_func) GC_status_func(app()->VXSys.enableGCMonitor);
}

extern "C" void checkgoroutinemonitor(char* value, char*, int)
{
    app()->VXSys.enableGoroutineMonitor = atoi(value) == 1 ? 1 : 0;
    if (Goroutine_status_func) Goroutine_status_func(app()->VXSys.enableGoroutineMonitor);
}
