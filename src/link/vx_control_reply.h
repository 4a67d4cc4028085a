/*
 * The collector's reply to the request line, and the protocol negotiation it
 * carries.
 *
 * Results of handle_vxc_con_res_msg: 0 serve this connection, 1 drop it
 * (cleaned up already), 2 reconnect at once on the negotiated protocol.
 */
#ifndef VX_CONTROL_REPLY_H
#define VX_CONTROL_REPLY_H

#include "link/vx_socket.h"

enum {
    kReplyServe = 0,
    kReplyDrop = 1,
    kReplySwitchProtocol = 2,
};

extern "C" {

/* Classify the reply that stands in `buf` (the buffer is left as it is, so
 * that the serving loop dispatches its lines too). */
int handle_vxc_con_res_msg(controlSocketBuffer_t* buf);

/* Read supportedProtocols of a reply line (cut in place) and choose the
 * protocol. 0 stay, 1 reconnect (the connection is cleaned up). */
int setProtocolFromResponseMessage(char* line);

/* Apply the negotiated protocol: transport and the active entry's port. */
void setConnectionChannel(void);

/* Ports and protocol slots: 1 TCP, 2 WS, 3 WSS. */
int getProtocolPort(int protocol);
int getActiveProtocolIndex(void);
void setActiveProtocolIndex(int protocol);
int getIndexOfMatchedProtocol(int protocol);
void setSupportedProtocolVXCArray(int protocol);
}

#endif
