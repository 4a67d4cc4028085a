#include "link/vx_socket.h"

#include <apr_strings.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "agent/vx_instance.h"
#include "core/vx_atomic.h"
#include "core/vx_text.h"
#include "core/vx_trace_log.h"

namespace {

void set_error(char* error_buf, int error_buf_len, const char* fmt, ...) __attribute__((format(printf, 3, 4)));

void set_error(char* error_buf, int error_buf_len, const char* fmt, ...)
{
    if (!error_buf || error_buf_len <= 0) return;
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(error_buf, static_cast<size_t>(error_buf_len), fmt, ap);
    va_end(ap);
}

void apr_text(apr_status_t rv, char* out, size_t len) { apr_strerror(rv, out, len); }

}  // namespace

extern "C" apr_socket_t* vxlb_create_client_con(char* host, int port, char* error_buf, int error_buf_len,
                                                apr_pool_t* pool)
{
    VXProxyInstance_t* app = vx_app();
    if (app && app->VXSys.proxyMode && app->VXSys.proxyConType) {
        set_error(error_buf, error_buf_len, "Proxy conntype 1 is not supported.");
        return nullptr;
    }
    if (!host || !pool) {
        set_error(error_buf, error_buf_len, "No host to connect to");
        return nullptr;
    }
    char text[256];
    apr_sockaddr_t* addr = nullptr;
    apr_status_t rv = apr_sockaddr_info_get(&addr, host, APR_INET, static_cast<apr_port_t>(port & 0xffff), 0, pool);
    apr_socket_t* skt = nullptr;
    if (rv == APR_SUCCESS) rv = apr_socket_create(&skt, APR_INET, SOCK_STREAM, APR_PROTO_TCP, pool);
    if (rv == APR_SUCCESS) rv = apr_socket_connect(skt, addr);
    if (rv == APR_SUCCESS) return skt;
    apr_text(rv, text, sizeof text);
    set_error(error_buf, error_buf_len, "%s", text);
    if (skt) apr_socket_close(skt);
    return nullptr;
}

extern "C" int vxlb_read_bytes(apr_socket_t* skt, char* buf, int size, char* error_buf, int error_buf_len)
{
    if (!skt || !buf || size < 2) {
        set_error(error_buf, error_buf_len, "Socket '%p' is NULL, returning.", static_cast<void*>(skt));
        return -2;
    }
    apr_size_t len = static_cast<apr_size_t>(size - 1);
    apr_status_t rv = apr_socket_recv(skt, buf, &len);
    if (len > 0) {
        buf[len] = '\0';
        return static_cast<int>(len);
    }
    buf[0] = '\0';
    char text[256];
    apr_text(rv, text, sizeof text);
    set_error(error_buf, error_buf_len, "%s, rv = %d", rv == APR_EOF ? "End of file" : text, rv);
    return -2;
}

extern "C" int vxlb_read_n_bytes(apr_socket_t* skt, char* buf, int size, char* error_buf, int error_buf_len)
{
    if (!skt || !buf || size < 1) return -2;
    int got = 0;
    while (got < size - 1) {
        apr_size_t len = static_cast<apr_size_t>(size - 1 - got);
        apr_status_t rv = apr_socket_recv(skt, buf + got, &len);
        got += static_cast<int>(len);
        if (rv == APR_SUCCESS && len > 0) continue;
        buf[got] = '\0';
        char text[256];
        apr_text(rv, text, sizeof text);
        set_error(error_buf, error_buf_len, "%s, rv = %d", text, rv);
        return APR_STATUS_IS_TIMEUP(rv) || APR_STATUS_IS_EAGAIN(rv) ? -3 : -2;
    }
    buf[got] = '\0';
    return got;
}

