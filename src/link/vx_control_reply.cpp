#include "link/vx_control_reply.h"

#include <strings.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "agent/vx_bci_setting.h"
#include "agent/vx_collector_servers.h"
#include "agent/vx_instance.h"
#include "agent/vx_settings.h"
#include "core/vx_atomic.h"
#include "core/vx_platform.h"
#include "core/vx_text.h"
#include "core/vx_trace_log.h"
#include "link/vx_collector_failover.h"
#include "link/vx_control_link.h"
#include "link/vx_control_stream.h"
#include "link/vx_control_thread.h"

namespace {

constexpr char kCollectorHeartBeat[] = "vx_control_req:action=reconnect;heartBeat";
constexpr char kHostedOk[] = "klv_saas_auth_agent_msg_rep:status=OK";
constexpr char kHostedError[] = "klv_saas_auth_agent_msg_rep:status=ERROR";
constexpr char kReply[] = "vx_ctrl_msg_rep:result=";
constexpr char kReplyNotRunning[] = "vx_ctrl_msg_rep:result=Ok;status=NOT_RUNNING;";
constexpr char kReplyRunning[] = "vx_ctrl_msg_rep:result=Ok;status=RUNNING";
constexpr char kReplyOk[] = "vx_ctrl_msg_rep:result=Ok;";
constexpr char kProcIndex[] = "procIndex=";
constexpr int kReplyFields = 10;
constexpr int kProtocolItems = 10;

int drop_invalid(VXProxyInstance_t* app, const char* line)
{
    VX_ERROR("CONTROL_THREAD",
             "controlBreak Going to close control connection with server %s:%d due to invalid "
             "message receive %s",
             app->controlLink.control.dstIp, app->controlLink.control.dstPort, line);
    control_connection_cleanup();
    VX_ERROR("CONTROL_THREAD", "Control connection was closed. Invalid message receive,'%s'.", line);
    return kReplyDrop;
}

/* The collector's heartbeat came ahead of the reply: it counts as one. */
int heartbeat_first(VXProxyInstance_t* app, const std::string& line)
{
    vx::store_relaxed(app->Server.lastHeartBeatRcvTime, my_gettimeofday());
    std::string copy = line;
    char* fields[kReplyFields];
    if (vxlb_get_tokens_with_multi_delimiter(copy.data(), fields, const_cast<char*>(";"),
                                             kReplyFields) < 3) {
        VX_ERROR("CONTROL_THREAD",
                 "controlBreak connection is closed from VXC due to 'num_fields' less than 3.");
        control_connection_cleanup();
        return kReplyDrop;
    }
    copy = line;
    handleCollectorHeartBeat(copy.data());
    return kReplyServe;
}

int reply_ok(VXProxyInstance_t* app, const std::string& line)
{
    if (vx::starts_with(line.c_str(), kReplyNotRunning)) {
        vx::store_relaxed(app->Server.retryForDataConn, 0);
        vx::store_relaxed(app->Server.retryForAutoSensorConn, 0);
    } else if (vx::starts_with(line.c_str(), kReplyRunning)) {
        vx::store_relaxed(app->Server.retryForDataConn, 1);
    } else if (!vx::starts_with(line.c_str(), kReplyOk)) {
        return drop_invalid(app, line.c_str());
    }
    const size_t proc = line.find(kProcIndex);
    std::string policy = line;
    if (parse_policy_from_clientMsg(policy.data()) != 0) {
        VX_ERROR("CONTROL_THREAD",
                 "controlBreak Control connection was closed due to parse_policy_from_clientMsg");
        control_connection_cleanup();
        return kReplyDrop;
    }
    if (!vx_agent_behind_proxy(app)) {
        std::string protocols = line; /* the parser cuts its input */
        if (setProtocolFromResponseMessage(protocols.data()) == 1) return kReplySwitchProtocol;
    }
    if (proc != std::string::npos) {
        const long long index = atoll(line.c_str() + proc + sizeof kProcIndex - 1);
        app->VXSys.flowPathInstanceInitialID = 0x4000000000000000LL + (index << 46);
    }
    /* STAND-IN(proxy): a proxy sends the reply on to each of
     * its agent processes with its procIndex. */
    return kReplyServe;
}

/* The hosted entry point named the collector to use. On TCP this same
 * connection goes on serving: the entry point hands it over, no second
 * request is sent. */
int hosted_ok(VXProxyInstance_t* app, controlSocketBuffer_t* buf, const std::string& line)
{
    std::string copy = line; /* the parser cuts its input */
    if (parseSAASClientMsg(copy.data()) != 0) {
        VX_ERROR("CONTROL_THREAD", "Closing Control Connection with SAAS");
        control_connection_cleanup();
        return kReplyDrop;
    }
    if (app->lws_active == 1) {
        VX_ERROR("CONTROL_THREAD", "Closing Control Connection with SAAS");
        VX_ERROR("CONTROL_THREAD",
                 "Closing Control Connection with SAAS and going to make connection with VXC");
        /* STAND-IN(websocket): over WebSocket the control thread reconnects
         * at once to entry 0 with the normal request once that transport
         * exists; today the connect loop reaches it after its wait. */
        control_connection_cleanup();
        return kReplyDrop;
    }
    controlSockBufReset(buf);
    snprintf(app->Server.connDestination, sizeof app->Server.connDestination, "%s:%d",
             getVXHost() ? getVXHost() : "", getVXCPort());
    vx::store_relaxed(app->Server.lastConnectionTime, my_gettimeofday());
    return kReplyServe;
}

}  // namespace

