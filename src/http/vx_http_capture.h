/*
 * HTTP capture: the request and response headers a host hands over for a
 * flowpath (records 6, 12 and 13, tags and the incoming trace context).
 *
 * STAND-IN(http-capture): the headers are accepted and
 * ignored.
 */
#ifndef VX_HTTP_CAPTURE_H
#define VX_HTTP_CAPTURE_H

#include "vx_sdk.h"

struct VXPerThreadData_t;

extern "C" {
/* `buffer` holds the headers of the request (`type` exactly "req") or of the
 * response (any other type) whose status is `statusCode`. The strings stay
 * the caller's. Any thread. */
void httpReqRespWrapper(VXPerThreadData_t* vxTD, char* buffer, char* type,
                        int statusCode) VX_NOEXCEPT;
}

#endif
