#include "core/vx_trace_log.h"

#include <apr_file_info.h>
#include <apr_file_io.h>
#include <apr_strings.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

#include "agent/vx_instance.h"
#include "core/vx_atomic.h"
#include "core/vx_platform.h"
#include "core/vx_thread.h"

MTTraceLogKey* trace_log_key = nullptr;
int vx_mem_trace_level = 0;

namespace {

constexpr const char kHeaderLine[] =
    "#TimeStamp|TestRun|Thread Name|Thread ID|Module Name|Src file name|Line number|Function|"
    "Severity|Message\n";

/* Where a formatted line goes. */
enum class Route { Configured, FileOnly };

long long roll_over_size()
{
    VXProxyInstance_t* app = vx_app();
    return app ? app->VXSys.traceMaxSize : vx::kTraceMaxSize;
}

int current_test_run()
{
    VXProxyInstance_t* app = vx_app();
    return app ? vx::load_relaxed(app->Server.TestRunIDValue) : 0;
}

/* Format the line prefix of one message; the number of bytes written. */
int format_prefix(char* out, int cap, const char* date, const char* thread_name, long long tid,
                  const char* module, const char* file, int line, const char* fname,
                  const char* severity)
{
    int tr = current_test_run();
    int n;
    if (tr > 0)
        n = snprintf(out, static_cast<size_t>(cap), "\n%s|TR%d|%s|%lld|%s|%s|%d|%s|%s|", date, tr,
                     thread_name, tid, module, file, line, fname, severity);
    else
        n = snprintf(out, static_cast<size_t>(cap), "\n%s|******|%s|%lld|%s|%s|%d|%s|%s|", date,
                     thread_name, tid, module, file, line, fname, severity);
    if (n < 0) return 0;
    return n < cap ? n : cap - 1;
}

/* Prepend-and-store into agentLogBuffer: the buffered text is kept in front
 * of the new line and the whole is bounded by one line's size, so the buffer
 * never holds more than kTraceLineSize bytes. */
void route_to_proxy(VXProxyInstance_t* app, const char* date, const char* thread_name,
                    long long tid, const char* file, int line, const char* fname,
                    const char* severity, const char* message)
{
    if (!app->agentLogBuffer) return;
    const VXBCISetting_t& bci = app->VXBCISetting;
    const char* tier = bci.tierName ? bci.tierName : "";
    const char* server = bci.appServerName ? bci.appServerName : "";
    const char* inst = bci.appName ? bci.appName : "";
    char out[vx::kTraceLineSize];
    vx::VXLockGuard guard(app->agentLogBufferLock);
    int tr = current_test_run();
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

void write_line(MTTraceLogKey* key, Route route, const char* thread_name, long long thread_id,
                const char* module, const char* severity, const char* file, int line,
                const char* fname, const char* format, va_list ap)
{
    if (!key) return;
    VXProxyInstance_t* app = vx_app();
    const bool in_proxy = VXProxy.proxyServerFlag != 0;
    if (route == Route::Configured && app && !in_proxy && app->sendLogsToProxy == 0) return;

    long long ktid = vx::kernel_thread_id();
    if (ktid != 0) thread_id = ktid;
    char tname[32];
    if (!thread_name) {
        vx::thread_name(tname, sizeof tname);
        thread_name = tname;
    }
    char date[32];
    get_cur_date_time_r(date, sizeof date);
    module = module ? module : "";
    severity = severity ? severity : "";
    file = file ? file : "";
    fname = fname ? fname : "";

    if (route == Route::Configured && app && !in_proxy && app->sendLogsToProxy == 2) {
        char message[vx::kTraceLineSize];
        vsnprintf(message, sizeof message, format, ap);
        route_to_proxy(app, date, thread_name, thread_id, file, line, fname, severity, message);
        return;
    }
    /* One line of at most kTraceLineSize bytes, on this thread's stack. */
    char buf[vx::kTraceLineSize];
    int n = format_prefix(buf, sizeof buf, date, thread_name, thread_id, module, file, line, fname,
                          severity);
    int m = vsnprintf(buf + n, sizeof buf - static_cast<size_t>(n), format, ap);
    if (m < 0) m = 0;
    int total = n + m;
    if (total > static_cast<int>(sizeof buf) - 1) total = static_cast<int>(sizeof buf) - 1;
    buf[sizeof buf - 1] = '\0';

    FILE* fp = vxlb_open_mt_trace_log(key, &key->log_file_size);
    if (!fp) return;
    size_t w = fwrite(buf, 1, static_cast<size_t>(total), fp);
    vx::fetch_add_relaxed(key->log_file_size, static_cast<int>(w));
    fflush(fp);
}

bool is_leap(int y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }

int days_in_month(int y, int m)
{
    static constexpr int kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return (m == 2 && is_leap(y)) ? 29 : kDays[m - 1];
}

}  // namespace

extern "C" void vxlb_mt_trace_log(MTTraceLogKey* key, const char* thread_name, long long thread_id,
                                  const char* module, const char* severity, const char* file, int line, const char* fname,
                                  const char* format, ...)
{
    va_list ap;
    va_start(ap, format);
    write_line(key, Route::Configured, thread_name, thread_id, module, severity, file, line, fname,
               format, ap);
    va_end(ap);
}

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
        write_line(trace_log_key, Route::FileOnly, thread_name, thread_id, module, severity, file, \
                   line, fname, format, ap);                                                       \
        va_end(ap);                                                                                \
    }

