#include "link/vx_control_dispatch.h"

#include <cstdlib>
#include <cstring>

#include "core/vx_instance.h"
#include "core/vx_platform.h"
#include "core/vx_text.h"
#include "core/vx_trace_log.h"
#include "link/vx_lws_transport.h"
#include "link/vx_socket.h"

namespace {

constexpr char kCollectorHeartBeat[] = "vx_control_req:action=reconnect;";
constexpr int kHeartBeatFields = 10;

}  // namespace

extern "C" void handleCollectorHeartBeat(char* clientMsg)
{
    VXProxyInstance_t* app = vx_app();
    VXSys_t& sys = app->VXSys;
    VX_TRACE(sys.controlTraceLevel, 2, "CONTROL_THREAD",
             "Heartbeat from %s:%d, processes %d, connected for %lld ms", app->control.dstIp,
             app->control.dstPort, app->processCount,
             my_gettimeofday() - app->Server.lastConnectionTime);
    char* fields[kHeartBeatFields];
    const int n = vxlb_get_tokens_with_multi_delimiter(clientMsg, fields, const_cast<char*>(";"),
                                                       kHeartBeatFields);
    if (n < 3) return;
    for (int i = 0; i < n; ++i) {
        char key[1024];
        char* value = split_key_value(fields[i], key);
        if (!value) continue;
        if (strcmp(key, "dataConnState") == 0) {
            sys.dataConnState = atoi(value);
            if (sys.dataConnState == 0)
                VX_TRACE(sys.controlTraceLevel, 1, "CONTROL_THREAD",
                         "Data connection is closed from VXC.");
        } else if (strcmp(key, "AutosensorConnState") == 0) {
            sys.autosensorConnState = atoi(value);
            if (sys.autosensorConnState == 0)
                VX_TRACE(sys.controlTraceLevel, 1, "CONTROL_THREAD",
                         "AutoSensor connection is closed from VXC.Going to closing auto sensor "
                         "connection.");
        }
    }
    VX_TRACE(sys.controlTraceLevel, 2, "CONTROL_THREAD",
             "Value of dataConnState = %d, autosensorConnState = %d.", sys.dataConnState,
             sys.autosensorConnState);
}

extern "C" void handleReceivedClientMessageFromVXCollector(char* clientMsg)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !clientMsg) return;
    app->heartbeat_count = 0;
    app->Server.lastHeartBeatRcvTime = my_gettimeofday();
    if (strncmp(clientMsg, kCollectorHeartBeat, sizeof kCollectorHeartBeat - 1) == 0) {
        handleCollectorHeartBeat(clientMsg);
        return;
    }
    VX_TRACE(app->VXSys.controlTraceLevel, 1, "CONTROL_THREAD", "Message not handled: %.200s",
             clientMsg);
}

extern "C" void closeCurrentControlConnection(void)
{
    VXProxyInstance_t* app = vx_app();
    app->Server.controlCommunicationBusyFlag = 0;
    app->Server.InstrumentationBusy = 0;
    app->VXSys.closeCtrlConFlag = 1;
}

extern "C" int controlConnectionSendBuffer(char* buffer, int len)
{
    VXProxyInstance_t* app = vx_app();
    if (app->lws_active == 1) return send_control_data_via_lws_socket(buffer, len);
    char err[256] = "";
    return vxlb_send_n_bytes(app->control.skt, buffer, len, err, sizeof err);
}
