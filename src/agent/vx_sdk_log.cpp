#include "agent/vx_sdk_log.h"

#include <strings.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "core/vx_platform.h"

vxSDKLog* vx_sdk_log = nullptr;
int g_vx_sdk_log_init = 0;
int sdk_log_level = VX_SDK_ERROR;

namespace {

constexpr char kHeaderLine[] = "#Date      TimeStamp|PID   |level|function_name:line|format\n";

const char* level_name(int level)
{
    switch (level) {
        case VX_SDK_DEBUG:
            return "DEBUG";
        case VX_SDK_INFO:
            return "INFO";
        case VX_SDK_WARNING:
            return "WARNING";
        case VX_SDK_CRITICAL:
            return "CRITICAL";
        case VX_SDK_ERROR:
            return "ERROR";
        default:
            return nullptr;
    }
}

/* KLV_APP_AGENT_LOGGINGLEVEL, in any case; anything else keeps the level. */
void level_from_environment()
{
    const char* v = getenv("KLV_APP_AGENT_LOGGINGLEVEL");
    if (!v) return;
    static constexpr struct {
        const char* name;
        int level;
    } kNames[] = {{"CRITICAL", VX_SDK_CRITICAL},
                  {"WARNING", VX_SDK_WARNING},
                  {"INFO", VX_SDK_INFO},
                  {"DEBUG", VX_SDK_DEBUG}};
    for (const auto& n : kNames)
        if (strcasecmp(v, n.name) == 0) sdk_log_level = n.level;
}

}  // namespace

extern "C" int vx_sdk_create_file_name(char* var_vxhome) VX_NOEXCEPT
{
    if (!vx_sdk_log) return -1;
    const char* dir = var_vxhome ? var_vxhome : ".";
    if (vx_sdk_log->file_fp) {
        fclose(vx_sdk_log->file_fp);
        vx_sdk_log->file_fp = nullptr;
    }
    /* The logs directory may not exist yet: vx_init2 opens this log before
     * agent_init has set up the home directory. */
    char logs[vx::kSdkLogNameSize];
    snprintf(logs, sizeof logs, "%s/logs", dir);
    vx::mkdir_ex(logs);

    char stamp[32] = "00000000000000";
    time_t now = time(nullptr);
    struct tm tm_now;
    if (localtime_r(&now, &tm_now))
        snprintf(stamp, sizeof stamp, "%02d%02d%02d%02d%02d%02d", tm_now.tm_year + 1900,
                 tm_now.tm_mon + 1, tm_now.tm_mday, tm_now.tm_hour, tm_now.tm_min, tm_now.tm_sec);
    const int pid = static_cast<int>(getpid());
    int n0 = snprintf(vx_sdk_log->file_name[0], vx::kSdkLogNameSize, "%s/logs/vx_sdk_%s_%d.log_0", dir,
                      stamp, pid);
    snprintf(vx_sdk_log->file_name[1], vx::kSdkLogNameSize, "%s/logs/vx_sdk_%s_%d.log_1", dir, stamp,
             pid);
    /* A cut name would open some other file. */
    if (n0 > 0 && n0 < vx::kSdkLogNameSize) vx_sdk_log->file_fp = fopen(vx_sdk_log->file_name[0], "we"); /* not inherited by children */
    if (!vx_sdk_log->file_fp) {
        fprintf(stderr, "ERROR |%s: %d |Unable to open file: %s\n", __func__, __LINE__,
                vx_sdk_log->file_name[0]);
        return -1;
    }
    fputs(kHeaderLine, vx_sdk_log->file_fp);
    fflush(vx_sdk_log->file_fp);
    level_from_environment();
    return 0;
}

extern "C" void vx_sdk_log_init(char* var_vxhome) VX_NOEXCEPT
{
    if (!vx_sdk_log) {
        vx_sdk_log = static_cast<vxSDKLog*>(calloc(1, sizeof(vxSDKLog)));
        if (!vx_sdk_log) {
            fprintf(stderr, "ERROR |%s: %d |Memory allocation of vxSDKLog failed\n", __func__,
                    __LINE__);
            g_vx_sdk_log_init = 0;
            return;
        }
    }
    vx_sdk_log->max_file_size = vx::kSdkLogMaxFileSize;
    vx_sdk_log->log = vx_sdk_trace_log;
    if (vx_sdk_create_file_name(var_vxhome) != 0)
        fprintf(stderr, "ERROR |%s: %d |Method Exit\n", __func__, __LINE__);
}

extern "C" int vx_sdk_trace_log(int level, const char* func_name, int line, const char* format,
                                ...) VX_NOEXCEPT
{
    if (level < sdk_log_level) return 0;
    if (!vx_sdk_log || !vx_sdk_log->file_fp) {
        fprintf(stderr, "ERROR |%s: %d |vx_sdk_log->file_fp is (null) \n", __func__, __LINE__);
        return -1;
    }
    const char* name = level_name(level);
    if (!name || !format) return -1;

    char when[64] = "";
    time_t now = time(nullptr);
    struct tm tm_now;
    if (localtime_r(&now, &tm_now)) strftime(when, sizeof when, "%d-%b-%y %T", &tm_now);

    char buf[vx::kSdkLogLineSize];
    int n = snprintf(buf, sizeof buf, "%s |%d |%s |%s : %d |", when, static_cast<int>(getpid()),
                     name, func_name ? func_name : "", line);
    if (n < 0) return -1;
    if (n > static_cast<int>(sizeof buf) - 2) n = static_cast<int>(sizeof buf) - 2;
    /* Only the prefix is counted, as the size has always been kept; it is
     * not used for roll-over. */
    __atomic_add_fetch(&vx_sdk_log->cur_file_size, n, __ATOMIC_RELAXED);

    va_list ap;
    va_start(ap, format);
    int m = vsnprintf(buf + n, sizeof buf - static_cast<size_t>(n) - 1, format, ap);
    va_end(ap);
    if (m < 0) m = 0;
    int total = n + m;
    if (total > static_cast<int>(sizeof buf) - 2) total = static_cast<int>(sizeof buf) - 2;
    buf[total++] = '\n';
    /* One write per line keeps lines whole (the stream locks itself); the
     * flush keeps the lines of a host that crashes. */
    fwrite(buf, 1, static_cast<size_t>(total), vx_sdk_log->file_fp);
    fflush(vx_sdk_log->file_fp);
    return 0;
}

extern "C" void vx_sdk_log_free(void) VX_NOEXCEPT
{
    vxSDKLog* log = vx_sdk_log;
    if (!log) return;
    /* Cleared first, so a line logged meanwhile finds no log rather than a
     * closed one. */
    vx_sdk_log = nullptr;
    if (log->file_fp) fclose(log->file_fp);
    free(log);
}
