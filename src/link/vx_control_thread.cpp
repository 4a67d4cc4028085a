#include "link/vx_control_thread.h"

#include <apr_network_io.h>
#include <apr_time.h>

#include <cstdio>
#include <cstring>

#include "agent/vx_bci_setting.h"
#include "agent/vx_instance.h"
#include "agent/vx_collector_servers.h"
#include "agent/vx_request_lines.h"
#include "agent/vx_settings.h"
#include "core/vx_atomic.h"
#include "core/vx_platform.h"
#include "core/vx_text.h"
#include "core/vx_trace_log.h"
#include "link/vx_collector_failover.h"
#include "link/vx_control_reply.h"
#include "link/vx_control_stream.h"
#include "link/vx_lws_transport.h"

namespace {

/* Reads and sends on the control socket give up after this long, so that a
 * collector that accepts and then says nothing cannot hold the thread. */
constexpr int kControlIoTimeoutSeconds = 30;
constexpr apr_interval_time_t kWaitSlice = 100000; /* 100 ms */

}  // namespace

bool vx::wait_or_shutdown(apr_interval_time_t us)
{
    for (apr_interval_time_t waited = 0; waited < us; waited += kWaitSlice) {
        if (vx::load_relaxed(closeCtrlThread)) return true;
        apr_sleep(us - waited < kWaitSlice ? us - waited : kWaitSlice);
    }
    return vx::load_relaxed(closeCtrlThread) != 0;
}

namespace {

/* Out of line: apr_thread_exit unwinds without returning, and under
 * AddressSanitizer the atomic accessors' stack slots must not be in the
 * frame it abandons. */
[[gnu::noinline]] void mark_ended(VXProxyInstance_t* app)
{
    vx::store_relaxed(app->controlLink.control_thread_running, 0);
    /* Last, with release: agent_shutdown waits for this (see there). */
    vx::store_release(closeCtrlThread, 0);
}

[[noreturn]] void end_thread(apr_thread_t* thread)
{
    VXProxyInstance_t* app = vx_app();
    VX_TRACE(app->VXSys.controlTraceLevel, 1, "CONTROL_THREAD", "Control thread ends");
    mark_ended(app);
    apr_thread_exit(thread, APR_SUCCESS);
    __builtin_unreachable();
}

/* Where the connect loop connects now. */
void pick_target(VXProxyInstance_t* app, char** host, int* port)
{
    if (vx_agent_behind_proxy(app)) {
        *host = app->VXSys.proxyIP;
        *port = app->VXSys.proxyPort;
        return;
    }
    if (app->Server.isClusterMode && app->VXBCISetting.isEnableEnvVar != 1) {
        active_vxc_idx = app->controlLink.connectionStatus ? 0 : 1;
        app->controlLink.isMasterVxc = app->controlLink.connectionStatus ? 1 : 0;
    } else if (app->controlLink.is_switch_over) {
        app->controlLink.is_switch_over = 0;
        if (vxc_servers_t* cur = get_active_vxc()) cur->state = 0;
        const vxc_servers_t* backup =
            app->controlLink.server_arr_size > 1 ? &app->controlLink.vxc_server_arr[1] : nullptr;
        if (app->controlLink.isMasterVxc && backup && backup->vxc_host && backup->vxc_port) {
            active_vxc_idx = 1;
            app->controlLink.isMasterVxc = 0;
            VX_TRACE(app->VXSys.controlTraceLevel, 1, "CONTROL_THREAD",
                     "[VX DR FEATURE]Active. Switched to Backup VXC");
        } else if (app->controlLink.isMasterVxc) {
            active_vxc_idx = 0;
            VX_TRACE(app->VXSys.controlTraceLevel, 1, "CONTROL_THREAD",
                     "[VX DR FEATURE]Active. Backup VXC Host/Port not provided in configurtion file.");
            VX_TRACE(app->VXSys.controlTraceLevel, 1, "CONTROL_THREAD",
                     "[VX DR FEATURE]Active. Switching again on Master VXC");
        } else {
            active_vxc_idx = 0;
            app->controlLink.isMasterVxc = 1;
        }
    } else {
        app->controlLink.isMasterVxc = 1;
    }
    app->controlLink.active_vxc = get_active_vxc();
    *host = app->controlLink.active_vxc ? app->controlLink.active_vxc->vxc_host : nullptr;
    *port = app->controlLink.active_vxc ? static_cast<int>(app->controlLink.active_vxc->vxc_port) : 0;
    if (app->controlLink.active_vxc) app->controlLink.active_vxc->state = 1;
}

/* Start of the thread: transport, defaults and the configuration. False when
 * no configuration can be read. */
bool prepare(VXProxyInstance_t* app)
{
    if (!vx_agent_behind_proxy(app)) {
        app->controlLink.ActiveAgentProtocolIndex = 3;
        app->lws_active = 1;
    }
    vx::store_relaxed(app->Server.lastHeartBeatRcvTime, my_gettimeofday());
    init_vxc_server_config();
    app->controlLink.isMasterVxc = 0;
    app->controlLink.connectionStatus = 0;
    if (app->VXSys.proxyMode == 0 && app->Server.isClusterMode == 0) clear_vxc_server_setting();
    if (read_env_var() != 0 && read_conf_file() != 0) {
        VX_ERROR("CONTROL_THREAD",
                 "No collector configured (environment or vxsettings.conf); running without one");
        return false;
    }
    app->controlLink.retry_policy.count = 0;
    if (app->controlLink.ActiveAgentProtocolIndex == 1) app->lws_active = 0;
    if (app->Server.requestType == 0) app->Server.requestType = 1;
    return controlSockBufInit() == 0;
}

/* What the connect loop does after one target was tried. */
enum class Next {
    kLeave,   /* leave the inner level: failover may move to another entry */
    kRestart, /* back to the top of the inner level at once */
    kRetry,   /* count the retries on this target, wait, try again */
};

/* One connection: its pool, and its clean-up on every way out. */
class ConnectionScope {
public:
    explicit ConnectionScope(VXProxyInstance_t* app) { apr_pool_create(&pool_, app->control_pool); }
    ~ConnectionScope() { close(); }
    ConnectionScope(const ConnectionScope&) = delete;
    ConnectionScope& operator=(const ConnectionScope&) = delete;

