#include "link/vx_control_stream.h"

#include <apr_poll.h>
#include <apr_time.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "agent/vx_instance.h"
#include "agent/vx_sys.h"
#include "core/vx_atomic.h"
#include "core/vx_platform.h"
#include "core/vx_thread.h"
#include "core/vx_trace_log.h"
#include "link/vx_control_link.h"
#include "link/vx_control_thread.h"
#include "link/vx_lws_transport.h"

namespace {

/* Pollset of one serving loop, in its own pool: both go on every way out. */
class ServingPoll {
public:
    explicit ServingPoll(VXProxyInstance_t* app)
    {
        if (apr_pool_create(&pool_, app->control_pool) != APR_SUCCESS) return;
        char err[256];
        apr_status_t rv = apr_pollset_create(&set_, 1, pool_, 0);
        if (rv != APR_SUCCESS) {
            VX_ERROR("CONTROL_THREAD", "handle_msg_from_vxc check: Error in creating poll. Error: %s\n",
                     apr_strerror(rv, err, sizeof err));
            set_ = nullptr;
            return;
        }
        apr_pollfd_t fd{};
        fd.p = pool_;
        fd.desc_type = APR_POLL_SOCKET;
        fd.reqevents = APR_POLLIN | APR_POLLHUP | APR_POLLERR | APR_POLLNVAL;
        fd.desc.s = app->controlLink.control.skt;
        rv = apr_pollset_add(set_, &fd);
        if (rv != APR_SUCCESS) {
            VX_ERROR("CONTROL_THREAD", "handle_msg_from_vxc check:Could not add fd to poll. Error: %s\n",
                     apr_strerror(rv, err, sizeof err));
            apr_pollset_destroy(set_);
            set_ = nullptr;
            return;
        }
        fd_ = fd;
    }
    ~ServingPoll()
    {
        if (set_) {
            apr_pollset_remove(set_, &fd_);
            apr_pollset_destroy(set_);
        }
        if (pool_) apr_pool_destroy(pool_);
    }
    ServingPoll(const ServingPoll&) = delete;
    ServingPoll& operator=(const ServingPoll&) = delete;

    bool ready() const { return set_ != nullptr; }
    apr_status_t wait(apr_interval_time_t timeout, apr_int32_t* signalled)
    {
        const apr_pollfd_t* out = nullptr;
        return apr_pollset_poll(set_, timeout, signalled, &out);
    }

private:
    apr_pool_t* pool_ = nullptr;
    apr_pollset_t* set_ = nullptr;
    apr_pollfd_t fd_{};
};

}  // namespace

extern "C" int controlSockBufInit(void)
{
    VXProxyInstance_t* app = vx_app();
    controlSocketBuffer_t& b = app->controlLink.ctrlBufInfo;
    if (b.read_socket_buf) return 0;
    b.read_socket_buf = static_cast<char*>(calloc(1, vx::kControlBufferSize + 1));
    if (!b.read_socket_buf) return 1;
    b.read_len = vx::kControlBufferSize;
    controlSockBufReset(&b);
    return 0;
}

extern "C" void controlSockBufReset(controlSocketBuffer_t* buf)
{
    buf->read_socket_buf[0] = '\0';
    buf->readOffset = buf->writeOffset = buf->readBytes = 0;
}

extern "C" void processControlConnectionMessage(controlSocketBuffer_t* buf)
{
    VXProxyInstance_t* app = vx_app();
    while (buf->readBytes >= 1) {
        char* start = buf->read_socket_buf + buf->readOffset;
        int consumed;
        if (*start == '\0') {
            consumed = 1;
        } else {
            char* lf = static_cast<char*>(memchr(start, '\n', static_cast<size_t>(buf->readBytes)));
            if (!lf) { /* incomplete: to the front, and wait for the rest */
                if (buf->readOffset != 0) {
                    memmove(buf->read_socket_buf, start, static_cast<size_t>(buf->readBytes));
                    buf->readOffset = 0;
                    buf->writeOffset = buf->readBytes;
                }
                return;
            }
            *lf = '\0';
            vx::control_message_dispatch(start);
            if (!vx_in_proxy_process() && (vx::load_relaxed(app->VXSys.closeCtrlConFlag) == 1 ||
                                             vx::load_relaxed(closeCtrlThread)))
                return;
            consumed = static_cast<int>(lf - start) + 1;
        }
        buf->readOffset += consumed;
        buf->readBytes -= consumed;
        if (buf->readBytes <= 0) controlSockBufReset(buf);
    }
}

extern "C" int read_msg_from_vxc(controlSocketBuffer_t* buf)
{
    VXProxyInstance_t* app = vx_app();
    const int room = static_cast<int>(buf->read_len) - buf->writeOffset;
    if (room <= 0) {
        /* A line longer than the buffer cannot be served: start afresh. */
        VX_ERROR("CONTROL_THREAD",
                 "Control line longer than %d bytes received. Closing connection.",
                 static_cast<int>(buf->read_len));
        vx::store_relaxed(app->VXSys.retryFlag, 1);
        return 1;
    }
    char err[256] = "";
    const int n = vxlb_read_bytes(app->controlLink.control.skt, buf->read_socket_buf + buf->writeOffset, room + 1,
                                  err, sizeof err);
    if (n > 0) {
        buf->readBytes += n;
        buf->writeOffset += n;
        processControlConnectionMessage(buf);
        if (vx::load_relaxed(app->VXSys.closeCtrlConFlag)) {
            VX_TRACE(app->VXSys.controlTraceLevel, 1, "CONTROL_THREAD",
                     "Close ctrl conn flag is enabled. Closing connection.");
            vx::store_relaxed(app->VXSys.retryFlag, 1);
            return 1;
        }
        return 0;
    }
    if (n == -2) {
        vx::store_relaxed(app->VXSys.retryFlag, 1);
        VX_ERROR("CONTROL_THREAD",
                 "Control connection closed while reading data from VXC. Error Buffer = %s", err);
        return 1;
    }
    return 0;
}

