/*
 * Garbage-collection reports of the host, sent on the auto-sensor channel
 * while its thread runs: "<id>,<vectorPrefix_ID>0:<vectorPrefixHtsp>|<report>",
 * with "auto_sensor_GCDump:" in front from an agent behind a proxy, which
 * tells the proxy to pass the line on.
 */
#ifndef VX_GC_REPORT_H
#define VX_GC_REPORT_H

#include "vx_sdk.h"

extern "C" {
/* Offer report `GC_report` under the host's number `id`, cut at 4,095
 * bytes, and send it when no other sender is at work (never waiting). The
 * text stays the caller's. Any thread. */
void sendGCReport(int id, char* GC_report) VX_NOEXCEPT;
}

#endif
