#include "session/vx_control_dispatch.h"

#include <apr_time.h>
#include <strings.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "agent/vx_bci_setting.h"
#include "agent/vx_host_callbacks.h"
#include "agent/vx_instance.h"
#include "bt/vx_bt_object.h"
#include "core/vx_atomic.h"
#include "core/vx_host_call.h"
#include "core/vx_platform.h"
#include "core/vx_text.h"
#include "core/vx_trace_log.h"
#include "diag/vx_autosensor_thread.h"
#include "diag/vx_exception_capture.h"
#include "flowpath/vx_method_profile.h"
#include "flowpath/vx_method_table.h"
#include "http/vx_header_ids.h"
#include "link/vx_as_link.h"
#include "link/vx_collector_failover.h"
#include "link/vx_control_thread.h"
#include "link/vx_data_dispatcher.h"
#include "link/vx_data_thread.h"
#include "link/vx_discovery.h"
#include "link/vx_lws_transport.h"
#include "link/vx_socket.h"
#include "session/vx_file_keywords.h"
#include "session/vx_keywords.h"
#include "session/vx_metadata_replay.h"
#include "session/vx_session_data.h"

namespace {

constexpr char kCollectorHeartBeat[] = "vx_control_req:action=reconnect;";
constexpr char kStart[] = "vx_control_req:action=start_instrumentation";
constexpr char kMetaData[] = "vx_meta_data_req:action=send_meta_data;";
constexpr char kDiscover[] = "vxc_req:action=discover_loaded_classes";
constexpr char kStop[] = "vx_control_req:action=stop_instrumentation";
constexpr char kModify[] = "vx_control_req:action=modify";
constexpr char kReroute[] = "vx_control_req:action=reroute_ctrl_con";
constexpr char kDownload[] = "download_file_req";
constexpr char kUpload[] = "upload_file_req";
constexpr char kAutoInstr[] = "vx_meta_data_req:action=auto_instr_status;";
constexpr char kDynamicDiag[] = "Dynamic_Diagnostics_req:action=ai_status;";
constexpr char kThreadDump[] = "vx_meta_data_req:action=get_thread_dump;";
constexpr char kStructured[] = "VexlaneMessage 2.0;";
constexpr long long kDefaultEpochOrigin = 1388534400000LL; /* 2014-01-01 00:00:00 UTC */

/* The collector's origin of time, and its clock difference. */
void synchronise_time(Server_t& srv)
{
    if (srv.changeOriginalTime) {
        vx::store_relaxed(srv.klvEpochDiffTime,
                          vx::load_relaxed(srv.klvEpochDiffTime) - srv.diffTimeFromVXC);
        srv.originalKlvEpochDiffTime = vx::load_relaxed(srv.klvEpochDiffTime);
    } else {
        srv.originalKlvEpochDiffTime -= srv.diffTimeFromVXC;
    }
}

void handle_start(VXProxyInstance_t* app, char* clientMsg)
{
    Server_t& srv = app->Server;
    free(app->startInstMsg);
    app->startInstMsg = strdup(clientMsg);
    vx::store_release(srv.testRunRunning, 0);
    free_agent_data();
    makeInstrProfTableFree();
    vxlb_init_all_keywords();
    VXBTConfigModelInit();
    VXBackendMonitorInit();
    /* Header ids are made anew; httpid goes on, so the collector never sees
     * one id for two names. */
    free_HttpHashMapNode();
    exceptionMapInit();
    VXMethodMonitorInit();
    VXExceptionMonitorInit();
    resetMonitorDataModelFromTLS();
    transfer_data_callback(const_cast<char*>("AgentTraceLevel"), app->VXSys.agentTraceLevel, nullptr,
                           nullptr);
    srv.changeOriginalTime = 0;
    if (strstr(clientMsg, "klvEpochDiff")) {
        vx::store_relaxed(srv.klvEpochDiffTime, 0);
        srv.originalKlvEpochDiffTime = kDefaultEpochOrigin;
    }
    if (!strstr(clientMsg, "TimeStampDiff")) srv.diffTimeFromVXC = 0;
    findStatusFromClientMsg(clientMsg);
    if (vx::load_relaxed(app->VXSys.closeCtrlConFlag))
        return; /* a critical file is missing: no answer */
    hashMapForAgent();
    /* The keywords may have named the tier anew. */
    createVectorPrefix();
    createVectorPrefixBackend();
    /* A session without a profile still has a table: its root method. */
    if (!vx::load_acquire(app->methodTable.methodHashMapNode)) setMethodHashMapNode(nullptr);
    synchronise_time(srv);
    ++srv.numberOfTestRunsTillNow;
    vx::store_relaxed(srv.retryForDataConn, 1);
    vx::store_relaxed(srv.retryForAutoSensorConn, 1);
    setAllFlagAndCountVars();
    srv.InstrumentationBusy = 1;
    vx::call_host("test_status", test_status_func, 1);
    handleStartInstrumentationCase(clientMsg);
    sendResponseToVXC();
}

void handle_stop(VXProxyInstance_t* app, char* clientMsg)
{
    Server_t& srv = app->Server;
    if (app->processCount && app->startInstMsg) {
        free(app->startInstMsg);
        app->startInstMsg = nullptr;
    }
    vx::store_relaxed(srv.gettingstopInstrumenatation, 1);
    /* Minutes in 32 bits of microseconds, as the collector expects. */
    const unsigned int wait_us = static_cast<unsigned int>(srv.dumpremainingtstime) * 60u * 1000000u;
    if (wait_us) vx::wait_or_shutdown(wait_us);
    vx::store_relaxed(srv.gettingstopInstrumenatation, 0);
    findStatusFromClientMsg(clientMsg);
    --srv.numberOfTestRunsTillNow;
    handleStopInstrumentationCase(clientMsg);
    sendResponseOfStopInstrumentation();
    vx::call_host("ai_start", ai_start_callback_func, 0, 0, 0, static_cast<char*>(nullptr));
}

void handle_modify(VXProxyInstance_t* app, char* clientMsg)
{
    app->Server.isModifiedInstrProf = 0;
    makeInstrProfTableFree();
    if (!app->Server.InstrumentationBusy) {
        const char answer[] =
            "vx_control_rep:result=Error:<Unable to process modify message because of stop "
            "instrument recieved or startInstrument not recieved.\n";
        VX_ERROR("CONTROL_THREAD", "%s", answer);
        controlConnectionSendText(answer);
        return;
    }
    app->isRunTime = 1;
    handleRunTimeChangeCase(clientMsg);
    app->isRunTime = 0;
}

/* The collector moves this agent to another collector. The answer is the
 * closed connection; the control thread connects to the new target after
 * retry_policy.time_interval, with requestType 2. */
void handle_reroute(VXProxyInstance_t* app, char* clientMsg)
{
    Server_t& srv = app->Server;
    srv.requestType = 2;
    /* Where the agent came from, for the next request to report. */
    snprintf(srv.connDestination, sizeof srv.connDestination, "%s:%d",
             getVXHost() ? getVXHost() : "", getVXCPort());
    resetVXCHostAndPort();
    const bool target = parseReRouteMessageAndUpdateClientInfo(clientMsg) == 0;
    if (srv.isClusterMode) {
        if (target) vx_collector_take_reroute_target();
    } else {
        updateVXSettingFile();
    }
    srv.connDuration = my_gettimeofday() - vx::load_relaxed(srv.lastConnectionTime);
    if (srv.InstrumentationBusy) handleStoppingCaseAtStopInstrumentCase();
    srv.numberOfTestRunsTillNow = 0;
    /* After the session's flags fell: the data thread reads the active entry
     * only when it connects during a session. */
    if (!srv.isClusterMode && target) vx_collector_take_reroute_target();
    closeCurrentControlConnection();
    setAllFlagAndCountVars();
    VX_TRACE(app->VXSys.controlTraceLevel, 1, "CONTROL_THREAD", "Rerouting operation completed.");
}

void handle_meta_data(VXProxyInstance_t* app, char* clientMsg)
{
    if (!vx::load_relaxed(app->Server.testRunRunning)) {
        controlConnectionSendText("vx_meta_data_rep:action=send_meta_data;result=Error :<No test running.>\n");
        return;
    }
    processClientMessage(clientMsg);
    controlConnectionSendText("vx_meta_data_rep:status=complete;\n");
}

}  // namespace

