#include "agent/vx_bci_setting.h"

#include <strings.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/vx_encode.h"
#include "agent/vx_instance.h"
#include "core/vx_trace_log.h"

namespace {

/* The hosted collector's default host (its port is saasPort, 443), used
 * only when a project key turns the hosted mode on. */
char kDefaultSaasHost[] = "collector.vexlane.io";
char kLoopback[] = "127.0.0.1";

void replace_text(char** slot, const char* value)
{
    if (!value) return;
    char* copy = strdup(value);
    if (!copy) return;
    free(*slot);
    *slot = copy;
}

/* `*enc` becomes `name` with each "_" encoded, in a buffer three times the
 * name's length (which bounds the share of underscores). */
void rebuild_encoded(char** enc, const char* name)
{
    if (!name) return;
    const size_t cap = strlen(name) * 3 + 1;
    char* buf = static_cast<char*>(malloc(cap));
    if (!buf) return;
    encoded_with_underscore(buf, static_cast<int>(cap), const_cast<char*>(name));
    free(*enc);
    *enc = buf;
}

/* Four fields split on ".", all digits, each 0..255. */
bool validate_ip(const char* text)
{
    int fields = 0;
    const char* p = text;
    while (true) {
        int digits = 0, value = 0;
        for (; isdigit(static_cast<unsigned char>(*p)); ++p) {
            if (++digits > 3) return false;
            value = value * 10 + (*p - '0');
        }
        if (digits == 0 || value > 255) return false;
        ++fields;
        if (*p == '\0') return fields == 4;
        if (*p != '.' || fields == 4) return false;
        ++p;
    }
}

int to_int(const char* text)
{
    return text ? atoi(text) : 0;
}

}  // namespace

extern "C" void VXBTErrorArrayInit(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    char* table = app->VXBCISetting.btErrorArray;
    memset(table, 'T', 400);
    memset(table + 400, 'F', vx::kStatusCodeCount - 400);
}

extern "C" void VXBCISettingInit(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    VXBCISetting_t& s = app->VXBCISetting;
    s.agentType = nullptr;
    s.tierName = s.appServerName = s.appName = nullptr;
    s.encodedtierName = s.encodedappServerName = s.encodedappName = nullptr;
    s.vxcHost = nullptr;
    s.KLV_INSTANCE_AS_TIER = 0;
    VXBTErrorArrayInit();
    strcpy(s.machineType, "LinuxEx");
    s.fileBasedKeywordMode = 0;
    s.data_thread_running = s.log_thread_running = s.autoSensor_thread_running = 0;
    strcpy(s.serverIp, "127.0.0.1");
    s.controlConnectionReqMessage[0] = s.control_conn_heartbeat_msg[0] = '\0';
    s.controlDataReqMessage[0] = s.controlAutoSensorReqMessage[0] = '\0';
    s.tierID = s.serverID = s.appID = 0;
    s.vxcPort = 443;
    s.bciPort = 7990;
    s.pastLog = vx::kDefaultPastLogDays;
    s.autoScalingMode = 2;
    s.flagForHandlingProxy = 0;
    s.lastModifiedDate = s.prevFileSize = 0;
    s.tierAttr = s.agentAppName = s.endPointPrefix = nullptr;
    s.saasMode = 0;
    s.saasHost = kDefaultSaasHost;
    s.saasPort = 443;
    s.projectKey = s.authToken = nullptr;
    s.isEnableEnvVar = 0;
    s.stackSize = vx::kDefaultStackSizeKiB;
    s.json_tag = s.tagnew = s.agentVersion = nullptr;
}

extern "C" void setAgentType(char* agentType)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    VXBCISetting_t& s = app->VXBCISetting;
    replace_text(&s.agentType, agentType);
    s.agentIsPhp = s.agentType && strcasecmp(s.agentType, "php") == 0;
    s.agentIsGo = s.agentType && strcmp(s.agentType, "go") == 0;
}

extern "C" void setAgentVersion(char* agentVersion)
{
    if (VXProxyInstance_t* app = vx_app()) replace_text(&app->VXBCISetting.agentVersion, agentVersion);
}

