/*
 * The control stream once the reply is in: the line buffer, the serving loop
 * that waits on the socket, and the agent's heartbeat.
 *
 * The buffer holds 131,072 bytes: the longest control line. Bytes are read
 * at writeOffset; complete lines are cut from readOffset and dispatched one
 * by one; a NUL byte between lines is skipped; an incomplete line moves to
 * the start of the buffer and waits for the rest.
 */
#ifndef VX_CONTROL_STREAM_H
#define VX_CONTROL_STREAM_H

#include "link/vx_socket.h"

extern "C" {

/* Allocate the instance's control buffer (once). 0, or 1 without memory. */
int controlSockBufInit(void);
/* Forget what the buffer holds. */
void controlSockBufReset(controlSocketBuffer_t* buf);

/* Dispatch every complete line the buffer holds. */
void processControlConnectionMessage(controlSocketBuffer_t* buf);

/* One read on the control socket, then dispatch. 0 go on, 1 close. */
int read_msg_from_vxc(controlSocketBuffer_t* buf);

/* Serve the connection until it is to be closed. 1 close (and reconnect),
 * 0 the process's UDP side asked to end. */
int handle_msg_from_vxc(controlSocketBuffer_t* buf);
int handle_msg_from_vxc_wrapper(controlSocketBuffer_t* buf);

/* "vx_control_req:action=reconnect;heartBeat <n>;" with our count. */
void send_control_conn_heartbeat_to_vxc(void);

/* 1 (and the connection is asked to close) when the collector has been
 * silent for vxcHeartBeatThreshold ms or more. */
int checkVXCAlive(void);

/* Send the trace text buffered for the local proxy. 0, or the length when
 * the send fell short (the text is kept). */
int handleAgentLogs(void);
}

#endif
