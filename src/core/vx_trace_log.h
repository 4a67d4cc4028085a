/*
 * The trace log: one multi-threaded diagnostic log per process.
 *
 * Two files roll over into each other at the size the owner gives, so a
 * process keeps at most two. The agent layer owns the log (names, levels,
 * cleaning, and a proxy-mode agent's lines forwarded through agentLogBuffer:
 * agent/vx_trace_setup.h); this unit only formats and writes.
 *
 * Call sites use the VX_TRACE / VX_ERROR macros below: a statement that is not
 * wanted costs a pointer test and an integer comparison and formats nothing.
 */
#ifndef VX_TRACE_LOG_H
#define VX_TRACE_LOG_H

#include <apr_thread_mutex.h>

#include <cstdarg>
#include <cstdio>

#include "core/vx_limits.h"
#include "vx_sdk.h"

struct MTTraceLogKey {
    int cur_index; /* 0 or 1: the active file */
    char log_file[2][vx::kPathSize];
    char print_header;
    int testidx;
    int threadidx;
    int log_level;
    int max_log_file_size;
    int log_file_size; /* bytes written to the active file since it was opened */
    FILE* fp[2];
    apr_thread_mutex_t* lock;
};

extern "C" {

extern MTTraceLogKey* trace_log_key;
extern int vx_mem_trace_level;

/* A zeroed key for "<base_dir>/<log_file>_0" and "_1"; null when `log_file`
 * is null. The last two arguments are kept for compatibility and not stored. */
MTTraceLogKey* vxlb_init_mt_trace_log_ex(char* base_dir, char* log_file, int log_level,
                                         int max_log_file_size);

/* Write one line. Any thread. */
void vxlb_mt_trace_log(MTTraceLogKey* key, const char* thread_name, long long thread_id,
                       const char* module, const char* severity, const char* file, int line,
                       const char* fname, const char* format, ...)
    __attribute__((format(printf, 9, 10)));

/* The level-checked variants for hosts (vxlb_mt_trace_log_win and its
 * twins) are exported and declared in vx_sdk.h. */

/* The active stream, rolling over first when the size limit is reached and
 * opening the file when it is not open. Null when it cannot be opened. */
FILE* vxlb_open_mt_trace_log(MTTraceLogKey* key, int* log_file_size);
void vx_open_log_file(MTTraceLogKey* key, int* log_file_size, char takeLock);
void roll_over_file(MTTraceLogKey* key, int* log_file_size);

/* "%02d/%02d/%02d %02d:%02d:%02d" (month, day, year-2000, h, m, s) into the
 * caller's buffer; the static variant returns "Error" when localtime fails. */
char* get_cur_date_time_r(char* cur_date_time, int len);
char* get_cur_date_time(void);
}

namespace vx {

/* Where the owner of the log wants a line of its own (not a host's). */
enum : int { kTraceDropped = 0, kTraceToFile = 1, kTraceToOwner = 2 };

/* What the log asks of the layer that owns it; any member may be null. All
 * are called on the writing thread. */
struct TraceLogOwner {
    long long (*roll_over_size)();   /* bytes before the files roll over */
    int (*test_run)();               /* the session number in each line, 0 for none */
    const char* (*build_text)();     /* written after a file's header line */
    int (*destination)();            /* one of kTrace*, for lines of the agent itself */
    /* Takes a line routed kTraceToOwner, already formatted. */
    void (*take)(const char* date, int test_run, const char* thread_name, long long thread_id,
                 const char* file, int line, const char* fname, const char* severity,
                 const char* message);
};
/* Install the owner (a static object); done once at start-up. */
void trace_log_set_owner(const TraceLogOwner* owner);

/* Write one line to the file whatever the owner's destination: the host's
 * level-checked variants and the memory trace use it. */
void trace_log_write_v(MTTraceLogKey* key, const char* thread_name, long long thread_id,
                       const char* module, const char* severity, const char* file, int line,
                       const char* fname, const char* format, va_list ap);

/* `days` back from the date y/m/d in the local calendar (mktime); YYYYMMDD.
 * Years outside 1960..2050 are returned as they are. */
int previous_date(int year, int month, int day, int days);

/* The source file's base name, computed at compile time. */
constexpr const char* source_basename(const char* path)
{
    const char* base = path;
    for (const char* p = path; *p; ++p)
        if (*p == '/') base = p + 1;
    return base;
}

}  // namespace vx

#define VX_LOG_AT_(module, severity, ...)                                                          \
    vxlb_mt_trace_log(trace_log_key, nullptr, 0, module, severity, vx::source_basename(__FILE__),  \
                      __LINE__, __func__, __VA_ARGS__)

/* Info line when `levelValue` (a VXSys trace level) reaches `threshold`. */
#define VX_TRACE(levelValue, threshold, module, ...)                                               \
    do {                                                                                           \
        if (trace_log_key && (levelValue) >= (threshold)) VX_LOG_AT_(module, "Info", __VA_ARGS__); \
    } while (0)

/* Error line: written whatever the level. */
#define VX_ERROR(module, ...)                                                                      \
    do {                                                                                           \
        if (trace_log_key) VX_LOG_AT_(module, "Error", __VA_ARGS__);                               \
    } while (0)

#endif
