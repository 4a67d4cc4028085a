#include "agent/vx_sdk_api.h"

#include <apr_time.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "agent/vx_instance.h"
#include "agent/vx_sdk_api_private.h"
#include "agent/vx_sdk_log.h"
#include "agent/vx_sys.h"
#include "core/vx_atomic.h"
#include "core/vx_hashmap.h"
#include "core/vx_platform.h"
#include "core/vx_thread.h"
#include "core/vx_trace_log.h"
#include "diag/vx_exception_capture.h"
#include "diag/vx_gc_report.h"
#include "flowpath/vx_callout_header.h"
#include "flowpath/vx_per_thread_data.h"
#include "flowpath/vx_session_cookie_text.h"
#include "http/vx_http_capture.h"
#include "http/vx_trace_headers.h"
#include "link/vx_discovery.h"
#include "link/vx_log_dispatcher.h"

apr_pool_t* sdk_pool = nullptr;
apr_thread_mutex_t* bt_lock = nullptr;
apr_hash_t* g_bt_hash = nullptr;
int initializeSDK = 0;

namespace {

void real_sleep(int seconds)
{
    apr_sleep(apr_time_from_sec(seconds));
}

vx::SdkSleepFn g_sleep = real_sleep;

/* "%s" of a host string that may be null. */
const char* text_or_null(const char* s)
{
    return s ? s : "(null)";
}

bool is_empty(const char* s)
{
    return !s || !*s;
}

VXPerThreadData_t* record_of(vxBTHandle h)
{
    return static_cast<VXPerThreadData_t*>(h);
}

/* Callouts are handed over only while a session runs and is not stopping. */
bool callouts_accepted(const VXProxyInstance_t* app)
{
    return app && vx::load_relaxed(app->Server.testRunRunning) &&
           !vx::load_relaxed(app->Server.gettingstopInstrumenatation);
}

bool session_running(const VXProxyInstance_t* app)
{
    return app && vx::load_relaxed(app->Server.testRunRunning);
}

/* The kernel id of the calling thread, read now: a host thread may be a
 * forked child's. */
long long current_tid()
{
    return static_cast<long long>(syscall(SYS_gettid));
}

}  // namespace

namespace vx {

void sdk_sleep_set(SdkSleepFn fn)
{
    g_sleep = fn ? fn : real_sleep;
}

void sdk_bt_map_create()
{
    if (!sdk_pool && apr_pool_create(&sdk_pool, nullptr) != APR_SUCCESS) {
        sdk_pool = nullptr;
        VX_SDK_LOG(VX_SDK_ERROR, "ERROR: Unable to create sdk_pool");
        return;
    }
    VX_SDK_LOG(VX_SDK_INFO, "Method Called, sdk_pool created");
    if (!bt_lock) bt_lock = mutex_create(sdk_pool);
    if (!g_bt_hash) g_bt_hash = create_hashmap(sdk_pool);
    VX_SDK_LOG(VX_SDK_INFO, "Method End");
}

}  // namespace vx

/* Start and end. */

extern "C" void vx_init2(char* agent_type, char* logfile_name, char* agent_Version,
                         char* agent_name) VX_NOEXCEPT
{
    /* Without a home there is nothing to configure from and nowhere to log:
     * the SDK stays inert and every call finds no agent. */
    const char* home = getenv("VXHOME");
    struct stat st;
    if (!home || stat(home, &st) != 0) return;

    if (!g_vx_sdk_log_init) {
        g_vx_sdk_log_init = 1;
        char dir[vx::kPathSize];
        if (agent_type)
            snprintf(dir, sizeof dir, "%s/%s", home, agent_type);
        else
            snprintf(dir, sizeof dir, "%s", home);
        vx_sdk_log_init(dir);
    }

    char fallback_name[] = "cppAgent";
    char* name = agent_name;
    if (is_empty(name))
        name =
            is_empty(program_invocation_short_name) ? fallback_name : program_invocation_short_name;
    /* The agent name is the pool and logfile_name the process of the agent. */
    agent_init(name, 1, logfile_name, agent_type, agent_Version);
    VXProxyInstance_t* app = vx_app();
    if (!app) {
        VX_SDK_LOG(VX_SDK_ERROR, "ERROR: The agent could not be created");
        return;
    }

    vx::sdk_bt_map_create();
    initializeSDK = 1;
    /* Deliberately unconditional: a native host starts its transactions
     * right after this call, and the collector needs the time to start a
     * session, whatever the control thread has reached. */
    g_sleep(vx::kSdkStartWaitSeconds);
    vx::store_relaxed(app->Server.lastHeartBeatRcvTime, my_gettimeofday());
}

