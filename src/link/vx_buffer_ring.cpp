#include "link/vx_buffer_ring.h"

#include <cstdlib>
#include <cstring>

#include "core/vx_atomic.h"
#include "core/vx_thread.h"

namespace {

/* A zeroed node with `size` bytes of storage; null when memory ran out. */
nioSettings_t* new_node(int size)
{
    auto* node = static_cast<nioSettings_t*>(calloc(1, sizeof(nioSettings_t)));
    if (!node) return nullptr;
    node->buff = static_cast<char*>(malloc(static_cast<size_t>(size)));
    if (!node->buff) {
        free(node);
        return nullptr;
    }
    node->buff_size = size;
    return node;
}

void append(nioSettings_t*& head, nioSettings_t*& tail, nioSettings_t* node)
{
    node->next = nullptr;
    if (!head)
        head = node;
    else
        tail->next = node;
    tail = node;
}

/* Unlink and return the head of a list (null when empty). */
nioSettings_t* take_head(nioSettings_t*& head, nioSettings_t*& tail)
{
    nioSettings_t* node = head;
    if (!node) return nullptr;
    head = node->next;
    if (!head) tail = nullptr;
    node->next = nullptr;
    return node;
}

/* The head of one list to the tail of the other. Each list's "current"
 * pointer follows its head: the source's moves on, the target's is set
 * when it was null. */
void move_head(nioSettings_t*& fromHead, nioSettings_t*& fromTail, int& fromSize,
               nioSettings_t*& fromCur, nioSettings_t*& toHead, nioSettings_t*& toTail, int& toSize,
               nioSettings_t*& toCur)
{
    nioSettings_t* node = take_head(fromHead, fromTail);
    if (!node) return;
    fromCur = fromHead;
    append(toHead, toTail, node);
    if (!toCur) toCur = toHead;
    ++toSize;
    --fromSize;
}

void publish(const VXRingLists_t& r)
{
    vx::VXLockGuard guard(r.moveLock);
    vx::ring_to_read(r);
}

void copy_in(nioSettings_t* node, const char* data, int bytes)
{
    memcpy(node->buff + node->use_len, data, static_cast<size_t>(bytes));
    node->use_len += bytes;
}

}  // namespace

namespace vx {

int ring_grow(const VXRingLists_t& r, int count, int size)
{
    for (int i = 0; i < count; ++i) {
        nioSettings_t* node = new_node(size);
        if (!node) return i;
        append(r.writeList, r.writeListLast, node);
        ++r.writeListSize;
        if (!r.agentBB) r.agentBB = node;
    }
    return count;
}

void ring_to_read(const VXRingLists_t& r)
{
    move_head(r.writeList, r.writeListLast, r.writeListSize, r.agentBB, r.readList, r.readListLast,
              r.readListSize, r.collectorBB);
}

/* Producers recover here after the free list ran empty: agentBB is null
 * until a node comes back. */
void ring_to_write(const VXRingLists_t& r)
{
    move_head(r.readList, r.readListLast, r.readListSize, r.collectorBB, r.writeList,
              r.writeListLast, r.writeListSize, r.agentBB);
}

int ring_add(const VXRingLists_t& r, int& discardCount, const char* data, int bytes, CutRecord cut)
{
    nioSettings_t* cur = r.agentBB;
    if (!cur) {
        fetch_add_relaxed(discardCount, 1);
        VXLockGuard move(r.moveLock); /* the sender moves the read head */
        return r.collectorBB ? kBufferNoneFree : kBufferNotReady;
    }
    const int room = cur->buff_size - cur->use_len;
    if (bytes <= room) {
        copy_in(cur, data, bytes);
        if (cur->use_len >= cur->buff_size) publish(r);
        return kBufferStored;
    }
    /* The last free buffer is never spilled into: the record goes whole. */
    if (!cur->next) {
        fetch_add_relaxed(discardCount, 1);
        return kBufferNoRoom;
    }
    copy_in(cur, data, room);
    publish(r);

    nioSettings_t* spill = r.agentBB;
    const int rest = bytes - room;
    if (rest > spill->buff_size) {
        fetch_add_relaxed(discardCount, 1);
        if (cut == CutRecord::kKeepAsIs) return kBufferRecordCut;
        spill->buff[spill->use_len++] = '\n'; /* the cut record still ends its line */
        if (spill->use_len >= spill->buff_size) publish(r);
        return kBufferRecordCut;
    }
    copy_in(spill, data + room, rest);
    if (spill->use_len >= spill->buff_size) publish(r);
    return kBufferStored;
}

}  // namespace vx
