/*
 * The list algorithm the data and auto-sensor channels share.
 *
 * A channel keeps a write list (free buffers; producers fill its head) and
 * a read list (filled buffers; the sender drains its head). VXRingLists_t
 * names one channel's fields by reference, so both channels run the same
 * moves and the same add while keeping their own field names. Nothing here
 * allocates except ring_grow, and nothing here takes a lock except
 * ring_add, which takes the move lock around each transfer it makes; the
 * callers' contracts say which locks are held.
 */
#ifndef VX_BUFFER_RING_H
#define VX_BUFFER_RING_H

#include <apr_thread_mutex.h>

#include "link/vx_data_buffers.h"

struct VXRingLists_t {
    nioSettings_t*& writeList;
    nioSettings_t*& writeListLast;
    int& writeListSize;
    nioSettings_t*& agentBB; /* head of writeList, or null when it ran empty */
    nioSettings_t*& readList;
    nioSettings_t*& readListLast;
    int& readListSize;
    nioSettings_t*& collectorBB; /* head of readList */
    apr_thread_mutex_t* moveLock;
};

namespace vx {

/* Build `count` nodes of `size` bytes at the tail of the write list; the
 * first becomes agentBB when it is null. The number built: below `count`
 * when memory ran out (what was built stays). Caller holds the move lock. */
int ring_grow(const VXRingLists_t& r, int count, int size);

/* Head of the write list to the tail of the read list, and back. The caller
 * holds the move lock (ring_to_write: the write lock as well). */
void ring_to_read(const VXRingLists_t& r);
void ring_to_write(const VXRingLists_t& r);

/* How a record longer than a whole buffer ends: its head is kept, and a
 * line feed closes the line in the spill buffer (kCloseLine) or not. */
enum class CutRecord { kCloseLine, kKeepAsIs };

/* Copy a record into the current buffer, spilling into the next when it
 * does not fit; a full buffer is published at once. The caller holds the
 * write lock. One of the kBuffer* results; each negative one adds 1 to
 * `discardCount`. */
int ring_add(const VXRingLists_t& r, int& discardCount, const char* data, int bytes, CutRecord cut);

}  // namespace vx

#endif
