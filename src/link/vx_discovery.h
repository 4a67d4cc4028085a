/*
 * Loaded-class discovery: on the collector's request the host works through
 * the classes and methods it has loaded and hands each result back; the
 * agent streams them to the collector on a discovery connection of its own.
 *
 * The control thread answers the request and starts one worker thread. The
 * worker parses its own copy of the line, opens the discovery connection
 * with its opening line and calls the host's callback. The host hands
 * results in through handleMessageForDiscovery, from any thread; the one
 * holding "totalTimeTaken=" is the summary, after which the connection
 * closes.
 *
 * One worker at a time: a request that arrives while a worker runs is kept
 * (the latest one only) and run by that worker once the host's callback has
 * returned, so two callbacks never overlap and no results of two requests
 * share a connection. A request that arrives while the connection of an
 * earlier one is still open (its summary never came) closes it first.
 *
 * Lock: discoveryLock guards the handler slot, the connection and the
 * pending request. It is taken by the control thread, the worker and host
 * threads; nothing else is locked while it is held. A send under it waits
 * at most kDiscoverySendTimeoutMs; a send that fails closes the connection.
 *
 * STAND-IN(websocket): over WebSocket no discovery connection is made yet
 * (temp_lws_handler and discovery_util come with the transport); the worker
 * ends as it does when a connection fails.
 */
#ifndef VX_DISCOVERY_H
#define VX_DISCOVERY_H

#include <apr_pools.h>
#include <apr_thread_mutex.h>
#include <apr_thread_proc.h>

#include "core/vx_limits.h"
#include "link/vx_socket.h"
#include "vx_sdk.h"

/* One request: its Id and the filters the host's callback gets. The pattern
 * pointers point into the same allocation (see startParsingRecievedMsg);
 * empty lists mean no filter. */
struct VXAutoDiscoveryHandler_t {
    char connId[vx::kDiscoveryIdSize];
    char* methodFiltersPatternList[vx::kDiscoveryPatterns];
    int methodListLength;
    int classListLength;
    char* classFiltersPatternList[vx::kDiscoveryPatterns];
};

/* The discovery state of an instance; zero is its start value. */
struct VXDiscovery_t {
    /* The running request's handler, owned by the worker; null between
     * requests. Under discoveryLock. */
    VXAutoDiscoveryHandler_t* VXAutoDiscoveryHandler;
    socketInfo_t temp_connection;      /* the discovery connection; under discoveryLock */
    apr_pool_t* tempConnPool;          /* the open connection's socket */
    apr_pool_t* discovery_pool;        /* the lock and the worker threads; control thread only */
    apr_thread_mutex_t* discoveryLock; /* published with release once made */
    apr_thread_t* discover_thread_id;
    char discover_thread_running;            /* atomic; changes under discoveryLock */
    char pendingMsg[vx::kDiscoveryLineSize]; /* a request waiting for the worker; "" none */
};

extern "C" {

/* Dispatch row 4, on the control thread. Without a field "ID=" (any case)
 * nothing happens. Otherwise answers
 * "vxc_rep:action=discover_loaded_classes;Id=%s;result=Success;\n" on the
 * control connection and starts the worker with a copy of the first 1,023
 * bytes of the line (or leaves the copy to the running one). Cuts
 * `clientMsg` in place. */
void startLoadedClassDiscovery(char* clientMsg);

/* The request's handler, zeroed, with a copy of `clientMsg` behind it in
 * the same allocation, into which the pattern lists point: fields
 * "classFilters=" and "methodFilters=" (values other than "NA" and "*" split
 * on ",") and "Id=" (exact key; cut to 255 characters). The caller frees it
 * with free(). Null when memory ran out or `clientMsg` is null. */
VXAutoDiscoveryHandler_t* startParsingRecievedMsg(const char* clientMsg);

/* The worker; `clientMsg` is a heap copy of the request (malloc) that it
 * owns and frees. Ends by itself. */
void* APR_THREAD_FUNC discovery_thread_entry_fun(apr_thread_t* att, void* clientMsg);

/* One result of the host, from any thread; the text stays the caller's.
 * Sent with a line feed; the text holding "totalTimeTaken=" goes as
 * "\nagent_post_data_req:%s" (cut to 2,047 bytes) and closes the connection.
 * Dropped without an open connection. */
void handleMessageForDiscovery(char* discover_list) VX_NOEXCEPT;

/* Open the discovery connection to host:port (TCP). 0, or -1 with the
 * reason in error_buf. The caller holds discoveryLock. */
int create_discovery_conn(char* host, int port, char* error_buf, int error_buf_len);

/* Send on the discovery connection. The count sent, or negative (with the
 * reason in error_buf) after which the connection is closed. The caller
 * holds discoveryLock. */
int send_discovery_data(char* buffer, int size, char* error_buf, int error_buf_len);

/* Close the discovery connection, if open. The caller holds discoveryLock. */
void close_temp_connection(void);
}

namespace vx {

/* Shutdown: close the open discovery connection and drop the pending
 * request; true while a worker still runs (it is inside the host's
 * callback). Any thread. */
bool discovery_closing();

}  // namespace vx

#endif
