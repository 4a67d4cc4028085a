#include "agent/vx_sys.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "agent/vx_instance.h"
#include "core/vx_atomic.h"
#include "core/vx_platform.h"
#include "core/vx_text.h"
#include "core/vx_trace_log.h"
#include "flowpath/vx_method_events.h"

namespace {

constexpr char kDefaultHome[] = "/opt/kelvane/vexlane/";
constexpr char kDefaultProxyHome[] = "/opt/kelvane/vexlane";

char kDefaultProxyIP[] = "127.0.0.1";

/* "<base>" or "<base>/<type>" as a heap string. */
char* home_with_type(const char* base, const char* type)
{
    char path[vx::kPathSize];
    char* dst = path;
    setAgentPath(dst, const_cast<char*>(base), const_cast<char*>(type));
    return strdup(path);
}

}  // namespace

extern "C" void InitializeTagEncodeArray(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    int* map = app->VXSys.arTagEncode;
    for (int i = 0; i < 256; ++i) map[i] = i;
    for (unsigned char c : {'"', '\'', ',', ':', ';', '{', '|', '}', ' ', '\t'}) map[c] = '_';
}

extern "C" void setBCIStartUpTime(void)
{
    if (VXProxyInstance_t* app = vx_app()) app->VXSys.bciStartUpTime = my_gettimeofday();
}

extern "C" long long getBCIStartUpTime(void)
{
    VXProxyInstance_t* app = vx_app();
    return app ? app->VXSys.bciStartUpTime : 0;
}

extern "C" void setAgentPath(char* agent_path, char* path, char* agnt_type)
{
    if (!agent_path || !path) return;
    if (agnt_type && *agnt_type)
        snprintf(agent_path, vx::kPathSize, "%s/%s", path, agnt_type);
    else
        snprintf(agent_path, vx::kPathSize, "%s", path);
}

extern "C" void setVXHome(char* agent_type)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    const char* env = getenv("VXHOME");
    const char* base = (env && *env) ? env : kDefaultHome;
    free(app->VXSys.vxHomePath);
    app->VXSys.vxHomePath = home_with_type(base, agent_type);
}

extern "C" void setProxyVXHome(char* agent_type)
{
    const char* env = getenv("VXHOME");
    const char* base = (env && *env) ? env : kDefaultProxyHome;
    const char* type = vx_in_proxy_process() ? "proxy" : agent_type;
    free(VXProxy.vxHomePath);
    VXProxy.vxHomePath = home_with_type(base, type);
}

extern "C" char* getVXHome(void)
{
    VXProxyInstance_t* app = vx_app();
    return app ? app->VXSys.vxHomePath : nullptr;
}

extern "C" int setVxBuild(char** value)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !value) return 1;
    char path[vx::kPathSize];
    snprintf(path, sizeof path, "%s/version", app->VXSys.vxHomePath ? app->VXSys.vxHomePath : ".");
    FILE* fp = fopen(path, "r");
    if (!fp) {
        VX_ERROR("CONTROL_THREAD", "Could not open file '%s' in read mode.", path);
        return 1;
    }
    char text[vx::kBuildTextMax + 1] = "";
    size_t used = 0;
    bool started = false;
    char line[vx::kBuildTextMax + 1];
    while (fgets(line, sizeof line, fp)) {
        /* Leading comment and blank lines are skipped; from the first other
         * line on, everything is kept. */
        if (!started && (line[0] == '#' || line[0] == ' ' || line[0] == '\t' || line[0] == '\r' ||
                         line[0] == '\n'))
            continue;
        started = true;
        for (char* p = line; *p; ++p)
            if (*p == '\r' || *p == '\n') *p = ' ';
        size_t n = strlen(line);
        if (used + n > vx::kBuildTextMax) n = vx::kBuildTextMax - used;
        memcpy(text + used, line, n);
        used += n;
        text[used] = '\0';
        if (used >= vx::kBuildTextMax) break;
    }
    fclose(fp);
    /* Read again on every collector line while other threads print it in
     * the trace log header: an unchanged text keeps its copy, and a changed
     * one is published whole (release) and the old copy deliberately kept,
     * since a reader may still hold it. It changes only with the file. */
    char* current = vx::load_acquire(*value);
    if (current && strcmp(current, text) == 0) return 0;
    char* copy = strdup(text);
    if (!copy) return 1;
    vx::store_release(*value, copy);
    return 0;
}

extern "C" char* getVxBuild(void)
{
    VXProxyInstance_t* app = vx_app();
    return app ? vx::load_acquire(app->VXSys.vxBuild) : nullptr;
}

extern "C" long long getPID(void)
{
    VXProxyInstance_t* app = vx_app();
    return app ? app->processID : 0;
}

