/*
 * The control thread: one per instance, it owns the control connection from
 * the first connect to shutdown.
 *
 * It picks a target (the proxy, or an entry of the collector list), sends
 * the request line, classifies the reply, and serves the connection until it
 * breaks; then it waits retry_policy.time_interval and connects again. All
 * collector commands run on this thread, one at a time.
 */
#ifndef VX_CONTROL_THREAD_H
#define VX_CONTROL_THREAD_H

#include <apr_pools.h>
#include <apr_thread_proc.h>

#include "link/vx_socket.h"

struct VXProxyInstance_t;

extern "C" {
void* APR_THREAD_FUNC control_thread_entry_fun(apr_thread_t* thread, void* data);

/* Open the control connection to host:port (TCP or WebSocket by
 * lws_active). 0 when open, -1 with the reason in error_buf. */
int create_control_conn(VXProxyInstance_t* app, char* host, int port, char* error_buf,
                        int error_buf_len, apr_pool_t* pool);

/* Build and send the request line. false on success. */
bool send_control_con_req_msg_to_vxc(void);

/* Read the reply and classify it: 0 serve, 1 drop, 2 switch protocol. */
int rec_control_con_rep_msg_from_vxc_wrapper(controlSocketBuffer_t* buf);

/* Close the control connection; the session ends with it. */
void control_connection_cleanup(void);

/* Fill the addresses of the control connection. */
void get_ip_and_port(void);
}

namespace vx {
/* Wait `us` microseconds in slices; returns early (true) when shutdown asks
 * the library's threads to end, which keeps shutdown within its bound. */
bool wait_or_shutdown(apr_interval_time_t us);
}

#endif
