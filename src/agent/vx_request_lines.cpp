#include "agent/vx_request_lines.h"

#include <cstdio>
#include <cstring>

#include "agent/vx_bci_setting.h"
#include "agent/vx_instance.h"
#include "agent/vx_settings.h"
#include "agent/vx_sys.h"
#include "core/vx_atomic.h"
#include "core/vx_platform.h"
#include "core/vx_text.h"
#include "core/vx_trace_log.h"
#include "proxy/vx_proxy_state.h"

namespace {

const char* text_or(const char* text, const char* none)
{
    return text ? text : none;
}

/* The port of the active protocol, 0 without one. */
int active_protocol_port(VXProxyInstance_t* app)
{
    switch (app->controlLink.ActiveAgentProtocolIndex) {
        case 1:
            return app->VXBCISetting.vxcPort;
        case 2:
            return app->VXBCISetting.vxc_WS_Port;
        case 3:
            return app->VXBCISetting.vxc_WSS_Port;
        default:
            return 0;
    }
}

}  // namespace

extern "C" void setControlConnectionReqMessage(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    getMachineType();
    VXBCISetting_t& s = app->VXBCISetting;
    setAuthtoken(s.authToken);
    /* Unset (no tags configured, or none resolved): empty behind a proxy,
     * "{}" otherwise. */
    const char* none = app->VXSys.proxyMode ? "" : "{}";
    const char* tags = text_or(s.json_tag, none);
    const char* attributes = text_or(s.tierAttr, none);
    const char* type = text_or(s.agentType, "NA");
    const Server_t& srv = app->Server;
    vxc_servers_t* primary =
        app->controlLink.vxc_server_arr ? &app->controlLink.vxc_server_arr[0] : nullptr;
    const bool hosted = s.saasMode && primary && primary->saasServer == 1 &&
                        (app->VXSys.proxyMode == 0 || vx_in_proxy_process());
    const long long now = my_gettimeofday();
    char* out = s.controlConnectionReqMessage;
    if (hosted) {
        snprintf(
            out, kVXRequestMessageSize,
            "klv_saas_auth_agent_msg_req:appName=%s;agentVersion=4.3.0;agentStartTime=%lld;vxHome=%"
            "s;"
            "pid=%lld;isAgentLess=N;jvmType=%s;javaVersion=1.0;javaHome=/apps/java;machineType=%s;"
            "requestType=%d;lastConnectionTimeStamp=%lld;connDuration=%lld;connDestination=%s;"
            "projectKey=%s;protoVer=1;agentType=%s;supportedProtocols=%s;agentIp=%s;tags=%s;"
            "attributes=%s;agentHostName=%s; \n",
            text_or(s.appName, "NA"), now, vx_settings_home_path(), getPID(), type, s.machineType,
            srv.requestType, srv.lastConnectionTime, srv.connDuration, srv.connDestination,
            text_or(s.projectKey, "NA"), type, app->controlLink.supportedProtocols,
            text_or(s.saasHost, "NA"), tags, attributes, text_or(app->agentName, "NA"));
    } else {
        snprintf(out, kVXRequestMessageSize,
                 "vx_ctrl_msg_req:appName=%s;vxAppServerHost=%s;tierName=%s;bciVersion=%s;"
                 "bciStartTime=%lld;"
                 "vxHome=%s;pid=%lld;BCITimeStamp=%lld;agentType=%s;serverIp=%s;hostName=%s;"
                 "isAgentLess=N;"
                 "jvmType=%s;javaVersion=1.0;javaHome=/apps/java;machineType=%s;requestType=%d;"
                 "lastConnectionTimeStamp=%lld;connDuration=%lld;connDestination=%s;agentName=%s;"
                 "supportedProtocols=%s;authtoken=%s;tags=%s;attributes=%s;protoVer=%d; \n",
                 text_or(s.appName, "NA"), text_or(s.appServerName, "NA"),
                 text_or(s.tierName, "NA"), text_or(vx::load_acquire(app->VXSys.vxBuild), "NA"),
                 app->VXSys.bciStartUpTime, vx_settings_home_path(), getPID(), now, type,
                 s.serverIp, text_or(s.appServerName, "NA"), type, s.machineType, srv.requestType,
                 srv.lastConnectionTime, srv.connDuration, srv.connDestination,
                 text_or(app->agentName, "NA"), app->controlLink.supportedProtocols,
                 text_or(s.authToken, "NA"), tags, attributes, app->lws_active == 1 ? 1 : 0);
    }
    s.controlConnectionReqMessage_len = static_cast<int>(strlen(out));
}