extern "C" void vx_init(void) VX_NOEXCEPT
{
    char agent_type[] = "cppAgent";
    char logfile_name[] = "klvgolib";
    vx_init2(agent_type, logfile_name, nullptr, nullptr);
}

extern "C" void vx_init_sdk(char* logfile_name) VX_NOEXCEPT
{
    char agent_type[] = "cppAgent";
    vx_init2(agent_type, logfile_name, nullptr, nullptr);
}

extern "C" void vx_free(void) VX_NOEXCEPT
{
    VX_SDK_LOG(VX_SDK_INFO, "Method Called");
    if (bt_lock) {
        apr_thread_mutex_destroy(bt_lock);
        bt_lock = nullptr;
    }
    if (g_bt_hash) {
        iterate_hashtable_and_free_hashmap(g_bt_hash);
        g_bt_hash = nullptr;
    }
    if (sdk_pool) {
        apr_pool_destroy(sdk_pool);
        sdk_pool = nullptr;
    }
    vx_sdk_log_free();
}

/* Transactions. */

extern "C" vxBTHandle vx_bt_begin(char* bt_name, char* correlation_header, char* vxcookie,
                                  char* kpcookie, char* btHeaderValue, char* fpinstance) VX_NOEXCEPT
{
    if (!vx_app()) return nullptr;
    VX_SDK_LOG(VX_SDK_INFO, "Method Called, bt_name, correlation_header");
    if (is_empty(bt_name)) {
        VX_SDK_LOG(VX_SDK_ERROR, "ERROR: Invalid Argument Passed, bt_name = [%s]",
                   text_or_null(bt_name));
        return nullptr;
    }
    VX_SDK_LOG(VX_SDK_INFO, "Method Called, bt_name = [%s], correlation_header = [%p]", bt_name,
               static_cast<void*>(correlation_header));
    /* correlation_header is not passed on: the header's name is the agent's
     * setting, not the host's. */
    void* handle = startFP(fpinstance, bt_name, btHeaderValue, nullptr, vxcookie, kpcookie,
                           getCorrelationIdHeader(), 0, 0);
    VX_SDK_LOG(VX_SDK_DEBUG, "Method End, bt_handle = [%p]", handle);
    return handle;
}

extern "C" int vx_bt_end(vxBTHandle bt_handle, int status_code, int tracerequest,
                         char** strSpan) VX_NOEXCEPT
{
    if (!vx_app()) return -1;
    if (!bt_handle) {
        VX_SDK_LOG(VX_SDK_ERROR, "ERROR: Invalid Argument Passed, bt_handle = [%p]", bt_handle);
        return -1;
    }
    VX_SDK_LOG(VX_SDK_INFO, "Method Called, bt_handle = [%p], status_code = [%d]", bt_handle,
               status_code);
    VXPerThreadData_t* vxTD = record_of(bt_handle);
    /* A host that knows no status has answered normally. */
    endFP(vxTD, status_code == 0 ? 200 : status_code, nullptr, my_gettimeofday(), 0, tracerequest,
          strSpan);
    reset(vxTD);
    VX_SDK_LOG(VX_SDK_DEBUG, "Method End");
    return 0;
}

