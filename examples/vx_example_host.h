/*
 * The agent in a native host that uses only the agent's C interface
 * (vx_sdk.h): loading it, waiting for the collector's session, unloading it.
 * The example runs as two tiers of one shop, each its own process with its
 * own agent: the shop's front (vx_shop_front.h) and the stock service behind
 * it (vx_stock_service.h).
 */
#ifndef VX_EXAMPLE_HOST_H
#define VX_EXAMPLE_HOST_H

/* The request header in which one tier hands the agent's correlation text to
 * the next (get_custom_vx_header on the caller, vx_bt_begin's fpinstance on
 * the callee). Both tiers of the example use this name. */
#define EXAMPLE_CORRELATION_HEADER "X-VX-Correlation"

/* Load the agent (vx_init2 and the callbacks) under the application name
 * `app_name` and the process name `process_name` (both copied by the agent),
 * and wait for the collector's session. 0 when a session runs, -1 when none
 * came. The tier's name comes from the environment (KLV_APP_AGENT_TIER). */
int example_host_start(const char* app_name, const char* process_name);

/* Wait for the collector to stop the session. 0, or -1 on time-out. */
int example_host_wait_stop(void);

/* Unload the agent. */
void example_host_stop(void);

#endif