extern "C" int handle_msg_from_vxc(controlSocketBuffer_t* buf)
{
    VXProxyInstance_t* app = vx_app();
    ServingPoll poll(app);
    if (!poll.ready()) return 1;
    setVxBuild(&app->VXSys.vxBuild);
    processControlConnectionMessage(buf);
    const apr_interval_time_t wait = apr_time_from_sec(
        vx_in_proxy_process() ? vx::kProxyControlPollSeconds : vx::kControlPollSeconds);
    int ticks = 0;
    for (;;) {
        if (vx::load_relaxed(closeCtrlThread)) return 1;
        if (app->close_udp_thread) return 0;
        if (vx::load_relaxed(app->VXSys.closeCtrlConFlag) == 1) return 1;
        if (app->VXSys.proxyMode == 0 &&
            app->controlLink.heartbeat_count >= app->controlLink.retry_policy.reply_unsuccessful_count) {
            VX_ERROR("CONTROL_THREAD", "heartbeat count reaches to the threshold = %d",
                     app->controlLink.heartbeat_count);
            app->controlLink.heartbeat_count = 0;
            app->controlLink.is_switch_over = 1;
            return 1;
        }
        apr_int32_t signalled = 0;
        const apr_status_t rv = poll.wait(wait, &signalled);
        if (APR_STATUS_IS_TIMEUP(rv) || (rv == APR_SUCCESS && signalled == 0)) {
            handleAgentLogs();
            if (checkVXCAlive()) return 1;
            if (app->controlLink.vx_dr_state && ticks == app->controlLink.retry_policy.heartbeat_reply_timeout_check) {
                send_control_conn_heartbeat_to_vxc();
                ticks = 0;
            }
            ++ticks;
        } else if (rv == APR_SUCCESS) {
            vx::store_relaxed(app->Server.lastHeartBeatRcvTime, my_gettimeofday());
            if (read_msg_from_vxc(buf) != 0) return 1;
        } else if (app->VXSys.controlTraceLevel >= 2) {
            char err[256];
            VX_TRACE(app->VXSys.controlTraceLevel, 2, "CONTROL_THREAD",
                     "VXC select/epoll_wait. Error = %s", apr_strerror(rv, err, sizeof err));
        }
    }
}

extern "C" int handle_msg_from_vxc_wrapper(controlSocketBuffer_t* buf)
{
    VXProxyInstance_t* app = vx_app();
    if (app->lws_active != 1) return handle_msg_from_vxc(buf);
    setVxBuild(&app->VXSys.vxBuild);
    processControlConnectionMessage(buf);
    if (vx::load_relaxed(app->VXSys.closeCtrlConFlag) == 1 || vx::load_relaxed(closeCtrlThread))
        return 1;
    return start_control_connection_service();
}

extern "C" void send_control_conn_heartbeat_to_vxc(void)
{
    VXProxyInstance_t* app = vx_app();
    VXBCISetting_t& s = app->VXBCISetting;
    int n = snprintf(s.control_conn_heartbeat_msg, sizeof s.control_conn_heartbeat_msg,
                     "vx_control_req:action=reconnect;heartBeat %d;\n", app->controlLink.heartbeat_count);
    s.control_conn_heartbeat_msg_len = n;
    ++app->controlLink.heartbeat_count;
    if (app->lws_active == 1) {
        if (send_control_data_via_lws_socket(s.control_conn_heartbeat_msg, n) < 0)
            control_connection_cleanup();
        return;
    }
    char err[256] = "";
    if (vxlb_send_n_bytes(app->controlLink.control.skt, s.control_conn_heartbeat_msg, n, err, sizeof err) != n) {
        VX_ERROR("CONTROL_THREAD",
                 "controlBreak Unable to send heartbeat message to control connection. Going to "
                 "close connection");
        control_connection_cleanup();
    }
}

extern "C" int checkVXCAlive(void)
{
    VXProxyInstance_t* app = vx_app();
    if (my_gettimeofday() - vx::load_relaxed(app->Server.lastHeartBeatRcvTime) <
        app->VXSys.vxcHeartBeatThreshold)
        return 0;
    VX_ERROR("CONTROL_THREAD",
             "Last Received heartbeat msg time is greater than vxcHeartBeatThreshold.Hence going to "
             "closing all connection.");
    closeCurrentControlConnection();
    return 1;
}

extern "C" int handleAgentLogs(void)
{
    VXProxyInstance_t* app = vx_app();
    if (vx_in_proxy_process() || app->sendLogsToProxy != 2 || !app->agentLogBuffer) return 0;
    vx::VXLockGuard guard(app->agentLogBufferLock);
    const int len = static_cast<int>(strlen(app->agentLogBuffer));
    if (len == 0) return 0;
    char err[256] = "";
    const int sent = vxlb_send_n_bytes(app->controlLink.control.skt, app->agentLogBuffer, len, err, sizeof err);
    if (sent < len) {
        VX_ERROR("CONTROL_THREAD", "Incomplete Agent logs sent to proxy, tried %d, success %d bytes",
                 len, sent);
        return len;
    }
    memset(app->agentLogBuffer, 0, static_cast<size_t>(len));
    return 0;
}
