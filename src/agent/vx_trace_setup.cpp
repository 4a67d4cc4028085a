#include "agent/vx_trace_setup.h"

#include <apr_file_info.h>
#include <apr_file_io.h>
#include <apr_strings.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

#include "agent/vx_instance.h"
#include "core/vx_atomic.h"
#include "core/vx_platform.h"
#include "core/vx_thread.h"
#include "core/vx_trace_log.h"

namespace {

/* Prepend-and-store into agentLogBuffer: the buffered text is kept in front
 * of the new line and the whole is bounded by one line's size, so the buffer
 * never holds more than kTraceLineSize bytes. */
void route_to_proxy(const char* date, int test_run, const char* thread_name, long long tid,
                    const char* file, int line, const char* fname, const char* severity,
                    const char* message)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !app->agentLogBuffer) return;
    const VXBCISetting_t& bci = app->VXBCISetting;
    const char* tier = bci.tierName ? bci.tierName : "";
    const char* server = bci.appServerName ? bci.appServerName : "";
    const char* inst = bci.appName ? bci.appName : "";
    char out[vx::kTraceLineSize];
    vx::VXLockGuard guard(app->agentLogBufferLock);
    const int tr = test_run;
    int n;
    if (tr > 0)
        n = snprintf(out, sizeof out, "%s\n%s|TR%d|%s|%lld|AGENT-LOG<%s_%s_%s>|%s|%d|%s|%s|%s",
                     app->agentLogBuffer, date, tr, thread_name, tid, tier, server, inst, file, line,
                     fname, severity, message);
    else
        n = snprintf(out, sizeof out, "%s\n%s|******|%s|%lld|AGENT-LOG<%s_%s_%s>|%s|%d|%s|%s|%s",
                     app->agentLogBuffer, date, thread_name, tid, tier, server, inst, file, line,
                     fname, severity, message);
    if (n < 0) return;
    memcpy(app->agentLogBuffer, out, strlen(out) + 1);
}

/* Where the agent's own lines go: nowhere while logging is off, into
 * agentLogBuffer for a proxy-mode agent that forwards its log, else the file. */
int destination()
{
    VXProxyInstance_t* app = vx_app();
    if (!app || vx_in_proxy_process()) return vx::kTraceToFile;
    if (app->sendLogsToProxy == 0) return vx::kTraceDropped;
    return app->sendLogsToProxy == 2 ? vx::kTraceToOwner : vx::kTraceToFile;
}

long long roll_over_size()
{
    VXProxyInstance_t* app = vx_app();
    return app ? app->VXSys.traceMaxSize : vx::kTraceMaxSize;
}

int test_run()
{
    VXProxyInstance_t* app = vx_app();
    return app ? vx::load_relaxed(app->Server.TestRunIDValue) : 0;
}

const char* build_text()
{
    VXProxyInstance_t* app = vx_app();
    return app ? vx::load_acquire(app->VXSys.vxBuild) : nullptr;
}

constexpr vx::TraceLogOwner kOwner = {roll_over_size, test_run, build_text, destination, route_to_proxy};

}  // namespace

/* The host variants differ only in the level they compare with. */
#define VX_DEFINE_HOST_LOG(name, levelExpr)                                                        \
    extern "C" void name(int level, const char* thread_name, long long thread_id,                  \
                         const char* module, const char* severity, const char* file, int line,    \
                         const char* fname, const char* format, ...) VX_NOEXCEPT                   \
    {                                                                                              \
        VXProxyInstance_t* app = vx_app();                                                         \
        if (!trace_log_key || !app || level > (levelExpr)) return;                                 \
        va_list ap;                                                                                \
        va_start(ap, format);                                                                      \
        vx::trace_log_write_v(trace_log_key, thread_name, thread_id, module, severity, file, line,    \
                             fname, format, ap);                                                       \
        va_end(ap);                                                                                \
    }

VX_DEFINE_HOST_LOG(vxlb_mt_trace_log_win, app->VXSys.agentTraceLevel)
VX_DEFINE_HOST_LOG(vxlb_mt_trace_log_win_hs, app->VXSys.agentHSTraceLevel)
VX_DEFINE_HOST_LOG(vxlb_mt_trace_log_win_ad, app->VXSys.agentADTraceLevel)
VX_DEFINE_HOST_LOG(vxlb_mt_trace_log_win_pc, app->VXSys.agentPCTraceLevel)
VX_DEFINE_HOST_LOG(vxlb_mt_trace_log_win_ex, app->VXSys.agentEXTraceLevel)
#undef VX_DEFINE_HOST_LOG

