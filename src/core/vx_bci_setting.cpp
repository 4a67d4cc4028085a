#include "core/vx_bci_setting.h"

#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "core/vx_instance.h"

namespace {

/* The hosted collector's default endpoint, used only when a project key
 * turns the hosted mode on. */
char kDefaultSaasHost[] = "collector.vexlane.io:443";

void replace_text(char** slot, const char* value)
{
    if (!value) return;
    char* copy = strdup(value);
    if (!copy) return;
    free(*slot);
    *slot = copy;
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

/* The settings reader (environment, vxsettings.conf) refines the name; this
 * form is what agent_init needs: the instance takes the pool or process name. */
extern "C" void setAppName(char* name, int fromEnv, int length)
{
    (void)fromEnv;
    (void)length;
    if (VXProxyInstance_t* app = vx_app()) replace_text(&app->VXBCISetting.appName, name);
}
