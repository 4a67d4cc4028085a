#include "flowpath/vx_method_table.h"

#include <apr_strings.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "agent/vx_instance.h"
#include "core/vx_atomic.h"
#include "core/vx_encode.h"
#include "core/vx_limits.h"
#include "core/vx_platform.h"
#include "core/vx_text.h"
#include "core/vx_thread.h"
#include "core/vx_trace_log.h"
#include "flowpath/vx_method_announce.h"
#include "monitor/vx_backend_monitor.h"

namespace {

int trace_level()
{
    return VX_LEVEL(fpTraceLevel);
}

char* pool_dup(apr_pool_t* pool, const char* s)
{
    return s ? apr_pstrdup(pool, s) : nullptr;
}

/* A copy of `in` allocated in `pool`. */
methodPropProperties* copy_entry(apr_pool_t* pool, const methodPropProperties* in)
{
    methodPropProperties* m = vx::new_method_entry(pool);
    /* Field by field: host threads mark usedFlag of the entry being copied
     * while the copy is made. */
    m->type_ = in->type_;
    m->callOutValue = in->callOutValue;
    m->autoDeInstrFlg = in->autoDeInstrFlg;
    m->isInBlackListFlg = in->isInBlackListFlg;
    m->methodId = in->methodId;
    m->isEntryPoint = in->isEntryPoint;
    m->usedFlag = vx::load_relaxed(in->usedFlag);
    m->instrumentationProp = in->instrumentationProp;
    m->instrumentationStatus = in->instrumentationStatus;
    m->isAsyncCall = in->isAsyncCall;
    m->methodArgIndex = in->methodArgIndex;
    m->moduleName = pool_dup(pool, in->moduleName);
    m->methodName = pool_dup(pool, in->methodName);
    m->mon_methodName = pool_dup(pool, in->mon_methodName);
    m->customCalloutName = pool_dup(pool, in->customCalloutName);
    m->aliasMethodName = pool_dup(pool, in->aliasMethodName);
    m->methodRetType = pool_dup(pool, in->methodRetType);
    m->methodArgList = nullptr;
    m->methodArgsListCount = 0;
    m->customCalloutptr = nullptr;
    m->generation = nullptr;
    if (in->methodArgList && in->methodArgsListCount) {
        m->methodArgList = static_cast<methodArgList_t*>(
            apr_pcalloc(pool, sizeof(methodArgList_t) * in->methodArgsListCount));
        for (unsigned i = 0; i < in->methodArgsListCount; ++i) {
            m->methodArgList[i].argName = pool_dup(pool, in->methodArgList[i].argName);
            m->methodArgList[i].type = pool_dup(pool, in->methodArgList[i].type);
        }
        m->methodArgsListCount = in->methodArgsListCount;
    }
    return m;
}

/* Key prefix of a backend of `type`/`callOutValue`, and the key used when the
 * name is empty (null: no entry). False when the kind has no prefix. */
bool backend_prefix(int type, int callOutValue, const char** prefix, const char** empty_key)
{
    struct DbKind {
        int callOutValue;
        const char* prefix;
        const char* empty;
    };
    static constexpr DbKind kDb[] = {{10, "DB", "DB_SQLDB"},
                                     {16, "REDIS", "DB_REDIS"},
                                     {15, "MONGO", "DB_MONGO"},
                                     {17, "ORACLE", "DB_ORACLE"},
                                     {18, "MYSQL", "DB_MYSQL"},
                                     {19, "PGSQL", "DB_PGSQL"},
                                     {20, "MEMCACHED", "DB_MEMCACHED"},
                                     {21, "ODBC", "DB_ODBC"},
                                     {22, "CASSANDRA", "DB_CASSANDRA"},
                                     {23, "SQLITE", "DB_SQLITE"},
                                     {25, "FIREBIRD", "DB_FIREBIRD"},
                                     {6, "COUCHBASE", "DB_COUCHBASE"},
                                     {24, "DB2", "DB_DB2"}};
    switch (type) {
        case kMethodTypeHttp:
            *prefix = "HTTP";
            *empty_key = nullptr;
            return true;
        case kMethodTypeDatabase:
            for (const DbKind& k : kDb)
                if (k.callOutValue == callOutValue) {
                    *prefix = k.prefix;
                    *empty_key = k.empty;
                    return true;
                }
            return false;
        case kMethodTypeCustom:
            *prefix = "CUSTOM";
            *empty_key = "CUSTOM_";
            return true;
        case kMethodTypeMessageQueue:
            if (callOutValue != 27) return false;
            *prefix = "MQ";
            *empty_key = "MQ_RABBIT";
            return true;
        default:
            return false;
    }
}

}  // namespace

