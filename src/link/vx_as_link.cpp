#include "link/vx_as_link.h"

#include <apr_network_io.h>
#include <apr_portable.h>
#include <apr_time.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>

#include "agent/vx_instance.h"
#include "agent/vx_request_lines.h"
#include "core/vx_atomic.h"
#include "core/vx_text.h"
#include "core/vx_thread.h"
#include "core/vx_trace_log.h"
#include "link/vx_as_buffers.h"
#include "link/vx_control_link.h"
#include "link/vx_lws_transport.h"

namespace {

thread_local apr_thread_t* tl_as_thread = nullptr;
/* The turn this thread holds, so that a holder's nested calls (a close in
 * the middle of opening) do not wait for themselves. */
thread_local int* tl_turn_held = nullptr;
/* Set once the stop path runs: its nested sends must not start it again. */
thread_local bool tl_stopping = false;

std::atomic<apr_thread_start_t> g_body{nullptr};

/* The one-sender turn over the read list and the socket. The auto-sensor
 * thread waits for it (a host holds it for non-blocking sends only); any
 * other thread only tries. */
class SenderTurn {
public:
    SenderTurn(int& turn, bool wait) noexcept : turn_(turn)
    {
        if (tl_turn_held == &turn_) {
            held_ = true;
            return;
        }
        std::atomic_ref<int> t(turn_);
        for (;;) {
            int free_turn = 0;
            if (t.compare_exchange_strong(free_turn, 1, std::memory_order_acquire)) {
                held_ = owner_ = true;
                tl_turn_held = &turn_;
                return;
            }
            if (!wait) return;
            apr_sleep(1000);
        }
    }
    ~SenderTurn()
    {
        if (!owner_) return;
        tl_turn_held = nullptr;
        std::atomic_ref<int>(turn_).store(0, std::memory_order_release);
    }
    SenderTurn(const SenderTurn&) = delete;
    SenderTurn& operator=(const SenderTurn&) = delete;
    bool held() const { return held_; }

private:
    int& turn_;
    bool held_ = false;
    bool owner_ = false;
};

/* The buffer the sender drains next; the move lock also makes the
 * producers' bytes in it visible here. */
nioSettings_t* next_to_send(VXAutoSensorChannel_t& ch)
{
    vx::VXLockGuard guard(ch.bufferMoveLockAS);
    return ch.VXCollectorBBAS;
}

/* One send. The auto-sensor thread's waits for room up to its time-out;
 * another thread's takes what the socket takes at once (nothing when it is
 * full), and never raises SIGPIPE in the host. */
apr_status_t send_chunk(apr_socket_t* skt, const char* buf, apr_size_t* len, bool wait)
{
    if (wait) return apr_socket_send(skt, buf, len);
    apr_os_sock_t fd;
    if (apr_os_sock_get(&fd, skt) != APR_SUCCESS) {
        *len = 0;
        return APR_ENOTSOCK;
    }
    const ssize_t n = ::send(fd, buf, *len, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (n >= 0) {
        *len = static_cast<apr_size_t>(n);
        return APR_SUCCESS;
    }
    *len = 0;
    return APR_FROM_OS_ERROR(errno);
}

bool connected(const VXAutoSensorLink_t& l)
{
    return vx::load_relaxed(l.autoSensor.skt) || vx::load_relaxed(l.autoSensor.lws_handler.wsi);
}

/* Out of line: apr_thread_exit unwinds without returning, and under
 * AddressSanitizer the atomic accessors' stack slots must not be in the
 * frame it abandons. The running flag falls last, with release: a start
 * waiting for this thread sees the rest done. */
[[gnu::noinline]] void mark_ended(VXProxyInstance_t* app)
{
    vx::store_relaxed(app->toStopASThread, 0);
    vx::store_relaxed(app->asLink.stopping, 0);
    vx::store_release(app->VXBCISetting.autoSensor_thread_running, 0);
}

/* Whether the thread now running will end by itself: asked to, or already
 * on its stop path. */
bool thread_stopping(const VXProxyInstance_t* app)
{
    return vx::load_acquire(app->VXBCISetting.autoSensor_thread_running) &&
           (vx::load_relaxed(app->toStopASThread) ||
            std::atomic_ref<int>(const_cast<int&>(app->asLink.stopping)).load(std::memory_order_seq_cst));
}

void* APR_THREAD_FUNC as_thread_entry(apr_thread_t* thread, void* data)
{
    auto* app = static_cast<VXProxyInstance_t*>(data);
    vx_set_thread_instance(app);
    tl_as_thread = thread;
    tl_stopping = false;
    if (apr_thread_start_t body = g_body.load(std::memory_order_acquire)) body(thread, data);
    cleanAutoSensorThread(); /* a body that returns ends here */
    return nullptr;
}

}  // namespace

void vx::as_thread_set_body(apr_thread_start_t body)
{
    g_body.store(body, std::memory_order_release);
}

bool vx::on_as_thread()
{
    return tl_as_thread != nullptr;
}

extern "C" void ASNioInit(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    VXAutoSensorChannel_t& ch = app->asChannel;
    if (!ch.autoSensor_pool &&
        apr_pool_create(&ch.autoSensor_pool, app->control_pool) != APR_SUCCESS) {
        ch.autoSensor_pool = nullptr;
        VX_ERROR("AUTO_SENSOR", "Error while preparing the auto-sensor channel. Error = %s",
                 "no memory pool");
        return;
    }
    if (!ch.bufferWriteLockAS) ch.bufferWriteLockAS = vx::mutex_create(ch.autoSensor_pool);
    if (!ch.bufferMoveLockAS) ch.bufferMoveLockAS = vx::mutex_create(ch.autoSensor_pool);
}

extern "C" int create_as_conn(char* error_buf, int error_buf_len)
{
    VXProxyInstance_t* app = vx_app();
    VXAutoSensorLink_t& l = app->asLink;
    char* host = nullptr;
    int port = 0;
    vx::channel_peer(app, &host, &port);
    if (!host) {
        vx::copy_text(error_buf, static_cast<size_t>(error_buf_len), "no collector address");
        return -1;
    }
    if (app->lws_active == 1) {
        /* STAND-IN(websocket): the auto-sensor connection over WebSocket
         * comes with the transport. */
        vx::copy_text(error_buf, static_cast<size_t>(error_buf_len),
                      "WebSocket transport is not available in this build");
        return -1;
    }
    apr_pool_t* pool = nullptr;
    if (!app->asChannel.autoSensor_pool ||
        apr_pool_create(&pool, app->asChannel.autoSensor_pool) != APR_SUCCESS) {
        vx::copy_text(error_buf, static_cast<size_t>(error_buf_len), "no memory pool");
        return -1;
    }
    apr_socket_t* skt = vxlb_create_client_con(host, port, error_buf, error_buf_len, pool);
    if (!skt) {
        apr_pool_destroy(pool);
        return -1;
    }
    SenderTurn turn(l.senderTurn, true);
    l.asConnPool = pool;
    vx::store_relaxed(l.autoSensor.skt, skt);
    return 0;
}

extern "C" void get_as_ip_and_port(void)
{
    VXProxyInstance_t* app = vx_app();
    vx::channel_addresses(app, app->asLink.autoSensor);
    vx::store_relaxed(app->asLink.retryFlagAS, 0);
}

extern "C" bool send_autoSensor_con_req_msg_to_vxc(void)
{
    VXProxyInstance_t* app = vx_app();
    setControlAutoSensorReqMessage();
    if (app->lws_active == 1) return true; /* STAND-IN(websocket) */
    VXBCISetting_t& s = app->VXBCISetting;
    char err[256] = "";
    const int sent = vxlb_send_n_bytes(app->asLink.autoSensor.skt, s.controlAutoSensorReqMessage,
                                       s.controlAutoSensorReqMessage_len, err, sizeof err);
    if (sent < 0) VX_ERROR("AUTO_SENSOR", "Unable to send the auto-sensor request line: %s", err);
    return sent < 0;
}

extern "C" bool startASVXCollectorCommunication(void)
{
    VXProxyInstance_t* app = vx_app();
    VXAutoSensorLink_t& l = app->asLink;
    VX_TRACE(app->VXSys.controlTraceLevel, 1, "AUTO_SENSOR",
             "AutoSensor Thread created successfully.");
    VX_TRACE(app->VXSys.controlTraceLevel, 1, "AUTO_SENSOR", "Creating socket for AutoSensor\n");
    {
        /* Held from the connect through the opening line: no host thread
         * sends ahead of that line. */
        SenderTurn turn(l.senderTurn, true);
        if (connected(l)) closeAutoSensorConnection();
        char err[256] = "";
        if (create_as_conn(err, sizeof err) != 0) {
            char* host;
            int port;
            vx::channel_peer(app, &host, &port);
            VX_ERROR("AUTO_SENSOR",
                     "Error while creating the AutoSensor connection with %s:%d. Error %s\n",
                     host ? host : "", port, err);
        } else {
            if (apr_socket_t* skt = l.autoSensor.skt) {
                get_as_ip_and_port();
                apr_socket_opt_set(skt, APR_SO_NONBLOCK, 0);
                /* Blocking, but a collector that stops reading cannot hold
                 * the thread past its stop checks for long. */
                apr_socket_timeout_set(skt, apr_time_from_sec(vx::kASSendTimeoutSeconds));
            }
            bool noBuffers;
            {
                /* A ring at its ceiling whose buffers all wait to be sent is
                 * no failure: this connection is what drains it. Producers
                 * grow the ring under the write lock as well. */
                vx::VXLockGuard write(app->asChannel.bufferWriteLockAS);
                noBuffers = buff_list_init_as() != 0 && app->asChannel.curBuffers == 0;
            }
            if (noBuffers) {
                VX_ERROR("AUTO_SENSOR", "Error in buff_list_init_as");
                closeAutoSensorConnection();
                return true;
            }
            vx::store_relaxed(app->VXSys.autosensorConnState, 1);
            if (send_autoSensor_con_req_msg_to_vxc()) {
                vx::store_relaxed(app->VXSys.autosensorConnState, 0);
                VX_ERROR("AUTO_SENSOR",
                         "autoSensorBreak AutoSensorThread break due to "
                         "send_autoSensor_con_req_msg_to_vxc == FAIL");
                closeAutoSensorConnection();
                return true;
            }
            if (app->lws_active == 1) get_as_ip_and_port();
        }
    }
    checkAndStopThreadAS();
    return false;
}

extern "C" int sendDataToVXC(void)
{
    VXProxyInstance_t* app = vx_app();
    VXAutoSensorLink_t& l = app->asLink;
    apr_socket_t* skt = vx::load_relaxed(l.autoSensor.skt);
    if (!skt) return -1;
    const bool wait = vx::on_as_thread();
    while (nioSettings_t* node = next_to_send(app->asChannel)) {
        while (node->use_len - node->send_len > 0) {
            apr_size_t len = static_cast<apr_size_t>(node->use_len - node->send_len);
            const apr_status_t rv = send_chunk(skt, node->buff + node->send_len, &len, wait);
            node->send_len += static_cast<int>(len);
            if (vx::connection_broken(rv)) {
                char err[256];
                VX_ERROR("AUTO_SENSOR", "Error = %s", apr_strerror(rv, err, sizeof err));
                VX_ERROR("AUTO_SENSOR",
                         "autoSensorBreak AutoSensorThread break due failed in apr_socket_send");
                vx::store_relaxed(l.retryFlagAS, 1);
                return -1;
            }
            if (len == 0) return 1;
        }
        node->use_len = node->send_len = 0;
        moveToASWriteList();
    }
    return 0;
}

extern "C" int send_as_data_to_vxc(void)
{
    /* STAND-IN(websocket): no WebSocket connection is made yet, so there is
     * never a wsi to send on. With the transport a buffer goes as one frame
     * (in several when it outgrows the staging area) and stays whole at the
     * head of the read list when the send fails. */
    return -1;
}

extern "C" int send_AS_data(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return -1;
    const bool thread = vx::on_as_thread();
    int rv;
    {
        SenderTurn turn(app->asLink.senderTurn, thread);
        if (!turn.held()) return 1; /* the sender at work takes these bytes too */
        rv = app->lws_active == 1 ? send_as_data_to_vxc() : sendDataToVXC();
    }
    if (thread) {
        /* Closed and stopped here, outside the turn: the thread may end. */
        if (rv == -1 && vx::load_relaxed(app->asLink.retryFlagAS) && connected(app->asLink))
            closeAutoSensorConnection();
        checkAndStopThreadAS();
    }
    return rv;
}

extern "C" void flushData(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    moveCommonPartialToReadList();
    /* A stalled collector must not hold a stop for 100 send time-outs. */
    const apr_time_t deadline = apr_time_now() + apr_time_from_sec(vx::kASSendTimeoutSeconds);
    for (int i = 0; i < vx::kASFlushPasses && connected(app->asLink); ++i)
        if (send_AS_data() < 1 || apr_time_now() > deadline) break;
}

extern "C" int checkAndStopThreadAS(void)
{
    VXProxyInstance_t* app = vx_app();
    const Server_t& srv = app->Server;
    auto going_on = [&] {
        return std::atomic_ref<char>(const_cast<char&>(srv.testRunRunning))
                   .load(std::memory_order_seq_cst) &&
               vx::load_relaxed(srv.retryForAutoSensorConn) &&
               !vx::load_relaxed(app->VXSys.closeCtrlConFlag);
    };
    if (going_on() || !vx::on_as_thread() || tl_stopping) return 0;
    /* A start may be raising the session again right now: it touches its
     * flag, then reads this mark; this thread sets the mark, then reads the
     * flag again. All four are sequentially consistent, so one of the two
     * sees the other. */
    std::atomic_ref<int>(app->asLink.stopping).exchange(1, std::memory_order_seq_cst);
    if (going_on()) {
        vx::store_relaxed(app->asLink.stopping, 0);
        return 0;
    }
    tl_stopping = true;
    VX_ERROR("AUTO_SENSOR", "AutoSensor thread is to be stopped");
    flushData();
    cleanAutoSensorThread();
    return 1;
}

extern "C" void stopNIO(void)
{
    if (!vx::on_as_thread()) {
        moveCommonPartialToReadList();
        return;
    }
    vx::store_relaxed(vx_app()->asLink.stopping, 1);
    tl_stopping = true;
    flushData();
    cleanAutoSensorThread();
}

extern "C" void closeAutoSensorConnection(void)
{
    VXProxyInstance_t* app = vx_app();
    VXAutoSensorLink_t& l = app->asLink;
    /* reportBuffer belongs to the instance, not to the connection: the next
     * connection's reports need it. */
    SenderTurn turn(l.senderTurn, true);
    void* wsi = l.autoSensor.lws_handler.wsi;
    vx::store_relaxed(l.autoSensor.lws_handler.wsi, static_cast<void*>(nullptr));
    if (apr_socket_t* skt = l.autoSensor.skt) {
        vx::store_relaxed(l.autoSensor.skt, static_cast<apr_socket_t*>(nullptr));
        apr_socket_close(skt);
    }
    if (l.asConnPool) {
        apr_pool_destroy(l.asConnPool);
        l.asConnPool = nullptr;
    }
    if (wsi) kill_lws_connection(wsi);
}

extern "C" void cleanAutoSensorThread(void)
{
    if (!vx::on_as_thread()) return;
    VXProxyInstance_t* app = vx_app();
    vx::store_relaxed(app->asLink.stopping, 1);
    const socketInfo_t& s = app->asLink.autoSensor;
    VX_TRACE(app->VXSys.controlTraceLevel, 1, "AUTO_SENSOR",
             "Going to Exit AutoSensor thread of ['%s':'%d'] with ['%s':'%d']", s.sourceIp,
             s.srcPort, s.dstIp, s.dstPort);
    closeAutoSensorConnection();
    VX_TRACE(app->VXSys.controlTraceLevel, 1, "AUTO_SENSOR", "VXAutoSensor: thread ends. ");
    mark_ended(app);
    apr_thread_exit(tl_as_thread, APR_SUCCESS);
}

extern "C" int create_autoSensor_thread(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !app->asChannel.autoSensor_pool) return 1;
    /* A quick stop-then-start: the stopping thread flushes and ends first.
     * The flag, raised before, is touched again in the one order all
     * sequentially consistent operations share; this pairs with the mark
     * checkAndStopThreadAS sets before it reads the flag. */
    std::atomic_ref<char>(app->Server.testRunRunning).fetch_or(0, std::memory_order_seq_cst);
    for (int waited = 0; thread_stopping(app) && waited < vx::kASStartWaitMs; waited += 10)
        apr_sleep(apr_time_from_msec(10));
    if (vx::load_acquire(app->VXBCISetting.autoSensor_thread_running)) {
        VX_ERROR("AUTO_SENSOR", "AutoSensor thread already exist.");
        return 1;
    }
    vx::store_relaxed(app->toStopASThread, 0);
    vx::store_relaxed(app->asLink.stopping, 0);
    char err[256] = "";
    if (vx::start_detached(&app->asLink.autoSensor_thread_id, as_thread_entry, app,
                           app->asChannel.autoSensor_pool,
                           app->VXBCISetting.autoSensor_thread_running, err, sizeof err) != 0) {
        VX_ERROR("AUTO_SENSOR", "Error while creating AutoSensor thread. Error = %s", err);
        return 1;
    }
    return 0;
}

extern "C" void dumpAndSendDataToVXC(char* bytes, int len, int flush)
{
    dumpASData(bytes, len);
    if (!flush) return;
    moveCommonPartialToReadList();
    send_AS_data();
}
