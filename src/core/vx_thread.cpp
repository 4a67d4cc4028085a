#include "core/vx_thread.h"

#include <apr_strings.h>

#include "agent/vx_instance.h"
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
    VXProxyInstance_t* app = vx_app();
    int kib = (app && app->VXBCISetting.stackSize > 0) ? app->VXBCISetting.stackSize
                                                       : kDefaultStackSizeKiB;
    return static_cast<apr_size_t>(kib) * 1024;
}

}  // namespace vx

extern "C" char vxlb_thread_create(apr_thread_t** new_thread, apr_thread_start_t start_function,
                                   void* data, char* error_buf, int error_buf_len, apr_pool_t* pool)
{
    apr_threadattr_t* attr = nullptr;
    apr_status_t rv = apr_threadattr_create(&attr, pool);
    if (rv == APR_SUCCESS) rv = apr_threadattr_stacksize_set(attr, vx::thread_stack_bytes());
    if (rv == APR_SUCCESS) rv = apr_thread_create(new_thread, attr, start_function, data, pool);
    if (rv == APR_SUCCESS) return 0;
    if (error_buf && error_buf_len > 0) apr_strerror(rv, error_buf, static_cast<apr_size_t>(error_buf_len));
    return 1;
}
