#include "session/vx_session.h"

#include "agent/vx_instance.h"
#include "core/vx_atomic.h"
#include "core/vx_hashmap.h"
#include "core/vx_text.h"
#include "core/vx_thread.h"
#include "diag/vx_autosensor_thread.h"
#include "diag/vx_sql_processor.h"
#include "flowpath/vx_method_profile.h"
#include "flowpath/vx_method_table.h"
#include "http/vx_header_ids.h"
#include "flowpath/vx_per_thread_data.h"
#include "link/vx_data_dispatcher.h"
#include "link/vx_data_thread.h"
#include "session/vx_session_data.h"

namespace vx {

namespace {
SessionData g_mode = SessionData::kTapOnly;
}

void session_start(int testIdx, long long klvEpochDiffTime, SessionData data)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    vx::session_register_hooks();
    g_mode = data;
    /* What the start sequence and the keyword defaults will set. */
    app->VXBackendMonitor.maxIPCount = kDefaultMaxIPCount;
    app->VXBackendMonitor.backendIDCounter = 0;
    vx::copy_text(app->Server.fpgVID, sizeof app->Server.fpgVID, "1.0");
    vx::store_relaxed(app->Server.isTenRecordDump, 0);
    vx::store_relaxed(app->VXSys.retryFlag, 0); /* a lost connection's marks do not outlive it */
    vx::store_relaxed(app->VXSys.closeCtrlConFlag, 0);
    vx::store_relaxed(app->VXSys.dataConnState, 1);
    vx::store_relaxed(app->VXSys.discardCount, 0);
    vx::store_relaxed(app->VXSys.vxcBciDataConnectionHeartBeat, kDataHeartBeatTicks);
    VXSQLProcessorInit(); /* the fixed queries go out again, ids from 6 */
    if (data == SessionData::kTapOnly) vx::store_relaxed(app->VXBCISetting.data_thread_running, 1);
    /* What records need is made before the flag rises (see
     * prepare_data_channel). */
    if (data == SessionData::kDataThread) vx::prepare_data_channel();
    vx::store_release(app->Server.testRunRunning, 1); /* so that the table's record 5 goes out */
    if (!vx::load_acquire(app->methodTable.methodHashMapNode)) setMethodHashMapNode(nullptr);
    initHttpHashMapNode();
    vx::store_relaxed(app->Server.TestRunIDValue, testIdx);
    vx::store_relaxed(app->Server.klvEpochDiffTime, klvEpochDiffTime);
    vx::store_relaxed(app->Server.gettingstopInstrumenatation, 0);
    vx::store_relaxed(app->Server.retryForDataConn, 1);
    vx::store_relaxed(app->Server.retryForAutoSensorConn, 1);
    app->Server.InstrumentationBusy = 1;
    vx::store_release(app->Server.testRunRunning, 1);
    if (data == SessionData::kDataThread) check_data_thread();
}

void session_stop()
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    if (g_mode == SessionData::kDataThread) {
        dumpVxDataOverRecord();
        setToStopThread(1);
        vx::store_release(app->Server.testRunRunning, 0);
        vx::store_relaxed(app->Server.retryForDataConn, 0);
        vx::store_relaxed(app->Server.retryForAutoSensorConn, 0);
        vx::store_relaxed(app->Server.controlCommunicationBusyFlag, 0);
        app->Server.InstrumentationBusy = 0;
        return;
    }
    vx::store_relaxed(app->Server.gettingstopInstrumenatation, 1);
    dumpFpFromBusyList();
    vx::store_release(app->Server.testRunRunning, 0);
    vx::store_relaxed(app->Server.retryForDataConn, 0);
    app->Server.InstrumentationBusy = 0;
    vx::store_relaxed(app->VXBCISetting.data_thread_running, 0);
    free_methodHashMapNode();
    vx::store_relaxed(app->Server.gettingstopInstrumenatation, 0);
}

}  // namespace vx