extern "C" void setTierName(char* tier, char* keyword, int kwIdx)
{
    (void)keyword;
    (void)kwIdx;
    VXProxyInstance_t* app = vx_app();
    if (!app || !tier) return;
    replace_text(&app->VXBCISetting.tierName, tier);
    rebuild_encoded(&app->VXBCISetting.encodedtierName, app->VXBCISetting.tierName);
}

extern "C" void setAppServerName(char* server, char* keyword, int kwIdx)
{
    (void)keyword;
    (void)kwIdx;
    VXProxyInstance_t* app = vx_app();
    if (!app || !server) return;
    replace_text(&app->VXBCISetting.appServerName, server);
    rebuild_encoded(&app->VXBCISetting.encodedappServerName, app->VXBCISetting.appServerName);
}

extern "C" void setAppName(char* instance, char* keyword, int kwIdx)
{
    (void)keyword;
    (void)kwIdx;
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    VXBCISetting_t& s = app->VXBCISetting;
    if (!instance) {
        VX_ERROR("CONTROL_THREAD", "Instance name is still coming NULL");
        return;
    }
    if (s.appName && strcmp(s.appName, instance) == 0) {
        app->Server.sameAppNameOccur = 1;
        VX_TRACE(app->VXSys.agentTraceLevel, 1, "CONTROL_THREAD",
                 "Pool name is same as AppName (app-%s, pool-%s)", s.appName, instance);
    } else {
        replace_text(&s.appName, instance);
    }
    rebuild_encoded(&s.encodedappName, s.appName);
}

extern "C" void setTierAttr(char* attr, char* keyword, int kwIdx)
{
    (void)keyword;
    (void)kwIdx;
    if (VXProxyInstance_t* app = vx_app()) replace_text(&app->VXBCISetting.tierAttr, attr);
}

extern "C" void setTierID(char* id, char* keyword, int kwIdx)
{
    (void)keyword;
    (void)kwIdx;
    if (VXProxyInstance_t* app = vx_app()) app->VXBCISetting.tierID = to_int(id);
}

extern "C" void setServerID(char* id, char* keyword, int kwIdx)
{
    (void)keyword;
    (void)kwIdx;
    if (VXProxyInstance_t* app = vx_app()) app->VXBCISetting.serverID = to_int(id);
}

extern "C" void setAppID(char* id, char* keyword, int kwIdx)
{
    (void)keyword;
    (void)kwIdx;
    if (VXProxyInstance_t* app = vx_app()) app->VXBCISetting.appID = to_int(id);
}

extern "C" void setAgentAppName(char* name)
{
    if (VXProxyInstance_t* app = vx_app()) replace_text(&app->VXBCISetting.agentAppName, name);
}

extern "C" void setEndPointPrefix(char* prefix)
{
    if (VXProxyInstance_t* app = vx_app()) replace_text(&app->VXBCISetting.endPointPrefix, prefix);
}

extern "C" void setProjKey(char* key)
{
    if (VXProxyInstance_t* app = vx_app()) replace_text(&app->VXBCISetting.projectKey, key);
}

extern "C" void setSaasHostPort(char* hostPort)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !hostPort) return;
    VXBCISetting_t& s = app->VXBCISetting;
    /* The last colon separates the port, so a scheme's colon stays in the host. */
    const char* colon = strrchr(hostPort, ':');
    char* host = colon ? strndup(hostPort, static_cast<size_t>(colon - hostPort)) : nullptr;
    if (colon && !host) return;
    if (s.saasHost != kDefaultSaasHost && s.saasHost != kLoopback) free(s.saasHost);
    s.saasHost = host ? host : kLoopback;
    const int port = colon ? atoi(colon + 1) : 0;
    s.saasPort = port > 0 ? port : vx::kDefaultVXCPort;
}

extern "C" void setPastLogTime(int days)
{
    if (VXProxyInstance_t* app = vx_app()) app->VXBCISetting.pastLog = days;
}

extern "C" void setAuthtoken(char* token)
{
    if (VXProxyInstance_t* app = vx_app())
        replace_text(&app->VXBCISetting.authToken, token ? token : "NA");
}

extern "C" void setProtoVer(int ver)
{
    if (VXProxyInstance_t* app = vx_app()) app->VXBCISetting.ProtoVer = ver;
}

