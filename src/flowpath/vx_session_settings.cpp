#include "flowpath/vx_session_settings.h"

#include <cstring>

#include "agent/vx_instance.h"
#include "core/vx_text.h"

namespace {

constexpr long long kDefaultIdleSeconds = 1800;

VXSys_t* sys()
{
    VXProxyInstance_t* app = vx_app();
    return app ? &app->VXSys : nullptr;
}

}  // namespace

int vx::cookie_method_position(const VXSys_t& s)
{
    if (s.methodExitDepth2SetCookie) return 1;
    if (s.methodEntryDepth2SetCookie) return 2;
    if (s.cookieOnResponseCommit) return 3;
    return 0;
}

extern "C" void setVXSessionCookieName(char* cookieName) VX_NOEXCEPT
{
    VXSys_t* s = sys();
    if (!s || !cookieName) return;
    vx::copy_text(s->vxSessionCookieName, sizeof s->vxSessionCookieName, cookieName);
    char x[vx::kCookieNameSize + 2] = "X-";
    vx::copy_text(x + 2, sizeof x - 2, cookieName);
    vx::copy_text(s->xSessionCookieName, sizeof s->xSessionCookieName, x);
}

extern "C" void setCookieDomainName(char* domain) VX_NOEXCEPT
{
    VXSys_t* s = sys();
    if (!s) return;
    const bool clear = !domain || !*domain || strcmp(domain, "-") == 0 || strcmp(domain, "NA") == 0;
    vx::copy_text(s->cookieDomainName, sizeof s->cookieDomainName, clear ? "" : domain);
}

extern "C" void setVxSessionIdleTimeOutSecs(long long value) VX_NOEXCEPT
{
    if (VXSys_t* s = sys()) s->vxSessionIdleTimeOutSecs = value < 0 ? kDefaultIdleSeconds : value / 1000;
}

extern "C" void setMaxFPCountInSession(int value) VX_NOEXCEPT
{
    if (VXSys_t* s = sys()) s->maxFPCountInSession = value;
}

extern "C" char* getVXSessionCookieName(void) VX_NOEXCEPT
{
    return sys() ? sys()->vxSessionCookieName : nullptr;
}

extern "C" char* getXSessionCookieName(void) VX_NOEXCEPT
{
    return sys() ? sys()->xSessionCookieName : nullptr;
}

extern "C" char* getCookieDomainName(void) VX_NOEXCEPT
{
    return sys() && sys()->cookieDomainName[0] ? sys()->cookieDomainName : nullptr;
}

extern "C" char* getKPSessionCookieName(void) VX_NOEXCEPT
{
    return sys() ? sys()->KPCookieName : nullptr;
}

extern "C" int getMethodEntryDepth2SetCookie(void) VX_NOEXCEPT
{
    return sys() ? sys()->methodEntryDepth2SetCookie : 0;
}

extern "C" int getMethodExitDepth2SetCookie(void) VX_NOEXCEPT
{
    return sys() ? sys()->methodExitDepth2SetCookie : 0;
}

extern "C" int setCookieOnResponseCommit(void) VX_NOEXCEPT
{
    return sys() ? sys()->cookieOnResponseCommit : 0;
}

extern "C" int setHeaderInResponse(void) VX_NOEXCEPT
{
    return sys() ? sys()->headerInResponse : 0;
}

extern "C" int getCookieMethodPosition(void) VX_NOEXCEPT
{
    return sys() ? vx::cookie_method_position(*sys()) : 0;
}

extern "C" int enableKPVXSession(void) VX_NOEXCEPT
{
    return sys() ? sys()->enableVXSession : 0;
}

extern "C" int enableLQVXSession(void) VX_NOEXCEPT
{
    return sys() ? sys()->enableUpdateLogMsgForLQ : 0;
}
