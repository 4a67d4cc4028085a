/*
 * The stock service, the shop's back tier: a small HTTP server on loopback,
 * built on libwebsockets, that answers GET /api/stock/<item> with a stock
 * lookup (vx_stock_lookup.h).
 */
#ifndef VX_STOCK_SERVICE_H
#define VX_STOCK_SERVICE_H

/* Serve on 127.0.0.1:`port` (0: a free port the system picks) until
 * stock_service_request_stop. Prints "listening on 127.0.0.1:<port>" once it
 * listens. Requests are served one at a time on the calling thread. Returns 0
 * after a stop, -1 when it could not listen. */
int stock_service_run(int port);

/* Make stock_service_run return. Safe from a signal handler and from any
 * thread. */
void stock_service_request_stop(void);

#endif