VX_DEFINE_HOST_LOG(vxlb_mt_trace_log_win, app->VXSys.agentTraceLevel)
VX_DEFINE_HOST_LOG(vxlb_mt_trace_log_win_hs, app->VXSys.agentHSTraceLevel)
VX_DEFINE_HOST_LOG(vxlb_mt_trace_log_win_ad, app->VXSys.agentADTraceLevel)
VX_DEFINE_HOST_LOG(vxlb_mt_trace_log_win_pc, app->VXSys.agentPCTraceLevel)
VX_DEFINE_HOST_LOG(vxlb_mt_trace_log_win_ex, app->VXSys.agentEXTraceLevel)
#undef VX_DEFINE_HOST_LOG

extern "C" void vxlb_mt_trace_log_mem(int level, const char* thread_name, long long thread_id,
                                      const char* module, const char* severity, const char* file, int line,
                                      const char* fname, const char* format, ...) VX_NOEXCEPT
{
    (void)level;
    if (!trace_log_key || vx_mem_trace_level < 1) return;
    va_list ap;
    va_start(ap, format);
    write_line(trace_log_key, Route::FileOnly, thread_name, thread_id, module, severity, file, line,
               fname, format, ap);
    va_end(ap);
}

extern "C" MTTraceLogKey* vxlb_init_mt_trace_log_ex(char* base_dir, char* log_file, int log_level,
                                                    int max_log_file_size)
{
    (void)log_level;
    (void)max_log_file_size;
    if (!log_file) return nullptr;
    auto* key = static_cast<MTTraceLogKey*>(calloc(1, sizeof(MTTraceLogKey)));
    if (!key) return nullptr;
    const char* dir = base_dir ? base_dir : ".";
    snprintf(key->log_file[0], sizeof key->log_file[0], "%s/%s_0", dir, log_file);
    snprintf(key->log_file[1], sizeof key->log_file[1], "%s/%s_1", dir, log_file);
    key->print_header = 1;
    VXProxyInstance_t* app = vx_app();
    apr_pool_t* pool = app ? app->control_pool : proxy_pool;
    if (pool) key->lock = vx::mutex_create(pool);
    return key;
}