VXMethodTable_t* vx::method_table()
{
    VXProxyInstance_t* app = vx_app();
    return app ? &app->methodTable : nullptr;
}

node_t* vx::new_method_generation()
{
    VXProxyInstance_t* app = vx_app();
    auto* node = static_cast<node_t*>(calloc(1, sizeof(node_t)));
    if (!node) return nullptr;
    if (apr_pool_create(&node->pool, app->control_pool) != APR_SUCCESS) {
        free(node);
        return nullptr;
    }
    node->ptr = apr_hash_make(node->pool);
    return node;
}

methodPropProperties* vx::find_method(node_t* node, const char* name)
{
    if (!node || !name) return nullptr;
    return static_cast<methodPropProperties*>(apr_hash_get(node->ptr, name, APR_HASH_KEY_STRING));
}

void vx::insert_method(node_t* node, methodPropProperties* m)
{
    m->generation = node;
    apr_hash_set(node->ptr, m->methodName, APR_HASH_KEY_STRING, m);
}

/* Entries, their texts and argument lists live in their generation's pool:
 * a generation is made and kept whole, and no entry is freed on its own.
 * Callers hold the method lock, which serialises the pool. */
methodPropProperties* vx::new_method_entry(apr_pool_t* pool)
{
    return static_cast<methodPropProperties*>(apr_pcalloc(pool, sizeof(methodPropProperties)));
}

char* vx::pool_dup_or_null(apr_pool_t* pool, const char* s)
{
    return (s && *s) ? apr_pstrdup(pool, s) : nullptr;
}

extern "C" void getMethodHashMapLock(void)
{
    if (VXMethodTable_t* t = vx::method_table(); t && t->methodEntryLock)
        apr_thread_mutex_lock(t->methodEntryLock);
}

extern "C" void releaseMethodHashMapLock(void)
{
    if (VXMethodTable_t* t = vx::method_table(); t && t->methodEntryLock)
        apr_thread_mutex_unlock(t->methodEntryLock);
}

extern "C" methodPropProperties* updateMethodHashMap(char* backendName, int isEntryPointPtr,
                                                     int type, node_t* methodHashMapNodeLocal,
                                                     int callOutValue)
{
    VXMethodTable_t* t = vx::method_table();
    if (!t || !backendName || !methodHashMapNodeLocal) return nullptr;
    methodPropProperties* m = vx::new_method_entry(methodHashMapNodeLocal->pool);
    m->methodName = apr_pstrdup(methodHashMapNodeLocal->pool, backendName);
    m->methodId = t->methodIDGlobal++;
    m->isEntryPoint = isEntryPointPtr;
    m->type_ = static_cast<char>(type);
    m->callOutValue = static_cast<char>(callOutValue);
    vx::insert_method(methodHashMapNodeLocal, m);
    vx::announce_method_id(m);
    return m;
}

extern "C" methodPropProperties* searchAndUpdateMethodHashMap(char* mName, node_t* node,
                                                              int updateFlag, int type,
                                                              int callOutValue)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !node) return nullptr;
    vx::VXLockGuard guard(app->methodTable.methodEntryLock);

    char key[vx::kMethodKeySize];
    const char* name = mName;
    const char* prefix = nullptr;
    const char* empty_key = nullptr;
    const bool prefixed = backend_prefix(type, callOutValue, &prefix, &empty_key);
    char escaped[vx::kHeaderBufferSize];
    if (prefixed) {
        if (!mName || !*mName) {
            if (!empty_key) return nullptr;
            vx::copy_text(key, sizeof key, empty_key);
        } else {
            snprintf(key, sizeof key, "%s_%s", prefix, mName);
        }
        if (methodPropProperties* m = vx::find_method(node, key)) return m;
        if (type == kMethodTypeHttp) {
            escapeHTML(escaped, sizeof escaped, key, 0);
            name = escaped;
        } else {
            name = key;
        }
    }
    if (!name) return nullptr;
    if (methodPropProperties* m = vx::find_method(node, name)) return m;

    bool capped = false;
    if (updateFlag == 1 &&
        app->VXBackendMonitor.backendIDCounter >= app->VXBackendMonitor.maxIPCount) {
        name = "Others";
        capped = true;
        if (methodPropProperties* m = vx::find_method(node, name)) return m;
    }
    methodPropProperties* m =
        updateMethodHashMap(const_cast<char*>(name), 0, type, node, callOutValue);
    if (!m) return nullptr;
    if (type == kMethodTypeHttp && prefixed) {
        m->mon_methodName = apr_pstrdup(node->pool, key);
        /* Also under the unescaped key, so that the next lookup by key finds
         * it without a new id. */
        if (!capped && strcmp(key, name) != 0) {
            methodPropProperties* copy = copy_entry(node->pool, m);
            copy->methodName = apr_pstrdup(node->pool, key);
            vx::insert_method(node, copy);
        }
    }
    /* Backends are counted up to the cap; "Others" does not count again, but
     * it needs its monitor slot like any backend. */
    if (updateFlag) {
        if (!capped) ++app->VXBackendMonitor.backendIDCounter;
        checkAndIncrementAggrBackendDataArray(m);
    }
    return m;
}

