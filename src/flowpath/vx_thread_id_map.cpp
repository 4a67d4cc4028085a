#include "flowpath/vx_thread_id_map.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "agent/vx_instance.h"
#include "core/vx_hashmap.h"
#include "core/vx_thread.h"
#include "core/vx_trace_log.h"

namespace {

constexpr int kKeySize = vx::kThreadIdKeyDigits + 1;

/* A placeholder and its key in one block: the key is found from the
 * record, so a clean needs no search for it. */
struct Placeholder {
    VXPerThreadData_t record;
    char key[kKeySize];
};

/* One mutex for the process: a second instance reuses it. */
apr_thread_mutex_t* threadLocalMutex = nullptr;

void make_key(char* key, long long threadId)
{
    char full[32];
    snprintf(full, sizeof full, "%lld", threadId);
    snprintf(key, kKeySize, "%.7s", full);
}

Placeholder* find_locked(apr_hash_t* map, long long threadId)
{
    char key[kKeySize];
    make_key(key, threadId);
    return static_cast<Placeholder*>(search_hashmap(key, map));
}

Placeholder* find_or_make_locked(apr_hash_t* map, long long threadId)
{
    if (Placeholder* p = find_locked(map, threadId)) return p;
    auto* p = static_cast<Placeholder*>(calloc(1, sizeof(Placeholder)));
    VX_TRACE(VX_LEVEL(fpTraceLevel), 4, "FLOWPATH", "Placeholder of thread '%lld' allocated at %p", threadId,
             static_cast<void*>(p));
    if (!p) {
        VX_ERROR("FLOWPATH", "Error in allocating record for thread '%lld'", threadId);
        return nullptr;
    }
    make_key(p->key, threadId);
    modify_hashmap(p->key, p, map);
    return p;
}

apr_hash_t* thread_map()
{
    VXProxyInstance_t* app = vx_app();
    return app ? app->threadIdToThreadLocal : nullptr;
}

}  // namespace

extern "C" void initVXManageTIdToTLocal(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    if (!threadLocalMutex) threadLocalMutex = vx::mutex_create(app->control_pool);
    if (!app->threadIdToThreadLocal) app->threadIdToThreadLocal = create_hashmap(app->control_pool);
}

void vx::with_thread_placeholder_fn(long long threadId, PlaceholderFn fn, void* ctx)
{
    apr_hash_t* map = thread_map();
    if (!map) return;
    vx::VXLockGuard guard(threadLocalMutex);
    if (Placeholder* p = find_or_make_locked(map, threadId)) fn(&p->record, ctx);
}

extern "C" void* setThreadIdToThreadLocal(long long threadId) VX_NOEXCEPT
{
    apr_hash_t* map = thread_map();
    if (!map) return nullptr;
    vx::VXLockGuard guard(threadLocalMutex);
    Placeholder* p = find_or_make_locked(map, threadId);
    return p ? &p->record : nullptr;
}

extern "C" void* getThreadIdToThreadLocal(long long threadId) VX_NOEXCEPT
{
    apr_hash_t* map = thread_map();
    if (!map) return nullptr;
    vx::VXLockGuard guard(threadLocalMutex);
    Placeholder* p = find_locked(map, threadId);
    return p ? &p->record : nullptr;
}

extern "C" void cleanThreadIdToThreadLocal(long long threadId) VX_NOEXCEPT
{
    apr_hash_t* map = thread_map();
    if (!map) return;
    vx::VXLockGuard guard(threadLocalMutex);
    Placeholder* p = find_locked(map, threadId);
    if (!p) return;
    const int level = VX_LEVEL(fpTraceLevel);
    VX_TRACE(level, 2, "FLOWPATH", "Going to clean ThreadId '%lld'", threadId);
    modify_hashmap(p->key, nullptr, map);
    free(p);
    VX_TRACE(level, 2, "FLOWPATH", "ThreadId '%lld' was clean successfully", threadId);
}
