/*
 * User sessions. The session's state travels in a cookie the host sets on
 * the response and hands back with the next request; the capture decision is
 * taken once per session, by its first flowpath.
 *
 * Session cookie: "%lld-%lld-%lld-%d-%d-%d-%d-%d-%d-%d" of session id, test
 * run, previous start, instrumented, category, exceptions, flowpath count,
 * tier, server and instance ids. User-experience cookie: at least four "-"
 * fields, the first the user session id, the fourth the page id.
 */
#ifndef VX_SESSION_COOKIE_H
#define VX_SESSION_COOKIE_H

struct VXPerThreadData_t;

extern "C" {
void parseVXCookieStr(char* VXCokieStr, VXPerThreadData_t* vxTD);
void parseKPCookieStr(char* KPCokieStr, VXPerThreadData_t* vxTD);
/* Open a session with this flowpath as its first. */
void setValue(char* VXCokieStr, VXPerThreadData_t* vxTD);
}

#endif
