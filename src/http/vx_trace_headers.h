/*
 * Outgoing trace-context headers of a flowpath: what a host puts on an
 * outgoing call so that distributed tracing continues across it. The
 * context itself is made by the trace-context unit (vx_trace_context.h).
 *
 * Called on the thread that serves the flowpath.
 */
#ifndef VX_TRACE_HEADERS_H
#define VX_TRACE_HEADERS_H

#include "vx_sdk.h"

struct VXPerThreadData_t;

extern "C" {
/* A new 2048-byte "traceparent" value the caller frees:
 * "<version>-<trace id>-<flowpath instance in hex>-<flags>". Null without a
 * trace id, or when out of memory. */
char* get_otl_traceparent_header(VXPerThreadData_t* vxTD) VX_NOEXCEPT;

/* The flowpath's "tracestate" value, owned by the flowpath (valid until its
 * reset); null without one. */
char* get_otl_tracestate_header(VXPerThreadData_t* vxTD) VX_NOEXCEPT;

/* This flowpath's instance, the parent id its callees see. 0 without a
 * record. */
long long get_otl_parentID(VXPerThreadData_t* vxTD) VX_NOEXCEPT;

/* Append the headers of every propagation form that is on, as "name:value"
 * lines (the B3 one without a line feed), to `str`, a caller's emptied
 * buffer of 2048 bytes. Only with enableOTELStandard set; writes nothing
 * while the flowpath has no trace id, and leaves out a part that would not
 * fit whole. Allocates nothing. */
void get_propagation_header(VXPerThreadData_t* vxTD, char* str) VX_NOEXCEPT;
}

#endif
