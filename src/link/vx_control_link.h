/*
 * The control connection as the layers above use it: send a text, ask for
 * the connection to close, read the collector's heartbeat, and the handler
 * that receives every complete command line.
 *
 * The control thread calls the handler for each line it reads; the session
 * layer registers it at start-up, so the link never includes what runs the
 * commands.
 */
#ifndef VX_CONTROL_LINK_H
#define VX_CONTROL_LINK_H

#include <apr_thread_mutex.h>
#include <apr_thread_proc.h>

#include "core/vx_limits.h"
#include "link/vx_collector_list.h"
#include "link/vx_socket.h"

/* The control link of an instance: the connection and its line buffer, the
 * collector list with the protocols, the failover state and the thread. */
struct VXControlLink_t {
    socketInfo_t control;
    controlSocketBuffer_t ctrlBufInfo;
    int ctrlServing;     /* the reply was taken: the connection is being served */
    int heartbeat_count; /* our heartbeats since the collector's last line */
    retryPolicy_t retry_policy;
    int connectionStatus; /* 1: the last target failed; cluster mode goes to the master */
    int check_for_lmd;    /* watch vxsettings.conf for changes between retries */
    int vx_dr_state;
    int is_switch_over;
    int isMasterVxc;

    int server_arr_size;
    vxc_servers_t* vxc_server_arr; /* collectors; entry 0 the primary (heap, grown by 5) */
    vxc_servers_t* active_vxc;     /* the entry the control thread uses now */
    /* Protocols: 1 TCP, 2 WS, 3 WSS, 0 an empty slot. The agent's list in the
     * order configured, the collector's as it answered, and their texts. */
    int supportedProtocolArray[vx::kProtocolSlots];
    int supportedProtocolVXCArray[vx::kProtocolSlots];
    int ActiveAgentProtocolIndex;
    char supportedProtocols[vx::kProtocolListSize]; /* VXSys.supportedProtocolsString points here */
    char supportedProtocolsVXC[vx::kProtocolListSize];

    apr_thread_t* control_thread_id;
    int control_thread_running; /* cleared by the thread as it ends */
    apr_thread_mutex_t* controlThreadTmpLock;
};

extern "C" {

/* The collector's heartbeat: reads dataConnState and AutosensorConnState
 * when the line has at least three ";" fields. Cuts the line in place. */
void handleCollectorHeartBeat(char* clientMsg);

/* Ask the control thread to close the connection (it does so on its next
 * pass); the session's busy flags fall. */
void closeCurrentControlConnection(void);

/* Send raw bytes on the control connection. The count sent, or negative. */
int controlConnectionSendBuffer(char* buffer, int len);
/* The same for a terminated text. */
int controlConnectionSendText(const char* text);
}

struct VXProxyInstance_t;

namespace vx {

/* Whether the control side is closing (closeCtrlConFlag, or shutdown's
 * closeCtrlThread), which ends the data and auto-sensor threads too. Never
 * in the proxy process, whose channels outlive one agent's control link. */
bool control_closing(const VXProxyInstance_t* app);

/* Receives one command line without its line feed; may cut it in place.
 * Runs on the control thread. */
using ControlMessageFn = void (*)(char* line);
void control_set_message_handler(ControlMessageFn fn);
/* Hand `line` to the registered handler; without one the line is dropped. */
void control_message_dispatch(char* line);

}  // namespace vx

#endif