extern "C" int vxlb_read_line(apr_socket_t* skt, char* buf, int size, char* carry, int* carry_len,
                              char* error_buf, int error_buf_len)
{
    if (!buf || size < 2) return -4;
    int used = 0;
    /* Bytes left over from the previous line come first. */
    if (carry && carry_len && *carry_len > 0) {
        used = *carry_len < size - 1 ? *carry_len : size - 1;
        memcpy(buf, carry, static_cast<size_t>(used));
        memmove(carry, carry + used, static_cast<size_t>(*carry_len - used));
        *carry_len -= used;
    }
    int scanned = 0;
    while (true) {
        const void* nl = memchr(buf + scanned, '\n', static_cast<size_t>(used - scanned));
        if (nl) {
            int line = static_cast<int>(static_cast<const char*>(nl) - buf) + 1;
            /* What follows the line waits for the next call. */
            int rest = used - line;
            if (rest > 0 && carry && carry_len) {
                memmove(carry + rest, carry, static_cast<size_t>(*carry_len));
                memcpy(carry, buf + line, static_cast<size_t>(rest));
                *carry_len += rest;
            }
            buf[line] = '\0';
            return line;
        }
        scanned = used;
        if (used >= size - 1) {
            buf[used] = '\0';
            set_error(error_buf, error_buf_len,
                      "Return Partial Buffer as buffer get full, and still 'New Line' to received, received "
                      "bytes '%d'.",
                      used);
            return -1;
        }
        if (!skt) return -4;
        apr_size_t len = static_cast<apr_size_t>(size - 1 - used);
        apr_status_t rv = apr_socket_recv(skt, buf + used, &len);
        used += static_cast<int>(len);
        if (len > 0) continue;
        buf[used] = '\0';
        char text[256];
        apr_text(rv, text, sizeof text);
        set_error(error_buf, error_buf_len, "%s, rv = %d", text, rv);
        if (rv == APR_EOF) return -2;
        if (APR_STATUS_IS_TIMEUP(rv) || APR_STATUS_IS_EAGAIN(rv)) return -3;
        if (rv != APR_SUCCESS) return -4;
        return -5;
    }
}

extern "C" int vxlb_send_n_bytes(apr_socket_t* skt, char* buf, int size, char* error_buf, int error_buf_len)
{
    if (!skt) {
        set_error(error_buf, error_buf_len, "Socket '%p' is NULL, returning.", static_cast<void*>(skt));
        return -2;
    }
    int sent = 0;
    while (sent < size) {
        apr_size_t len = static_cast<apr_size_t>(size - sent);
        apr_status_t rv = apr_socket_send(skt, buf + sent, &len);
        sent += static_cast<int>(len);
        if (rv == APR_SUCCESS) continue;
        char text[256];
        apr_text(rv, text, sizeof text);
        if (APR_STATUS_IS_TIMEUP(rv) || APR_STATUS_IS_EAGAIN(rv)) {
            set_error(error_buf, error_buf_len, "Send Failed '%d', %s", rv, text);
            return -3;
        }
        set_error(error_buf, error_buf_len, "Send Failed while sending buffer'%d', %s", rv, text);
        return -2;
    }
    return sent;
}

extern "C" int get_ip_port(apr_socket_t* skt, char* ip, int ip_len, int* port, int which)
{
    if (!skt || !ip || ip_len <= 0) return -1;
    apr_sockaddr_t* addr = nullptr;
    if (apr_socket_addr_get(&addr, which ? APR_REMOTE : APR_LOCAL, skt) != APR_SUCCESS || !addr) return -1;
    char* text = nullptr;
    if (apr_sockaddr_ip_get(&text, addr) != APR_SUCCESS || !text) return -1;
    vx::copy_text(ip, static_cast<size_t>(ip_len), text);
    if (port) *port = addr->port;
    return 0;
}

extern "C" int get_src_addr(apr_socket_t* skt, char* ip, int ip_len, int* port)
{
    return get_ip_port(skt, ip, ip_len, port, 0);
}

extern "C" int get_dst_addr(apr_socket_t* skt, char* ip, int ip_len, int* port)
{
    return get_ip_port(skt, ip, ip_len, port, 1);
}

bool vx::connection_broken(apr_status_t rv)
{
    return APR_STATUS_IS_EOF(rv) || APR_STATUS_IS_EPIPE(rv) || APR_STATUS_IS_ECONNRESET(rv);
}

void vx::channel_peer(VXProxyInstance_t* app, char** host, int* port)
{
    *host = nullptr;
    *port = 0;
    if (vx_agent_behind_proxy(app)) {
        *host = app->VXSys.proxyIP;
        *port = app->VXSys.proxyPort;
    } else if (app->controlLink.active_vxc) {
        *host = vx::load_acquire(app->controlLink.active_vxc->vxc_host);
        *port = static_cast<int>(app->controlLink.active_vxc->vxc_port);
    }
}

void vx::channel_addresses(VXProxyInstance_t* app, socketInfo_t& s)
{
    char ip[64] = "";
    int port = 0;
    if (s.skt && get_src_addr(s.skt, ip, sizeof ip, &port) == 0) {
        vx::copy_text(s.sourceIp, sizeof s.sourceIp, ip);
        s.srcPort = port;
    }
    char* host;
    channel_peer(app, &host, &s.dstPort);
    vx::copy_text(s.dstIp, sizeof s.dstIp, host);
}