extern "C" void vx_open_log_file(MTTraceLogKey* key, int* log_file_size, char takeLock)
{
    if (!key) return;
    if (takeLock && key->lock) apr_thread_mutex_lock(key->lock);
    int idx = key->cur_index;
    if (!key->fp[idx]) {
        vx::store_relaxed(*log_file_size, 0); /* writers add to it without the lock */
        /* "e": the descriptor is not inherited by the host's child processes. */
        FILE* fp = fopen(key->log_file[idx], "ae");
        if (fp && key->print_header) {
            VXProxyInstance_t* app = vx_app();
            const char* build = app ? vx::load_acquire(app->VXSys.vxBuild) : nullptr;
            if (!build) build = "";
            int n = fprintf(fp, "%s%s", kHeaderLine, build);
            if (n > 0) vx::fetch_add_relaxed(*log_file_size, n);
            fflush(fp);
            key->print_header = 0;
        }
        /* Writers pick the file up without the lock, header written. */
        vx::store_release(key->fp[idx], fp);
    }
    if (takeLock && key->lock) apr_thread_mutex_unlock(key->lock);
}

extern "C" void roll_over_file(MTTraceLogKey* key, int* log_file_size)
{
    if (!key) return;
    int other = 1 - key->cur_index;
    /* The other file is the older one: it goes, so at most two remain. */
    if (key->fp[other]) {
        fclose(key->fp[other]);
        vx::store_release(key->fp[other], static_cast<FILE*>(nullptr));
        remove(key->log_file[other]);
    }
    key->print_header = 1;
    vx::store_release(key->cur_index, other);
    vx_open_log_file(key, log_file_size, 0);
}

extern "C" FILE* vxlb_open_mt_trace_log(MTTraceLogKey* key, int* log_file_size)
{
    if (!key) return nullptr;
    long long limit = roll_over_size();
    if (vx::load_relaxed(*log_file_size) >= limit) {
        vx::VXLockGuard guard(key->lock);
        if (vx::load_relaxed(*log_file_size) >= limit) roll_over_file(key, log_file_size);
    }
    /* Without the lock: the file and its index are published whole. */
    FILE* fp = vx::load_acquire(key->fp[vx::load_acquire(key->cur_index)]);
    if (fp) return fp;
    vx_open_log_file(key, log_file_size, 1);
    return vx::load_acquire(key->fp[vx::load_acquire(key->cur_index)]);
}

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
    MTTraceLogKey* key = vxlb_init_mt_trace_log_ex(dir, name, 0, 0);
    if (key) trace_log_key = key;
}

extern "C" char* get_cur_date_time_r(char* cur_date_time, int len)
{
    if (!cur_date_time || len <= 0) return cur_date_time;
    time_t now = time(nullptr);
    struct tm tm_now;
    if (!localtime_r(&now, &tm_now)) {
        snprintf(cur_date_time, static_cast<size_t>(len), "Error");
        return cur_date_time;
    }
    snprintf(cur_date_time, static_cast<size_t>(len), "%02d/%02d/%02d %02d:%02d:%02d",
             tm_now.tm_mon + 1, tm_now.tm_mday, tm_now.tm_year + 1900 - 2000, tm_now.tm_hour,
             tm_now.tm_min, tm_now.tm_sec);
    return cur_date_time;
}

extern "C" char* get_cur_date_time(void)
{
    static char buf[32];
    return get_cur_date_time_r(buf, sizeof buf);
}

extern "C" int getTraceLevel(void)
{
    VXProxyInstance_t* app = vx_app();
    return app ? app->VXSys.agentTraceLevel : 0;
}

namespace vx {

int previous_date(int year, int month, int day, int days)
{
    if (year >= 1960 && year <= 2050) {
        for (int i = 0; i < days; ++i) {
            if (day > 1) {
                --day;
                continue;
            }
            if (--month < 1) {
                month = 12;
                --year;
            }
            day = days_in_month(year, month);
        }
    }
    return day + month * 100 + year * 10000;
}

}  // namespace vx

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
    const char* home = VXProxy.proxyServerFlag ? VXProxy.vxHomePath : app->VXSys.vxHomePath;
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
