#include "flowpath/vx_session_cookie_text.h"

#include <cstdio>
#include <cstdlib>

#include "agent/vx_instance.h"
#include "core/vx_limits.h"
#include "core/vx_trace_log.h"
#include "flowpath/vx_per_thread_data.h"

extern "C" char* getVXSessionCookie(VXPerThreadData_t* vxTD) VX_NOEXCEPT
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !vxTD || app->VXSys.enableVXSession == 0) return nullptr;
    auto* text = static_cast<char*>(calloc(1, vx::kCookieSize));
    if (!text) {
        VX_ERROR("FLOWPATH", "Out of memory for the session cookie of '%lld'",
                 vxTD->flowpathInstance);
        return nullptr;
    }
    /* prev_fp_start_time is this flowpath's start: the next one measures the
     * session's idle time from it. */
    snprintf(text, vx::kCookieSize, "%lld-%lld-%lld-%d-%d-%d-%d-%d-%d-%d", vxTD->vxSessionId,
             vxTD->tlTestRunNumber, vxTD->prev_fp_start_time, vxTD->instrumented, vxTD->btCategory,
             vxTD->exceptionCount, vxTD->totalFpcount, vxTD->tierID, vxTD->vxAppServerID,
             vxTD->appID);
    return text;
}

extern "C" char* getCustomHeader(VXPerThreadData_t* vxTD) VX_NOEXCEPT
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !vxTD || app->VXSys.headerInResponse == 0) return nullptr;
    auto* text = static_cast<char*>(calloc(1, vx::kCookieSize));
    if (!text) {
        VX_ERROR("FLOWPATH", "Out of memory for the response header of '%lld'", vxTD->flowpathInstance);
        return nullptr;
    }
    snprintf(text, vx::kCookieSize, "%lld_%d_%d", vxTD->flowpathInstance,
             static_cast<int>(vxTD->tlTestRunNumber), vxTD->btCategory);
    return text;
}

extern "C" void freePtr(char* ptr) VX_NOEXCEPT
{
    if (!ptr) {
        VX_ERROR("FLOWPATH", "ptr passed from agent is null");
        return;
    }
    free(ptr);
}
