/*
 * A native host that uses only the agent's C interface (vx_sdk.h).
 */
#ifndef VX_EXAMPLE_HOST_H
#define VX_EXAMPLE_HOST_H

/* Load the agent: vx_init2 and the callbacks. 0 when the agent is up. */
int example_host_start(void);

/* Serve a handful of requests, each reported as a transaction with its
 * methods and callouts. Returns how many were reported. */
int example_host_serve(void);

/* Unload the agent. */
void example_host_stop(void);

#endif
