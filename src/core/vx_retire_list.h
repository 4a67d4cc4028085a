/*
 * Memory that readers without a lock may still hold, released later.
 *
 * A table that request threads read without a lock (a rule set, an array
 * grown under its writer's lock) is replaced by publishing a new one; the old
 * one goes here and is released only once `grace` has passed since, at a
 * point where its owner collects (a session's clean-up). Readers hold such
 * memory for the length of one look-up, far below any grace used.
 *
 * Threads: the list is guarded by its owner's lock; retire and collect are
 * called with it held.
 */
#ifndef VX_RETIRE_LIST_H
#define VX_RETIRE_LIST_H

#include <apr_time.h>

namespace vx {

struct RetiredItem;

struct RetireList {
    RetiredItem* head;
};

using ReleaseFn = void (*)(void* ptr);

/* Hands `ptr` over; `release` (free() when null) runs at a later collect.
 * On memory exhaustion the item is kept forever (leaked, never freed early)
 * and -1 is returned. A null ptr is ignored. */
int retire(RetireList& list, void* ptr, ReleaseFn release);

/* Releases every item retired at least `grace` before `now`; the others
 * stay. With grace 0 everything goes: for an owner that knows no reader
 * remains. Returns the number released. */
int retire_collect(RetireList& list, apr_time_t now, apr_interval_time_t grace);

}  // namespace vx

#endif
