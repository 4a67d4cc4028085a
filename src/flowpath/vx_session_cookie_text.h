/*
 * The session cookie value a host sets on its response: the text form of a
 * record's session fields, which the next request hands back to startFP.
 */
#ifndef VX_SESSION_COOKIE_TEXT_H
#define VX_SESSION_COOKIE_TEXT_H

#include "vx_sdk.h"

struct VXPerThreadData_t;

extern "C" {
/* "%lld-%lld-%lld-%d-%d-%d-%d-%d-%d-%d" of session id, test run, start of
 * this flowpath, instrumented, category, exceptions, flowpath count, tier,
 * server and instance ids, in a new heap buffer of kCookieSize bytes that
 * the caller frees (sdk_free_memory). Null when sessions are off
 * (enableVXSession 0), without a record, or out of memory. Any thread. */
char* getVXSessionCookie(VXPerThreadData_t* vxTD) VX_NOEXCEPT;
/* "%lld_%d_%d" of flowpath instance, test run and category, for a response
 * header that ties the response to its flowpath; a new buffer as above. Null
 * when headerInResponse is 0. */
char* getCustomHeader(VXPerThreadData_t* vxTD) VX_NOEXCEPT;
/* Release a text returned above; null is logged and ignored. */
void freePtr(char* ptr) VX_NOEXCEPT;
}

#endif
