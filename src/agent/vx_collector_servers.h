/*
 * The collector list of the current instance: vxc_server_arr (entry 0 the
 * primary, 1.. the backups) and the protocols the agent offers
 * (supportedProtocolArray, supportedProtocols and the port of each).
 *
 * The settings sources fill it on the thread of agent_init and on the control
 * thread; the control thread reads it on failover. Not locked.
 */
#ifndef VX_COLLECTOR_SERVERS_H
#define VX_COLLECTOR_SERVERS_H

#include "link/vx_collector_list.h"

extern "C" {

/* The entry at `idx` of vxc_server_arr, growing the list by 5 (new entries
 * zeroed) until it exists. Null when memory runs out or without instance. */
vxc_servers_t* vx_collector_entry(int idx);

/* Protocols: 1 TCP, 2 WS, 3 WSS. */
void setSupportedProtocolArray(int ProtocolValue);
void updateANYAgentSupportedProtocolData(int activeagentMode);
/* A list "NAME[:port],..." (at most 10 items) into supportedProtocolArray,
 * the ports and supportedProtocolsString. Unknown names are skipped. */
void upDateAgentSupportedProtocolData(char* spString);
/* Copies the text before the first ":" of `field` into `keyword` (at least
 * strlen(field) + 1 bytes) and returns the text after it; null without a
 * colon (then `keyword` holds all of `field`). */
char* split_key_value_colon(char* field, char* keyword);
}

#endif
