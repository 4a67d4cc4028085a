/*
 * A native host that uses only the agent's C interface (vx_sdk.h).
 */
#ifndef VX_EXAMPLE_HOST_H
#define VX_EXAMPLE_HOST_H

/* Load the agent (vx_init2 and the callbacks) and wait for the collector's
 * session. 0 when a session runs, -1 when none came. */
int example_host_start(void);

/* Wait for the collector to stop the session. 0, or -1 on time-out. */
int example_host_wait_stop(void);

/* Serve a handful of requests, each reported as a transaction with its
 * methods and callouts. Returns how many were reported. */
int example_host_serve(void);

/* Unload the agent. */
void example_host_stop(void);

#endif
