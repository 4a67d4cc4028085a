/*
 * The clock and the process, behind one seam.
 *
 * Wall-clock milliseconds and the thread CPU clock are read through
 * replaceable functions so that tests can freeze time; production pays one
 * indirect call.
 */
#ifndef VX_PLATFORM_H
#define VX_PLATFORM_H

#include <apr_file_info.h>
#include <apr_pools.h>

extern "C" {

/* Wall clock in milliseconds since the epoch. Any thread. */
long long my_gettimeofday(void);

/* CPU time of the calling thread in nanoseconds; 0 when the clock is not
 * available. A system call on most machines. Any thread. */
long long getThreadCpuTimeNs(void);

int vxlb_get_pid(void);

/* "%02d%02d%02d%02d%02d%02d" of year, month, day, hour, minute, second in
 * local time: fourteen digits in a static buffer (not thread-safe; start-up
 * only). */
char* vxlb_get_cur_date_time(void);

/* 0 when `env_var_str` is set (its value, copied into `pool`, in *out_ptr);
 * 1 otherwise, with APR's text in `error_buf` when `error_buf_len` > 0. */
char vxlb_get_env_var_value(char** out_ptr, char* env_var_str, char* error_buf, int error_buf_len,
                            apr_pool_t* pool);

/* apr_stat with APR_FINFO_NORM. 0 on success, also when the platform could
 * not fill every wanted field (APR_INCOMPLETE); 1 otherwise. */
char vx_stat(char* file, apr_finfo_t* finfo, apr_pool_t* control_pool_local);
}

namespace vx {

using NowMsFn = long long (*)();
using CpuNsFn = long long (*)();

/* Test seam: replace the clocks; nullptr restores the real one. */
void clock_set_source(NowMsFn now_ms, CpuNsFn cpu_ns);

/* Kernel id of the calling thread, cached per thread. */
long long kernel_thread_id();

/* Name of the calling thread (pthread_getname_np), "" when unknown. */
void thread_name(char* out, int len);

/* mkdir -p; 0 on success or when the directory exists. */
int mkdir_ex(const char* path);

/* A wait in ms from the environment variable `name`, held to lo..hi;
 * `fallback` when it is unset. Tests and the demo shorten the agent's
 * pacing this way. */
int env_ms(const char* name, int fallback, int lo, int hi);

}  // namespace vx

#endif