    apr_pool_t* pool() const { return pool_; }
    void close()
    {
        if (!pool_) return;
        control_connection_cleanup();
        apr_pool_destroy(pool_);
        pool_ = nullptr;
    }

private:
    apr_pool_t* pool_ = nullptr;
};

/* Connect to one target, register and serve until the connection ends. */
Next serve_target(VXProxyInstance_t* app, apr_thread_t* thread, char* host, int port)
{
    retryPolicy_t& policy = app->controlLink.retry_policy;
    controlSocketBuffer_t* buf = &app->controlLink.ctrlBufInfo;
    ConnectionScope conn(app);
    char err[256] = "";
    if (create_control_conn(app, host, port, err, sizeof err, conn.pool()) != 0) {
        vx::store_relaxed(app->VXSys.closeCtrlConFlag, 1);
        if (vx_agent_behind_proxy(app))
            VX_ERROR("CONTROL_THREAD",
                     "Socket was not created and retry after 60seconds with server(Proxy) %s:%d.",
                     host ? host : "", port);
        else
            VX_ERROR("CONTROL_THREAD",
                     "[VX DR Feature]; Socket was not created and retry after 60seconds. vxcHost = "
                     "'%s', vxcPort = '%d' . Error : '%s'.",
                     host ? host : "", port, err);
        conn.close();
        if (vx::wait_or_shutdown(policy.time_interval)) end_thread(thread);
        ++policy.count;
        return Next::kRetry;
    }
    app->controlLink.connectionStatus = 0;
    if (app->lws_active != 1) get_ip_and_port();
    VX_TRACE(app->VXSys.controlTraceLevel, 1, "CONTROL_THREAD", "Control connection open %s:%d -> %s:%d",
             app->controlLink.control.sourceIp, app->controlLink.control.srcPort, app->controlLink.control.dstIp, app->controlLink.control.dstPort);
    if (vx::load_relaxed(closeCtrlThread)) {
        conn.close();
        end_thread(thread);
    }
    if (send_control_con_req_msg_to_vxc()) {
        conn.close();
        if (app->controlLink.isMasterVxc) app->controlLink.connectionStatus = 1;
        VX_ERROR("CONTROL_THREAD", "Control connection was closed");
        if (vx::wait_or_shutdown(policy.time_interval)) end_thread(thread);
        return Next::kLeave;
    }
    if (app->lws_active == 1) get_ip_and_port();
    snprintf(app->Server.connDestination, sizeof app->Server.connDestination, "%s:%d",
             getVXHost() ? getVXHost() : "", getVXCPort());
    vx::store_relaxed(app->Server.lastConnectionTime, my_gettimeofday());
    controlSockBufReset(buf);

    switch (rec_control_con_rep_msg_from_vxc_wrapper(buf)) {
        case kReplyDrop:
            VX_ERROR("CONTROL_THREAD", "Unexpected response received | Response = %.1024s",
                     buf->read_socket_buf);
            if (!app->controlLink.is_switch_over) return Next::kLeave;
            VX_ERROR("CONTROL_THREAD",
                     "[VX DR Feature]; Received DR status 0. Going to close the control connection "
                     "from Master VX Collector %s:%d and the source %s:%d",
                     app->controlLink.control.dstIp, app->controlLink.control.dstPort, app->controlLink.control.sourceIp,
                     app->controlLink.control.srcPort);
            vx::store_relaxed(app->VXSys.closeCtrlConFlag, 1);
            return Next::kRestart;
        case kReplySwitchProtocol:
            setConnectionChannel();
            VX_TRACE(app->VXSys.controlTraceLevel, 1, "CONTROL_THREAD", "Changing protocol");
            return Next::kRestart;
        default:
            break;
    }

    vx::store_relaxed(app->Server.lastHeartBeatRcvTime, my_gettimeofday());
    vx::store_relaxed(app->controlLink.ctrlServing, 1);
    if (handle_msg_from_vxc_wrapper(buf) == 1) {
        VX_ERROR("CONTROL_THREAD",
                 "[VX DR Feature]; Exit from select call and going to close the control connection "
                 "from VX Collector %s:%d and the source %s:%d",
                 app->controlLink.control.dstIp, app->controlLink.control.dstPort, app->controlLink.control.sourceIp,
                 app->controlLink.control.srcPort);
        vx::store_relaxed(app->VXSys.closeCtrlConFlag, 1);
        conn.close();
        /* STAND-IN(udp): close_udp_thread also ends the
         * proxy's UDP side here once it exists. */
        if (app->close_udp_thread || vx::load_relaxed(closeCtrlThread)) end_thread(thread);
        if (vx::wait_or_shutdown(policy.time_interval)) end_thread(thread);
        return Next::kRestart;
    }
    if (app->close_udp_thread) {
        vx::store_relaxed(app->VXSys.closeCtrlConFlag, 1);
        conn.close();
        VX_ERROR("CONTROL_THREAD",
                 "controlBreak Control Socket was cleaned with %s:%d server due to  UDP timeout ",
                 app->controlLink.control.dstIp, app->controlLink.control.dstPort);
        end_thread(thread);
    }
    if (vx::load_relaxed(closeCtrlThread)) {
        conn.close();
        end_thread(thread);
    }
    return Next::kRetry;
}

}  // namespace