extern "C" void handleReceivedClientMessageFromVXCollector(char* clientMsg)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !clientMsg) return;
    app->controlLink.heartbeat_count = 0;
    vx::store_relaxed(app->Server.lastHeartBeatRcvTime, my_gettimeofday());
    VX_TRACE(app->VXSys.controlTraceLevel, 1, "CONTROL_THREAD", "Message from VXC: %.300s", clientMsg);
    if (vx::starts_with(clientMsg, kStart)) {
        handle_start(app, clientMsg);
    } else if (vx::starts_with(clientMsg, kCollectorHeartBeat)) {
        handleCollectorHeartBeat(clientMsg);
    } else if (vx::starts_with(clientMsg, kMetaData)) {
        handle_meta_data(app, clientMsg);
    } else if (vx::starts_with(clientMsg, kStop)) {
        handle_stop(app, clientMsg);
    } else if (vx::starts_with(clientMsg, kModify)) {
        handle_modify(app, clientMsg);
    } else if (vx::starts_with(clientMsg, kReroute)) {
        handle_reroute(app, clientMsg);
    } else if (vx::starts_with(clientMsg, kDiscover)) {
        if (vx_in_proxy_process()) {
            /* STAND-IN(proxy-registry): a proxy server hands the request to
             * its first agent process once it keeps a registry of them. */
            VX_TRACE(app->VXSys.controlTraceLevel, 1, "CONTROL_THREAD",
                     "Discovery request not handed on: %.100s", clientMsg);
            return;
        }
        startLoadedClassDiscovery(clientMsg);
    } else if (vx::starts_with(clientMsg, kDownload) || vx::starts_with(clientMsg, kUpload) ||
               vx::starts_with(clientMsg, kAutoInstr) || vx::starts_with(clientMsg, kDynamicDiag) ||
               vx::starts_with(clientMsg, kThreadDump) || vx::starts_with(clientMsg, kStructured)) {
        /* STAND-IN(file-transfer, auto-instrumentation, dynamic-diagnostics, structured-messages):
         * these commands are recognised and ignored until they are built. */
        VX_TRACE(app->VXSys.controlTraceLevel, 1, "CONTROL_THREAD", "Command not supported yet: %.100s",
                 clientMsg);
    }
}

