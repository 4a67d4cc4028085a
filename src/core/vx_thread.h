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

#include <atomic>

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

/* Starts a thread nobody joins: it ends by itself. `running` is raised
 * before the thread runs, so that a thread that ends at once can clear it,
 * and lowered again when the thread cannot be made (0; else 1 with the
 * reason in error_buf). */
int start_detached(apr_thread_t** id, apr_thread_start_t fn, void* data, apr_pool_t* pool,
                   char& running, char* error_buf, int error_buf_len);

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

/* A turnstile in front of a mutex that many threads meet for a few dozen
 * nanoseconds each (the data door's copy into its buffer). Waiters spin on a
 * flag they read from their own cache, pausing the CPU, and yield the
 * processor after a bounded number of rounds; the mutex behind it is then
 * nearly always free, so no producer sleeps in the kernel and no unlock pays
 * for a wake-up. The holder usually takes the turnstile again for its next
 * record before a waiter's cache sees it free, so turns change hands in runs
 * rather than at every record, which keeps the buffer's lines where they are
 * written. `flag` is 0 when free; it belongs to the mutex's owner. */
class VXTurnstileGuard {
public:
    VXTurnstileGuard(int& flag, apr_thread_mutex_t* m) noexcept : flag_(flag), m_(m)
    {
        std::atomic_ref<int> turn(flag_);
        int pause = 1;
        for (int rounds = 0;; ++rounds) {
            if (turn.load(std::memory_order_relaxed) == 0 &&
                turn.exchange(1, std::memory_order_acquire) == 0)
                break;
            if (rounds < kSpinRounds) {
                /* Backing off leaves the flag's line with the holder. */
                for (int i = 0; i < pause; ++i) cpu_relax();
                if (pause < kPauseMax) pause *= 2;
            } else {
                apr_thread_yield(); /* the holder may have lost its processor */
            }
        }
        if (m_) apr_thread_mutex_lock(m_);
    }
    ~VXTurnstileGuard()
    {
        if (m_) apr_thread_mutex_unlock(m_);
        std::atomic_ref<int>(flag_).store(0, std::memory_order_release);
    }
    VXTurnstileGuard(const VXTurnstileGuard&) = delete;
    VXTurnstileGuard& operator=(const VXTurnstileGuard&) = delete;

private:
    static constexpr int kSpinRounds = 24;
    static constexpr int kPauseMax = 1024;
    static void cpu_relax() noexcept
    {
#if defined(__x86_64__) || defined(__i386__)
        __builtin_ia32_pause();
#elif defined(__aarch64__)
        asm volatile("yield");
#endif
    }
    int& flag_;
    apr_thread_mutex_t* m_;
};

/* Stack size in bytes that vxlb_thread_create gives a new thread. */
apr_size_t thread_stack_bytes();

}  // namespace vx

#endif
