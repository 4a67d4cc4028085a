/*
 * Trace-context propagation switches.
 *
 * arrPropagationHeaders, for the whole process: entry 0 the W3C form
 * (traceparent), entry 1 the X-B3 multi-header form, entry 2 the B3 single
 * header; 1 means on. Set by the keyword enableOTELStandard.
 */
#ifndef VX_TRACE_CONTEXT_H
#define VX_TRACE_CONTEXT_H

extern "C" {
extern int arrPropagationHeaders[3];
/* Span kinds reported as spans (keyword enableOTELStandard). */
extern int arSpanType[5];
}

#endif