extern "C" int create_control_conn(VXProxyInstance_t* app, char* host, int port, char* error_buf,
                                   int error_buf_len, apr_pool_t* pool)
{
    app->methodTable.methodIDGlobal = 1;
    app->totalElapsedTime = my_gettimeofday();
    if (!host) {
        vx::copy_text(error_buf, static_cast<size_t>(error_buf_len), "no collector address");
        return -1;
    }
    if (app->lws_active == 1)
        return create_lws_control_connection(host, port, error_buf, error_buf_len) ? 0 : -1;
    app->controlLink.control.skt = vxlb_create_client_con(host, port, error_buf, error_buf_len, pool);
    if (!app->controlLink.control.skt) return -1;
    apr_socket_timeout_set(app->controlLink.control.skt, apr_time_from_sec(kControlIoTimeoutSeconds));
    return 0;
}

extern "C" bool send_control_con_req_msg_to_vxc(void)
{
    VXProxyInstance_t* app = vx_app();
    setControlConnectionReqMessage();
    VXBCISetting_t& s = app->VXBCISetting;
    VX_TRACE(app->VXSys.controlTraceLevel, 1, "CONTROL_THREAD", "Request: %s",
             s.controlConnectionReqMessage);
    if (app->lws_active == 1)
        return send_control_data_via_lws_socket(s.controlConnectionReqMessage,
                                                s.controlConnectionReqMessage_len) < 0;
    if (!app->controlLink.control.skt) return true;
    char err[256] = "";
    return vxlb_send_n_bytes(app->controlLink.control.skt, s.controlConnectionReqMessage,
                             s.controlConnectionReqMessage_len, err, sizeof err) == -2;
}

