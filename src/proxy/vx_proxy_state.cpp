#include "proxy/vx_proxy_state.h"

#include <cstdlib>
#include <cstring>

#include "core/vx_limits.h"

VXProxy_t VXProxy;

extern "C" void initializeProxyStruct(void)
{
    VXProxy.proxyServerFlag = 0;
    VXProxy.proxyPort = 443;
    VXProxy.vxcPort = 0;
    VXProxy.numInstances = 0;
    VXProxy.numUdpInstances = 0;
    VXProxy.vxHomePath = nullptr;
    VXProxy.vxcHost = nullptr;
    auto* host = static_cast<char*>(calloc(1, vx::kPathSize));
    if (host) {
        strcpy(host, "127.0.0.1");
        VXProxy.proxyHost = host;
    }
}
