/*
 * The data thread: one per running session of an instance. It owns the data
 * connection from connect to close: it opens it with the "vx_data_msg_req"
 * line, writes the records that open a connection (99, then the tags and
 * attributes), drains the buffers every 100 ms, beats when idle, retries
 * every 60 seconds after a break, and ends by itself when the session stops
 * or the control connection goes away.
 */
#ifndef VX_DATA_THREAD_H
#define VX_DATA_THREAD_H

#include <apr_thread_proc.h>

extern "C" {

/* Start the data thread unless one runs. 0 when a thread was created, 1
 * otherwise. */
int check_data_thread(void);

/* The thread's body; `data` is the instance. */
void* APR_THREAD_FUNC start_data_thread(apr_thread_t* thread, void* data);

/* Send the opening line (and one more line feed). false on success. */
bool send_data_con_req_msg_to_vxc(void);

/* 0 while the session goes on. Otherwise writes what is still open, record
 * 10, flushes, frees the session's tables and ends the calling data thread. */
int checkAndStopThread(void);

void close_data_connection(void);
/* Close the connection and end the calling data thread; does not return. */
void clean_data_thread(void);

void get_data_ip_and_port(void);

/* The data connection to the proxy or the active collector; 0 when a socket
 * or WebSocket is open. */
int create_data_conn(char* error_buf, int error_buf_len);
}

namespace vx {
/* True on a data thread: only it sends, and only it may end itself. */
bool on_data_thread();

/* Make what records need the moment a session raises testRunRunning: the
 * data pool, bufferWriteLock, bufferMoveLock and the buffer lists. They are
 * kept for the life of the instance; at once when they exist. Called before
 * the flag is raised (with release), so that a host thread that sees the flag
 * up (with acquire) finds them whole. 0, or 1 when memory ran out.
 * Thread: the one that raises the flag (the control thread). */
int prepare_data_channel();
}

#endif
