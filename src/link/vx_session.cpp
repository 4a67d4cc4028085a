#include "link/vx_session.h"

#include "core/vx_instance.h"
#include "flowpath/vx_method_table.h"
#include "flowpath/vx_per_thread_data.h"

namespace vx {

void session_start(int testIdx, long long klvEpochDiffTime)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    vxMethodTableInit();
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
    app->Server.gettingstopInstrumenatation = 0;
}

}  // namespace vx
