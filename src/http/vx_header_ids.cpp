#include "http/vx_header_ids.h"

#include <apr_strings.h>

#include "agent/vx_instance.h"
#include "core/vx_thread.h"

extern "C" httpHashMapNode_t* searchAndUpdatehttpHashMapNode(char* name, void* httpHashMapNodeLocal,
                                                             int updateFlag)
{
    VXProxyInstance_t* app = vx_app();
    auto* map = static_cast<apr_hash_t*>(httpHashMapNodeLocal);
    if (!app || !map || !name) return nullptr;
    vx::VXLockGuard guard(app->httpEntryLock);
    auto* e = static_cast<httpHashMapNode_t*>(apr_hash_get(map, name, APR_HASH_KEY_STRING));
    if (e || !updateFlag) return e;
    apr_pool_t* pool = apr_hash_pool_get(map);
    e = static_cast<httpHashMapNode_t*>(apr_pcalloc(pool, sizeof(httpHashMapNode_t)));
    e->name = apr_pstrdup(pool, name);
    e->id = app->httpid++;
    apr_hash_set(map, e->name, APR_HASH_KEY_STRING, e);
    return e;
}
