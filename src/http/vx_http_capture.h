/*
 * HTTP header capture: the request and response headers a host hands over
 * for a flowpath, filtered by the capture settings into records 12 and 13,
 * with header names (and chosen values) as ids of the header-id table. The
 * same pass resolves transaction tags and reads the incoming trace context.
 *
 * A header block is a list of entries "name$value" separated by the byte
 * 0x7F; the first 4095 bytes and 1024 entries are looked at. The captured
 * text is "|"-separated items "<nameId>:<<encoded value>>" or
 * "<nameId>:<valueId>", at most 2047 bytes; the first entry of the block
 * carries no leading "|", every later one does, written or not.
 *
 * Runs on host threads (or the proxy's reader thread) with no allocation;
 * the only lock is httpEntryLock, per table look-up.
 */
#ifndef VX_HTTP_CAPTURE_H
#define VX_HTTP_CAPTURE_H

#include <cstddef>

#include "vx_sdk.h"

struct VXPerThreadData_t;
struct VXHttpReqRespCaptureSettings;

inline constexpr int kHttpTextSize = 2048; /* captured text, with its terminator */
inline constexpr int kHttpValueCut = 1023; /* value bytes kept when hdrValueLengthMode is set */

extern "C" {
/* `buffer` holds the headers of the request (`type` exactly "req") or of the
 * response (any other type) whose status is `statusCode`. The strings stay
 * the caller's and are not changed. Any thread. */
void httpReqRespWrapper(VXPerThreadData_t* vxTD, char* buffer, char* type,
                        int statusCode) VX_NOEXCEPT;

/* The capture of one direction (direct agent and proxy). */
void sendHttpHdrReq(VXPerThreadData_t* vxTD, char* buffer, char* type, int statusCode);
void sendHttpHdrRep(VXPerThreadData_t* vxTD, char* buffer, char* type, int statusCode);

/* Record 12 when `recType` is 12, else record 13 with `statusCode`; only
 * while the data thread runs. */
void dumpHttpReqRepRecord(VXPerThreadData_t* vxTD, char* httpBuffer, int recType, int statusCode);

/* A new encoded copy of `value` (free()), or null when memory runs out. */
char* checkHdrModeLengthAndEncodeHeadeValue(char* value, VXHttpReqRespCaptureSettings* settings);
}

/* The encoding of checkHdrModeLengthAndEncodeHeadeValue into `out` of `cap`
 * bytes, cut to fit; the length written. */
size_t vx_encode_header_value(const char* value, const VXHttpReqRespCaptureSettings* settings,
                              char* out, size_t cap);

#endif
