/*
 * The shop's front tier: its pages, each reported as a transaction with its
 * methods and callouts; the stock pages and the checkout ask the stock
 * service over HTTP (vx_stock_client.h).
 */
#ifndef VX_SHOP_FRONT_H
#define VX_SHOP_FRONT_H

/* Serve the shop's scripted mix of pages on the calling thread, asking the
 * stock service on 127.0.0.1:`stock_port`. Returns how many pages were
 * reported, or -1 when no HTTP client could be made. */
int shop_front_serve(int stock_port);

#endif
