/*
 * server: vxc-lite's listener and connections.
 *
 * One thread runs everything: an APR pollset over the listening socket on
 * 127.0.0.1 and every accepted connection, all non-blocking. A connection is
 * what its first line says: "vx_ctrl_msg_req:..." makes it a control
 * connection, answered with the configured reply and then kept alive with
 * heartbeats; "vx_data_msg_req:..." makes it a data connection, whose lines
 * are stored and checked as records; "auto_sensor_thread_hotspot_data_req:..."
 * makes it an auto-sensor connection, stored and checked the same way and
 * never answered. "klv_saas_auth_agent_msg_req:..." is answered as the
 * hosted entry point when one is configured, and then served as a control
 * connection. Anything else is logged and closed.
 *
 * The caller must have called apr_initialize() and should ignore SIGPIPE
 * (a peer that goes away while a line is sent would end the process).
 */
#ifndef VXC_LITE_SERVER_H
#define VXC_LITE_SERVER_H

#include <string>

#include "run_store.h"
#include "vxc_lite.h"

namespace vxc {

struct Server;

/* Opens the run directory and binds the listening socket, so the port is
 * known before server_run. Returns 0 and the server in out, or -1 with the
 * reason in error. The server is freed with server_destroy. */
int server_create(const Options& opts, Server** out, std::string* error);

/* The port the server listens on. */
int server_port(const Server* s);

/* Serves until server_request_stop is called or the run's duration is over,
 * then closes every connection and writes the summary. Returns 0, or -1 when
 * the pollset fails for good. Call from one thread only. */
int server_run(Server* s);

/* Asks server_run to end within about 100 ms. Safe from any thread and from
 * a signal handler. */
void server_request_stop(Server* s);

/* The counts of the run. Read them only while server_run is not running. */
const Counts& server_counts(const Server* s);

void server_destroy(Server* s);

}  // namespace vxc

#endif
