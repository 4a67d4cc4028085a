#include "link/vx_control_link.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "agent/vx_instance.h"
#include "core/vx_atomic.h"
#include "core/vx_platform.h"
#include "core/vx_text.h"
#include "core/vx_trace_log.h"
#include "link/vx_lws_transport.h"
#include "link/vx_socket.h"

namespace {

constexpr int kHeartBeatFields = 10;

}  // namespace

extern "C" void handleCollectorHeartBeat(char* clientMsg)
{
    VXProxyInstance_t* app = vx_app();
    VXSys_t& sys = app->VXSys;
    VX_TRACE(sys.controlTraceLevel, 2, "CONTROL_THREAD",
             "Heartbeat from %s:%d, processes %d, connected for %lld ms", app->controlLink.control.dstIp,
             app->controlLink.control.dstPort, app->processCount,
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
            vx::store_relaxed(sys.dataConnState, atoi(value));
            if (vx::load_relaxed(sys.dataConnState) == 0)
                VX_TRACE(sys.controlTraceLevel, 1, "CONTROL_THREAD",
                         "Data connection is closed from VXC.");
        } else if (strcmp(key, "AutosensorConnState") == 0) {
            vx::store_relaxed(sys.autosensorConnState, atoi(value));
            if (vx::load_relaxed(sys.autosensorConnState) == 0)
                VX_TRACE(sys.controlTraceLevel, 1, "CONTROL_THREAD",
                         "AutoSensor connection is closed from VXC.Going to closing auto sensor "
                         "connection.");
        }
    }
    VX_TRACE(sys.controlTraceLevel, 2, "CONTROL_THREAD",
             "Value of dataConnState = %d, autosensorConnState = %d.",
             vx::load_relaxed(sys.dataConnState), vx::load_relaxed(sys.autosensorConnState));
}

namespace {
std::atomic<vx::ControlMessageFn> g_handler{nullptr};
}  // namespace

namespace vx {

bool control_closing(const VXProxyInstance_t* app)
{
    return !vx_in_proxy_process() &&
           (vx::load_relaxed(app->VXSys.closeCtrlConFlag) || vx::load_relaxed(closeCtrlThread));
}

void control_set_message_handler(ControlMessageFn fn) { g_handler.store(fn, std::memory_order_release); }

void control_message_dispatch(char* line)
{
    if (ControlMessageFn fn = g_handler.load(std::memory_order_acquire)) fn(line);
}

}  // namespace vx

extern "C" void closeCurrentControlConnection(void)
{
    VXProxyInstance_t* app = vx_app();
    vx::store_relaxed(app->Server.controlCommunicationBusyFlag, 0);
    app->Server.InstrumentationBusy = 0;
    vx::store_relaxed(app->VXSys.closeCtrlConFlag, 1);
}

extern "C" int controlConnectionSendText(const char* text)
{
    return controlConnectionSendBuffer(const_cast<char*>(text), static_cast<int>(strlen(text)));
}

extern "C" int controlConnectionSendBuffer(char* buffer, int len)
{
    VXProxyInstance_t* app = vx_app();
    if (app->lws_active == 1) return send_control_data_via_lws_socket(buffer, len);
    char err[256] = "";
    return vxlb_send_n_bytes(app->controlLink.control.skt, buffer, len, err, sizeof err);
}