extern "C" methodPropProperties* getMethodPropFromMethodName(char* mName,
                                                             node_t* methodHashMapNodeLocal)
{
    VXMethodTable_t* t = vx::method_table();
    if (!t || !mName) return nullptr;
    vx::VXLockGuard guard(t->methodEntryLock);
    return vx::find_method(methodHashMapNodeLocal, mName);
}

extern "C" methodPropProperties* make_node_copy(methodPropProperties* in)
{
    if (!in || !in->generation) return nullptr;
    return copy_entry(in->generation->pool, in);
}

extern "C" void make_argument_copy(methodPropProperties* dst, methodPropProperties* src)
{
    if (!dst || !src || !dst->generation || !src->methodArgList || src->methodArgsListCount == 0)
        return;
    methodPropProperties* copy = copy_entry(dst->generation->pool, src);
    dst->methodArgList = copy->methodArgList;
    dst->methodArgsListCount = copy->methodArgsListCount;
}

extern "C" void make_hash_copy(apr_hash_t* dst, apr_hash_t* src)
{
    if (!dst || !src) return;
    apr_pool_t* pool = apr_hash_pool_get(dst);
    for (apr_hash_index_t* hi = apr_hash_first(nullptr, src); hi; hi = apr_hash_next(hi)) {
        methodPropProperties* copy =
            copy_entry(pool, static_cast<methodPropProperties*>(apr_hash_this_val(hi)));
        apr_hash_set(dst, copy->methodName, APR_HASH_KEY_STRING, copy);
    }
}

extern "C" void make_haspmap_copy(void)
{
    makeHashmapCopyAndaddToLL(1);
}

extern "C" void resetmethodHashMapNode(void* hashMap, int type)
{
    auto* hash = static_cast<apr_hash_t*>(hashMap);
    if (!hash) return;
    for (apr_hash_index_t* hi = apr_hash_first(nullptr, hash); hi; hi = apr_hash_next(hi)) {
        auto* m = static_cast<methodPropProperties*>(apr_hash_this_val(hi));
        vx::store_relaxed(m->usedFlag, 0);
        switch (type) {
            case 1:
                if (m->isEntryPoint == 0 && m->callOutValue < 1) m->instrumentationProp = 3;
                m->instrumentationStatus = 0;
                break;
            case 2:
                m->isEntryPoint &= ~kEntryPointMonitor;
                break;
            case 3:
                m->isEntryPoint &= ~kEntryPointCallout;
                m->callOutValue = 0;
                break;
            default:
                break;
        }
    }
}

extern "C" void makeHashmapCopyAndaddToLL(int type)
{
    VXMethodTable_t* t = vx::method_table();
    if (!t || !vx::load_acquire(t->methodHashMapNode)) return;
    vx::VXLockGuard guard(t->methodEntryLock);
    node_t* old = t->methodHashMapNode;
    if (!old) return; /* retired since the check */
    node_t* fresh = vx::new_method_generation();
    if (!fresh) {
        VX_ERROR("FLOWPATH", "Error in allocating a new generation of the method table");
        return;
    }
    t->methodHashMapNodeTemp = fresh;
    old->timeStamp = my_gettimeofday();
    make_hash_copy(fresh->ptr, old->ptr);
    for (apr_hash_index_t* hi = apr_hash_first(nullptr, fresh->ptr); hi; hi = apr_hash_next(hi)) {
        auto* m = static_cast<methodPropProperties*>(apr_hash_this_val(hi));
        m->generation = fresh;
        /* A custom callout's backend is the new generation's entry. */
        if (m->customCalloutName)
            m->customCalloutptr = vx::find_method(fresh, m->customCalloutName);
    }
    resetmethodHashMapNode(fresh->ptr, type);
    fresh->type = old->type;
    fresh->next = old;
    /* Flowpaths on the old generation keep it; new ones start on this. */
    vx::store_release(t->methodHashMapNode, fresh);
    t->methodHashMapNodeTemp = nullptr;
    vx::store_release(t->DefaultMethod, vx::find_method(fresh, kRootMethodName));
}

