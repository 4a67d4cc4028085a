/*
 * What only vx_sdk_api.cpp and its tests need.
 */
#ifndef VX_SDK_API_PRIVATE_H
#define VX_SDK_API_PRIVATE_H

namespace vx {

/* How vx_init2 waits for a session: sleeps `seconds` in the calling thread. */
using SdkSleepFn = void (*)(int seconds);

/* Test seam: replace the wait; nullptr restores the real sleep. */
void sdk_sleep_set(SdkSleepFn fn);

/* vx_init2's preparation of sdk_pool, bt_lock and g_bt_hash (each made only
 * when absent), for tests whose agent was made by agent_init. Needs APR
 * initialised. */
void sdk_bt_map_create();

}  // namespace vx

#endif