namespace {

/* The data and auto-sensor lines differ in their verb and in one separator. */
void build_channel_request(char* out, int* len, const char* format)
{
    VXProxyInstance_t* app = vx_app();
    const VXBCISetting_t& s = app->VXBCISetting;
    snprintf(out, kVXRequestMessageSize, format, text_or(s.appName, "NA"), s.appID, s.serverID,
             text_or(s.appServerName, "NA"), text_or(s.tierName, "NA"), s.tierID,
             text_or(s.vxcHost, "NA"), active_protocol_port(app), app->Server.TestRunIDValue,
             getPID(), text_or(app->agentName, "NA"));
    *len = static_cast<int>(strlen(out));
}

}  // namespace

extern "C" void setControlDataReqMessage(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    build_channel_request(
        app->VXBCISetting.controlDataReqMessage, &app->VXBCISetting.controlDataReqMessage_len,
        "vx_data_msg_req:appName=%s;appID=%d;vxAppServerID=%d;vxAppServerHost=%s;tierName=%s;"
        "tierID=%d;VXCollectorIP=%s;VXCollectorPort=%d;testIdx=%d;pid=%lld;agentName=%s\n");
}

extern "C" void setControlAutoSensorReqMessage(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    /* A comma, not a semicolon, before testIdx: the collector reads it so. */
    build_channel_request(
        app->VXBCISetting.controlAutoSensorReqMessage,
        &app->VXBCISetting.controlAutoSensorReqMessage_len,
        "auto_sensor_thread_hotspot_data_req:appName=%s;appID=%d;vxAppServerID=%d;"
        "vxAppServerHost=%s;tierName=%s;tierID=%d;VXCollectorIP=%s;VXCollectorPort=%d,"
        "testIdx=%d;pid=%lld;agentName=%s\n");
}

extern "C" char* getControlConnectionReqMessage(void)
{
    VXProxyInstance_t* app = vx_app();
    return app ? app->VXBCISetting.controlConnectionReqMessage : nullptr;
}

int vx::discovery_request_line(char* out, size_t size, const char* connId)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !out || size == 0) return 0;
    const VXBCISetting_t& s = app->VXBCISetting;
    const char* id = text_or(connId, "");
    int n;
    if (vx_agent_behind_proxy(app))
        n = snprintf(out, size,
                     "agent_post_data_req:appName=%s;appID=%d;vxAppServerID=%d;vxAppServerHost=%s;"
                     "tierName=%s;tierID=%d;VXCollectorIP=%s;VXCollectorPort=%d;testIdx=%d;"
                     "pid=%lld;agentName=%s;action=discover_loaded_classes;Id=%s\n",
                     text_or(s.appName, "NA"), s.appID, s.serverID, text_or(s.appServerName, "NA"),
                     text_or(s.tierName, "NA"), s.tierID, text_or(s.vxcHost, "NA"),
                     active_protocol_port(app), vx::load_relaxed(app->Server.TestRunIDValue),
                     getPID(), text_or(app->agentName, "NA"), id);
    else
        n = snprintf(out, size,
                     "agent_post_data_req:action=discover_loaded_classes;Id=%s;Tier=%s;Server=%s;"
                     "Instance=%s;\n",
                     id, text_or(s.tierName, "NA"), text_or(s.appServerName, "NA"),
                     text_or(s.appName, "NA"));
    if (n < 0) return 0;
    return n < static_cast<int>(size) ? n : static_cast<int>(size) - 1;
}
