/*
 * Trace context of a flowpath: reading the propagation headers of an
 * incoming request (W3C traceparent/tracestate, X-B3 multi-header, B3
 * single header), validating them, choosing the context, or making one from
 * the flowpath instance when none is usable.
 *
 * arrPropagationHeaders, for the whole process: entry 0 the W3C form
 * (traceparent), entry 1 the X-B3 multi-header form, entry 2 the B3 single
 * header; 1 means on. Set by the keyword enableOTELStandard, which in a proxy
 * the last application to set it decides for all.
 *
 * The context lives on the record: OTL_version, OTL_traceflag, OTL_traceID,
 * OTL_parentID, OTL_tracestate. The three strings point into the record's
 * otlStore, made on its first context and reused by its later flowpaths;
 * nothing on the way from headers to the outgoing texts allocates after
 * that. An id of kOTLIdSize characters or more is refused (its form is not
 * usable); the state is held to kOTLTextSize bytes.
 *
 * All functions work on one flowpath, on the thread that serves it.
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
 * caller's and must outlive the validation, which may write into it. */
int store_propagation_header(Propheaderdata* pdata, const char* name, char* value);

/* Chooses the flowpath's context from what was stored, the first usable of
 * W3C, X-B3, B3; otherwise generates one (unless every form is off). With
 * W3C on and no usable traceparent the state is the system's own entry.
 * `OTL_flag` is 1 when a traceparent was present. */
void Validate_propheader(VXPerThreadData_t* vxTD, Propheaderdata* pdata, int OTL_flag);

/* Reads the propagation headers out of a whole header block (entries split
 * at 0x7F, or "|" for a Python agent, "name$value") and runs
 * Validate_propheader. Used by a proxied agent, where the capture itself runs
 * in the proxy. Reads at most kOTLBlockLook - 1 bytes of `buffer`, which it
 * does not change. */
void OTL_headers(VXPerThreadData_t* vxTD, char* buffer) VX_NOEXCEPT;

/* One form each: 0 when the form is not usable, else 1 (W3C), 2 (X-B3) or
 * 3 (B3), the context then stored. They split values in place. */
int OTL_headerValidator(VXPerThreadData_t* vxTD, Propheaderdata* pdata, int OTL_flag);
int validate_xb3(VXPerThreadData_t* vxTD, Propheaderdata* pdata);
int validate_b3(VXPerThreadData_t* vxTD, Propheaderdata* pdata);

/* "version-traceid-parentid-flags": stores the context when valid; 1, or 0
 * with nothing stored. */
int Validate_traceparent(VXPerThreadData_t* vxTD, Propheaderdata* pdata);

/* At least 32 characters (at most 2 * (kOTLHalfSize - 1)) and not all zeros
 * in both halves' last 16 hexadecimal digits. */
bool ValidateTraceId(const char* traceID);

/* Cuts `traceID` at half its length into two buffers of kOTLHalfSize bytes;
 * -1 when a half would not fit. */
int HexDivider(const char* traceID, char* leftHalf, char* rightHalf);

/* 1 when the hexadecimal digits of `hex` (others skipped; the last 16
 * count) add up to a value that is not 0, else 0. */
int HexToDec(const char* hex);

/* Context from the flowpath: version 0, flags 1, ids from
 * firstFlowpathInstance (when 1 or more) or flowpathInstance. Returns 1. */
int OTL_generate_traceparent(VXPerThreadData_t* vxTD);

/* Replaces the four fields of the context. A null id leaves that id unset.
 * 0, or -1 with nothing changed when an id is kOTLIdSize or longer or the
 * record's store cannot be made. */
int OTL_storeData(VXPerThreadData_t* vxTD, int OTL_version, int OTL_traceflag,
                  const char* OTL_traceID, const char* OTL_parentID);

/* Replaces OTL_tracestate by a copy of `text` (null unsets it), for a
 * context made elsewhere (a proxied agent's frame). 0, or -1 with nothing
 * changed when `text` is kOTLTextSize bytes or longer or the record's store
 * cannot be made. */
int vx_otl_store_tracestate(VXPerThreadData_t* vxTD, const char* text);

/* OTL_tracestate becomes "kelvane=<Base64 of OTL_parentID>". */
void generatetracestate(VXPerThreadData_t* vxTD);

/* Standard Base64 with padding in a new kOTLBase64Size-byte buffer the
 * caller frees; null when out of memory or when the encoding would not fit
 * (more than 765 bytes of input). */
char* base64Encoder(const char* input_str, int len_str);
}

#endif
