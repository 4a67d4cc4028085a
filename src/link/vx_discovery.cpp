#include "link/vx_discovery.h"

#include <apr_network_io.h>
#include <strings.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "agent/vx_host_callbacks.h"
#include "agent/vx_instance.h"
#include "agent/vx_request_lines.h"
#include "core/vx_atomic.h"
#include "core/vx_host_call.h"
#include "core/vx_text.h"
#include "core/vx_thread.h"
#include "core/vx_trace_log.h"
#include "link/vx_collector_failover.h"
#include "link/vx_control_link.h"

namespace {

constexpr char kSummaryMark[] = "totalTimeTaken=";

/* The lock, made once by the control thread; null before the first request. */
apr_thread_mutex_t* discovery_lock(VXProxyInstance_t* app)
{
    return vx::load_acquire(app->discovery.discoveryLock);
}

/* Make the pool and the lock on the first request. Control thread. */
bool discovery_init(VXProxyInstance_t* app)
{
    VXDiscovery_t& d = app->discovery;
    if (discovery_lock(app)) return true;
    if (!d.discovery_pool && apr_pool_create(&d.discovery_pool, app->control_pool) != APR_SUCCESS) {
        d.discovery_pool = nullptr;
        return false;
    }
    apr_thread_mutex_t* lock = vx::mutex_create(d.discovery_pool);
    if (!lock) return false;
    vx::store_release(d.discoveryLock, lock);
    return true;
}

/* Split a filter value on "," into `list`; "NA" and "*" mean no filter.
 * The count. */
int split_filter(char* value, char** list)
{
    if (!value || strcmp(value, "NA") == 0 || strcmp(value, "*") == 0) return 0;
    return vxlb_get_tokens_with_multi_delimiter(value, list, const_cast<char*>(","),
                                                vx::kDiscoveryPatterns);
}

/* Open the connection for `h` and send its opening line. Under the lock. */
bool open_discovery(VXProxyInstance_t* app, const VXAutoDiscoveryHandler_t* h)
{
    char* host = nullptr;
    int port = 0;
    if (vx_agent_behind_proxy(app)) {
        host = app->VXSys.proxyIP;
        port = app->VXSys.proxyPort;
    } else if (vxc_servers_t* e = get_active_vxc()) {
        host = e->vxc_host;
        port = static_cast<int>(e->vxc_port);
    }
    char err[256] = "no collector address";
    if (!host || create_discovery_conn(host, port, err, sizeof err) != 0) {
        VX_ERROR("DISCOVERY", "No discovery connection with %s:%d for Id '%s'. Error %s",
                 host ? host : "", port, h->connId, err);
        return false;
    }
    char line[vx::kDiscoverySendSize];
    const int len = vx::discovery_request_line(line, sizeof line, h->connId);
    return send_discovery_data(line, len, err, sizeof err) == len;
}

/* One request, from parse to the end of the host's callbacks. */
void run_request(VXProxyInstance_t* app, const char* msg)
{
    VXAutoDiscoveryHandler_t* h = startParsingRecievedMsg(msg);
    if (!h) {
        VX_ERROR("DISCOVERY", "No memory for the discovery request");
        return;
    }
    VXDiscovery_t& d = app->discovery;
    bool open;
    {
        vx::VXLockGuard guard(discovery_lock(app));
        /* This request replaces one whose summary never came. */
        close_temp_connection();
        d.VXAutoDiscoveryHandler = h;
        open = open_discovery(app, h);
    }
    if (open) {
        const char* type = app->VXBCISetting.agentType;
        if (type && strcasecmp(type, "php") == 0)
            vx::call_host("ad_callback_php", ad_callback_func_php, h->methodFiltersPatternList,
                          h->classFiltersPatternList, h->methodListLength, h->classListLength);
        vx::call_host("ad_callback", ad_callback_func, h->methodFiltersPatternList,
                      h->classFiltersPatternList, h->methodListLength, h->classListLength);
    }
    /* The lists are the host's to read until its callback returns; the
     * connection stays open for results it hands in later. */
    {
        vx::VXLockGuard guard(discovery_lock(app));
        d.VXAutoDiscoveryHandler = nullptr;
    }
    free(h);
}

/* The next request for the worker, or null when none waits: then the worker
 * is no longer running. The copy is the caller's (free()). */
char* next_request(VXProxyInstance_t* app)
{
    VXDiscovery_t& d = app->discovery;
    vx::VXLockGuard guard(discovery_lock(app));
    if (d.pendingMsg[0] && !vx::load_relaxed(closeCtrlThread)) {
        char* next = strdup(d.pendingMsg);
        d.pendingMsg[0] = '\0';
        if (next) return next;
    }
    d.pendingMsg[0] = '\0';
    vx::store_release(d.discover_thread_running, static_cast<char>(0));
    return nullptr;
}

}  // namespace