extern "C" void vx_bt_store(vxBTHandle bt_handle, char* unique_bt_id) VX_NOEXCEPT
{
    if (!vx_app()) return;
    if (!bt_handle || is_empty(unique_bt_id)) {
        VX_SDK_LOG(VX_SDK_ERROR,
                   "ERROR: Invalid Arguments Passed, bt_handle = [%p], unique_bt_id = [%s]",
                   bt_handle, text_or_null(unique_bt_id));
        return;
    }
    if (!g_bt_hash) {
        VX_SDK_LOG(VX_SDK_ERROR, "ERROR: No business transaction map; vx_init2 has not run");
        return;
    }
    {
        vx::VXLockGuard guard(bt_lock);
        /* The key is the host's own text, not a copy. */
        if (!vx::insert_hashmap_if_absent(unique_bt_id, bt_handle, g_bt_hash)) {
            VX_SDK_LOG(VX_SDK_ERROR,
                       "ERROR: Business transaction already exists. unique_bt_id = [%s]",
                       unique_bt_id);
            return;
        }
        VX_SDK_LOG(VX_SDK_DEBUG, "Business transaction stored successfully.");
    }
    VX_SDK_LOG(VX_SDK_DEBUG, "Method END");
}

extern "C" vxBTHandle vx_bt_get(char* unique_bt_id) VX_NOEXCEPT
{
    if (!vx_app()) return nullptr;
    if (is_empty(unique_bt_id)) {
        VX_SDK_LOG(VX_SDK_ERROR, "ERROR: Invalid Argument Passed, unique_bt_id = [%s]",
                   text_or_null(unique_bt_id));
        return nullptr;
    }
    if (!g_bt_hash) return nullptr;
    return search_hashmap(unique_bt_id, g_bt_hash);
}

extern "C" int vx_bt_add_error(vxBTHandle bt_handle, int err_level, char* message,
                               int mark_bt_as_error) VX_NOEXCEPT
{
    /* Accepted for the hosts that call it; errors are not recorded this way. */
    (void)bt_handle;
    (void)err_level;
    (void)message;
    (void)mark_bt_as_error;
    return 0;
}

extern "C" uintptr_t bt_handle_to_int(vxBTHandle bt_handle) VX_NOEXCEPT
{
    return reinterpret_cast<uintptr_t>(bt_handle);
}

extern "C" vxBTHandle bt_int_to_handle(uintptr_t bt_int) VX_NOEXCEPT
{
    return reinterpret_cast<vxBTHandle>(bt_int);
}

/* Methods. */

extern "C" void vx_method_entry(vxBTHandle bt_handle, char* method) VX_NOEXCEPT
{
    if (!vx_app()) return;
    if (!bt_handle || is_empty(method)) {
        VX_SDK_LOG(VX_SDK_ERROR, "ERROR: Invalid Arguments, bt_handle = [%p], method = [%s]",
                   bt_handle, text_or_null(method));
        return;
    }
    /* The url argument of an SDK method is always this literal. */
    char url[] = "/test";
    vxMethodEntry(nullptr, record_of(bt_handle), method, url, nullptr, 0, nullptr, nullptr, 0,
                  nullptr);
}

extern "C" void vx_method_exit(vxBTHandle bt_handle, char* method, char** strSpan) VX_NOEXCEPT
{
    if (!vx_app()) return;
    if (!bt_handle || is_empty(method)) {
        VX_SDK_LOG(VX_SDK_ERROR, "ERROR: Invalid Arguments, bt_handle = [%p], method = [%s]",
                   bt_handle, text_or_null(method));
        return;
    }
    /* No CPU time, status 200, no backend, no wall time, no thread, no
     * callout, no key; event 1 (a normal exit). */
    vxMethodExit(nullptr, record_of(bt_handle), method, 0, 200, nullptr, 0, 0, 0, nullptr, 1,
                 nullptr, my_gettimeofday(), strSpan);
}

/* Callouts. */

