/*
 * Outgoing trace-context headers of a flowpath: what a host puts on an
 * outgoing call so that distributed tracing continues across it.
 *
 * STAND-IN(trace-context): no trace context is kept yet,
 * so there is no header to give: the getters return null and the propagation
 * text stays empty.
 */
#ifndef VX_TRACE_HEADERS_H
#define VX_TRACE_HEADERS_H

#include "vx_sdk.h"

struct VXPerThreadData_t;

extern "C" {
/* A new 2048-byte "traceparent" value the caller frees; null without a
 * trace id. */
char* get_otl_traceparent_header(VXPerThreadData_t* vxTD) VX_NOEXCEPT;

/* The flowpath's "tracestate" value, owned by the flowpath; null without
 * one. */
char* get_otl_tracestate_header(VXPerThreadData_t* vxTD) VX_NOEXCEPT;

/* Append the headers of every propagation form that is on, as "name:value"
 * lines, to `str`, a caller's emptied buffer of 2048 bytes. */
void get_propagation_header(VXPerThreadData_t* vxTD, char* str) VX_NOEXCEPT;
}

#endif
