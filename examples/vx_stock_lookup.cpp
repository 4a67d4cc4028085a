/*
 * A stock lookup from request to answer, as the stock service reports it:
 *   vx_bt_begin                       with the caller's correlation text
 *   vx_method_entry / vx_method_exit  Stock.handle, Stock.lookup
 *   vx_ip_db_callout_begin / _end     the query on the stock database
 *   getstacktracearray                an unknown item's exception
 *   vx_bt_end                         with the answer's status
 */
#include "vx_stock_lookup.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "vx_example_host.h"
#include "vx_sdk.h"

namespace {

constexpr char kPrefix[] = "/api/stock/";
constexpr int kMaxItem = 9999;
/* This item's warehouse answers slowly: the shop's checkout of it is a very
 * slow transaction on both tiers. */
constexpr int kSlowItem = 99;
constexpr int kSlowItemMs = 3200;

char* S(const char* s)
{
    return const_cast<char*>(s);
}

/* Method events; without a session (null handle) the lookup runs unreported. */
void enter(vxBTHandle h, const char* method)
{
    if (h) vx_method_entry(h, S(method));
}

void leave(vxBTHandle h, const char* method)
{
    if (h) vx_method_exit(h, S(method), nullptr);
}

/* The item a path names, or 0 for none. */
int item_of(const char* path)
{
    if (strncmp(path, kPrefix, sizeof kPrefix - 1) != 0) return 0;
    const char* digits = path + sizeof kPrefix - 1;
    if (!*digits || strspn(digits, "0123456789") != strlen(digits) || strlen(digits) > 4) return 0;
    const int item = atoi(digits);
    return item <= kMaxItem ? item : 0;
}

/* The query on the stock database; the quantity is made up from the item. */
int query_quantity(vxBTHandle h, int item)
{
    char param[16];
    snprintf(param, sizeof param, "%d", item);
    if (h)
        vx_ip_db_callout_begin(S("Db.query"), h, S("select quantity from stock where item = ?"),
                               param);
    if (item == kSlowItem) std::this_thread::sleep_for(std::chrono::milliseconds(kSlowItemMs));
    if (h)
        vx_ip_db_callout_end(S("Db.query"), S("PostgreSQL|stockdb.internal|5432|stock"), h,
                             nullptr);
    return item * 7 % 50;
}

}  // namespace

namespace {

/* Appends "\x7f<name>$<value>" to the header block when `value` is given. */
void add_entry(char* block, size_t room, const char* name, const char* value)
{
    if (!value || !*value) return;
    const size_t used = strlen(block);
    snprintf(block + used, room - used, "\x7f%s$%s", name, value);
}

}  // namespace

int stock_lookup(const StockRequest& request, char* body, size_t room, char* trace, size_t trace_room)
{
    if (trace_room) trace[0] = '\0';
    char url[128];
    snprintf(url, sizeof url, "%s|GET", request.path);
    const char* correlation = request.correlation;
    const bool linked = correlation && *correlation;
    /* The agent's header block: "name$value" entries apart by the byte 0x7F. */
    char headers[4096] = "Accept$application/json";
    add_entry(headers, sizeof headers, EXAMPLE_CORRELATION_HEADER, correlation);
    add_entry(headers, sizeof headers, "traceparent", request.traceparent);
    add_entry(headers, sizeof headers, "tracestate", request.tracestate);
    /* No cookies: the caller is another tier, not a browser. */
    vxBTHandle h =
        vx_bt_begin(url, nullptr, nullptr, nullptr, headers, linked ? S(correlation) : nullptr);
    if (h) {
        sdk_httpReqRespWrapper(h, headers, S("req"), 0);
        /* The context this tier carries on, for the answer's headers. */
        if (char* lines = sdk_get_propagation_header(h)) {
            snprintf(trace, trace_room, "%s", lines);
            sdk_free_memory(lines);
        }
    }

    enter(h, "Stock.handle");
    const int item = item_of(request.path);
    int status = 404;
    if (item) {
        enter(h, "Stock.lookup");
        const int quantity = query_quantity(h, item);
        leave(h, "Stock.lookup");
        snprintf(body, room, "{\"item\":%d,\"quantity\":%d}\n", item, quantity);
        status = 200;
    } else {
        snprintf(body, room, "{\"error\":\"no such item\"}\n");
        if (h) { /* the service's exception hook reports what it raised */
            char stack[] = "at Stock.handle(Stock.cpp:31)\nat Server.run(Server.cpp:12)";
            char message[160];
            snprintf(message, sizeof message, "no item at %s", request.path);
            getstacktracearray(static_cast<VXPerThreadData_t*>(h), stack, nullptr,
                               S("stock.NoSuchItem"), S("Stock"), message, S("handle"), 31,
                               nullptr);
        }
    }
    leave(h, "Stock.handle");

    if (h) {
        sdk_httpReqRespWrapper(h, S("Content-Type$application/json"), S("resp"), status);
        vx_bt_end(h, status, 0, nullptr);
    }
    return status;
}
