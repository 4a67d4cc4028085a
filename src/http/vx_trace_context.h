/*
 * Trace context of a flowpath: reading the propagation headers of an
 * incoming request (W3C traceparent/tracestate, X-B3 multi-header, B3
 * single header), choosing the context, and the process-wide switches.
 *
 * arrPropagationHeaders, for the whole process: entry 0 the W3C form
 * (traceparent), entry 1 the X-B3 multi-header form, entry 2 the B3 single
 * header; 1 means on. Set by the keyword enableOTELStandard.
 *
 * STAND-IN(trace-context): the headers are not read yet; Validate_propheader
 * keeps no context.
 */
#ifndef VX_TRACE_CONTEXT_H
#define VX_TRACE_CONTEXT_H

#include "vx_sdk.h"

struct VXPerThreadData_t;

/* The propagation values of one request, pointing into the caller's work
 * copy of the header block. */
struct Propheaderdata {
    char* OTL_traceparent;
    char* OTL_tracestate;
    char* XB3_traceID;
    char* XB3_ParentSpanId;
    int XB3_sampled;
    char* XB3_SpanId;
    char* B3;
};

extern "C" {
extern int arrPropagationHeaders[3];
/* Span kinds reported as spans (keyword enableOTELStandard). */
extern int arSpanType[5];

void init_propagation_header(Propheaderdata* pdata);

/* Keeps one header entry when its name (any case) belongs to a form that is
 * on; returns 1 when it was a traceparent, else 0. `value` stays the
 * caller's and must outlive the validation. */
int store_propagation_header(Propheaderdata* pdata, const char* name, char* value);

/* Chooses the flowpath's context from what was stored; `OTL_flag` is 1 when
 * a traceparent was present. */
void Validate_propheader(VXPerThreadData_t* vxTD, Propheaderdata* pdata, int OTL_flag);

/* Reads the propagation headers out of a whole header block and runs
 * Validate_propheader (used where the capture itself runs elsewhere). */
void OTL_headers(VXPerThreadData_t* vxTD, char* buffer) VX_NOEXCEPT;
}

#endif
