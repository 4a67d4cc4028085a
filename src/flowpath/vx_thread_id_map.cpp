#include "flowpath/vx_thread_id_map.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/vx_hashmap.h"
#include "agent/vx_instance.h"
#include "core/vx_thread.h"
#include "core/vx_trace_log.h"

namespace {

constexpr int kKeySize = vx::kThreadIdKeyDigits + 1;

void make_key(char* key, long long threadId)
{
    char full[32];
    snprintf(full, sizeof full, "%lld", threadId);
    snprintf(key, kKeySize, "%.7s", full);
}

}  // namespace

extern "C" void initVXManageTIdToTLocal(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || app->threadIdToThreadLocal) return;
    app->threadIdToThreadLocal = create_hashmap(app->control_pool);
    app->threadLocalMutex = vx::mutex_create(app->control_pool);
}

extern "C" void* setThreadIdToThreadLocal(long long threadId)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !app->threadIdToThreadLocal) return nullptr;
    auto* key = static_cast<char*>(malloc(kKeySize));
    auto* rec = static_cast<VXPerThreadData_t*>(calloc(1, sizeof(VXPerThreadData_t)));
    if (!key || !rec) {
        free(key);
        free(rec);
        VX_ERROR("FLOWPATH", "Error in allocating record for thread '%lld'", threadId);
        return nullptr;
    }
    make_key(key, threadId);
    vx::VXLockGuard guard(app->threadLocalMutex);
    modify_hashmap(key, rec, app->threadIdToThreadLocal);
    return rec;
}

extern "C" void* getThreadIdToThreadLocal(long long threadId)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !app->threadIdToThreadLocal) return nullptr;
    char key[kKeySize];
    make_key(key, threadId);
    vx::VXLockGuard guard(app->threadLocalMutex);
    return search_hashmap(key, app->threadIdToThreadLocal);
}

extern "C" void cleanThreadIdToThreadLocal(long long threadId)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !app->threadIdToThreadLocal) return;
    char key[kKeySize];
    make_key(key, threadId);
    vx::VXLockGuard guard(app->threadLocalMutex);
    apr_hash_t* map = app->threadIdToThreadLocal;
    apr_hash_index_t* hi = nullptr;
    /* The stored key is the heap copy: find it to free it with the record. */
    for (hi = apr_hash_first(nullptr, map); hi; hi = apr_hash_next(hi)) {
        const void* k = apr_hash_this_key(hi);
        if (strcmp(static_cast<const char*>(k), key) == 0) break;
    }
    if (!hi) return;
    char* stored = static_cast<char*>(const_cast<void*>(apr_hash_this_key(hi)));
    void* rec = apr_hash_this_val(hi);
    modify_hashmap(stored, nullptr, map);
    free(rec);
    free(stored);
}
