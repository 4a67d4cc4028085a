/*
 * What a session leaves behind, and the session's hooks into the link.
 *
 * vx_session_register_hooks, called once at start-up, tells the link what to
 * run at its own moments: each command line from the collector goes to the
 * dispatcher; a new data connection replays the metadata the collector must
 * know; the end of a session's data writes the flowpaths still open and
 * retires the session's tables; the auto-sensor thread runs the thread
 * reports' loop.
 */
#ifndef VX_SESSION_DATA_H
#define VX_SESSION_DATA_H

extern "C" {
/* Retire the session's tables (BTs forgotten, method table retired) after
 * in-flight method events had time to drain. Never touches the session's
 * flags: a newer session started meanwhile keeps its state and its own
 * table. The wait ends early on shutdown. Control or data thread. */
void free_agent_data(void);
}

namespace vx {
void session_register_hooks();
}

#endif
