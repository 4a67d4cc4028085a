/*
 * Loaded-class discovery: the host works through its loaded classes on the
 * collector's request and hands each result line back.
 *
 * STAND-IN(discovery): no discovery connection exists
 * yet; result lines are accepted and dropped.
 */
#ifndef VX_DISCOVERY_H
#define VX_DISCOVERY_H

#include "vx_sdk.h"

extern "C" {
/* One result line of the host; a line holding "totalTimeTaken=" is the last.
 * The text stays the caller's. */
void handleMessageForDiscovery(char* discover_list) VX_NOEXCEPT;
}

#endif
