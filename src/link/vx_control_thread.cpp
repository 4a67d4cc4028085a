#include "link/vx_control_thread.h"

#include <apr_time.h>

#include "core/vx_instance.h"

extern "C" void* APR_THREAD_FUNC control_thread_entry_fun(apr_thread_t* thread, void* data)
{
    vx_set_thread_instance(static_cast<VXProxyInstance_t*>(data));
    while (!closeCtrlThread) apr_sleep(apr_time_from_msec(50));
    closeCtrlThread = 0;
    apr_thread_exit(thread, APR_SUCCESS);
    return nullptr;
}