extern "C" VXAutoDiscoveryHandler_t* startParsingRecievedMsg(const char* clientMsg)
{
    if (!clientMsg) return nullptr;
    const size_t len = strlen(clientMsg);
    auto* h = static_cast<VXAutoDiscoveryHandler_t*>(
        calloc(1, sizeof(VXAutoDiscoveryHandler_t) + len + 1));
    if (!h) return nullptr;
    char* text = reinterpret_cast<char*>(h + 1);
    memcpy(text, clientMsg, len + 1);
    char* fields[vx::kDiscoveryPatterns];
    const int n = vxlb_get_tokens_with_multi_delimiter(text, fields, const_cast<char*>(";"),
                                                       vx::kDiscoveryPatterns);
    for (int i = 0; i < n; ++i) {
        char* f = fields[i];
        if (char* at = strstr(f, "classFilters=")) {
            h->classListLength =
                split_filter(at + strlen("classFilters="), h->classFiltersPatternList);
        } else if (char* at2 = strstr(f, "methodFilters=")) {
            h->methodListLength =
                split_filter(at2 + strlen("methodFilters="), h->methodFiltersPatternList);
        } else if (vx::starts_with(f, "Id=")) {
            vx::copy_text(h->connId, sizeof h->connId, f + 3);
        }
    }
    return h;
}

extern "C" void startLoadedClassDiscovery(char* clientMsg)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !clientMsg) return;
    char copy[vx::kDiscoveryLineSize];
    vx::copy_text(copy, sizeof copy, clientMsg);
    char* fields[vx::kDiscoveryPatterns];
    const int n = vxlb_get_tokens_with_multi_delimiter(clientMsg, fields, const_cast<char*>(";"),
                                                       vx::kDiscoveryPatterns);
    const char* id = nullptr;
    for (int i = 0; i < n && !id; ++i)
        if (strncasecmp(fields[i], "ID=", 3) == 0) id = fields[i] + 3;
    if (!id) {
        VX_TRACE(app->VXSys.controlTraceLevel, 1, "DISCOVERY",
                 "Discovery request without Id ignored");
        return;
    }
    char answer[vx::kDiscoverySendSize];
    /* The Id is cut as connId is: the answer always ends its line. */
    snprintf(answer, sizeof answer,
             "vxc_rep:action=discover_loaded_classes;Id=%.255s;result=Success;\n", id);
    controlConnectionSendText(answer);
    if (!discovery_init(app)) {
        VX_ERROR("DISCOVERY", "Error in creating discover thread... '%s'",
                 "no memory for its lock");
        return;
    }
    VXDiscovery_t& d = app->discovery;
    char* own = nullptr;
    {
        vx::VXLockGuard guard(discovery_lock(app));
        if (vx::load_relaxed(d.discover_thread_running)) {
            /* The running worker takes it once the host's callback returned. */
            vx::copy_text(d.pendingMsg, sizeof d.pendingMsg, copy);
            VX_TRACE(app->VXSys.controlTraceLevel, 1, "DISCOVERY",
                     "Discovery request Id '%.255s' waits for the running one", id);
            return;
        }
        own = strdup(copy);
        if (!own) {
            VX_ERROR("DISCOVERY", "Error in creating discover thread... '%s'", "no memory");
            return;
        }
        vx::store_relaxed(d.discover_thread_running, static_cast<char>(1));
    }
    char err[256] = "";
    if (vxlb_thread_create(&d.discover_thread_id, discovery_thread_entry_fun, own, err, sizeof err,
                           d.discovery_pool) != 0) {
        VX_ERROR("DISCOVERY", "Error in creating discover thread... '%s'", err);
        free(own);
        vx::VXLockGuard guard(discovery_lock(app));
        vx::store_release(d.discover_thread_running, static_cast<char>(0));
        return;
    }
    apr_thread_detach(d.discover_thread_id);
}

