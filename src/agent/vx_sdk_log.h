/*
 * The SDK log: a small log of its own for the SDK calls, apart from the
 * agent's trace log, so that a native host can see what it asked for.
 *
 * One file per process, "<dir>/logs/vx_sdk_<YYYYMMDDhhmmss>_<pid>.log_0",
 * opened by vx_init2. A line is written only when its level is not below
 * sdk_log_level (default ERROR; the environment variable
 * KLV_APP_AGENT_LOGGINGLEVEL may lower it), and the test is one integer
 * comparison made before anything is formatted.
 *
 * The log takes no lock: each line is formatted in one buffer and handed to
 * the stream in one write, so lines of different threads never mix. There is
 * no roll-over.
 */
#ifndef VX_SDK_LOG_H
#define VX_SDK_LOG_H


#include <apr_thread_mutex.h>

#include <cstdio>

#include "core/vx_limits.h"
#include "vx_sdk.h"

/* Levels of SDK log lines. */
enum : int {
    VX_SDK_DEBUG = 1,
    VX_SDK_INFO = 2,
    VX_SDK_WARNING = 3,
    VX_SDK_CRITICAL = 4,
    VX_SDK_ERROR = 5,
};


/* Writes one line; see vx_sdk_trace_log. */
typedef int (*VXSDKLogFn)(int level, const char* func_name, int line, const char* format,
                          ...) noexcept __attribute__((format(printf, 4, 5)));

struct VXSDK_LOG {
    char file_name[2][vx::kSdkLogNameSize]; /* "..._0" is the one written; "..._1" is never used */
    int threadIdx;                      /* unused */
    long long cur_file_size;            /* bytes of line prefixes written (not of messages) */
    long long max_file_size;
    VXSDKLogFn log;
    FILE* file_fp;
    apr_thread_mutex_t* sdk_lock; /* unused: the log takes no lock */
};
typedef VXSDK_LOG vxSDKLog;

extern "C" {

extern vxSDKLog* vx_sdk_log;  /* null until vx_sdk_log_init, and after vx_free */
extern int g_vx_sdk_log_init; /* 1 once vx_init2 has opened the log */
extern int sdk_log_level;     /* lines below this level are not written */

/* Make the log structure (once) and open its file under `var_vxhome`. On
 * failure the reason goes to standard error, and the structure stays with no
 * file: every line is then refused with a note on standard error. Start-up
 * only. */
void vx_sdk_log_init(char* var_vxhome) VX_NOEXCEPT;

/* Name and open the file under "<var_vxhome>/logs/" (created when missing),
 * write its header, and take the level from KLV_APP_AGENT_LOGGINGLEVEL. 0, or
 * -1 when the file cannot be opened (the level is then left alone). */
int vx_sdk_create_file_name(char* var_vxhome) VX_NOEXCEPT;

/* Write one line "<date time> |<pid> |<LEVEL> |<func_name> : <line> |<text>".
 * 0; -1 without an open file or for a level outside 1..5. Any thread. */
int vx_sdk_trace_log(int level, const char* func_name, int line, const char* format,
                     ...) VX_NOEXCEPT __attribute__((format(printf, 4, 5)));

/* Close the file and free the structure; later lines are dropped silently. */
void vx_sdk_log_free(void) VX_NOEXCEPT;
}

/* One SDK log line at `level` (VX_SDK_DEBUG ... VX_SDK_ERROR) from the
 * calling function. Costs a pointer test and a comparison when not wanted. */
#define VX_SDK_LOG(level, ...)                                         \
    do {                                                               \
        if (vx_sdk_log && vx_sdk_log->log && (level) >= sdk_log_level) \
            vx_sdk_log->log((level), __func__, __LINE__, __VA_ARGS__); \
    } while (0)

#endif
