#include "session/vx_keyword_parsers.h"

#include <strings.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

#include "agent/vx_feature_settings.h"
#include "agent/vx_host_callbacks.h"
#include "agent/vx_instance.h"
#include "bt/vx_bt_object.h"
#include "core/vx_atomic.h"
#include "core/vx_host_call.h"
#include "core/vx_text.h"
#include "core/vx_trace_log.h"
#include "flowpath/vx_per_thread_data.h"
#include "flowpath/vx_session_settings.h"
#include "http/vx_trace_context.h"
#include "monitor/vx_backend_monitor.h"
#include "monitor/vx_backend_percentiles.h"
#include "monitor/vx_bt_monitor.h"
#include "monitor/vx_bt_percentiles.h"
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

/* `value` into *member when it lies within [lo, hi]; otherwise logged and
 * *member kept. */
void set_in(const char* keyword, const char* value, long long lo, long long hi, int* member)
{
    long long v = 0;
    if (vx::number_in(keyword, value, lo, hi, &v)) *member = static_cast<int>(v);
}

/* A count in [1, max]: the number, or 0 (logged) for anything else. */
int count_in(const char* keyword, const char* value, int max)
{
    errno = 0;
    const long long n = strtoll(value ? value : "", nullptr, 10);
    if (errno == ERANGE || n <= 0 || n > max) {
        VX_ERROR("CONTROL_THREAD", "Invalid value %s of keyword %s", value ? value : "", keyword);
        return 0;
    }
    return static_cast<int>(n);
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

extern "C" void setVXMonitorInterval(char* value, char* keyword, int)
{
    errno = 0;
    long long ms = strtoll(value, nullptr, 10);
    if (errno == ERANGE || ms < 0 || ms > vx::kDayMs) {
        VX_ERROR("CONTROL_THREAD", "Invalid value %s of keyword %s; the interval stays %lld ms", value,
                 keyword, app()->monitorSettings.vxMonitorInterval);
        return;
    }
    if (ms < 1000) ms *= 1000; /* seconds */
    app()->monitorSettings.vxMonitorInterval = ms;
    app()->monitorSettings.vxMonitorIntervalInSecs = static_cast<int>(ms / 1000);
}

extern "C" void parseBTMonitorKeyword(char* value, char*, int)
{
    vx::store_relaxed(app()->VXBTMonitor.isBTMonitorOn, atoi(value) >= 1 ? 1 : 0);
}
extern "C" void parseMaxBTCount(char* value, char* keyword, int)
{
    if (const int n = count_in(keyword, value, vx::kBTCountMax)) {
        vx::store_relaxed(app()->config.max_bt_count, n);
        app()->VXBTMonitor.maxBTCount = n;
    }
}
/* Only turns the flag on: a lower value changes nothing. */
extern "C" void parseDoNotDiscardVal(char* value, char*, int)
{
    if (atoi(value) >= 1) vx::store_relaxed(app()->VXBTMonitor.doNotDisacrdAnyTransaction, 1);
}
extern "C" void parseBTMonitorErrorLevel(char* value, char*, int)
{
    if (const int level = atoi(value); level >= 0) app()->VXBTMonitor.btMonitorErrorLevel = level;
}
extern "C" void parseBTAggDataArraySize(char* value, char* keyword, int)
{
    int size = app()->monitorSettings.BTAggDataArraySize;
    set_in(keyword, value, 0, vx::kBTCountMax, &size);
    const int current = vx::load_acquire(app()->VXBTMonitor.aggDataArraySize);
    if (size <= current) {
        VX_ERROR("CONTROL_THREAD",
                 "parseBTAggDataArraySize - Could not decrease size of array, as targeted size is less or equal "
                 "than current size.Where current size : %d,  specified size : %d",
                 current, size);
        return;
    }
    app()->monitorSettings.BTAggDataArraySize = size;
    vx::bt_monitor_resize(size); /* the array grows with its size */
}
extern "C" void parseMaxIPCount(char* value, char* keyword, int)
{
    if (const int n = count_in(keyword, value, vx::kBackendCountMax))
        app()->VXBackendMonitor.maxIPCount = n;
}
extern "C" void setBackendMonitorEnabled(char* value, char*, int)
{
    vx::store_relaxed(app()->VXBackendMonitor.isBackendMonitorOn,
                      value && atoi(value) >= 1 ? 1 : 0);
}

extern "C" void setVXVectorSeperator(char* value, char*, int)
{
    if (value && *value) app()->monitorSettings.vxVectorSeperator = value[0];
}

extern "C" void setMonitorEnabledForID(char* value, char*, int)
{
    app()->monitorSettings.isNewMonitorRecordEnabled = atoi(value) >= 1 ? 1 : 0;
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
        vx::call_host("vx_cookie", vx_cookie_callback_func, static_cast<char*>(nullptr),
                      static_cast<char*>(nullptr), 0, 0, 0);
        VX_ERROR("CONTROL_THREAD", "Error in setting keyword for enableVXSession.Invalid Keyword.");
        return;
    }
    /* Entry depth, exit depth, commit, header, name, domain, idle time (ms),
     * flowpaths per session; the first number also switches sessions on. */
    set_in("enableVXSession entry depth", parts[0], 0, vx::kStackDepthMax,
           &s.methodEntryDepth2SetCookie);
    set_in("enableVXSession exit depth", parts[1], 0, vx::kStackDepthMax,
           &s.methodExitDepth2SetCookie);
    s.cookieOnResponseCommit = atoi(parts[2]) ? 1 : 0;
    if (n > 3) s.headerInResponse = atoi(parts[3]) ? 1 : 0;
    if (n > 4 && *parts[4]) setVXSessionCookieName(parts[4]);
    if (n > 5) setCookieDomainName(parts[5]);
    long long idleMs = 0;
    if (n > 6 && vx::number_in("enableVXSession idle time", parts[6], -vx::kDayMs, vx::kDayMs, &idleMs))
        setVxSessionIdleTimeOutSecs(idleMs);
    long long most = 0;
    if (n > 7 && vx::number_in("enableVXSession flowpath count", parts[7], 0, INT_MAX, &most))
        setMaxFPCountInSession(static_cast<int>(most));
    vx::call_host("vx_cookie", vx_cookie_callback_func, s.vxSessionCookieName, getCookieDomainName(),
                  s.headerInResponse, vx::cookie_method_position(s), static_cast<int>(s.vxSessionIdleTimeOutSecs));
    trace(keyword, value);
}

