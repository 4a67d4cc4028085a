/*
 * The application log forwarder's door: log lines of the monitored
 * application, tagged with their flowpath, for the log-analytics server.
 *
 * STAND-IN(log-forwarder): the forwarder, its buffers and
 * its sender thread are not built yet; lines are accepted and dropped, as
 * they are when the feature is off.
 */
#ifndef VX_LOG_DISPATCHER_H
#define VX_LOG_DISPATCHER_H

#include "vx_sdk.h"

struct VXPerThreadData_t;

extern "C" {
/* Offer one log line of flowpath `tlsData` (may be null). The line stays the
 * caller's. Any thread; never blocks. */
void dumpLogMessage(VXPerThreadData_t* tlsData, char* logmsg) VX_NOEXCEPT;
}

#endif
