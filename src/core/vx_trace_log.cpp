#include "core/vx_trace_log.h"


#include <atomic>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>

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

std::atomic<const vx::TraceLogOwner*> g_owner{nullptr};

long long roll_over_size()
{
    const vx::TraceLogOwner* o = g_owner.load(std::memory_order_acquire);
    return o && o->roll_over_size ? o->roll_over_size() : vx::kTraceMaxSize;
}

int current_test_run()
{
    const vx::TraceLogOwner* o = g_owner.load(std::memory_order_acquire);
    return o && o->test_run ? o->test_run() : 0;
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

void write_line(MTTraceLogKey* key, Route route, const char* thread_name, long long thread_id,
                const char* module, const char* severity, const char* file, int line,
                const char* fname, const char* format, va_list ap)
{
    if (!key) return;
    const vx::TraceLogOwner* owner = g_owner.load(std::memory_order_acquire);
    const int where = (route == Route::Configured && owner && owner->destination)
                          ? owner->destination()
                          : vx::kTraceToFile;
    if (where == vx::kTraceDropped) return;

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

    if (where == vx::kTraceToOwner && owner->take) {
        char message[vx::kTraceLineSize];
        vsnprintf(message, sizeof message, format, ap);
        owner->take(date, current_test_run(), thread_name, thread_id, file, line, fname, severity,
                    message);
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
    /* The key lives to the end of the process, and so does its pool. */
    apr_pool_t* pool = nullptr;
    if (apr_pool_create(&pool, nullptr) == APR_SUCCESS) key->lock = vx::mutex_create(pool);
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
            const vx::TraceLogOwner* o = g_owner.load(std::memory_order_acquire);
            const char* build = (o && o->build_text) ? o->build_text() : nullptr;
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

namespace vx {

int previous_date(int year, int month, int day, int days)
{
    /* Dates outside the cleaner's years are returned as they are. */
    if (year < 1960 || year > 2050) return day + month * 100 + year * 10000;
    struct tm t = {};
    t.tm_year = year - 1900;
    t.tm_mon = month - 1;
    t.tm_mday = day - days; /* mktime carries it back across months and years */
    t.tm_hour = 12;         /* midday: no daylight-saving change moves the date */
    t.tm_isdst = -1;
    if (mktime(&t) == static_cast<time_t>(-1)) return day + month * 100 + year * 10000;
    return t.tm_mday + (t.tm_mon + 1) * 100 + (t.tm_year + 1900) * 10000;
}

}  // namespace vx


void vx::trace_log_set_owner(const TraceLogOwner* owner) { g_owner.store(owner, std::memory_order_release); }

void vx::trace_log_write_v(MTTraceLogKey* key, const char* thread_name, long long thread_id,
                           const char* module, const char* severity, const char* file, int line,
                           const char* fname, const char* format, va_list ap)
{
    write_line(key, Route::FileOnly, thread_name, thread_id, module, severity, file, line, fname,
               format, ap);
}