extern "C" void setAllFlagAndCountVars(void)
{
    VXProxyInstance_t* app = vx_app();
    vx::store_relaxed(app->VXSys.discardCount, 0);
    vx::store_relaxed(app->VXSys.vxcBciDataConnectionHeartBeat, vx::kDataHeartBeatTicks);
    app->Server.InstrumentationBusy = 0;
    app->Server.instrProfBytesWritten = 0;
}

extern "C" void handleStartInstrumentationCase(char*)
{
    VXProxyInstance_t* app = vx_app();
    app->Server.isRuntimeApplied = 0;
    if (!vx_in_proxy_process() &&
        (vx::load_relaxed(app->VXSys.closeCtrlConFlag) == 1 || vx::load_relaxed(closeCtrlThread)))
        return;
    /* Host threads write records the moment the flag is up: the buffers
     * and their locks of both channels are made first, and the release
     * publishes them. */
    vx::prepare_data_channel();
    VXAutoSensorUsingStackTraceInit();
    vx::store_release(app->Server.testRunRunning, 1);
    check_data_thread();
    create_autoSensor_thread();
    /* STAND-IN(log-forwarder): the log thread starts here once it exists. */
}

extern "C" void handleStoppingCaseAtStopInstrumentCase(void)
{
    VXProxyInstance_t* app = vx_app();
    dumpVxDataOverRecord();
    setToStopThread(1); /* the auto-sensor thread flushes and ends */
    vx::call_host("test_status", test_status_func, 0);
    vx::store_release(app->Server.testRunRunning, 0);
    vx::store_relaxed(app->Server.retryForDataConn, 0);
    vx::store_relaxed(app->Server.retryForAutoSensorConn, 0);
    vx::store_relaxed(app->Server.controlCommunicationBusyFlag, 0);
    app->Server.InstrumentationBusy = 0;
}

extern "C" void handleStopInstrumentationCase(char*)
{
    const char* status = vx_app()->Server.statusValue;
    if (strncasecmp(status, "running", 7) == 0 || strncasecmp(status, "stopping", 8) == 0)
        handleStoppingCaseAtStopInstrumentCase();
}

extern "C" void sendResponseToVXC(void)
{
    Server_t& srv = vx_app()->Server;
    char answer[2 * vx::kMetaRecordSize];
    const char head[] = "vx_control_rep:action=start_instrumentation";
    int n;
    if (srv.startInstrRespBuffer[0])
        n = snprintf(answer, sizeof answer, "%s;status=starting;result=Ok;\n%s\n", head,
                     srv.startInstrRespBuffer);
    else
        n = snprintf(answer, sizeof answer, "%s;status=starting;result=Ok;\n", head);
    if (n > vx::kMetaRecordSize - 1) n = vx::kMetaRecordSize - 1; /* cut to 1023 bytes */
    controlConnectionSendBuffer(answer, n);
}

extern "C" void sendResponseOfStopInstrumentation(void)
{
    controlConnectionSendText("vx_control_rep:action=stop_instrumentation;status=stopping;result=Ok;\n");
}

