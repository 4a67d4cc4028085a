/*
 * The stock service's one business operation, reported to the agent: how
 * many of an item are in stock.
 */
#ifndef VX_STOCK_LOOKUP_H
#define VX_STOCK_LOOKUP_H

#include <stddef.h>

/* Answer GET `path` ("/api/stock/<item>") as one transaction of the agent,
 * with `correlation`, the caller's correlation text (null or empty: none), as
 * its link to the calling tier. Writes the answer's JSON body, NUL-ended,
 * into `body` (`room` bytes) and returns its HTTP status: 200, or 404 for a
 * path that names no item. Runs on the service's thread; takes as long as the
 * item's warehouse does. */
int stock_lookup(const char* path, const char* correlation, char* body, size_t room);

#endif