extern "C" int rec_control_con_rep_msg_from_vxc_wrapper(controlSocketBuffer_t* buf)
{
    VXProxyInstance_t* app = vx_app();
    if (app->lws_active == 1) {
        if (rec_control_conn_response_lws() != 0) return kReplyDrop;
    } else {
        apr_size_t len = buf->read_len - static_cast<apr_size_t>(buf->writeOffset);
        const apr_status_t rv =
            apr_socket_recv(app->controlLink.control.skt, buf->read_socket_buf + buf->writeOffset, &len);
        if (len == 0 && APR_STATUS_IS_TIMEUP(rv)) {
            /* A collector that accepts and never answers: try again. */
            VX_ERROR("CONTROL_THREAD", "No reply from the collector within %d seconds",
                     kControlIoTimeoutSeconds);
            control_connection_cleanup();
            return kReplyDrop;
        }
        if (len == 0) {
            /* The serving loop finds the closed socket and reconnects. */
            VX_ERROR("CONTROL_THREAD", "Control connection closed by VX server.");
            return kReplyServe;
        }
        buf->writeOffset += static_cast<int>(len);
        buf->readBytes += static_cast<int>(len);
        buf->read_socket_buf[buf->writeOffset] = '\0';
    }
    VX_TRACE(app->VXSys.controlTraceLevel, 1, "CONTROL_THREAD", "Reply: %.1024s",
             buf->read_socket_buf);
    return handle_vxc_con_res_msg(buf);
}

extern "C" void control_connection_cleanup(void)
{
    VXProxyInstance_t* app = vx_app();
    vx::store_relaxed(app->controlLink.ctrlServing, 0);
    if (apr_socket_t* skt = app->controlLink.control.skt) {
        app->controlLink.control.skt = nullptr;
        apr_socket_close(skt);
    }
    vx::store_release(app->Server.testRunRunning, 0);
    if (app->controlLink.control.lws_handler.wsi) clean_control_conn(0);
}

extern "C" void get_ip_and_port(void)
{
    VXProxyInstance_t* app = vx_app();
    socketInfo_t& c = app->controlLink.control;
    char ip[64] = "";
    int port = 0;
    if (c.skt && get_src_addr(c.skt, ip, sizeof ip, &port) == 0) {
        vx::copy_text(app->VXBCISetting.serverIp, sizeof app->VXBCISetting.serverIp, ip);
        setBCIPort(port);
    }
    vx::copy_text(c.sourceIp, sizeof c.sourceIp, app->VXBCISetting.serverIp);
    c.srcPort = app->VXBCISetting.bciPort;
    if (vx_agent_behind_proxy(app)) {
        vx::copy_text(c.dstIp, sizeof c.dstIp, app->VXSys.proxyIP);
        c.dstPort = app->VXSys.proxyPort;
    } else if (app->controlLink.active_vxc) {
        vx::copy_text(c.dstIp, sizeof c.dstIp, app->controlLink.active_vxc->vxc_host);
        c.dstPort = static_cast<int>(app->controlLink.active_vxc->vxc_port);
    }
}

extern "C" void* APR_THREAD_FUNC control_thread_entry_fun(apr_thread_t* thread, void* data)
{
    auto* app = static_cast<VXProxyInstance_t*>(data);
    vx_set_thread_instance(app);
    if (!prepare(app)) end_thread(thread);
    retryPolicy_t& policy = app->controlLink.retry_policy;
    for (;;) {
        app->controlLink.check_for_lmd = 0;
        app->controlLink.isMasterVxc = 0;
        for (;;) {
            vx::store_relaxed(app->VXSys.closeCtrlConFlag, 0);
            char* host = nullptr;
            int port = 0;
            pick_target(app, &host, &port);
            const Next next = serve_target(app, thread, host, port);
            if (next == Next::kLeave) break;
            if (next == Next::kRestart) continue;
            if (policy.count >= policy.num_retry) {
                VX_ERROR("CONTROL_THREAD", "[VX DR Feature]; Max number of retry attempt reached");
                app->controlLink.connectionStatus = 1;
                app->Server.requestType = 3;
                break;
            }
            if (app->controlLink.check_for_lmd && check_file_size_of_vxsetting_files(1)) break;
            if (vx::wait_or_shutdown(policy.time_interval)) end_thread(thread);
            app->controlLink.check_for_lmd = 1;
        }
        if (app->controlLink.vx_dr_state && app->Server.isClusterMode == 0) {
            VX_TRACE(app->VXSys.controlTraceLevel, 1, "CONTROL_THREAD",
                     "[VX DR Feature]; Going to search for backup VXC info");
            connection_retry_failed();
        }
    }
}
