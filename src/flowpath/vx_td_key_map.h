/*
 * Host keys for transactions (vxTDHashMap). With
 * VXAgentSetting.enableProxyServer on, a host that cannot keep the record
 * pointer names its transaction by a text key of its own (the TLS argument of
 * the engine calls). Keys are copied; an entry lives from startFP to reset.
 */
#ifndef VX_TD_KEY_MAP_H
#define VX_TD_KEY_MAP_H

struct VXPerThreadData_t;

extern "C" {
/* Bind `key` to `vxTD`, creating the map on first use. */
void set_value(char* key, VXPerThreadData_t* vxTD);
/* The record bound to `key`, or null. */
VXPerThreadData_t* searchvxTDfromHashMap(char* key);
}

namespace vx {
/* Forget every key bound to `vxTD` (at reset). */
void td_key_map_forget(VXPerThreadData_t* vxTD);
}

#endif
