#include "agent/vx_instance.h"

#include "core/vx_atomic.h"

VXProxyInstance_t* VXProxyInstance = nullptr;
VXProxyInstance_t* VXProxyUdpInstance = nullptr;
VXProxyInstance_t* tlvxApplication = nullptr;
char gPool[vx::kNameSize];
char gProcessName[vx::kNameSize];
char* pool_name = nullptr;
char* proc_name = nullptr;
apr_pool_t* proxy_pool = nullptr;
char conf_file[vx::kPathSize];
int closeCtrlThread = 0;
int active_vxc_idx = 0;

namespace vx {
thread_local VXProxyInstance_t* tl_instance = nullptr;
}

extern "C" int vx_thread_stack_kib(void)
{
    VXProxyInstance_t* app = vx_app();
    return app ? app->VXBCISetting.stackSize : 0;
}
