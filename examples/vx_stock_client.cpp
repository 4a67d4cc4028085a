/*
 * One HTTP/1.1 GET per connection over libwebsockets' client: the call opens
 * a connection, adds the caller's headers while lws writes the request,
 * reads the status and drains the body, and closes. A deadline on lws's own
 * scheduler bounds the call: when it fires, the connection is killed and the
 * call ends without an answer.
 */
#include "vx_stock_client.h"

#include <libwebsockets.h>

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <new>

#include "vx_example_host.h"
#include "vx_header_lines.h"

namespace {

/* The call in flight, as the callback sees it (the connection's user data). */
struct Call {
    lws_sorted_usec_list_t deadline; /* on the context's scheduler while the call runs */
    const char* headers; /* "Name:value" lines to add, or null */
    lws* wsi;      /* the connection; null once lws has destroyed it */
    int status;    /* from the answer's status line */
    bool answered; /* the whole body was read */
    bool gone;     /* lws destroyed the connection: nothing refers to the call now */
};

int on_client_event(lws* wsi, lws_callback_reasons reason, void* user, void* in, size_t len)
{
    Call* call = static_cast<Call*>(user);
    if (!call) return lws_callback_http_dummy(wsi, reason, user, in, len);
    switch (reason) {
        case LWS_CALLBACK_CLIENT_APPEND_HANDSHAKE_HEADER: {
            auto** p = static_cast<unsigned char**>(in);
            if (add_header_lines(wsi, call->headers, p, *p + len))
                return -1; /* too long for lws's buffer: no call rather than a wrong one */
            break;
        }
        case LWS_CALLBACK_ESTABLISHED_CLIENT_HTTP:
            call->status = static_cast<int>(lws_http_client_http_response(wsi));
            break;
        case LWS_CALLBACK_RECEIVE_CLIENT_HTTP: {
            /* The shop needs only the status; reading drives the body to its end. */
            char buffer[1024 + LWS_PRE];
            char* at = buffer + LWS_PRE;
            int room = sizeof buffer - LWS_PRE;
            return lws_http_client_read(wsi, &at, &room) < 0 ? -1 : 0;
        }
        case LWS_CALLBACK_RECEIVE_CLIENT_HTTP_READ:
            return 0;
        case LWS_CALLBACK_COMPLETED_CLIENT_HTTP:
            call->answered = true;
            return -1; /* one call per connection */
        case LWS_CALLBACK_CLIENT_CONNECTION_ERROR:
            fprintf(stderr, "shop: stock service call failed: %s\n",
                    in ? static_cast<const char*>(in) : "connection error");
            break;
        case LWS_CALLBACK_WSI_DESTROY:
            call->wsi = nullptr;
            call->gone = true;
            /* A connection killed from the deadline goes while lws runs its
             * timers, after which lws would poll on until its next timer:
             * wake it so that the call returns now. */
            lws_cancel_service(lws_get_context(wsi));
            break;
        default:
            break;
    }
    return lws_callback_http_dummy(wsi, reason, user, in, len);
}

void on_deadline(lws_sorted_usec_list_t* sul)
{
    Call* call = reinterpret_cast<Call*>(reinterpret_cast<char*>(sul) - offsetof(Call, deadline));
    fprintf(stderr, "shop: stock service call timed out\n");
    if (call->wsi)
        lws_set_timeout(call->wsi, PENDING_TIMEOUT_USER_OK, LWS_TO_KILL_ASYNC);
    else
        call->gone = true;
}

const lws_protocols kProtocols[] = {
    {"stock-client", on_client_event, 0, 0, 0, nullptr, 0},
    {nullptr, nullptr, 0, 0, 0, nullptr, 0},
};

}  // namespace

struct StockClient {
    lws_context* context;
    int port;
    Call call; /* one call at a time */
};

StockClient* stock_client_create(int port)
{
    lws_context_creation_info info;
    memset(&info, 0, sizeof info);
    info.port = CONTEXT_PORT_NO_LISTEN;
    info.protocols = kProtocols;
    info.gid = -1;
    info.uid = -1;
    auto* client = new (std::nothrow) StockClient{};
    if (!client) return nullptr;
    client->port = port;
    client->context = lws_create_context(&info);
    if (!client->context) {
        fprintf(stderr, "shop: libwebsockets gave no client context\n");
        delete client;
        return nullptr;
    }
    return client;
}

void stock_client_destroy(StockClient* client)
{
    if (!client) return;
    lws_context_destroy(client->context);
    delete client;
}

int stock_client_get(StockClient* client, const char* path, const char* headers, int timeout_ms)
{
    Call& call = client->call;
    memset(&call, 0, sizeof call);
    call.headers = headers;
    call.status = -1;

    lws_client_connect_info info;
    memset(&info, 0, sizeof info);
    info.context = client->context;
    info.address = "127.0.0.1";
    info.port = client->port;
    info.path = path;
    info.host = info.address;
    info.origin = info.address;
    info.method = "GET";
    info.protocol = kProtocols[0].name;
    info.userdata = &call;
    info.pwsi = &call.wsi;
    if (!lws_client_connect_via_info(&info)) return -1; /* lws has closed it already */

    lws_sul_schedule(client->context, 0, &call.deadline, on_deadline,
                     static_cast<lws_usec_t>(timeout_ms) * LWS_US_PER_MS);
    while (!call.gone)
        if (lws_service(client->context, 0) < 0) break;
    lws_sul_cancel(&call.deadline);
    return call.answered ? call.status : -1;
}
