/*
 * The auto-sensor connection: the second stream to the collector, which
 * carries periodic and bulky reports (monitor rows, digests, hot spots,
 * garbage-collection reports) apart from the data channel.
 *
 * The auto-sensor thread owns the connection from connect to close. It opens
 * it with the "auto_sensor_thread_hotspot_data_req" line (no reply is read
 * and no record 99 follows), drains the channel's buffers onto it, and runs
 * the stop path. Host threads hand reports in through dumpAndSendDataToVXC
 * and may drain as well, but only when nobody else is sending: one sender at
 * a time walks the read list (the sender turn, below), and a host thread
 * never waits for it, nor for the network, nor for a stop.
 *
 * The sender turn also guards the socket: it is opened and closed only by a
 * holder of the turn, so a host thread's send never meets a closed socket.
 * Lock order: the turn, then bufferWriteLockAS, then bufferMoveLockAS.
 */
#ifndef VX_AS_LINK_H
#define VX_AS_LINK_H

#include <apr_pools.h>
#include <apr_thread_proc.h>

#include "link/vx_socket.h"

/* The connection of an instance's auto-sensor channel and its thread. */
struct VXAutoSensorLink_t {
    socketInfo_t autoSensor;
    apr_pool_t* asConnPool; /* the open connection's socket */
    apr_thread_t* autoSensor_thread_id;
    int retryFlagAS; /* a send broke: reconnect; atomic */
    int senderTurn;  /* 1 while a sender holds the turn; atomic */
    int stopping;    /* the thread is on its stop path; atomic */
};

extern "C" {

/* Make the channel's pool and locks if missing. Control thread, at session
 * start, before testRunRunning rises (producers find them whole). */
void ASNioInit(void);

/* Open the connection to the proxy (agent behind one) or the active
 * collector, and send the opening line. false, or true when the buffers or
 * the opening line failed. Ends the thread when the session is over.
 * Thread: the auto-sensor thread (any thread while none runs). */
bool startASVXCollectorCommunication(void);

/* The connection to the proxy or the active collector; 0 when open, -1 with
 * the reason in error_buf. */
int create_as_conn(char* error_buf, int error_buf_len);

/* Send the opening line. false on success. */
bool send_autoSensor_con_req_msg_to_vxc(void);

/* Drain the read list on TCP; the caller holds the sender turn. 0 when it is
 * empty, 1 when the socket took nothing (try later), -1 without a socket or
 * when the connection broke: retryFlagAS rises, and the unsent bytes stay at
 * the head of the buffer, to go first on the next connection. The auto-sensor
 * thread's sends wait up to kASSendTimeoutSeconds; other threads' never. */
int sendDataToVXC(void);
/* The WebSocket twin: -1, 0 or 1. */
int send_as_data_to_vxc(void);

/* One drain by the transport in use, when the sender turn is free; the
 * auto-sensor thread waits for the turn, other threads return 1 at once.
 * On the auto-sensor thread a broken connection is closed, and an ended
 * session stops the thread. Any thread. */
int send_AS_data(void);

/* The last drain: publish the partial buffer, then up to 100 passes of the
 * sender. */
void flushData(void);

/* 0 while testRunRunning and retryForAutoSensorConn hold and closeCtrlConFlag
 * is 0. Otherwise, on the auto-sensor thread, flush and end the thread (does
 * not return); on any other thread 0, and nothing happens. */
int checkAndStopThreadAS(void);

/* Flush, then end the auto-sensor thread. Elsewhere only publishes. */
void stopNIO(void);

/* Close the connection (under the sender turn). The channel's buffers, and
 * what they hold, stay. The auto-sensor thread, or any thread while none
 * runs. */
void closeAutoSensorConnection(void);

/* Close and end the calling auto-sensor thread; does not return. On any
 * other thread it does nothing: a stop never ends a host thread. */
void cleanAutoSensorThread(void);

/* Fill the connection's addresses; clears retryFlagAS. */
void get_as_ip_and_port(void);

/* Start the auto-sensor thread of the current instance. A thread still
 * stopping is waited for (at most kASStartWaitMs); toStopASThread falls
 * before the new thread starts. 0 when a thread was created, 1 when one
 * runs already or creation failed. Control thread. */
int create_autoSensor_thread(void);

/* Hand a report to the channel; with `flush` also publish the partial
 * buffer and drain when the sender turn is free (host threads never wait:
 * the thread sends it later). Any thread. */
void dumpAndSendDataToVXC(char* bytes, int len, int flush);
}

namespace vx {

/* The body create_autoSensor_thread runs, registered once at start-up by
 * the layer that owns the reports; the thread is bound to its instance and
 * known as the auto-sensor thread before the body runs. */
void as_thread_set_body(apr_thread_start_t body);

/* True on an auto-sensor thread: only it waits to send, and only it stops. */
bool on_as_thread();

}  // namespace vx

#endif
