/*
 * Settings of user sessions, as hosts read them: whether sessions are on,
 * the cookie's names and domain, when in a request to set it, and when a
 * session ends (idle time, flowpaths per session). The collector sets them
 * with the keywords enableVXSession and KPCookie; hosts learn of changes
 * through their cookie callbacks and read them with the getters here.
 *
 * Threads: written on the control thread; the names are fixed buffers, so a
 * host reading one never holds freed memory.
 */
#ifndef VX_SESSION_SETTINGS_H
#define VX_SESSION_SETTINGS_H

#include "vx_sdk.h"

struct VXSys_t;

extern "C" {
/* A copy of `cookieName` becomes the cookie's name, and "X-" before it the
 * header's; null leaves both. */
void setVXSessionCookieName(char* cookieName) VX_NOEXCEPT;
/* "-", "NA" and "" clear the domain. */
void setCookieDomainName(char* domain) VX_NOEXCEPT;
/* Given in ms, kept in seconds; a negative value gives 1800 s. */
void setVxSessionIdleTimeOutSecs(long long value) VX_NOEXCEPT;
void setMaxFPCountInSession(int value) VX_NOEXCEPT;

/* Getters for hosts; the names are the agent's, not to be freed. */
char* getVXSessionCookieName(void) VX_NOEXCEPT;
char* getXSessionCookieName(void) VX_NOEXCEPT;
/* Null when no domain is set. */
char* getCookieDomainName(void) VX_NOEXCEPT;
char* getKPSessionCookieName(void) VX_NOEXCEPT;
int getMethodEntryDepth2SetCookie(void) VX_NOEXCEPT;
int getMethodExitDepth2SetCookie(void) VX_NOEXCEPT;
/* These two return the flag, despite their names. */
int setCookieOnResponseCommit(void) VX_NOEXCEPT;
int setHeaderInResponse(void) VX_NOEXCEPT;
/* When to set the cookie: 1 at method exit of the depth, 2 at method entry
 * of the depth, 3 at response commit, 0 otherwise. */
int getCookieMethodPosition(void) VX_NOEXCEPT;
int enableKPVXSession(void) VX_NOEXCEPT;
int enableLQVXSession(void) VX_NOEXCEPT;
}

namespace vx {
int cookie_method_position(const VXSys_t& s);
}

#endif
