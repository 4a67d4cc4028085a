#include "link/vx_data_thread.h"

#include <apr_network_io.h>
#include <apr_time.h>

#include <cstring>

#include "agent/vx_instance.h"
#include "agent/vx_request_lines.h"
#include "agent/vx_settings.h"
#include "core/vx_atomic.h"
#include "core/vx_platform.h"
#include "core/vx_record_door.h"
#include "core/vx_text.h"
#include "core/vx_thread.h"
#include "core/vx_trace_log.h"
#include "link/vx_data_buffers.h"
#include "link/vx_data_dispatcher.h"
#include "link/vx_lws_transport.h"
#include "link/vx_socket.h"

/* Serialises the reading of raw files between the data thread and others. */
apr_thread_mutex_t* read_raw_file = nullptr;

namespace {

thread_local apr_thread_t* tl_data_thread = nullptr;

constexpr int kDataSendTimeoutSeconds = 5;

void sleep_ms(long long ms) { apr_sleep(apr_time_from_msec(ms)); }

/* The records that open a connection to the collector. */
void dump_opening_records(VXProxyInstance_t* app)
{
    if (vx_agent_behind_proxy(app)) return; /* the proxy writes its own */
    /* What the last connection left unsent belongs ahead of record 99;
     * what was written since waits behind the opening's declarations. */
    if (sendDataLeftovers() != 0) return; /* broken: the loop finds it */
    vx::DataOpening opening;
    /* Lowered when the last connection closed: metadata may go to this one. */
    vx::store_relaxed(app->Server.controlCommunicationBusyFlag, 1);
    dumpNewConnectionRecord();
    vx::data_hooks_run(vx::DataHook::kConnected);
    if (app->VXSys.enableTagsSupport) {
        tag_record();
        attr_record();
    }
}

/* Serve one data connection: drain, beat, publish; returns when it broke. */
void run_connection(VXProxyInstance_t* app)
{
    for (;;) {
        checkAndStopThread();
        int rv;
        while ((rv = dataConnService()) == 1 && vx::load_relaxed(app->VXSys.dataConnState)) {
            sleep_ms(vx::kDataLoopTickMs);
            handleHeartBeat();
        }
        if (rv == -1 || vx::load_relaxed(app->VXSys.dataConnState) == 0) {
            VX_ERROR("DATA_THREAD",
                     "dataConnectionBreak Data due to vxApplication->VXSys.dataConnState == 0 ");
            close_data_connection();
            return;
        }
        sleep_ms(vx::kDataLoopTickMs);
        if (vx::load_relaxed(app->VXSys.retryFlag) ||
            vx::load_relaxed(app->VXSys.closeCtrlConFlag)) {
            VX_ERROR("DATA_THREAD",
                     "dataConnectionBreak Going to close data connection and stop Data thread.");
            clean_data_thread();
        }
        movePartialToReadList();
        handleHeartBeat();
    }
}

}  // namespace

extern "C" int create_data_conn(char* error_buf, int error_buf_len)
{
    VXProxyInstance_t* app = vx_app();
    char* host = nullptr;
    int port = 0;
    vx::channel_peer(app, &host, &port);
    if (!host) {
        vx::copy_text(error_buf, static_cast<size_t>(error_buf_len), "no collector address");
        return -1;
    }
    if (app->lws_active == 1)
        return create_lws_data_connection(host, port, error_buf, error_buf_len) ? 0 : -1;
    if (!app->dataChannel.dataConnPool && apr_pool_create(&app->dataChannel.dataConnPool, app->dataChannel.data_pool) != APR_SUCCESS) {
        vx::copy_text(error_buf, static_cast<size_t>(error_buf_len), "no memory pool");
        return -1;
    }
    /* Other threads look at the socket (flushCommonData): atomic stores. */
    vx::store_relaxed(app->dataChannel.dataSkt.skt,
                      vxlb_create_client_con(host, port, error_buf, error_buf_len,
                                             app->dataChannel.dataConnPool));
    return app->dataChannel.dataSkt.skt ? 0 : -1;
}

extern "C" void get_data_ip_and_port(void)
{
    VXProxyInstance_t* app = vx_app();
    vx::channel_addresses(app, app->dataChannel.dataSkt);
}

