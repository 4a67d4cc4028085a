#include "core/vx_platform.h"

#include <apr_env.h>
#include <apr_strings.h>
#include <apr_time.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

long long real_now_ms() { return apr_time_now() / 1000; }

long long real_cpu_ns()
{
    struct timespec ts;
    if (clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts) != 0) return 0;
    return static_cast<long long>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

vx::NowMsFn g_now_ms = real_now_ms;
vx::CpuNsFn g_cpu_ns = real_cpu_ns;

/* Type, size, times, identity, owner and protection: what the settings
 * watch and the log cleaner read. */
constexpr apr_int32_t kStatWanted = APR_FINFO_NORM;

}  // namespace

extern "C" long long my_gettimeofday(void) { return g_now_ms(); }

extern "C" long long getThreadCpuTimeNs(void) { return g_cpu_ns(); }

extern "C" int vxlb_get_pid(void) { return static_cast<int>(getpid()); }

extern "C" char* vxlb_get_cur_date_time(void)
{
    static char buf[32];
    time_t now = time(nullptr);
    struct tm tm_now;
    if (!localtime_r(&now, &tm_now)) {
        snprintf(buf, sizeof buf, "00000000000000");
        return buf;
    }
    snprintf(buf, sizeof buf, "%04d%02d%02d%02d%02d%02d", tm_now.tm_year + 1900, tm_now.tm_mon + 1,
             tm_now.tm_mday, tm_now.tm_hour, tm_now.tm_min, tm_now.tm_sec);
    return buf;
}

extern "C" char vxlb_get_env_var_value(char** out_ptr, char* env_var_str, char* error_buf,
                                       int error_buf_len, apr_pool_t* pool)
{
    if (!out_ptr || !env_var_str || !pool) return 1;
    apr_status_t rv = apr_env_get(out_ptr, env_var_str, pool);
    if (rv == APR_SUCCESS) return 0;
    if (error_buf && error_buf_len > 0) apr_strerror(rv, error_buf, static_cast<apr_size_t>(error_buf_len));
    return 1;
}

extern "C" char vx_stat(char* file, apr_finfo_t* finfo, apr_pool_t* control_pool_local)
{
    if (!file || !finfo || !control_pool_local) return 1;
    apr_status_t rv = apr_stat(finfo, file, kStatWanted, control_pool_local);
    return (rv == APR_SUCCESS || rv == APR_INCOMPLETE) ? 0 : 1;
}

namespace vx {

void clock_set_source(NowMsFn now_ms, CpuNsFn cpu_ns)
{
    g_now_ms = now_ms ? now_ms : real_now_ms;
    g_cpu_ns = cpu_ns ? cpu_ns : real_cpu_ns;
}

long long kernel_thread_id()
{
    static thread_local long long tid = 0;
    if (tid == 0) tid = static_cast<long long>(syscall(SYS_gettid));
    return tid;
}

void thread_name(char* out, int len)
{
    if (!out || len <= 0) return;
    out[0] = '\0';
    if (pthread_getname_np(pthread_self(), out, static_cast<size_t>(len)) != 0) out[0] = '\0';
}

int mkdir_ex(const char* path)
{
    if (!path || !*path) return -1;
    char buf[4096];
    int n = snprintf(buf, sizeof buf, "%s", path);
    if (n <= 0 || n >= static_cast<int>(sizeof buf)) return -1;
    for (char* p = buf + 1; *p; ++p) {
        if (*p != '/') continue;
        *p = '\0';
        if (mkdir(buf, 0755) != 0 && errno != EEXIST) return -1;
        *p = '/';
    }
    if (mkdir(buf, 0755) != 0 && errno != EEXIST) return -1;
    return 0;
}

}  // namespace vx

int vx::env_ms(const char* name, int fallback, int lo, int hi)
{
    const char* text = getenv(name);
    if (!text || !*text) return fallback;
    const long long ms = atoll(text);
    return static_cast<int>(ms < lo ? lo : (ms > hi ? hi : ms));
}