extern "C" int vx_ip_db_callout_begin(char* mName, vxBTHandle bt_handle, char* db_query,
                                      char* DBQueryParam) VX_NOEXCEPT
{
    if (!callouts_accepted(vx_app())) return 0;
    if (!bt_handle || is_empty(db_query)) {
        /* Deliberately DEBUG, unlike the checks of the other three callout
         * calls. */
        VX_SDK_LOG(
            VX_SDK_DEBUG,
            "Error: Invalid argument passed. bt_handle = [%p], mName = [%s], db_query = [%s]",
            bt_handle, text_or_null(mName), text_or_null(db_query));
        return 0;
    }
    vxMethodEntry(nullptr, record_of(bt_handle), mName, db_query, nullptr, current_tid(), nullptr,
                  nullptr, 0, DBQueryParam);
    return 0;
}

extern "C" int vx_ip_db_callout_end(char* mName, char* backendName, vxBTHandle bt_handle,
                                    char** strSpan) VX_NOEXCEPT
{
    if (!callouts_accepted(vx_app())) return 0;
    if (!bt_handle || is_empty(backendName)) {
        VX_SDK_LOG(VX_SDK_ERROR, "Error: Invalid argument passed. bt_handle = [%p]", bt_handle);
        return -1;
    }
    vxMethodExit(nullptr, record_of(bt_handle), mName, 0, 200, backendName, 0, current_tid(), 1,
                 nullptr, 1, nullptr, my_gettimeofday(), strSpan);
    return 0;
}

extern "C" int vx_ip_http_callout_begin(char* mName, vxBTHandle bt_handle, char* url) VX_NOEXCEPT
{
    if (!callouts_accepted(vx_app())) return 0;
    if (!bt_handle || is_empty(url)) {
        VX_SDK_LOG(VX_SDK_ERROR,
                   "Error: Invalid argument passed. bt_handle = [%p], name = [%s], url = [%s]",
                   bt_handle, text_or_null(mName), text_or_null(url));
        return 0;
    }
    vxMethodEntry(nullptr, record_of(bt_handle), mName, url, nullptr, current_tid(), nullptr,
                  nullptr, 0, nullptr);
    return 0;
}

extern "C" int vx_ip_http_callout_end(char* mName, char* backendName, vxBTHandle bt_handle,
                                      char** strSpan) VX_NOEXCEPT
{
    if (!callouts_accepted(vx_app())) return 0;
    if (!bt_handle || is_empty(backendName)) {
        /* The text has no space after the period, unlike the DB call's; it
         * stays as hosts have always seen it. */
        VX_SDK_LOG(VX_SDK_ERROR, "Error: Invalid argument passed.bt_handle = [%p]", bt_handle);
        return -1;
    }
    vxMethodExit(nullptr, record_of(bt_handle), mName, 0, 200, backendName, 0, current_tid(), 1,
                 nullptr, 1, nullptr, my_gettimeofday(), strSpan);
    return 0;
}

/* Helpers. */

extern "C" int getTopoFpStr(VXPerThreadData_t* vxTD, char* str) VX_NOEXCEPT
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !vxTD || !str) return 1;
    if (app->VXSys.enableUpdateLogMsgForLQ == 0) {
        VX_TRACE(app->VXSys.fpTraceLevel, 4, "FLOWPATH",
                 "keyword enableUpdateLogMsgForLQ = %d is disabled. Hence, returning without "
                 "generating TOPO",
                 app->VXSys.enableUpdateLogMsgForLQ);
        return 1;
    }
    const VXBCISetting_t& bci = app->VXBCISetting;
    const int run = vx::load_relaxed(app->Server.TestRunIDValue);
    snprintf(str, vx::kTopoTextSize, " [TOPO:%d:%s:%s:%s][FP:%d:%lld:%lld:%lld:%lld:%lld] ", run,
             bci.tierName ? bci.tierName : "", bci.appServerName ? bci.appServerName : "",
             bci.appName ? bci.appName : "", run, vxTD->flowpathInstance,
             vxTD->firstFlowpathInstance, vxTD->vxSessionId, vxTD->klvSID, vxTD->VXPageID);
    return 0;
}

extern "C" char* sdk_getAppName(void) VX_NOEXCEPT
{
    return program_invocation_short_name;
}

