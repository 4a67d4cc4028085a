/*
 * The control thread: one per instance, owns the control connection.
 *
 * STAND-IN (issue #4): the connection is not built yet. The thread binds
 * itself to its instance and waits for closeCtrlThread, so that start-up and
 * shutdown behave as they will.
 */
#ifndef VX_CONTROL_THREAD_H
#define VX_CONTROL_THREAD_H

#include <apr_thread_proc.h>

extern "C" {
void* APR_THREAD_FUNC control_thread_entry_fun(apr_thread_t* thread, void* data);
}

#endif
