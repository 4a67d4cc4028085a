#include "core/vx_thread.h"

#include <apr_strings.h>
#include <cxxabi.h>

#include <cstdlib>
#include <new>

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

/* Every thread the library starts begins here: nothing that escapes its
 * body (an allocation failure, a host callback's exception) may end the
 * host's process. A thread ended by apr_thread_exit unwinds with a forced
 * unwind, which must go on. */
void* APR_THREAD_FUNC thread_entry(apr_thread_t* thread, void* arg)
{
    ThreadStart start = *static_cast<ThreadStart*>(arg);
    delete static_cast<ThreadStart*>(arg);
    try {
        return start.fn(thread, start.data);
    } catch (abi::__forced_unwind&) {
        throw;
    } catch (const std::bad_alloc&) {
        VX_ERROR("CONTROL_THREAD", "A thread of the agent ran out of memory and ends");
    } catch (...) {
        VX_ERROR("CONTROL_THREAD", "A thread of the agent ended on an unexpected exception");
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
