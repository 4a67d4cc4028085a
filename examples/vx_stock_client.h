/*
 * The shop's HTTP client for the stock service: one GET at a time, with the
 * headers the agent gives for it (correlation, trace context), in bounded
 * time.
 *
 * The client owns a libwebsockets context that only the thread which created
 * it may use (libwebsockets is single-threaded): the shop serves its pages on
 * one thread, and that thread makes every call.
 */
#ifndef VX_STOCK_CLIENT_H
#define VX_STOCK_CLIENT_H

struct StockClient;

/* A client for the service on 127.0.0.1:`port`; null (and a line on stderr)
 * when libwebsockets cannot make its context. Free with
 * stock_client_destroy. */
StockClient* stock_client_create(int port);
void stock_client_destroy(StockClient* client);

/* GET `path` ("/api/stock/17") with `headers`, "Name:value" lines (null:
 * none). Waits at most `timeout_ms` for the whole answer. Returns the
 * answer's HTTP status, or -1 when no answer came (refused, reset, timed out,
 * a header lws cannot take). */
int stock_client_get(StockClient* client, const char* path, const char* headers, int timeout_ms);

#endif
