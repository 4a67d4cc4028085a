#include "flowpath/vx_session_cookie.h"

#include <cstdio>
#include <cstdlib>

#include "agent/vx_instance.h"
#include "core/vx_atomic.h"
#include "core/vx_text.h"
#include "core/vx_trace_log.h"

extern "C" void parseVXCookieStr(char* VXCokieStr, VXPerThreadData_t* vxTD)
{
    if (!vxTD || !VXCokieStr) return;
    VXProxyInstance_t* app = vx_app();
    char copy[vx::kCookieSize];
    vx::copy_text(copy, sizeof copy, VXCokieStr);
    char* f[10];
    int n = vxlb_get_tokens_with_multi_delimiter(copy, f, const_cast<char*>("-"), 10);
    if (n < 1) {
        VX_ERROR("FLOWPATH", "Error in parsing VX cookie Invalid string : %s", VXCokieStr);
        return;
    }
    if (n > 0) vxTD->vxSessionId = atoll(f[0]);
    if (n > 1) vxTD->tlTestRunNumber = atoll(f[1]);
    if (n > 2) {
        vxTD->last_fptimestamp_from_cookie = atoll(f[2]);
        vxTD->prev_fp_start_time = vxTD->tlFlowPathTimeStampInMS;
    }
    if (n > 3) vxTD->instrumented = atoi(f[3]);
    vxTD->btCategory = 9;
    vxTD->exceptionCount = 0;
    if (n > 6) vxTD->totalFpcount = atoi(f[6]) + 1;
    if (app) {
        vxTD->tierID = app->VXBCISetting.tierID;
        vxTD->vxAppServerID = app->VXBCISetting.serverID;
        vxTD->appID = app->VXBCISetting.appID;
    }
}

extern "C" void parseKPCookieStr(char* KPCokieStr, VXPerThreadData_t* vxTD)
{
    if (!vxTD) return;
    if (!KPCokieStr || !*KPCokieStr) {
        VX_TRACE(VX_LEVEL(fpTraceLevel), 1, "FLOWPATH", "Error in setting KPcookie string :");
        return;
    }
    char copy[vx::kCookieSize];
    vx::copy_text(copy, sizeof copy, KPCokieStr);
    char* f[10];
    int n = vxlb_get_tokens_with_multi_delimiter(copy, f, const_cast<char*>("-"), 10);
    if (n < 4) VX_ERROR("FLOWPATH", "Error in parsing KPcookie Invalid string : %s", KPCokieStr);
    vxTD->klvSID = n > 0 ? atoll(f[0]) : 0;
    vxTD->VXPageID = n > 3 ? atoll(f[3]) : 0;
}

extern "C" void setValue(char* VXCokieStr, VXPerThreadData_t* vxTD)
{
    (void)VXCokieStr;
    VXProxyInstance_t* app = vx_app();
    if (!vxTD || !app) return;
    vxTD->vxSessionId = vxTD->flowpathInstance;
    vxTD->tlTestRunNumber = vx::load_relaxed(app->Server.TestRunIDValue);
    vxTD->prev_fp_start_time = vxTD->tlFlowPathTimeStampInMS;
    vxTD->instrumented = vxTD->tlIsFPCaptured;
    vxTD->btCategory = 9;
    vxTD->exceptionCount = 0;
    vxTD->totalFpcount = 1;
    vxTD->tierID = app->VXBCISetting.tierID;
    vxTD->vxAppServerID = app->VXBCISetting.serverID;
    vxTD->appID = app->VXBCISetting.appID;
}
