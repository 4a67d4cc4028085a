/*
 * The correlation header a flowpath puts on an outgoing call, so that the
 * called tier can tie its flowpath into this one's chain.
 *
 * STAND-IN(callouts): no header is built yet; hosts get
 * null and send their call without one.
 */
#ifndef VX_CALLOUT_HEADER_H
#define VX_CALLOUT_HEADER_H

#include "vx_sdk.h"

struct VXPerThreadData_t;

extern "C" {
/* The header for a callout of `vxTD` to `backendName` (may be null). The
 * buffer belongs to the record. Null when there is none. */
char* getTierCallOut(VXPerThreadData_t* vxTD, char* backendName) VX_NOEXCEPT;
}

#endif