extern "C" int getProtocolPort(int protocol)
{
    const VXBCISetting_t& s = vx_app()->VXBCISetting;
    int port = 0;
    if (protocol == 1) port = s.vxcPort;
    if (protocol == 2) port = s.vxc_WS_Port;
    if (protocol == 3) port = s.vxc_WSS_Port;
    return port > 0 ? port : 0;
}

extern "C" int getActiveProtocolIndex(void) { return vx_app()->controlLink.ActiveAgentProtocolIndex; }

extern "C" void setActiveProtocolIndex(int protocol) { vx_app()->controlLink.ActiveAgentProtocolIndex = protocol; }

extern "C" int getIndexOfMatchedProtocol(int protocol)
{
    const VXProxyInstance_t* app = vx_app();
    for (int slot : app->controlLink.supportedProtocolArray)
        if (slot == protocol) return protocol;
    return -1;
}

extern "C" void setSupportedProtocolVXCArray(int protocol)
{
    VXProxyInstance_t* app = vx_app();
    for (int i = 0; i < vx::kProtocolsUsed; ++i) {
        if (app->controlLink.supportedProtocolVXCArray[i] == 0) {
            app->controlLink.supportedProtocolVXCArray[i] = protocol;
            return;
        }
    }
}

extern "C" int setProtocolFromResponseMessage(char* line)
{
    VXProxyInstance_t* app = vx_app();
    /* The port in use now, before the reply's ports overwrite it. */
    const int port = getProtocolPort(app->controlLink.ActiveAgentProtocolIndex);
    char* fields[kReplyFields];
    const int n =
        vxlb_get_tokens_with_multi_delimiter(line, fields, const_cast<char*>(";"), kReplyFields);
    for (int i = 0; i < n; ++i) {
        char key[1024];
        char* value = split_key_value(fields[i], key);
        if (!value || strcmp(key, "supportedProtocols") != 0) continue;
        /* Each reply's list replaces the one before. */
        memset(app->controlLink.supportedProtocolVXCArray, 0, sizeof app->controlLink.supportedProtocolVXCArray);
        char* items[kProtocolItems];
        const int m = vxlb_get_tokens_with_multi_delimiter(value, items, const_cast<char*>(","),
                                                           kProtocolItems);
        for (int j = 0; j < m; ++j) {
            char name[64] = "";
            if (strlen(items[j]) >= sizeof name) continue;
            char* portText = split_key_value_colon(items[j], name);
            const int itemPort = portText ? atoi(portText) : 0;
            if (strcasecmp(name, "TCP") == 0) {
                setVXC_TCP_Port(itemPort);
                setSupportedProtocolVXCArray(1);
            } else if (strcasecmp(name, "WS") == 0) {
                setVXC_WS_Port(itemPort);
                setSupportedProtocolVXCArray(2);
            } else if (strcasecmp(name, "WSS") == 0) {
                setVXC_WSS_Port(itemPort);
                setSupportedProtocolVXCArray(3);
            }
        }
    }
    int matched = 0;
    for (int protocol : app->controlLink.supportedProtocolVXCArray) {
        if (protocol != 0 && getIndexOfMatchedProtocol(protocol) != -1) {
            matched = protocol;
            break;
        }
    }
    if (!matched) {
        VX_TRACE(app->VXSys.controlTraceLevel, 1, "CONTROL_THREAD",
                 "WARNING:- VXC Protocol are present.Hence, Control Connection will Persist");
        return 0;
    }
    if (matched != app->controlLink.ActiveAgentProtocolIndex) {
        app->controlLink.ActiveAgentProtocolIndex = matched;
        control_connection_cleanup();
        VX_TRACE(app->VXSys.controlTraceLevel, 1, "CONTROL_THREAD", "Hence Switching Protocol");
        return 1;
    }
    if (port == getProtocolPort(matched)) return 0;
    control_connection_cleanup();
    VX_TRACE(app->VXSys.controlTraceLevel, 1, "CONTROL_THREAD",
             "Protocols are same but port of protocol are differenet, Hence closing current "
             "control connection");
    return 1;
}

extern "C" void setConnectionChannel(void)
{
    VXProxyInstance_t* app = vx_app();
    app->lws_active = app->controlLink.ActiveAgentProtocolIndex == 1 ? 0 : 1;
    if (vxc_servers_t* e = get_active_vxc())
        e->vxc_port = static_cast<unsigned int>(getProtocolPort(app->controlLink.ActiveAgentProtocolIndex));
}

extern "C" int handle_vxc_con_res_msg(controlSocketBuffer_t* buf)
{
    VXProxyInstance_t* app = vx_app();
    const char* text = buf->read_socket_buf;
    const char* lf = static_cast<const char*>(memchr(text, '\n', static_cast<size_t>(buf->readBytes)));
    const std::string line(text, lf ? static_cast<size_t>(lf - text) : strlen(text));

    if (line.find(kCollectorHeartBeat) != std::string::npos) return heartbeat_first(app, line);
    if (vx::starts_with(line.c_str(), kHostedOk)) return hosted_ok(app, buf, line);
    if (vx::starts_with(line.c_str(), kHostedError)) {
        VX_ERROR("CONTROL_THREAD", "Error Received: '%s'", line.c_str());
        control_connection_cleanup();
        return kReplyDrop;
    }
    if (line.find(kReply) != std::string::npos) return reply_ok(app, line);
    return drop_invalid(app, line.c_str());
}