extern "C" bool send_data_con_req_msg_to_vxc(void)
{
    VXProxyInstance_t* app = vx_app();
    setControlDataReqMessage();
    VXBCISetting_t& s = app->VXBCISetting;
    if (app->lws_active == 1)
        return send_data_via_lws_socket(s.controlDataReqMessage, s.controlDataReqMessage_len) < 0;
    char err[256] = "";
    if (vxlb_send_n_bytes(app->dataChannel.dataSkt.skt, s.controlDataReqMessage, s.controlDataReqMessage_len,
                          err, sizeof err) == -2) {
        VX_ERROR("DATA_THREAD", "Unable to send control req message. Going to closing connection");
        return true;
    }
    vxlb_send_n_bytes(app->dataChannel.dataSkt.skt, const_cast<char*>("\n"), 1, err, sizeof err);
    return false;
}

bool vx::on_data_thread() { return tl_data_thread != nullptr; }

extern "C" int checkAndStopThread(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!vx::on_data_thread()) return 0;
    const Server_t& srv = app->Server;
    if (vx::load_relaxed(srv.testRunRunning) && vx::load_relaxed(srv.retryForDataConn) &&
        !vx::load_relaxed(app->VXSys.closeCtrlConFlag))
        return 0;
    /* The stop flushes, and the flush sends through processData, which asks
     * here again: the first caller finishes the stop. */
    static thread_local bool stopping = false;
    if (stopping) return 0;
    stopping = true;
    VX_ERROR("DATA_THREAD", "BCI Data thread is to be stopped. Server.isTenRecordDump = %d.",
             vx::load_relaxed(srv.isTenRecordDump));
    vx::data_hooks_run(vx::DataHook::kStopping);
    if (!vx::load_relaxed(srv.isTenRecordDump)) dumpVxDataOverRecord();
    flushCommonData();
    vx::data_hooks_run(vx::DataHook::kSessionFree);
    stopping = false;
    clean_data_thread();
    return 1;
}

extern "C" void close_data_connection(void)
{
    VXProxyInstance_t* app = vx_app();
    void* wsi = app->dataChannel.dataSkt.lws_handler.wsi;
    vx::store_relaxed(app->dataChannel.dataSkt.lws_handler.wsi, static_cast<void*>(nullptr));
    vx::store_relaxed(app->Server.controlCommunicationBusyFlag, 0);
    if (app->dataChannel.dataSkt.skt && vx::on_data_thread()) markDataLeftovers();
    if (apr_socket_t* skt = app->dataChannel.dataSkt.skt) {
        vx::store_relaxed(app->dataChannel.dataSkt.skt, static_cast<apr_socket_t*>(nullptr));
        apr_socket_close(skt);
    }
    if (app->dataChannel.dataConnPool) {
        apr_pool_destroy(app->dataChannel.dataConnPool);
        app->dataChannel.dataConnPool = nullptr;
    }
    if (wsi) kill_lws_connection(wsi);
}

namespace {
/* Out of line: apr_thread_exit unwinds without returning, and under
 * AddressSanitizer the atomic accessors' stack slots must not be in the
 * frame it abandons. */
[[gnu::noinline]] void mark_ended(VXProxyInstance_t* app)
{
    vx::store_relaxed(app->VXBCISetting.data_thread_running, 0);
}
}  // namespace

extern "C" void clean_data_thread(void)
{
    VXProxyInstance_t* app = vx_app();
    close_data_connection();
    VX_TRACE(app->VXSys.controlTraceLevel, 1, "DATA_THREAD", "Data thread ends");
    mark_ended(app);
    apr_thread_exit(tl_data_thread, APR_SUCCESS);
}

int vx::prepare_data_channel()
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return 1;
    if (!app->dataChannel.data_pool &&
        apr_pool_create(&app->dataChannel.data_pool, app->control_pool) != APR_SUCCESS) {
        VX_ERROR("DATA_THREAD", "Error while preparing the data channel. Error = %s",
                 "no memory pool");
        return 1;
    }
    if (!app->dataChannel.bufferWriteLock)
        app->dataChannel.bufferWriteLock = vx::mutex_create(app->dataChannel.data_pool);
    if (!app->dataChannel.bufferMoveLock)
        app->dataChannel.bufferMoveLock = vx::mutex_create(app->dataChannel.data_pool);
    if (!read_raw_file) read_raw_file = vx::mutex_create(app->control_pool);
    if (buff_list_init() != 0) {
        VX_ERROR("DATA_THREAD", "Error in buff_list_init");
        return 1;
    }
    return 0;
}

