/*
 * The road of one page through the agent:
 *   vx_bt_begin                       the request arrives (URL, cookies, headers)
 *   sdk_httpReqRespWrapper("req")     its headers
 *   vx_method_entry / vx_method_exit  each instrumented method
 *   vx_ip_db_callout_begin / _end     the cart's query, a checkout's reservation
 *   vx_ip_http_callout_begin          the call to the stock service, which
 *   get_custom_vx_header                carries the agent's correlation text
 *   sdk_get_propagation_header          and the trace context, so the service's
 *   vx_ip_http_callout_end              transaction links to it in one trace
 *   getstacktracearray                an exception the page raised
 *   sdk_httpReqRespWrapper("resp")    the response headers and status
 *   sdk_getVXSessionCookie            the session cookie to set
 *   vx_bt_end                         the response is sent
 */
#include "vx_shop_front.h"

#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include "vx_example_host.h"
#include "vx_sdk.h"
#include "vx_stock_client.h"

namespace {

/* The stock service's slowest item takes 3.2 s; a call that takes longer
 * than this has failed. */
constexpr int kStockCallTimeoutMs = 5000;

char* S(const char* s)
{
    return const_cast<char*>(s);
}

/* A request that arrives with the trace context of an upstream caller, as
 * the header block gives it: the whole trace keeps that caller's id. */
#define UPSTREAM_TRACE "\x7ftraceparent$00-4bf92f3577b34da6a3ce929d0e0e4736-00f067aa0ba902b7-01"

struct StockService {
    StockClient* client;
    int port;
};

struct Page {
    const char* url;     /* "path?query|METHOD" */
    const char* headers; /* the agent's header block, "name$value" */
    bool database;       /* loads the cart */
    const char* stock;   /* path asked of the stock service, or null */
    int status;          /* the answer, when the stock service answered 200 */
    int work_ms;         /* time the page itself takes */
};

/* One call to the stock service as a callout of transaction `h`. Returns the
 * service's status, or -1 when it did not answer. */
int check_stock(vxBTHandle h, const StockService& stock, const char* path)
{
    vx_method_entry(h, S("Shop.checkStock"));
    char url[128];
    snprintf(url, sizeof url, "http://127.0.0.1:%d%s", stock.port, path);
    vx_ip_http_callout_begin(S("Http.get"), h, url);
    /* Either is null while the agent has nothing to give: the call then goes
     * without it. */
    const char* correlation = get_custom_vx_header(h);
    char* trace = sdk_get_propagation_header(h);
    char headers[3072];
    snprintf(headers, sizeof headers, "%s%s%s\n%s",
             correlation ? EXAMPLE_CORRELATION_HEADER : "", correlation ? ":" : "",
             correlation ? correlation : "", trace ? trace : "");
    sdk_free_memory(trace);
    const int status = stock_client_get(stock.client, path, headers, kStockCallTimeoutMs);
    char backend[160];
    snprintf(backend, sizeof backend, "HTTP|127.0.0.1|%d|%s", stock.port, path);
    vx_ip_http_callout_end(S("Http.get"), backend, h, nullptr);
    vx_method_exit(h, S("Shop.checkStock"), nullptr);
    return status;
}

/* One query of transaction `h` on the shop's database. */
void query(vxBTHandle h, const char* text, const char* params)
{
    vx_ip_db_callout_begin(S("Db.query"), h, S(text), S(params));
    vx_ip_db_callout_end(S("Db.query"), S("MySQL|db.internal|3306|shop"), h, nullptr);
}

/* An exception raised in Shop.handle, as a host's exception hook reports
 * it: class, message and the stack as text. */
void raise(vxBTHandle h, const char* cls, const char* message)
{
    char stack[] = "at Shop.handle(Shop.cpp:88)\nat Server.dispatch(Server.cpp:41)\n"
                   "at Server.run(Server.cpp:12)";
    getstacktracearray(static_cast<VXPerThreadData_t*>(h), stack, nullptr, S(cls), S("Shop"),
                       S(message), S("handle"), 88, nullptr);
}

/* One page from arrival to response. */
bool serve(const StockService& stock, const Page& page)
{
    vxBTHandle h =
        vx_bt_begin(S(page.url), nullptr, nullptr, S("7301-1-1-12"), S(page.headers), nullptr);
    if (!h) return false; /* no session: nothing to report */
    sdk_httpReqRespWrapper(h, S(page.headers), S("req"), 0);

    int status = page.status;
    vx_method_entry(h, S("Shop.handle"));
    if (page.database) {
        vx_method_entry(h, S("Shop.loadCart"));
        query(h, "select * from cart where user = ?", "42");
        vx_method_exit(h, S("Shop.loadCart"), nullptr);
    }
    if (page.stock) {
        const int answer = check_stock(h, stock, page.stock);
        if (answer != 200) {
            printf("shop: %s: the stock service failed %s; answering 502\n", page.url, page.stock);
            char message[160];
            snprintf(message, sizeof message, "stock service answered %d for %s", answer,
                     page.stock);
            raise(h, "shop.StockUnavailable", message);
            status = 502;
        } else if (page.url[1] == 'c' && page.url[2] == 'h') { /* a checkout reserves */
            query(h, "update stock set reserved = reserved + 1 where item = ?", "17");
        }
    }
    if (status == 500) raise(h, "shop.CartLoadError", "the cart store timed out after 2000 ms");
    /* The session filters this class out: it never reaches the collector. */
    if (strncmp(page.url, "/health", 7) == 0) raise(h, "probe.Ignored", "a probe's own exception");
    if (page.work_ms) std::this_thread::sleep_for(std::chrono::milliseconds(page.work_ms));
    vx_method_exit(h, S("Shop.handle"), nullptr);

    sdk_httpReqRespWrapper(h, S("Content-Type$text/html"), S("resp"), status);
    char* cookie = sdk_getVXSessionCookie(h);
    sdk_free_memory(cookie);
    vx_bt_end(h, status, 0, nullptr);
    return true;
}

}  // namespace

