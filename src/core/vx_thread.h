/*
 * Threads and mutexes.
 *
 * Every mutex of the agent is an APR nested mutex (a thread may re-lock one it
 * holds) and is taken through VXLockGuard. Every thread the agent starts is
 * created by vxlb_thread_create with the configured stack size.
 */
#ifndef VX_THREAD_H
#define VX_THREAD_H

#include <apr_pools.h>
#include <apr_thread_mutex.h>
#include <apr_thread_proc.h>

extern "C" {

/*
 * Start a thread running `start_function(thread, data)`: an exception
 * derived from std::exception that escapes the body is logged and ends only
 * that thread.
 * The stack is vx_thread_stack_kib() KiB, or 512 KiB when that is 0. Returns 0 on success; 1 on failure, with APR's error text in
 * `error_buf` when `error_buf_len` is non-zero.
 */
/* The configured stack size of new threads in KiB, 0 for the default.
 * Provided by the agent layer, which owns the settings. */
int vx_thread_stack_kib(void);

char vxlb_thread_create(apr_thread_t** new_thread, apr_thread_start_t start_function, void* data,
                        char* error_buf, int error_buf_len, apr_pool_t* pool);
}

namespace vx {

/* A nested mutex from `pool`; nullptr (and a log line) on failure. */
apr_thread_mutex_t* mutex_create(apr_pool_t* pool);

/* Scoped lock; a null mutex is a no-op so that a failed creation degrades
 * to unlocked operation rather than a crash. */
class VXLockGuard {
public:
    explicit VXLockGuard(apr_thread_mutex_t* m) noexcept : m_(m)
    {
        if (m_) apr_thread_mutex_lock(m_);
    }
    ~VXLockGuard()
    {
        if (m_) apr_thread_mutex_unlock(m_);
    }
    VXLockGuard(const VXLockGuard&) = delete;
    VXLockGuard& operator=(const VXLockGuard&) = delete;

private:
    apr_thread_mutex_t* m_;
};

/* Scoped lock for a short critical section that many threads meet at once
 * (the data door's copy into its buffer). It tries the mutex a bounded
 * number of times, pausing the CPU between tries, before it sleeps in the
 * kernel: the holder is nearly always done within those tries, and a
 * sleeping waiter costs two system calls and a wake-up. */
class VXBusyLockGuard {
public:
    explicit VXBusyLockGuard(apr_thread_mutex_t* m) noexcept : m_(m)
    {
        if (!m_) return;
        for (int i = 0; i < kTries; ++i) {
            if (apr_thread_mutex_trylock(m_) == APR_SUCCESS) return;
            cpu_relax();
        }
        apr_thread_mutex_lock(m_);
    }
    ~VXBusyLockGuard()
    {
        if (m_) apr_thread_mutex_unlock(m_);
    }
    VXBusyLockGuard(const VXBusyLockGuard&) = delete;
    VXBusyLockGuard& operator=(const VXBusyLockGuard&) = delete;

private:
    static constexpr int kTries = 64;
    static void cpu_relax() noexcept
    {
#if defined(__x86_64__) || defined(__i386__)
        __builtin_ia32_pause();
#elif defined(__aarch64__)
        asm volatile("yield");
#endif
    }
    apr_thread_mutex_t* m_;
};

/* Stack size in bytes that vxlb_thread_create gives a new thread. */
apr_size_t thread_stack_bytes();

}  // namespace vx

#endif
