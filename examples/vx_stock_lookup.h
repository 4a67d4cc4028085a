/*
 * The stock service's one business operation, reported to the agent: how
 * many of an item are in stock.
 */
#ifndef VX_STOCK_LOOKUP_H
#define VX_STOCK_LOOKUP_H

#include <stddef.h>

/* What the service takes from a request: the path and the headers the agent
 * reads (each null or empty when absent). */
struct StockRequest {
    const char* path;        /* "/api/stock/<item>" */
    const char* correlation; /* the caller's correlation text: the link to its tier */
    const char* traceparent; /* the caller's trace context */
    const char* tracestate;
};

/* Answer one request as one transaction of the agent. Writes the answer's
 * JSON body, NUL-ended, into `body` (`room` bytes), and into `trace` (`trace_room`
 * bytes) the trace-context headers for the answer as "Name:value" lines
 * (empty without a session). Returns the HTTP status: 200, or 404 for a path
 * that names no item. Runs on the service's thread; takes as long as the
 * item's warehouse does. */
int stock_lookup(const StockRequest& request, char* body, size_t room, char* trace, size_t trace_room);

#endif
