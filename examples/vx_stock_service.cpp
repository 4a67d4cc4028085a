/*
 * The stock service's HTTP side. libwebsockets parses the request; the
 * service hands the path and the correlation header to the lookup, writes
 * the status line and headers at once and the body when lws says the
 * connection can take it.
 */
#include "vx_stock_service.h"

#include <libwebsockets.h>

#include <atomic>
#include <cstdio>
#include <cstring>

#include "vx_example_host.h"
#include "vx_header_lines.h"
#include "vx_stock_lookup.h"

namespace {

/* Raised by a signal handler or another thread. A handler cannot call into
 * lws safely while the context may be going away, so the service loop looks
 * at the flag on a tick of lws's own scheduler instead of being woken. */
std::atomic<bool> g_stop{false};
constexpr lws_usec_t kStopTickUs = 100 * LWS_US_PER_MS;
lws_sorted_usec_list_t g_stop_tick;
lws_context* g_context;

void on_stop_tick(lws_sorted_usec_list_t* sul)
{
    /* lws_service returns after this; the loop then sees the flag. */
    lws_sul_schedule(g_context, 0, sul, on_stop_tick, kStopTickUs);
}

/* lws stores the names of headers it does not know in lower case, with their
 * colon. */
constexpr char kCorrelationName[] = "x-vx-correlation:";
static_assert(sizeof kCorrelationName == sizeof EXAMPLE_CORRELATION_HEADER + 1);

/* A custom header's value into `out`, or "" when absent or too long. */
template <size_t N>
void custom_header(lws* wsi, const char (&name)[N], char* out, int room)
{
    if (lws_hdr_custom_copy(wsi, out, room, name, static_cast<int>(N - 1)) < 0) out[0] = '\0';
}

/* One request's answer, kept between its headers and its body. */
struct Answer {
    char body[256];
    int length;
};

/* Status line and headers; the body follows on LWS_CALLBACK_HTTP_WRITEABLE. */
int answer_request(lws* wsi, Answer* answer)
{
    char path[256];
    if (lws_hdr_copy(wsi, path, sizeof path, WSI_TOKEN_GET_URI) <= 0) {
        /* Not a GET, or a path too long for any item. */
        if (lws_return_http_status(wsi, HTTP_STATUS_METHOD_NOT_ALLOWED, nullptr)) return -1;
        return lws_http_transaction_completed(wsi) ? -1 : 0;
    }
    char correlation[1024], traceparent[256], tracestate[512];
    custom_header(wsi, kCorrelationName, correlation, sizeof correlation);
    custom_header(wsi, "traceparent:", traceparent, sizeof traceparent);
    custom_header(wsi, "tracestate:", tracestate, sizeof tracestate);
    char trace[2048];
    const int status = stock_lookup({path, correlation, traceparent, tracestate}, answer->body,
                                    sizeof answer->body, trace, sizeof trace);
    answer->length = static_cast<int>(strlen(answer->body));

    unsigned char buffer[LWS_PRE + 3072];
    unsigned char* start = buffer + LWS_PRE;
    unsigned char* p = start;
    unsigned char* end = buffer + sizeof buffer - 1;
    if (lws_add_http_common_headers(wsi, static_cast<unsigned>(status), "application/json",
                                    static_cast<lws_filepos_t>(answer->length), &p, end) ||
        add_header_lines(wsi, trace, &p, end) || lws_finalize_write_http_header(wsi, start, &p, end))
        return -1;
    lws_callback_on_writable(wsi);
    return 0;
}

int send_body(lws* wsi, const Answer* answer)
{
    unsigned char buffer[LWS_PRE + sizeof answer->body];
    memcpy(buffer + LWS_PRE, answer->body, static_cast<size_t>(answer->length));
    if (lws_write(wsi, buffer + LWS_PRE, static_cast<size_t>(answer->length),
                  LWS_WRITE_HTTP_FINAL) != answer->length)
        return -1;
    return lws_http_transaction_completed(wsi) ? -1 : 0;
}

int on_http_event(lws* wsi, lws_callback_reasons reason, void* user, void* in, size_t len)
{
    auto* answer = static_cast<Answer*>(user);
    switch (reason) {
        case LWS_CALLBACK_HTTP:
            return answer_request(wsi, answer);
        case LWS_CALLBACK_HTTP_WRITEABLE:
            return answer ? send_body(wsi, answer) : -1;
        default:
            return lws_callback_http_dummy(wsi, reason, user, in, len);
    }
}

const lws_protocols kProtocols[] = {
    {"http", on_http_event, sizeof(Answer), 0, 0, nullptr, 0},
    {nullptr, nullptr, 0, 0, 0, nullptr, 0},
};

}  // namespace

int stock_service_run(int port)
{
    lws_context_creation_info info;
    memset(&info, 0, sizeof info);
    info.port = port;
    info.iface = "127.0.0.1";
    info.protocols = kProtocols;
    info.gid = -1;
    info.uid = -1;
    lws_context* context = lws_create_context(&info);
    if (!context) {
        fprintf(stderr, "stock: cannot listen on 127.0.0.1:%d\n", port);
        return -1;
    }
    g_context = context;
    lws_sul_schedule(context, 0, &g_stop_tick, on_stop_tick, kStopTickUs);
    printf("listening on 127.0.0.1:%d\n",
           lws_get_vhost_listen_port(lws_get_vhost_by_name(context, "default")));
    fflush(stdout);
    while (!g_stop)
        if (lws_service(context, 0) < 0) break;
    lws_sul_cancel(&g_stop_tick);
    lws_context_destroy(context);
    g_context = nullptr;
    return 0;
}

void stock_service_request_stop(void)
{
    g_stop = true;
}