extern "C" int setVXCHost(char* host)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return -1;
    /* Host names are not resolved here: only an address is accepted. */
    if (!host || !validate_ip(host)) {
        VX_ERROR("CONTROL_THREAD", "Invalid VXC IP - %s", host ? host : "(null)");
        return -1;
    }
    replace_text(&app->VXBCISetting.vxcHost, host);
    return 0;
}

extern "C" int setVXCPort(int port)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return -1;
    if (port <= 0 || port > 65535) {
        VX_ERROR("CONTROL_THREAD", "Invalid VXC port - %d", port);
        return -1;
    }
    app->VXBCISetting.vxcPort = port;
    return 0;
}

extern "C" void setVXC_TCP_Port(int port)
{
    /* TCP is the protocol of the primary port, so its port is vxcPort and
     * vxc_TCP_Port is never written. */
    VXProxyInstance_t* app = vx_app();
    if (app && port > 0) app->VXBCISetting.vxcPort = port;
}

extern "C" void setVXC_WS_Port(int port)
{
    VXProxyInstance_t* app = vx_app();
    if (app && port > 0) app->VXBCISetting.vxc_WS_Port = port;
}

extern "C" void setVXC_WSS_Port(int port)
{
    VXProxyInstance_t* app = vx_app();
    if (app && port > 0) app->VXBCISetting.vxc_WSS_Port = port;
}

extern "C" int isValidStackSize(int n)
{
    return n >= vx::kStackSizeMinKiB && n <= vx::kStackSizeMaxKiB && (n & (n - 1)) == 0;
}

extern "C" void setStackSize(int kib)
{
    VXProxyInstance_t* app = vx_app();
    if (app && isValidStackSize(kib)) app->VXBCISetting.stackSize = kib;
}

extern "C" void setAutoScalingMode(int mode)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    if (mode < 0 || mode > vx::kAutoScalingModeMax) {
        /* The message names the default, but the current value is kept. */
        VX_ERROR("CONTROL_THREAD",
                 "AutoScalingMode value '%d' is out of range, setting its default value '%d'", mode,
                 app->VXBCISetting.autoScalingMode);
        return;
    }
    app->VXBCISetting.autoScalingMode = mode;
}

extern "C" void setBCIPort(int port)
{
    if (VXProxyInstance_t* app = vx_app()) app->VXBCISetting.bciPort = port;
}

#define VX_BCI_GETTER(type, name, field, none)       \
    extern "C" type name(void)                       \
    {                                                \
        VXProxyInstance_t* app = vx_app();           \
        return app ? app->VXBCISetting.field : none; \
    }

VX_BCI_GETTER(char*, getTierName, tierName, nullptr)
VX_BCI_GETTER(char*, getencodedTierName, encodedtierName, nullptr)
VX_BCI_GETTER(char*, getAppServerName, appServerName, nullptr)
VX_BCI_GETTER(char*, getencodedAppServerName, encodedappServerName, nullptr)
VX_BCI_GETTER(char*, getAppName, appName, nullptr)
VX_BCI_GETTER(char*, getencodedAppName, encodedappName, nullptr)
VX_BCI_GETTER(int, getTierID, tierID, 0)
VX_BCI_GETTER(int, getServerID, serverID, 0)
VX_BCI_GETTER(int, getAppID, appID, 0)
VX_BCI_GETTER(char*, getVXHost, vxcHost, nullptr)
VX_BCI_GETTER(int, getVXCPort, vxcPort, 0)
VX_BCI_GETTER(int, getBCIPort, bciPort, 0)
VX_BCI_GETTER(char*, getServerIP, serverIp, nullptr)
VX_BCI_GETTER(long long, getLastModifiedDate, lastModifiedDate, 0)
VX_BCI_GETTER(long long, getPrevEditedSize, prevFileSize, 0)

#undef VX_BCI_GETTER

extern "C" void resetVXCHostAndPort(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    free(app->VXBCISetting.vxcHost);
    app->VXBCISetting.vxcHost = nullptr;
    app->VXBCISetting.vxcPort = vx::kDefaultVXCPort;
}
