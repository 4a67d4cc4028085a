#include "core/vx_thread.h"

#include <apr_strings.h>
#include <pthread.h>
#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#endif

#include <cstdlib>
#include <exception>
#include <new>

#include "core/vx_atomic.h"
#include "core/vx_host_call.h"
#include "core/vx_limits.h"
#include "core/vx_trace_log.h"

namespace vx {

apr_thread_mutex_t* mutex_create(apr_pool_t* pool)
{
    apr_thread_mutex_t* m = nullptr;
    if (!pool || apr_thread_mutex_create(&m, APR_THREAD_MUTEX_NESTED, pool) != APR_SUCCESS) {
        VX_ERROR("CONTROL_THREAD", "Error in creating mutex");
        return nullptr;
    }
    return m;
}

apr_size_t thread_stack_bytes()
{
    const int configured = vx_thread_stack_kib();
    const int kib = configured > 0 ? configured : kDefaultStackSizeKiB;
    return static_cast<apr_size_t>(kib) * 1024;
}

void host_call_threw(const char* what) noexcept
{
    VX_ERROR("CONTROL_THREAD", "The host's callback %s threw; the agent goes on without it",
             what ? what : "(unnamed)");
}

}  // namespace vx

namespace {

/* What a new thread runs, carried to it on the heap. */
struct ThreadStart {
    apr_thread_start_t fn;
    void* data;
};

#if defined(__SANITIZE_ADDRESS__)
/* A thread ended by apr_thread_exit leaves its frames by a forced unwind,
 * which AddressSanitizer does not see: their red zones would stay poisoned
 * under the frames the thread's own exit later uses. Unpoison the stack below
 * this frame as the thread leaves it, whichever way it leaves. */
struct StackUnpoisonAtEnd {
    ~StackUnpoisonAtEnd()
    {
        pthread_attr_t attr;
        if (pthread_getattr_np(pthread_self(), &attr) != 0) return;
        void* low = nullptr;
        size_t size = 0;
        if (pthread_attr_getstack(&attr, &low, &size) == 0) {
            char here;
            auto* from = static_cast<char*>(low);
            if (&here > from) __asan_unpoison_memory_region(from, static_cast<size_t>(&here - from));
        }
        pthread_attr_destroy(&attr);
    }
};
#else
struct StackUnpoisonAtEnd {};
#endif

/* Every thread the library starts begins here: an exception that escapes
 * its body (an allocation failure, anything derived from std::exception)
 * ends that thread with a log line, never the host's process. Calls into the
 * host are guarded where they are made (vx::call_host), so nothing else can
 * arrive here. There is deliberately no catch (...): apr_thread_exit ends a
 * thread with a forced unwind, which such a handler would have to catch and
 * rethrow, and which must pass through untouched. */
void* APR_THREAD_FUNC thread_entry(apr_thread_t* thread, void* arg)
{
    ThreadStart start = *static_cast<ThreadStart*>(arg);
    delete static_cast<ThreadStart*>(arg);
    [[maybe_unused]] StackUnpoisonAtEnd unpoison;
    try {
        return start.fn(thread, start.data);
    } catch (const std::bad_alloc&) {
        VX_ERROR("CONTROL_THREAD", "A thread of the agent ran out of memory and ends");
    } catch (const std::exception& e) {
        VX_ERROR("CONTROL_THREAD", "A thread of the agent ended on an exception: %.200s", e.what());
    }
    return nullptr;
}

}  // namespace

extern "C" char vxlb_thread_create(apr_thread_t** new_thread, apr_thread_start_t start_function,
                                   void* data, char* error_buf, int error_buf_len, apr_pool_t* pool)
{
    apr_threadattr_t* attr = nullptr;
    apr_status_t rv = apr_threadattr_create(&attr, pool);
    if (rv == APR_SUCCESS) rv = apr_threadattr_stacksize_set(attr, vx::thread_stack_bytes());
    auto* start = new (std::nothrow) ThreadStart{start_function, data};
    if (!start) rv = APR_ENOMEM;
    if (rv == APR_SUCCESS) rv = apr_thread_create(new_thread, attr, thread_entry, start, pool);
    if (rv == APR_SUCCESS) return 0;
    delete start;
    if (error_buf && error_buf_len > 0) apr_strerror(rv, error_buf, static_cast<apr_size_t>(error_buf_len));
    return 1;
}

int vx::start_detached(apr_thread_t** id, apr_thread_start_t fn, void* data, apr_pool_t* pool,
                       char& running, char* error_buf, int error_buf_len)
{
    vx::store_release(running, static_cast<char>(1));
    if (vxlb_thread_create(id, fn, data, error_buf, error_buf_len, pool) != 0) {
        vx::store_release(running, static_cast<char>(0));
        return 1;
    }
    apr_thread_detach(*id);
    return 0;
}
