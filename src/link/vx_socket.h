/*
 * Sockets of the collector link: one connection of any kind (socketInfo_t),
 * the control line buffer, and the helpers every connection uses to open,
 * read and write over plain TCP. They never raise: each returns a count or a
 * negative code and leaves APR's text in the caller's error buffer.
 *
 * Codes: -1 buffer full before a line ended, -2 end of file or error (or no
 * socket), -3 time-out, -4 other error, -5 nothing read.
 */
#ifndef VX_SOCKET_H
#define VX_SOCKET_H

#include <apr_network_io.h>
#include <apr_pools.h>

#include "core/vx_limits.h"

/* The WebSocket side of a connection; null while closed or on TCP. */
struct lws_handler_t {
    void* wsi;
    void* context;
};

struct socketInfo_t {
    char sourceIp[16]; /* local address, cut to 15 characters */
    char dstIp[16];    /* peer address, cut to 15 characters */
    int srcPort;
    int dstPort;
    apr_socket_t* skt; /* null when closed or on WebSocket */
    lws_handler_t lws_handler;
};

/* The control connection's receive buffer (ctrlBufInfo). */
struct controlSocketBuffer_t {
    char* read_socket_buf; /* read_len + 1 bytes */
    apr_size_t read_len;
    int readOffset;  /* where the next unparsed message begins */
    int writeOffset; /* where the next read puts its bytes */
    int readBytes;   /* unparsed bytes held */
};

extern "C" {

/* A connected IPv4 stream socket to host:port, or null with the reason in
 * `error_buf`. */
apr_socket_t* vxlb_create_client_con(char* host, int port, char* error_buf, int error_buf_len,
                                     apr_pool_t* pool);

/* One receive of at most size - 1 bytes, terminated. The count; -2 on end of
 * file, error or nothing received. */
int vxlb_read_bytes(apr_socket_t* skt, char* buf, int size, char* error_buf, int error_buf_len);

/* Receive until size - 1 bytes are in. The count; -3 on time-out, -2 on
 * error. */
int vxlb_read_n_bytes(apr_socket_t* skt, char* buf, int size, char* error_buf, int error_buf_len);

/*
 * Receive until a line feed stands in the data. `carry`/`carry_len` hold
 * bytes read earlier beyond a line: they come first, and the bytes after this
 * line's line feed are left there for the next call. `buf` gets the line with
 * its line feed, terminated; `carry` holds at least `size` bytes. The line's
 * length; -1 buffer full, -2 end of file, -3 time-out, -4 other error, -5
 * nothing read.
 */
int vxlb_read_line(apr_socket_t* skt, char* buf, int size, char* carry, int* carry_len,
                   char* error_buf, int error_buf_len);

/* Send all `size` bytes. The count; -3 on time-out, -2 on error or no
 * socket. */
int vxlb_send_n_bytes(apr_socket_t* skt, char* buf, int size, char* error_buf, int error_buf_len);

/* The local (`which` 0) or peer (1) address of a socket as text and port.
 * 0, or -1. */
int get_ip_port(apr_socket_t* skt, char* ip, int ip_len, int* port, int which);
int get_src_addr(apr_socket_t* skt, char* ip, int ip_len, int* port);
int get_dst_addr(apr_socket_t* skt, char* ip, int ip_len, int* port);
}

struct VXProxyInstance_t;

namespace vx {

/* A send status that means the peer is gone: end of file, broken pipe or
 * reset. The unsent rest stays with the sender for the next connection. */
bool connection_broken(apr_status_t rv);

/* The peer of the data and auto-sensor connections: the local proxy for an
 * agent behind one, else the active collector. Null host without either. */
void channel_peer(VXProxyInstance_t* app, char** host, int* port);

/* Fill the addresses of a data or auto-sensor connection: the source from
 * its socket (when it has one), the destination from channel_peer. */
void channel_addresses(VXProxyInstance_t* app, socketInfo_t& s);

}  // namespace vx

#endif
