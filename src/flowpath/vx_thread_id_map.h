/*
 * Placeholder records by host thread id, for thread callouts: a child
 * thread's record of its own on the heap, found by the thread's id. Keys are
 * the id's decimal text cut to 7 digits, so two long ids may share an entry.
 *
 * Threads: the map and the placeholders' fields are guarded by
 * threadLocalMutex. A placeholder lives from the first callout for its id
 * until the host cleans it; the key lives in the same block, so a clean
 * frees all of it and memory stays bounded by the ids in use.
 */
#ifndef VX_THREAD_ID_MAP_H
#define VX_THREAD_ID_MAP_H

#include <type_traits>

#include "vx_sdk.h"

struct VXPerThreadData_t;

extern "C" {
void initVXManageTIdToTLocal(void);
/* The placeholder of `threadId`, made zeroed when absent (an existing one is
 * returned as it is, so a pointer a child holds stays valid). Null on
 * failure. */
void* setThreadIdToThreadLocal(long long threadId) VX_NOEXCEPT;
/* The placeholder, or null. */
void* getThreadIdToThreadLocal(long long threadId) VX_NOEXCEPT;
/* Free the placeholder and its key; nothing when there is none. */
void cleanThreadIdToThreadLocal(long long threadId) VX_NOEXCEPT;
}

namespace vx {

using PlaceholderFn = void (*)(VXPerThreadData_t* placeholder, void* ctx);
/* Run `fn` on the placeholder of `threadId` (made when absent) with the map
 * lock held; nothing when it cannot be made. */
void with_thread_placeholder_fn(long long threadId, PlaceholderFn fn, void* ctx);

template <typename F>
void with_thread_placeholder(long long threadId, F&& fn)
{
    using Fn = std::remove_reference_t<F>;
    with_thread_placeholder_fn(
        threadId, [](VXPerThreadData_t* p, void* c) { (*static_cast<Fn*>(c))(p); }, &fn);
}

}  // namespace vx

#endif