extern "C" void VXAgentSettingInit(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    app->VXAgentSetting.proxyPort = 0;
    app->VXAgentSetting.enableProxyServer = 0;
}

extern "C" void VXSysInit(char* agent_type)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    VXSys_t& s = app->VXSys;
    s.latestBuild = nullptr;
    s.captureChildFPCPUTime = 0;
    s.controlTraceLevel = s.agentTraceLevel = 0;
    s.agentHSTraceLevel = s.agentADTraceLevel = s.agentPCTraceLevel = s.agentEXTraceLevel = 0;
    s.rSeq = 0;
    s.enableForcedFlowpathChainMode = 1;
    s.enableCpuTime = 0;
    s.bciDataBufferMaxSize = 102400;
    s.dataBuffMaxCount = 1000;
    s.bciASDataBufferMaxSize = 262144;
    s.ASDataBuffMaxCount = 16;
    s.ASDataBuffMinCount = 2;
    s.discardCount = s.vxcBciDataConnectionHeartBeat = 0;
    s.flowPathInstanceInitialID = 0x4000000000000000LL;
    s.timeStampMask = 0x3fffffffffLL;
    s.seqNoDigits = 8;
    s.seqNumMask = 255;
    s.traceMaxSize = vx::kTraceMaxSize;
    s.bciMaxNonServiceMethodsPerFP = 50000;
    s.vxcHeartBeatThreshold = 90000;
    s.retryFlag = s.closeCtrlConFlag = 0;
    s.methodEntryDepth2SetCookie = s.methodExitDepth2SetCookie = 0;
    s.cookieOnResponseCommit = s.headerInResponse = 0;
    s.vxSessionIdleTimeOutSecs = 1800;
    s.maxFPCountInSession = 1000;
    vx::copy_text(s.xSessionCookieName, sizeof s.xSessionCookieName, "X-KlvKP");
    vx::copy_text(s.vxSessionCookieName, sizeof s.vxSessionCookieName, "KlvKP");
    s.cookieDomainName[0] = '\0';
    s.enableVXSession = 0;
    s.hashMapClearTime = 30;
    s.vxEnableTxHotspot = 1;
    s.vxHelperDepth = 2;
    s.vxHotspotThreadLimit = 0;
    s.enableOTELStandard = s.enableGoroutineMonitor = s.enableGCMonitor = 0;
    s.captureMethodForAllFP = 0;
    s.maxHttpBodySize = 1024;
    s.btRuleOverriedPolicy = 1;
    s.enableExceptionInSeqBlob = 0;
    s.proxyMode = 0;
    s.proxyServerFlag = vx_in_proxy_process();
    s.proxyConType = 0;
    s.proxyIP = kDefaultProxyIP;
    s.proxyPort = 443;
    s.enableDBBackendName = 0;
    s.dataConnState = s.autosensorConnState = 1;
    s.enableProcessNotificationPhase = s.enableUpdateLogMsgForLQ = s.enableCallBackException = 0;
    s.AgentprocessName = nullptr;
    s.enableCaptureDataOutsideTxn = s.dumpCaptureDataOutsideTxn = s.dumpDebugData = 0;
    s.enableExceptionMonitor = 0;
    s.memoryProfilingStartTime = 0;
    s.mtxlockSessionRunning = 0;
    s.enableTagsSupport = 1;

    InitializeTagEncodeArray();
    setBCIStartUpTime();
    setVXHome(agent_type);
    setVxBuild(&s.vxBuild);
    /* The auto-sensor, control-buffer, HTTP-capture, scaling and dynamic
     * settings initialisers join here, in that order, with their subsystems. */
    VXAgentSettingInit();
    VXMonitorSettingsInit();
    app->VXFlowpathGenerator.maxCharactersInSeqBlob = kDefaultMaxCharactersInSeqBlob;
    s.AgentprocessName = nullptr;
    app->Server.lastHeartBeatRcvTime = my_gettimeofday();
}

extern "C" int getEnableTxHotspot(void) { return VX_LEVEL(vxEnableTxHotspot); }
extern "C" int getHelperDepth(void) { return VX_LEVEL(vxHelperDepth); }
extern "C" int getHotspotThreadLimit(void) { return VX_LEVEL(vxHotspotThreadLimit); }
extern "C" int getEnableDBBackendName(void) { return VX_LEVEL(enableDBBackendName); }

extern "C" char* getCorrelationIdHeader(void)
{
    VXProxyInstance_t* app = vx_app();
    return app ? app->VXSys.correlationIdHeader : nullptr;
}

extern "C" int isCpuAtFlowpathLevel(void)
{
    int v = VX_LEVEL(enableCpuTime);
    return v == 1 || v == 3;
}
