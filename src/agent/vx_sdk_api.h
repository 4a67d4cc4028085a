/*
 * The SDK calls of vx_sdk.h: start-up for SDK hosts (vx_init2), transactions
 * by handle, the handle map, methods, callouts and the helpers. Each call
 * checks its arguments, logs to the SDK log (vx_sdk_log.h) and hands over to
 * the flowpath engine with fixed arguments.
 *
 * The handle map g_bt_hash lives in sdk_pool, both made by vx_init2 and
 * released by vx_free. Writers take bt_lock; readers do not (the map's own
 * family lock keeps a read safe). Lock order: bt_lock outside the map family
 * lock, and never together with any other agent lock.
 */
#ifndef VX_SDK_API_H
#define VX_SDK_API_H


#include <apr_hash.h>
#include <apr_pools.h>
#include <apr_thread_mutex.h>

#include "core/vx_limits.h"
#include "vx_sdk.h"

struct VXPerThreadData_t;


extern "C" {

extern apr_pool_t* sdk_pool;        /* the handle map's memory */
extern apr_thread_mutex_t* bt_lock; /* taken by vx_bt_store */
extern apr_hash_t* g_bt_hash;       /* host's unique text -> handle; keys are borrowed */
extern int initializeSDK;           /* 1 once vx_init2 has made the agent */

/*
 * The topology and flowpath tag of a log line of `vxTD`:
 * " [TOPO:<run>:<tier>:<server>:<instance>][FP:<run>:<instance no>:<first
 * instance>:<session>:<user session>:<page>] " into `str` (at least
 * vx::kTopoTextSize bytes). 0; 1 (and `str` untouched) when such tags are off
 * (enableUpdateLogMsgForLQ 0) or without an agent or record. Any thread.
 */
int getTopoFpStr(VXPerThreadData_t* vxTD, char* str) VX_NOEXCEPT;
}

#endif