extern "C" void* APR_THREAD_FUNC discovery_thread_entry_fun(apr_thread_t* att, void* clientMsg)
{
    (void)att;
    VXProxyInstance_t* app = tlvxApplication;
    vx_set_thread_instance(app);
    char* msg = static_cast<char*>(clientMsg);
    while (msg) {
        run_request(app, msg);
        free(msg);
        msg = next_request(app);
    }
    return nullptr;
}

extern "C" void handleMessageForDiscovery(char* discover_list) VX_NOEXCEPT
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !discover_list) return;
    apr_thread_mutex_t* lock = discovery_lock(app);
    if (!lock) return;
    vx::VXLockGuard guard(lock);
    if (!app->discovery.temp_connection.skt) return; /* no discovery open: the result is lost */
    char err[256] = "";
    if (!strstr(discover_list, kSummaryMark)) {
        const size_t len = strlen(discover_list);
        const int size =
            len > static_cast<size_t>(INT32_MAX - 1) ? INT32_MAX - 1 : static_cast<int>(len);
        if (send_discovery_data(discover_list, size, err, sizeof err) >= 0)
            send_discovery_data(const_cast<char*>("\n"), 1, err, sizeof err);
        return;
    }
    char summary[vx::kDiscoverySendSize];
    int n = snprintf(summary, sizeof summary, "\nagent_post_data_req:%s", discover_list);
    if (n >= static_cast<int>(sizeof summary)) n = static_cast<int>(sizeof summary) - 1;
    if (n > 0) send_discovery_data(summary, n, err, sizeof err);
    close_temp_connection();
}

extern "C" int create_discovery_conn(char* host, int port, char* error_buf, int error_buf_len)
{
    VXProxyInstance_t* app = vx_app();
    VXDiscovery_t& d = app->discovery;
    if (app->lws_active == 1) {
        /* STAND-IN(websocket): the discovery connection over WebSocket comes
         * with the transport. */
        vx::copy_text(error_buf, static_cast<size_t>(error_buf_len),
                      "WebSocket transport is not available in this build");
        return -1;
    }
    /* A pool of its own, unmanaged: connections open and close on host
     * threads and the worker, while discovery_pool serves the control
     * thread. */
    apr_pool_t* pool = nullptr;
    if (apr_pool_create_unmanaged_ex(&pool, nullptr, nullptr) != APR_SUCCESS) {
        vx::copy_text(error_buf, static_cast<size_t>(error_buf_len), "no memory pool");
        return -1;
    }
    apr_socket_t* skt = vxlb_create_client_con(host, port, error_buf, error_buf_len, pool);
    if (!skt) {
        apr_pool_destroy(pool);
        return -1;
    }
    /* Host threads send on it: a collector that does not read delays one
     * of them by this much, once. */
    apr_socket_timeout_set(skt,
                           static_cast<apr_interval_time_t>(vx::kDiscoverySendTimeoutMs) * 1000);
    d.tempConnPool = pool;
    d.temp_connection.skt = skt;
    return 0;
}

extern "C" int send_discovery_data(char* buffer, int size, char* error_buf, int error_buf_len)
{
    VXProxyInstance_t* app = vx_app();
    const int sent = vxlb_send_n_bytes(app->discovery.temp_connection.skt, buffer, size, error_buf,
                                       error_buf_len);
    if (sent < 0) {
        VX_ERROR("DISCOVERY", "Discovery connection lost while sending: %s", error_buf);
        close_temp_connection();
    }
    return sent;
}

extern "C" void close_temp_connection(void)
{
    VXProxyInstance_t* app = vx_app();
    VXDiscovery_t& d = app->discovery;
    if (d.temp_connection.skt) apr_socket_close(d.temp_connection.skt);
    d.temp_connection.skt = nullptr;
    if (d.tempConnPool) apr_pool_destroy(d.tempConnPool);
    d.tempConnPool = nullptr;
}

bool vx::discovery_closing()
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return false;
    apr_thread_mutex_t* lock = discovery_lock(app);
    if (!lock) return false;
    vx::VXLockGuard guard(lock);
    app->discovery.pendingMsg[0] = '\0';
    close_temp_connection();
    return vx::load_relaxed(app->discovery.discover_thread_running) != 0;
}