extern "C" void saveNodeAndIncrementMethodRefCount(VXPerThreadData_t* vxTD)
{
    VXMethodTable_t* t = vx::method_table();
    if (!t || !vxTD) return;
    /* Generations are never freed, so reading the current one and counting
     * on it needs no lock: a switch in between only means the flowpath runs
     * on the generation it read, as it would have a moment earlier. */
    node_t* node = vx::load_acquire(t->methodHashMapNode);
    vxTD->hasMapNodePtr = node;
    if (!node) return;
    int count = __atomic_add_fetch(&node->ref_count, 1, __ATOMIC_RELAXED);
    if (count > 99)
        VX_TRACE(trace_level(), 4, "FLOWPATH",
                 "MethodHaspMap Reference count reached 100. [methodHashMapNode->ref_count = %d]",
                 count);
}

extern "C" void vxDecrementMethodRefCount(node_t* node)
{
    if (node) __atomic_sub_fetch(&node->ref_count, 1, __ATOMIC_RELAXED);
}

extern "C" void free_node(node_t* node)
{
    if (!node) return;
    /* Entries and texts are in the generation's pool. */
    apr_pool_destroy(node->pool);
    free(node);
}

extern "C" void free_methodHashMapNode(void)
{
    VXMethodTable_t* t = vx::method_table();
    if (!t) return;
    vx::VXLockGuard guard(t->methodEntryLock);
    vx::store_release(t->DefaultMethod, static_cast<methodPropProperties*>(nullptr));
    node_t* current = t->methodHashMapNode;
    if (!current) return;
    /* Retired, not freed: hosts may still hold handles into it. Its chain of
     * older generations goes with it. */
    node_t* last = current;
    while (last->next) last = last->next;
    last->next = t->retired;
    t->retired = current;
    vx::store_release(t->methodHashMapNode, static_cast<node_t*>(nullptr));
}

void vx::retire_method_table(node_t* expected)
{
    VXMethodTable_t* t = vx::method_table();
    if (!t) return;
    vx::VXLockGuard guard(t->methodEntryLock);
    if (t->methodHashMapNode == expected) free_methodHashMapNode();
}

extern "C" int isMethodInHashMap(char* mName) VX_NOEXCEPT
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !mName || !vx::load_relaxed(app->Server.testRunRunning) ||
        vx::load_relaxed(app->Server.gettingstopInstrumenatation))
        return 0;
    VXMethodTable_t& t = app->methodTable;
    vx::VXLockGuard guard(t.methodEntryLock);
    if (!t.methodHashMapNode) return 0;
    if (vx::find_method(t.methodHashMapNode, mName)) return 1;
    /* Debug sessions of auto-instrumentation answer 1 for every name once
     * they exist. */
    const char* dot = strchr(mName, '.');
    if (!dot) return 1;
    if (dot == mName) return 0;
    char cls[vx::kMethodKeySize];
    size_t n = static_cast<size_t>(dot - mName);
    if (n >= sizeof cls) n = sizeof cls - 1;
    memcpy(cls, mName, n);
    cls[n] = '\0';
    return vx::find_method(t.methodHashMapNode, cls) ? 1 : 0;
}

extern "C" int getArgValueForCustomLog(char* methodName) VX_NOEXCEPT
{
    VXMethodTable_t* t = vx::method_table();
    if (!t || !methodName) return 0;
    vx::VXLockGuard guard(t->methodEntryLock);
    if (!t->methodHashMapNode) return 0;
    methodPropProperties* m = vx::find_method(t->methodHashMapNode, methodName);
    return m ? m->methodArgIndex : -1;
}

extern "C" void hashMapForAgent(void)
{
    VX_TRACE(trace_level(), 4, "FLOWPATH", "Method called");
}
