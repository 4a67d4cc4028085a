#include "agent/vx_collector_servers.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "agent/vx_bci_setting.h"
#include "agent/vx_instance.h"
#include "core/vx_text.h"
#include "core/vx_trace_log.h"

namespace {

void clear_protocol_list(VXProxyInstance_t* app)
{
    memset(app->controlLink.supportedProtocolArray, 0,
           sizeof app->controlLink.supportedProtocolArray);
    app->controlLink.supportedProtocols[0] = '\0';
    app->VXSys.supportedProtocolsString = app->controlLink.supportedProtocols;
}

}  // namespace

extern "C" vxc_servers_t* vx_collector_entry(int idx)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || idx < 0) return nullptr;
    if (!app->controlLink.vxc_server_arr || idx >= app->controlLink.server_arr_size) {
        const int have = app->controlLink.vxc_server_arr ? app->controlLink.server_arr_size : 0;
        int want = have;
        while (want <= idx) want += vx::kCollectorListStep;
        auto* grown = static_cast<vxc_servers_t*>(
            realloc(app->controlLink.vxc_server_arr, sizeof(vxc_servers_t) * want));
        if (!grown) {
            VX_ERROR("CONTROL_THREAD", "Could not grow the collector list to %d entries", want);
            return nullptr;
        }
        /* active_vxc points into the list: keep it on the same entry. */
        if (app->controlLink.active_vxc && app->controlLink.vxc_server_arr)
            app->controlLink.active_vxc =
                grown + (app->controlLink.active_vxc - app->controlLink.vxc_server_arr);
        memset(grown + have, 0, sizeof(vxc_servers_t) * (want - have));
        app->controlLink.vxc_server_arr = grown;
        app->controlLink.server_arr_size = want;
    }
    return &app->controlLink.vxc_server_arr[idx];
}

extern "C" char* split_key_value_colon(char* field, char* keyword)
{
    if (!field || !keyword) return nullptr;
    const char* colon = strchr(field, ':');
    const size_t n = colon ? static_cast<size_t>(colon - field) : strlen(field);
    memcpy(keyword, field, n);
    keyword[n] = '\0';
    return colon ? const_cast<char*>(colon + 1) : nullptr;
}

extern "C" void setSupportedProtocolArray(int ProtocolValue)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    for (int i = 0; i < vx::kProtocolsUsed; ++i) {
        if (app->controlLink.supportedProtocolArray[i] == 0) {
            app->controlLink.supportedProtocolArray[i] = ProtocolValue;
            return;
        }
    }
}

extern "C" void updateANYAgentSupportedProtocolData(int activeagentMode)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    VXBCISetting_t& s = app->VXBCISetting;
    clear_protocol_list(app);
    if (activeagentMode == 3) {
        if (s.vxc_WSS_Port == 0) s.vxc_WSS_Port = vx::kDefaultVXCPort;
        setSupportedProtocolArray(3);
        vx::copy_text(app->controlLink.supportedProtocols,
                      sizeof app->controlLink.supportedProtocols, "WSS");
    } else if (activeagentMode == 1) {
        if (s.vxcPort == 0) s.vxcPort = vx::kDefaultTCPPort;
        setSupportedProtocolArray(1);
        vx::copy_text(app->controlLink.supportedProtocols,
                      sizeof app->controlLink.supportedProtocols, "TCP");
    }
}

extern "C" void upDateAgentSupportedProtocolData(char* spString)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !spString) return;
    /* The whole list is replaced, so a re-read never keeps protocols of an
     * earlier list in the later slots. */
    clear_protocol_list(app);
    char list[vx::kConfLineSize];
    vx::copy_text(list, sizeof list, spString);
    char* items[vx::kProtocolItemsMax];
    const int n = vxlb_get_tokens_with_multi_delimiter(list, items, const_cast<char*>(","),
                                                       vx::kProtocolItemsMax);
    char name[vx::kConfLineSize];
    size_t used = 0;
    for (int i = 0; i < n; ++i) {
        char* rest = split_key_value_colon(items[i], name);
        const int port = rest ? atoi(rest) : 0;
        if (strcmp(name, "TCP") == 0) {
            setSupportedProtocolArray(1);
            setVXC_TCP_Port(port);
        } else if (strcmp(name, "WS") == 0) {
            setSupportedProtocolArray(2);
            setVXC_WS_Port(port);
        } else if (strcmp(name, "WSS") == 0) {
            setSupportedProtocolArray(3);
            setVXC_WSS_Port(port);
        } else {
            continue;
        }
        const size_t room = sizeof app->controlLink.supportedProtocols - used;
        const int w =
            snprintf(app->controlLink.supportedProtocols + used, room, used ? ",%s" : "%s", name);
        if (w > 0)
            used = std::min(used + static_cast<size_t>(w),
                            sizeof app->controlLink.supportedProtocols - 1);
    }
}
