/*
 * Thread callouts: a transaction hands work to a child thread of the host.
 * The parent's sequence gets a token "t<seq>_" where the thread was started,
 * and a placeholder record, found by the child's thread id, takes the
 * parent's identity: the chain's first flowpath and the parent itself, with
 * status -3 marking it a child-thread placeholder. The host reads it on the
 * child thread (getThreadIdToThreadLocal) and gives it back when the child
 * is done (cleanThreadIdToThreadLocal).
 */
#ifndef VX_THREAD_CALLOUT_H
#define VX_THREAD_CALLOUT_H

#include "vx_sdk.h"

struct VXPerThreadData_t;

/* The status of a placeholder record. */
inline constexpr int kChildThreadStatus = -3;

extern "C" {
/* The token in `vxTD`'s sequence, then the child's placeholder. The thread
 * that owns the transaction at that moment. */
void vxThreadCallOut(VXPerThreadData_t* vxTD, long long threadId) VX_NOEXCEPT;
/* vxThreadCallOut, then `vxTD`. */
VXPerThreadData_t* setObjForThreadCallOut(VXPerThreadData_t* vxTD, long long threadId) VX_NOEXCEPT;
/* Find or make the placeholder of `threadId` and store `vxTD`'s identity. */
void updateChildThreadPrevFPI(VXPerThreadData_t* vxTD, long long threadId) VX_NOEXCEPT;
/* Store the chain in `vxTD` and mark it a placeholder. */
void setFirstPrevFlowpath(VXPerThreadData_t* vxTD, long long firstFlowpathInstance,
                          long long prevFlowpathInstance) VX_NOEXCEPT;
}

#endif
