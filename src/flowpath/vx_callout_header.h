/*
 * The correlation header a flowpath puts on an outgoing call, so that the
 * called tier can tie its flowpath into this one's chain:
 *
 *   first_caller_sequence_backend_time_NA_tier_server_instance
 *
 * first is the chain's first flowpath (this one when it starts the chain),
 * caller this flowpath, sequence the caller's own sequence text (its
 * caller's, or its thread number) "." the event number of the call, backend
 * "HTTP_<name>" or "NA", time the call's ms on the agent's clock; names
 * carry "_" as "&#95;". A forced flowpath marks its first two numbers with
 * "F", which forces the called tier too.
 */
#ifndef VX_CALLOUT_HEADER_H
#define VX_CALLOUT_HEADER_H

#include "vx_sdk.h"

struct VXPerThreadData_t;

extern "C" {
/* The header for a callout of `vxTD` to `backendName` (the backend's
 * description, may be null). Counts the call as the flowpath's next event,
 * so its exit is recorded as a real callout. The buffer belongs to the
 * record and holds until its next callout or its end. Null without a
 * record or out of memory. The transaction's thread. */
char* getTierCallOut(VXPerThreadData_t* vxTD, char* backendName) VX_NOEXCEPT;
}

#endif