extern "C" int check_data_thread(void)
{
    VXProxyInstance_t* app = vx_app();
    /* At once when the session start made it; without buffers no thread
     * starts, and the next session start tries again. */
    if (vx::prepare_data_channel() != 0) return 1;
    VX_TRACE(app->VXSys.controlTraceLevel, 1, "DATA_THREAD", "Creating Data thread for  '%s'",
             app->agentName ? app->agentName : "");
    if (vx::load_relaxed(app->VXBCISetting.data_thread_running)) {
        VX_ERROR("DATA_THREAD", "Data thread already exist.");
        return 1;
    }
    if (!app->dataChannel.data_pool) {
        VX_ERROR("DATA_THREAD", "Error while creating data thread. Error = %s", "no memory pool");
        return 1;
    }
    char err[256] = "";
    /* Raised before the thread runs: its first connection replays metadata,
     * which goes to the data connection only while this flag is up. */
    vx::store_relaxed(app->Server.controlCommunicationBusyFlag, 1);
    if (vx::start_detached(&app->dataChannel.data_thread_id, start_data_thread, app,
                           app->dataChannel.data_pool, app->VXBCISetting.data_thread_running, err,
                           sizeof err) != 0) {
        vx::store_relaxed(app->Server.controlCommunicationBusyFlag, 0);
        VX_ERROR("DATA_THREAD", "Error while creating data thread. Error = %s", err);
        return 1;
    }
    return 0;
}

extern "C" void* APR_THREAD_FUNC start_data_thread(apr_thread_t* thread, void* data)
{
    auto* app = static_cast<VXProxyInstance_t*>(data);
    vx_set_thread_instance(app);
    tl_data_thread = thread;
    /* VX_DATA_RETRY_MS shortens the wait for tests and the demo. */
    const int retry_ms = vx::env_ms("VX_DATA_RETRY_MS", vx::kDataRetrySeconds * 1000, 50,
                                    vx::kDataRetrySeconds * 1000);
    for (;;) {
        vx::store_relaxed(app->VXSys.dataConnState, 0);
        if (app->dataChannel.dataSkt.skt || app->dataChannel.dataSkt.lws_handler.wsi) close_data_connection();
        if (vx::control_closing(app)) clean_data_thread();

        char err[256] = "";
        if (create_data_conn(err, sizeof err) == 0) {
            if (vx::control_closing(app)) clean_data_thread();
            get_data_ip_and_port();
            if (app->dataChannel.dataSkt.skt) {
                apr_socket_opt_set(app->dataChannel.dataSkt.skt, APR_SO_NONBLOCK, 0);
                /* Blocking, but a collector that stops reading cannot hold
                 * the thread: a send gives up after a while, nothing sent. */
                apr_socket_timeout_set(app->dataChannel.dataSkt.skt, apr_time_from_sec(kDataSendTimeoutSeconds));
            }
            if (send_data_con_req_msg_to_vxc()) {
                VX_ERROR("DATA_THREAD",
                         "dataConnectionBreak due to send_data_con_req_msg_to_vxc() == FAIL ");
                close_data_connection();
                continue;
            }
            vx::store_relaxed(app->VXSys.dataConnState, 1);
            VX_TRACE(app->VXSys.controlTraceLevel, 1, "DATA_THREAD",
                     "Data connection open %s:%d -> %s:%d", app->dataChannel.dataSkt.sourceIp,
                     app->dataChannel.dataSkt.srcPort, app->dataChannel.dataSkt.dstIp, app->dataChannel.dataSkt.dstPort);
            dump_opening_records(app);
            run_connection(app);
        } else {
            char* host;
            int port;
            vx::channel_peer(app, &host, &port);
            VX_ERROR("DATA_THREAD", "Error while creating the data connection with %s:%d. Error %s\n",
                     host ? host : "", port, err);
        }
        checkAndStopThread();
        VX_ERROR("DATA_THREAD", "Going to retry data connection after 60 sec.");
        apr_sleep(apr_time_from_msec(retry_ms));
    }
    return nullptr;
}
