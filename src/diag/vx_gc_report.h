/*
 * Garbage-collection reports of the host, sent on the auto-sensor channel.
 *
 * STAND-IN(thread-reports): the auto-sensor channel is
 * not built yet; reports are accepted and dropped, as they are while its
 * thread does not run.
 */
#ifndef VX_GC_REPORT_H
#define VX_GC_REPORT_H

#include "vx_sdk.h"

extern "C" {
/* Offer report `GC_report` under the host's number `id`. The text stays the
 * caller's. Any thread. */
void sendGCReport(int id, char* GC_report) VX_NOEXCEPT;
}

#endif