int shop_front_serve(int stock_port)
{
    StockService stock{stock_client_create(stock_port), stock_port};
    if (!stock.client) return -1;
    /* Fast pages, the cart's query, stock pages and checkouts that ask the
     * stock service, errors (a checkout of an item the service does not
     * know, a cart that fails), one slow checkout (its item's warehouse is
     * slow), a health check and a page no rule names. */
    static const Page kPages[] = {
        {"/cart|GET", "User-Agent$demo", true, nullptr, 200, 0},
        {"/api/stock/17|GET", "User-Agent$demo", false, "/api/stock/17", 200, 0},
        {"/checkout?step=2|POST", "User-Agent$demo" UPSTREAM_TRACE, true, "/api/stock/17", 200, 0},
        {"/health|GET", "User-Agent$probe", false, nullptr, 200, 0},
        {"/cart|GET", "User-Agent$demo", true, nullptr, 200, 0},
        {"/api/stock/42|GET", "User-Agent$demo", false, "/api/stock/42", 200, 0},
        {"/checkout?step=3|POST", "User-Agent$demo", false, "/api/stock/0", 200, 0},
        {"/about|GET", "User-Agent$demo", false, nullptr, 200, 0},
        {"/checkout?step=2|POST", "User-Agent$demo", true, "/api/stock/99", 200, 0},
        {"/cart|GET", "User-Agent$demo", true, nullptr, 500, 0},
        {"/api/stock/17|GET", "User-Agent$demo", false, "/api/stock/17", 200, 0},
    };
    /* Then two lighter rounds a moment apart, so that the monitors'
     * intervals differ. */
    static const Page kLater[] = {
        {"/cart|GET", "User-Agent$demo", true, nullptr, 200, 0},
        {"/api/stock/42|GET", "User-Agent$demo", false, "/api/stock/42", 200, 0},
        {"/checkout?step=2|POST", "User-Agent$demo", true, "/api/stock/42", 200, 0},
    };
    int served = 0;
    for (const Page& p : kPages) served += serve(stock, p) ? 1 : 0;
    for (int round = 0; round < 2; ++round) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        for (const Page& p : kLater) served += serve(stock, p) ? 1 : 0;
    }
    /* Then paced rounds of pages that take their time, a round further apart
     * than a monitor interval is long: each page ends at most once per
     * interval, so each value its BT's digest gets is one page's time. */
    static const int kWorkMs[][3] = {
        {12, 8, 60}, {15, 9, 75}, {40, 11, 90}, {180, 95, 900}, {14, 10, 70},
    };
    for (const auto& work : kWorkMs) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2300));
        const Page paced[] = {
            {"/cart|GET", "User-Agent$demo", true, nullptr, 200, work[0]},
            {"/api/stock/8|GET", "User-Agent$demo", false, "/api/stock/8", 200, work[1]},
            {"/checkout?step=1|POST", "User-Agent$demo", true, nullptr, 200, work[2]},
        };
        for (const Page& p : paced) served += serve(stock, p) ? 1 : 0;
    }
    stock_client_destroy(stock.client);
    return served;
}