extern "C" void setKPCookie(char* value, char*, int)
{
    if (none(value)) return;
    /* The old name is not freed: a host may still read it. The collector
     * sends the same name session after session, which costs nothing. */
    VXSys_t& s = app()->VXSys;
    if (!s.KPCookieName || strcmp(s.KPCookieName, value) != 0) s.KPCookieName = strdup(value);
    vx::call_host("kp_cookie", kp_cookie_callback_func, s.KPCookieName);
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

extern "C" void setClassWeight(char* value, char*, int) { app()->vxAutoInstrumentation.classWeight = atoi(value); }
extern "C" void setAutoInstrSessionInterval(char* value, char* keyword, int)
{
    set_in(keyword, value, 0, INT_MAX, &app()->vxAutoInstrumentation.sessionInterval);
}
extern "C" void setRetainAutoInstrMethods(char* value, char*, int) { app()->vxAutoInstrumentation.retainChanges = atoi(value); }
extern "C" void setDebugSessionMode(char* value, char*, int) { app()->vxAutoInstrumentation.debugSessionMode = atoi(value); }
extern "C" void setMinStackDepthForDebugSession(char* value, char* keyword, int)
{
    set_in(keyword, value, 0, vx::kStackDepthMax, &app()->vxAutoInstrumentation.minStackDepth);
}

extern "C" void setEnableExceptionInSeqBlob(char* value, char*, int) { app()->VXSys.enableExceptionInSeqBlob = static_cast<char>(atoi(value)); }

extern "C" void setEnableDDKeywd(char* value, char*, int) { sub_numbers(value, app()->vxDynamicSettings.enableDDAI, 5); }

extern "C" void setenableVXLQDataTransfer(char* value, char*, int) { vxAppLogStruct.enableVXLQDataTransfer = atoi(value); }
extern "C" void setbciVXLQDataBufferSetting(char* value, char*, int) { copy_feature_text(vxAppLogStruct.bufferSetting, value); }
extern "C" void setVXLQLogPath(char* value, char*, int) { copy_feature_text(vxAppLogStruct.logPath, value); }


extern "C" void setDigestPercentileBT(char* value, char* keyword, int) { vx::bt_percentiles_keyword(keyword, value); }
extern "C" void setDigestPercentileIP(char* value, char* keyword, int) { vx::ip_percentiles_keyword(keyword, value); }

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
    vx::call_host("GC_status", GC_status_func, app()->VXSys.enableGCMonitor);
}

extern "C" void checkgoroutinemonitor(char* value, char*, int)
{
    app()->VXSys.enableGoroutineMonitor = atoi(value) == 1 ? 1 : 0;
    vx::call_host("Goroutine_status", Goroutine_status_func, app()->VXSys.enableGoroutineMonitor);
}