extern "C" char* sdk_getVxBuild(void) VX_NOEXCEPT
{
    return getVxBuild();
}

extern "C" char* sdk_getTopoFpStr(vxBTHandle bt_handle) VX_NOEXCEPT
{
    if (!bt_handle || !session_running(vx_app())) return nullptr;
    auto* buf = static_cast<char*>(calloc(1, vx::kSdkHeaderBufferSize));
    if (!buf) {
        VX_SDK_LOG(VX_SDK_ERROR, "ERROR: Out of memory for the TOPO text");
        return nullptr;
    }
    if (getTopoFpStr(record_of(bt_handle), buf) != 0) {
        free(buf);
        return nullptr;
    }
    return buf;
}

extern "C" void sdk_dumpLogMessage(vxBTHandle bt_handle, char* logmsg) VX_NOEXCEPT
{
    if (!bt_handle || !session_running(vx_app())) return;
    dumpLogMessage(record_of(bt_handle), logmsg);
}

extern "C" void sdk_httpReqRespWrapper(vxBTHandle bt_handle, char* buffer, char* type,
                                       int statusCode) VX_NOEXCEPT
{
    if (!bt_handle || !session_running(vx_app())) return;
    httpReqRespWrapper(record_of(bt_handle), buffer, type, statusCode);
}

extern "C" char* sdk_getVXSessionCookie(vxBTHandle bt_handle) VX_NOEXCEPT
{
    if (!vx_app()) return nullptr;
    if (!bt_handle) {
        VX_SDK_LOG(VX_SDK_ERROR, "ERROR: Invalid Arguments, bt_handle = [%p], ", bt_handle);
        return nullptr;
    }
    return getVXSessionCookie(record_of(bt_handle));
}

extern "C" char* get_custom_vx_header(vxBTHandle bt_handle) VX_NOEXCEPT
{
    if (!bt_handle || !vx_app()) return nullptr;
    return getTierCallOut(record_of(bt_handle), nullptr);
}

extern "C" char* sdk_get_otl_traceparent(vxBTHandle bt_handle) VX_NOEXCEPT
{
    if (!bt_handle || !vx_app()) return nullptr;
    return get_otl_traceparent_header(record_of(bt_handle));
}

extern "C" char* sdk_get_otl_tracestate(vxBTHandle bt_handle) VX_NOEXCEPT
{
    if (!bt_handle || !vx_app()) return nullptr;
    return get_otl_tracestate_header(record_of(bt_handle));
}

extern "C" char* sdk_get_propagation_header(vxBTHandle bt_handle) VX_NOEXCEPT
{
    if (!bt_handle || !vx_app()) return nullptr;
    auto* buf = static_cast<char*>(calloc(1, vx::kSdkHeaderBufferSize));
    if (!buf) {
        VX_SDK_LOG(VX_SDK_ERROR, "ERROR: Out of memory for the propagation headers");
        return nullptr;
    }
    get_propagation_header(record_of(bt_handle), buf);
    return buf;
}

extern "C" void sdk_free_memory(char* str) VX_NOEXCEPT
{
    free(str);
}

extern "C" int enableLOGGERFromPH(void) VX_NOEXCEPT
{
    /* With the host's own exception callback on, exceptions come that way
     * and the logger must not report them a second time. */
    VXProxyInstance_t* app = vx_app();
    const int callback_on = app ? app->VXSys.enableCallBackException : 0;
    return (getExceptionCaptureMode() == 1 && callback_on == 0) ? 1 : 0;
}

extern "C" void sdk_sendGCReport(int id, char* GC_report) VX_NOEXCEPT
{
    if (!GC_report) {
        VX_SDK_LOG(VX_SDK_ERROR, "GC_report null");
        return;
    }
    sendGCReport(id, GC_report);
}

extern "C" void wraphandleMessageForDiscovery(char* data) VX_NOEXCEPT
{
    handleMessageForDiscovery(data);
}

extern "C" void dumpLog(char* str) VX_NOEXCEPT
{
    VX_ERROR("SDK", "%s", text_or_null(str));
}
