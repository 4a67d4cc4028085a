#include "link/vx_session.h"

#include "core/vx_hashmap.h"
#include "core/vx_instance.h"
#include "core/vx_thread.h"
#include "flowpath/vx_method_table.h"
#include "flowpath/vx_per_thread_data.h"

namespace vx {

void session_start(int testIdx, long long klvEpochDiffTime)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    /* What the start sequence and the keyword defaults will set. */
    app->VXBackendMonitor.maxIPCount = kDefaultMaxIPCount;
    app->VXBackendMonitor.backendIDCounter = 0;
    app->VXBCISetting.data_thread_running = 1;
    app->Server.testRunRunning = 1; /* so that the table's record 5 goes out */
    if (!app->methodTable.methodHashMapNode) setMethodHashMapNode(nullptr);
    if (!app->httpHashMapNode) {
        app->httpHashMapNode = create_hashmap(app->control_pool);
        app->httpEntryLock = vx::mutex_create(app->control_pool);
    }
    app->Server.TestRunIDValue = testIdx;
    app->Server.klvEpochDiffTime = klvEpochDiffTime;
    app->Server.gettingstopInstrumenatation = 0;
    app->Server.testRunRunning = 1;
}

void session_stop()
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    app->Server.gettingstopInstrumenatation = 1;
    dumpFpFromBusyList();
    app->Server.testRunRunning = 0;
    app->VXBCISetting.data_thread_running = 0;
    free_methodHashMapNode();
    app->Server.gettingstopInstrumenatation = 0;
}

}  // namespace vx
