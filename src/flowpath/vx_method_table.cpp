#include "flowpath/vx_method_table.h"

#include <cstdlib>
#include <cstring>

#include "core/vx_hashmap.h"
#include "core/vx_instance.h"
#include "core/vx_thread.h"
#include "core/vx_trace_log.h"

extern "C" void vxMethodTableInit(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    VXMethodTable_t& t = app->methodTable;
    if (!t.methodEntryLock) t.methodEntryLock = vx::mutex_create(app->control_pool);
    vx::VXLockGuard guard(t.methodEntryLock);
    if (t.methodHashMapNode) return;
    auto* node = static_cast<node_t*>(calloc(1, sizeof(node_t)));
    auto* root = static_cast<methodPropProperties*>(calloc(1, sizeof(methodPropProperties)));
    if (!node || !root) {
        free(node);
        free(root);
        VX_ERROR("FLOWPATH", "Error in allocating method table");
        return;
    }
    node->ptr = create_hashmap(app->control_pool);
    root->methodName = strdup(kRootMethodName);
    if (t.methodIDGlobal < 1) t.methodIDGlobal = 1;
    root->methodId = t.methodIDGlobal++;
    root->instrumentationProp = 1;
    modify_hashmap(root->methodName, root, node->ptr);
    t.methodHashMapNode = node;
    t.DefaultMethod = root;
}

extern "C" void saveNodeAndIncrementMethodRefCount(VXPerThreadData_t* vxTD)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !vxTD) return;
    VXMethodTable_t& t = app->methodTable;
    vx::VXLockGuard guard(t.methodEntryLock);
    vxTD->hasMapNodePtr = t.methodHashMapNode;
    if (!t.methodHashMapNode) return;
    int count = ++t.methodHashMapNode->ref_count;
    if (count > 99)
        VX_TRACE(app->VXSys.fpTraceLevel, 4, "FLOWPATH",
                 "MethodHaspMap Reference count reached 100. [methodHashMapNode->ref_count = %d]",
                 count);
}

extern "C" void vxDecrementMethodRefCount(node_t* node)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !node) return;
    vx::VXLockGuard guard(app->methodTable.methodEntryLock);
    if (node->ref_count > 0) --node->ref_count;
}
