/*
 * Start-up and shutdown of the agent: agent_init builds the instance in a
 * fixed order and starts the control thread; agent_shutdown asks the threads
 * to stop. Both are declared for hosts in vx_sdk.h.
 */
#ifndef VX_AGENT_H
#define VX_AGENT_H

#include "vx_sdk.h"

extern "C" {
/* Start values of the instance's application-wide fields. */
void initializeVXApplicationGlobal(void);

/* Ask the control thread to stop and wait for it and the auto-sensor thread,
 * at most six seconds. */
void checkAllConnectionsReadyToClose(void);
}

#endif