extern "C" void VXTraceInit(char* process_name, char* pool_name_local)
{
    VXProxyInstance_t* app = vx_app();
    const char* home = app ? app->VXSys.vxHomePath : VXProxy.vxHomePath;
    if (!home) return;
    char dir[vx::kPathSize];
    snprintf(dir, sizeof dir, "%s/logs/", home);
    vx::mkdir_ex(dir);
    char name[vx::kPathSize];
    const char* proc = process_name ? process_name : "DefaultProcess";
    if (pool_name_local && *pool_name_local)
        snprintf(name, sizeof name, "vx_trace_%s_%s_%s_%d.log", proc, pool_name_local,
                 vxlb_get_cur_date_time(), vxlb_get_pid());
    else
        snprintf(name, sizeof name, "vx_trace_%s_%s_%d.log", proc, vxlb_get_cur_date_time(),
                 vxlb_get_pid());
    vx::trace_log_set_owner(&kOwner);
    MTTraceLogKey* key = vxlb_init_mt_trace_log_ex(dir, name, 0, 0);
    if (key) trace_log_key = key;
}

extern "C" int getTraceLevel(void)
{
    VXProxyInstance_t* app = vx_app();
    return app ? app->VXSys.agentTraceLevel : 0;
}

extern "C" int get_Previous_Date(void)
{
    VXProxyInstance_t* app = vx_app();
    int past = app ? app->VXBCISetting.pastLog : vx::kDefaultPastLogDays;
    time_t now = time(nullptr);
    struct tm tm_now;
    if (!localtime_r(&now, &tm_now)) return 0;
    return vx::previous_date(tm_now.tm_year + 1900, tm_now.tm_mon + 1, tm_now.tm_mday, past);
}

extern "C" void vx_check_log_file(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    if (app->VXBCISetting.pastLog < 1) app->VXBCISetting.pastLog = vx::kDefaultPastLogDays;
    const char* home = vx_in_proxy_process() ? VXProxy.vxHomePath : app->VXSys.vxHomePath;
    if (!home) return;

    apr_pool_t* pool = nullptr;
    if (apr_pool_create(&pool, app->control_pool) != APR_SUCCESS) return;
    char dir_path[vx::kPathSize];
    snprintf(dir_path, sizeof dir_path, "%s/logs/", home);
    apr_dir_t* dir = nullptr;
    if (apr_dir_open(&dir, dir_path, pool) != APR_SUCCESS) {
        VX_ERROR("CONTROL_THREAD", "Log Directory unable to open");
        apr_pool_destroy(pool);
        return;
    }
    const long long limit = get_Previous_Date();
    apr_finfo_t entry;
    apr_status_t rv;
    /* An entry whose type needed a stat still has its name: go on. */
    while ((rv = apr_dir_read(&entry, APR_FINFO_NAME | APR_FINFO_TYPE, dir)) == APR_SUCCESS ||
           rv == APR_INCOMPLETE) {
        if (!entry.name || ((entry.valid & APR_FINFO_TYPE) && entry.filetype != APR_REG)) continue;
        std::string_view name(entry.name);
        /* Only the agent's own logs: trace logs and SDK logs of any process. */
        if (name.rfind("vx_trace_", 0) != 0 && name.rfind("vx_sdk_", 0) != 0) continue;
        /* The date stamp is the third "_" part from the end (the last two are
         * the pid with ".log" and the roll-over index). */
        std::string_view parts[3];
        int count = 0;
        size_t end = name.size();
        while (true) {
            size_t cut = name.rfind('_', end - 1);
            std::string_view part =
                name.substr(cut == std::string_view::npos ? 0 : cut + 1,
                            end - (cut == std::string_view::npos ? 0 : cut + 1));
            if (count < 3) parts[count] = part;
            ++count;
            if (cut == std::string_view::npos || cut == 0) break;
            end = cut;
        }
        if (count < 4) continue;
        char stamp[32];
        snprintf(stamp, sizeof stamp, "%.*s", static_cast<int>(parts[2].size()), parts[2].data());
        long long date = atoll(stamp) / 1000000;
        if (date > limit) continue;
        char full[vx::kPathSize * 2];
        snprintf(full, sizeof full, "%s%s", dir_path, entry.name);
        if (apr_file_remove(full, pool) == APR_SUCCESS && trace_log_key)
            VX_LOG_AT_("CONTROL_THREAD", "Info", "removed file name :%s", entry.name);
    }
    apr_dir_close(dir);
    apr_pool_destroy(pool);
}
