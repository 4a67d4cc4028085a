#include "flowpath/vx_method_table.h"

#include <apr_strings.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "core/vx_encode.h"
#include "agent/vx_instance.h"
#include "core/vx_platform.h"
#include "core/vx_text.h"
#include "core/vx_thread.h"
#include "core/vx_trace_log.h"
#include "core/vx_record_door.h"
#include "monitor/vx_backend_monitor.h"

namespace {

constexpr int kProfileLineSize = 1024;
constexpr int kKeySize = 2048;
constexpr int kMaxArgs = 1024;

VXMethodTable_t* table()
{
    VXProxyInstance_t* app = vx_app();
    return app ? &app->methodTable : nullptr;
}

int trace_level() { return VX_LEVEL(fpTraceLevel); }

node_t* new_node()
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

methodPropProperties* find(node_t* node, const char* name)
{
    if (!node || !name) return nullptr;
    return static_cast<methodPropProperties*>(apr_hash_get(node->ptr, name, APR_HASH_KEY_STRING));
}

void insert(node_t* node, methodPropProperties* m)
{
    m->generation = node;
    apr_hash_set(node->ptr, m->methodName, APR_HASH_KEY_STRING, m);
}

/* Entries, their texts and argument lists live in their generation's pool:
 * a generation is made and kept whole, and no entry is freed on its own.
 * Callers hold the method lock, which serialises the pool. */
methodPropProperties* new_entry(apr_pool_t* pool)
{
    return static_cast<methodPropProperties*>(apr_pcalloc(pool, sizeof(methodPropProperties)));
}

char* pool_dup(apr_pool_t* pool, const char* s) { return s ? apr_pstrdup(pool, s) : nullptr; }

char* dup_or_null(apr_pool_t* pool, const char* s) { return (s && *s) ? apr_pstrdup(pool, s) : nullptr; }

/* A copy of `in` allocated in `pool`. */
methodPropProperties* copy_entry(apr_pool_t* pool, const methodPropProperties* in)
{
    methodPropProperties* m = new_entry(pool);
    *m = *in;
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

bool data_thread_running()
{
    VXProxyInstance_t* app = vx_app();
    return app && app->VXBCISetting.data_thread_running == 1;
}

bool metadata_wanted()
{
    VXProxyInstance_t* app = vx_app();
    return app && (app->isRunTime || !app->Server.doNotDumpMetaData);
}

/* Record 5: "5,<name>,<id>", cut to 1,023 bytes; only while the data thread
 * runs. */
void dump_method_record(methodPropProperties* m)
{
    if (!data_thread_running()) return;
    char buf[vx::kMetaRecordSize];
    vx::dump_record(buf, sizeof buf, "5,%s,%d\n", m->methodName, m->methodId);
}

/* Record 5 for a method the collector has not seen: with its signature when
 * it has a return type. */
void announce(methodPropProperties* m)
{
    if (m->methodRetType) {
        dumpMetadataForSig(m);
    } else {
        dump_method_record(m);
        m->usedFlag = 1;
    }
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
    static constexpr DbKind kDb[] = {
        {10, "DB", "DB_SQLDB"},          {16, "REDIS", "DB_REDIS"},   {15, "MONGO", "DB_MONGO"},
        {17, "ORACLE", "DB_ORACLE"},     {18, "MYSQL", "DB_MYSQL"},   {19, "PGSQL", "DB_PGSQL"},
        {20, "MEMCACHED", "DB_MEMCACHED"}, {21, "ODBC", "DB_ODBC"},   {22, "CASSANDRA", "DB_CASSANDRA"},
        {23, "SQLITE", "DB_SQLITE"},     {25, "FIREBIRD", "DB_FIREBIRD"}, {6, "COUCHBASE", "DB_COUCHBASE"},
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

/* A method written as "name(type a;type b;)ret": its parts, cut in place. */
struct Signature {
    char* name = nullptr;
    char* args = nullptr; /* null when there are no parentheses */
    char* ret = nullptr;
};

Signature split_signature(char* text)
{
    Signature s;
    s.name = text;
    if (char* close = strchr(text, ')')) {
        *close = '\0';
        char* ret = close + 1;
        /* A return type written with a blank loses its first character. */
        if (strchr(ret, ' ')) ++ret;
        if (*ret) s.ret = ret;
    }
    if (char* open = strchr(text, '(')) {
        *open = '\0';
        s.args = open + 1;
    }
    return s;
}

/* The argument list of `args` ("a;b;"), each split at `sep` into type then
 * name; a part that does not split in two keeps the type alone. */
void set_arguments(apr_pool_t* pool, methodPropProperties* m, char* args, char sep, bool type_alone_ok)
{
    if (!args) return;
    char* parts[kMaxArgs];
    char delim[] = ";";
    int n = vxlb_get_tokens_with_multi_delimiter(args, parts, delim, kMaxArgs);
    if (n <= 0) return;
    auto* list = static_cast<methodArgList_t*>(apr_pcalloc(pool, sizeof(methodArgList_t) * static_cast<size_t>(n)));
    for (int i = 0; i < n; ++i) {
        char* cut = strchr(parts[i], sep);
        if (cut && !strchr(cut + 1, sep)) {
            *cut = '\0';
            list[i].type = apr_pstrdup(pool, parts[i]);
            list[i].argName = apr_pstrdup(pool, cut + 1);
        } else if (!cut && type_alone_ok) {
            list[i].type = apr_pstrdup(pool, parts[i]);
        }
    }
    m->methodArgList = list;
    m->methodArgsListCount = static_cast<unsigned>(n);
}

/* The two entries every session's table holds: the default database backend
 * and the root method. Caller holds the method lock. */
void ensure_default_entries(node_t* node, bool profile)
{
    VXMethodTable_t* t = table();
    if (methodPropProperties* db = find(node, kDefaultDBBackendName)) {
        db->type_ = kMethodTypeDatabase;
        if (profile) db->usedFlag = 1;
    } else if ((db = updateMethodHashMap(const_cast<char*>(kDefaultDBBackendName), 0,
                                         kMethodTypeDatabase, node, profile ? 0 : 10)) != nullptr) {
        t->dbBackendId = db->methodId;
        checkAndIncrementAggrBackendDataArray(db);
    }
    methodPropProperties* root = find(node, kRootMethodName);
    if (root) {
        root->usedFlag = 1;
    } else if ((root = updateMethodHashMap(const_cast<char*>(kRootMethodName), 0, kMethodTypePlain,
                                           node, 0)) != nullptr) {
        root->instrumentationProp = 1;
    }
    t->DefaultMethod = root;
}

/* Entry-point file types: kind, sub-kind and the flag they set. */
struct EntryType {
    const char* text;
    int type_; /* -1: unchanged */
    int callOutValue;
    int flag;
};
constexpr EntryType kEntryTypes[] = {
    {"HTTP_CALLOUT", 1, 3, kEntryPointCallout},      {"SQL_CALLOUT", 2, 10, kEntryPointCallout},
    {"RABBITMQ_CALLOUT", 27, 27, kEntryPointCallout}, {"REDIS", 2, 16, kEntryPointCallout},
    {"MONGO_DB", 2, 15, kEntryPointCallout},         {"ORACLE", 2, 17, kEntryPointCallout},
    {"MYSQL_CALLOUT", 2, 18, kEntryPointCallout},    {"PG", 2, 19, kEntryPointCallout},
    {"MEMCACHED", 2, 20, kEntryPointCallout},        {"ODBC", 2, 21, kEntryPointCallout},
    {"CASSANDRA", 2, 22, kEntryPointCallout},        {"SQLITE", 2, 23, kEntryPointCallout},
    {"DB2_CALLOUT", 2, 24, kEntryPointCallout},      {"FIREBIRD", 2, 25, kEntryPointCallout},
    {"COUCHBASE_DB", 2, 6, kEntryPointCallout},      {"CUSTOM_CALLOUT", 6, 8, kEntryPointCustomCallout},
    {"CUSTOM_LOG", 83, 83, kEntryPointCallout},      {"EXCEPTION_CALLOUT", -1, 7, kEntryPointCallout},
    {"HTTP_ENTRY", -1, 1, 0},                        {"TX_EXIT", -1, 4, 0},
    {"ASYNC_CALL", -1, 5, 0},                        {"CUSTOM_ENTRY", -1, 6, 0},
};

/* Apply an entry-point type to `m`; `param` is the text after ":". */
void apply_entry_type(methodPropProperties* m, const char* type_text, const char* param, bool is_new)
{
    for (const EntryType& e : kEntryTypes) {
        if (strcmp(type_text, e.text) != 0) continue;
        if (e.type_ >= 0) m->type_ = static_cast<char>(e.type_);
        m->callOutValue = static_cast<char>(e.callOutValue);
        int flag = e.flag;
        /* A custom callout is its own backend only when the method is new. */
        if (e.flag == kEntryPointCustomCallout && !is_new) flag = kEntryPointCallout;
        m->isEntryPoint |= flag;
        if (e.type_ == kMethodTypeCustomLog) m->methodArgIndex = (param && *param) ? atoi(param) : 1;
        return;
    }
}

/* Calls `line_fn(line)` for every line of `buffer` that is not a comment or
 * empty, each cut to the profile's line size, on a copy. */
template <typename LineFn>
void for_each_line(const char* buffer, LineFn line_fn)
{
    const char* p = buffer;
    while (p && *p) {
        const char* end = strchr(p, '\n');
        size_t len = end ? static_cast<size_t>(end - p) : strlen(p);
        if (len > 0 && p[0] != '#' && p[0] != '\r') {
            char line[kProfileLineSize];
            size_t n = len < sizeof line - 1 ? len : sizeof line - 1;
            memcpy(line, p, n);
            line[n] = '\0';
            if (char* cr = strchr(line, '\r')) *cr = '\0';
            line_fn(line);
        }
        p = end ? end + 1 : nullptr;
    }
}

/* Split `line` on "|" keeping empty fields; the count. */
int split_columns(char* line, char** cols, int max)
{
    char sep[] = "|";
    return tokenize(line, cols, sep, max);
}

}  // namespace

extern "C" void getMethodHashMapLock(void)
{
    if (VXMethodTable_t* t = table(); t && t->methodEntryLock) apr_thread_mutex_lock(t->methodEntryLock);
}

extern "C" void releaseMethodHashMapLock(void)
{
    if (VXMethodTable_t* t = table(); t && t->methodEntryLock) apr_thread_mutex_unlock(t->methodEntryLock);
}

extern "C" methodPropProperties* updateMethodHashMap(char* backendName, int isEntryPointPtr, int type,
                                                     node_t* methodHashMapNodeLocal, int callOutValue)
{
    VXMethodTable_t* t = table();
    if (!t || !backendName || !methodHashMapNodeLocal) return nullptr;
    methodPropProperties* m = new_entry(methodHashMapNodeLocal->pool);
    m->methodName = apr_pstrdup(methodHashMapNodeLocal->pool, backendName);
    m->methodId = t->methodIDGlobal++;
    m->isEntryPoint = isEntryPointPtr;
    m->type_ = static_cast<char>(type);
    m->callOutValue = static_cast<char>(callOutValue);
    insert(methodHashMapNodeLocal, m);
    dump_method_record(m);
    return m;
}

extern "C" methodPropProperties* searchAndUpdateMethodHashMap(char* mName, node_t* node, int updateFlag,
                                                              int type, int callOutValue)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !node) return nullptr;
    vx::VXLockGuard guard(app->methodTable.methodEntryLock);

    char key[kKeySize];
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
        if (methodPropProperties* m = find(node, key)) return m;
        if (type == kMethodTypeHttp) {
            escapeHTML(escaped, sizeof escaped, key, 0);
            name = escaped;
        } else {
            name = key;
        }
    }
    if (!name) return nullptr;
    if (methodPropProperties* m = find(node, name)) return m;

    bool capped = false;
    if (updateFlag == 1 && app->VXBackendMonitor.backendIDCounter >= app->VXBackendMonitor.maxIPCount) {
        name = "Others";
        capped = true;
        if (methodPropProperties* m = find(node, name)) return m;
    }
    methodPropProperties* m = updateMethodHashMap(const_cast<char*>(name), 0, type, node, callOutValue);
    if (!m) return nullptr;
    if (type == kMethodTypeHttp && prefixed) {
        m->mon_methodName = apr_pstrdup(node->pool, key);
        /* Also under the unescaped key, so that the next lookup by key finds
         * it without a new id. */
        if (!capped && strcmp(key, name) != 0) {
            methodPropProperties* copy = copy_entry(node->pool, m);
            copy->methodName = apr_pstrdup(node->pool, key);
            insert(node, copy);
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

extern "C" methodPropProperties* getMethodPropFromMethodName(char* mName, node_t* methodHashMapNodeLocal)
{
    VXMethodTable_t* t = table();
    if (!t || !mName) return nullptr;
    vx::VXLockGuard guard(t->methodEntryLock);
    return find(methodHashMapNodeLocal, mName);
}

extern "C" void dumpMetadataForSig(methodPropProperties* mPP)
{
    if (!mPP || !data_thread_running()) return;
    char args[kKeySize] = "";
    size_t used = 0;
    for (unsigned i = 0; i < mPP->methodArgsListCount && used < sizeof args - 1; ++i) {
        /* An argument without a name prints as a blank. */
        const char* arg = mPP->methodArgList[i].argName ? mPP->methodArgList[i].argName : " ";
        int n = snprintf(args + used, sizeof args - used, "%s;", arg);
        if (n < 0) break;
        used += static_cast<size_t>(n);
    }
    char buf[kKeySize];
    vx::dump_record(buf, sizeof buf, "5,%s(%s)%s,%d\n", mPP->methodName, args,
                    mPP->methodRetType ? mPP->methodRetType : "", mPP->methodId);
}

extern "C" methodPropProperties* make_node_copy(methodPropProperties* in)
{
    if (!in || !in->generation) return nullptr;
    return copy_entry(in->generation->pool, in);
}

extern "C" void make_argument_copy(methodPropProperties* dst, methodPropProperties* src)
{
    if (!dst || !src || !dst->generation || !src->methodArgList || src->methodArgsListCount == 0) return;
    methodPropProperties* copy = copy_entry(dst->generation->pool, src);
    dst->methodArgList = copy->methodArgList;
    dst->methodArgsListCount = copy->methodArgsListCount;
}

extern "C" void make_hash_copy(apr_hash_t* dst, apr_hash_t* src)
{
    if (!dst || !src) return;
    apr_pool_t* pool = apr_hash_pool_get(dst);
    for (apr_hash_index_t* hi = apr_hash_first(nullptr, src); hi; hi = apr_hash_next(hi)) {
        methodPropProperties* copy = copy_entry(pool, static_cast<methodPropProperties*>(apr_hash_this_val(hi)));
        apr_hash_set(dst, copy->methodName, APR_HASH_KEY_STRING, copy);
    }
}

extern "C" void make_haspmap_copy(void) { makeHashmapCopyAndaddToLL(1); }

extern "C" void resetmethodHashMapNode(void* hashMap, int type)
{
    auto* hash = static_cast<apr_hash_t*>(hashMap);
    if (!hash) return;
    for (apr_hash_index_t* hi = apr_hash_first(nullptr, hash); hi; hi = apr_hash_next(hi)) {
        auto* m = static_cast<methodPropProperties*>(apr_hash_this_val(hi));
        m->usedFlag = 0;
        switch (type) {
        case 1:
            if (m->isEntryPoint == 0 && m->callOutValue < 1) m->instrumentationProp = 3;
            m->instrumentationStatus = 0;
            break;
        case 2: m->isEntryPoint &= ~kEntryPointMonitor; break;
        case 3:
            m->isEntryPoint &= ~kEntryPointCallout;
            m->callOutValue = 0;
            break;
        default: break;
        }
    }
}

extern "C" void makeHashmapCopyAndaddToLL(int type)
{
    VXMethodTable_t* t = table();
    if (!t || !t->methodHashMapNode) return;
    vx::VXLockGuard guard(t->methodEntryLock);
    node_t* old = t->methodHashMapNode;
    node_t* fresh = new_node();
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
        if (m->customCalloutName) m->customCalloutptr = find(fresh, m->customCalloutName);
    }
    resetmethodHashMapNode(fresh->ptr, type);
    fresh->type = old->type;
    fresh->next = old;
    /* Flowpaths on the old generation keep it; new ones start on this. */
    __atomic_store_n(&t->methodHashMapNode, fresh, __ATOMIC_RELEASE);
    t->methodHashMapNodeTemp = nullptr;
    t->DefaultMethod = find(fresh, kRootMethodName);
}

extern "C" void readInstrProfFileRTC(char* buffer)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !buffer) return;
    VXMethodTable_t& t = app->methodTable;
    vx::VXLockGuard guard(t.methodEntryLock);
    node_t* node = t.methodHashMapNode;
    if (!node) return;
    for_each_line(buffer, [&](char* line) {
        char* cols[6];
        int n = split_columns(line, cols, 6);
        if (n < 5) return; /* fewer than four separators */
        char* module = cols[0];
        char* cls = cols[1];
        Signature sig = split_signature(cols[2]);
        char key[kKeySize];
        if (*sig.name && strcmp(sig.name, "MoveNext") == 0 && *module)
            snprintf(key, sizeof key, "%s.%s.%s", module, cls, sig.name);
        else if (*sig.name)
            snprintf(key, sizeof key, "%s.%s", cls, sig.name);
        else
            vx::copy_text(key, sizeof key, cls);
        if (!key[0]) { /* a line without a class or method names nothing */
            VX_ERROR("FLOWPATH", "Profile line without a method name skipped");
            return;
        }
        const int callOut = atoi(cols[3]);
        const int entry = atoi(cols[4]);
        if (methodPropProperties* m = find(node, key)) {
            m->isEntryPoint = entry;
            m->callOutValue = static_cast<char>(callOut);
            m->usedFlag = 0;
            m->instrumentationProp = 2;
            m->instrumentationStatus = 0;
            return;
        }
        methodPropProperties* m = new_entry(node->pool);
        m->methodName = apr_pstrdup(node->pool, key);
        m->moduleName = dup_or_null(node->pool, module);
        m->methodId = t.methodIDGlobal;
        m->isEntryPoint = entry;
        m->callOutValue = static_cast<char>(callOut);
        m->instrumentationProp = 1;
        if (n > 5) m->isAsyncCall = atoi(cols[5]);
        m->methodRetType = dup_or_null(node->pool, sig.ret);
        set_arguments(node->pool, m, sig.args, ' ', false);
        if (metadata_wanted()) announce(m);
        insert(node, m);
        ++t.methodIDGlobal;
    });
    if (!app->isRunTime) ensure_default_entries(node, true);
}

extern "C" void setMethodHashMapNode(char* buffer)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    VXMethodTable_t& t = app->methodTable;
    vx::VXLockGuard guard(t.methodEntryLock);
    if (!t.methodHashMapNode) {
        node_t* node = new_node();
        if (!node) {
            VX_ERROR("FLOWPATH", "Failed to malloced methodHashMapNode.");
            return;
        }
        t.methodHashMapNode = node;
    } else {
        makeHashmapCopyAndaddToLL(1);
    }
    if (buffer)
        readInstrProfFileRTC(buffer);
    else if (!app->isRunTime)
        ensure_default_entries(t.methodHashMapNode, true);
    t.methodHashMapNode->type = 1;
}

extern "C" int readInstrProfFile(apr_pool_t* pool, char* buffer)
{
    (void)pool;
    VXProxyInstance_t* app = vx_app();
    if (!app || !buffer) return -1;
    VXMethodTable_t& t = app->methodTable;
    vx::VXLockGuard guard(t.methodEntryLock);
    if (!t.methodHashMapNode && !(t.methodHashMapNode = new_node())) return -1;
    node_t* node = t.methodHashMapNode;
    for_each_line(buffer, [&](char* line) {
        /* module|class|method|isProfiled|isEntryPoint|kind-or-callout-name */
        char* cols[6];
        int n = split_columns(line, cols, 6);
        if (n < 5) return;
        char key[kKeySize];
        Signature sig = split_signature(cols[2]);
        if (*sig.name)
            snprintf(key, sizeof key, "%s.%s", cols[1], sig.name);
        else
            vx::copy_text(key, sizeof key, cols[1]);
        if (find(node, key)) return;
        methodPropProperties* m = updateMethodHashMap(key, atoi(cols[4]), 0, node, atoi(cols[3]));
        if (!m) return;
        m->moduleName = dup_or_null(node->pool, cols[0]);
        const char* last = n > 5 ? cols[5] : "";
        if (char* bar = strrchr(const_cast<char*>(last), '|')) last = bar + 1;
        if (m->isEntryPoint & kEntryPointCallout) m->type_ = static_cast<char>(atoi(last));
        if ((m->isEntryPoint & kEntryPointCustomCallout) && *last) {
            char name[vx::kPathSize];
            snprintf(name, sizeof name, "CUSTOM_%s", last);
            m->customCalloutName = apr_pstrdup(node->pool, name);
            m->customCalloutptr = updateMethodHashMap(name, 0, kMethodTypeCustom, node, 0);
        }
    });
    ensure_default_entries(node, true);
    for (const char* fixed : {kDefaultDBBackendName, kRootMethodName})
        if (methodPropProperties* m = find(node, fixed)) m->callOutValue = 0;
    return 0;
}

extern "C" void parseEntryFile(char* buffer)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    VXMethodTable_t& t = app->methodTable;
    vx::VXLockGuard guard(t.methodEntryLock);
    if (!t.methodHashMapNode) {
        if (!(t.methodHashMapNode = new_node())) {
            VX_ERROR("FLOWPATH", "Failed to malloced methodHashMapNode.");
            return;
        }
    } else if (!app->isRunTime) {
        resetmethodHashMapNode(t.methodHashMapNode->ptr, 3);
    } else {
        makeHashmapCopyAndaddToLL(3);
    }
    node_t* node = t.methodHashMapNode;
    if (buffer) {
        for_each_line(buffer, [&](char* line) {
            char* cols[4];
            int n = split_columns(line, cols, 4);
            if (n < 4 || strcmp(cols[3], "0") == 0) return;
            const bool service = strcmp(cols[3], "1") == 0;
            char* param = strchr(cols[2], ':');
            if (param) *param++ = '\0';
            Signature sig = split_signature(cols[1]);
            if (!*sig.name) return;
            if (methodPropProperties* m = find(node, sig.name)) {
                apply_entry_type(m, cols[2], param, false);
                if (service) m->isEntryPoint |= kEntryPointService;
                if (m->isEntryPoint & kEntryPointCallout) checkAndIncrementAggrBackendDataArray(m);
                return;
            }
            methodPropProperties* m = new_entry(node->pool);
            m->methodName = apr_pstrdup(node->pool, sig.name);
            m->moduleName = dup_or_null(node->pool, cols[0]);
            m->methodRetType = dup_or_null(node->pool, sig.ret);
            set_arguments(node->pool, m, sig.args, ':', true);
            apply_entry_type(m, cols[2], param, true);
            if (service) m->isEntryPoint |= kEntryPointService;
            /* The id is taken before a custom callout's backend takes the
             * next one, so that the two never share an id. */
            m->methodId = t.methodIDGlobal++;
            m->usedFlag = 1;
            m->instrumentationProp = 1;
            if (metadata_wanted()) announce(m);
            if (m->isEntryPoint & kEntryPointCustomCallout) {
                char name[vx::kPathSize];
                snprintf(name, sizeof name, "CUSTOM_%s", (param && *param) ? param : sig.name);
                m->customCalloutName = apr_pstrdup(node->pool, name);
                m->customCalloutptr = updateMethodHashMap(name, 0, kMethodTypeCustom, node, 0);
                checkAndIncrementAggrBackendDataArray(m->customCalloutptr);
            }
            insert(node, m);
            if (m->isEntryPoint & kEntryPointCallout) checkAndIncrementAggrBackendDataArray(m);
        });
    }
    if (!app->isRunTime) {
        if (methodPropProperties* db = find(node, kDefaultDBBackendName)) {
            db->type_ = kMethodTypeDatabase;
        } else if ((db = updateMethodHashMap(const_cast<char*>(kDefaultDBBackendName), 0,
                                             kMethodTypeDatabase, node, 10)) != nullptr) {
            t.dbBackendId = db->methodId;
        }
    }
}

extern "C" void saveNodeAndIncrementMethodRefCount(VXPerThreadData_t* vxTD)
{
    VXMethodTable_t* t = table();
    if (!t || !vxTD) return;
    /* Generations are never freed, so reading the current one and counting
     * on it needs no lock: a switch in between only means the flowpath runs
     * on the generation it read, as it would have a moment earlier. */
    node_t* node = __atomic_load_n(&t->methodHashMapNode, __ATOMIC_ACQUIRE);
    vxTD->hasMapNodePtr = node;
    if (!node) return;
    int count = __atomic_add_fetch(&node->ref_count, 1, __ATOMIC_RELAXED);
    if (count > 99)
        VX_TRACE(trace_level(), 4, "FLOWPATH",
                 "MethodHaspMap Reference count reached 100. [methodHashMapNode->ref_count = %d]", count);
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
    VXMethodTable_t* t = table();
    if (!t) return;
    vx::VXLockGuard guard(t->methodEntryLock);
    t->DefaultMethod = nullptr;
    node_t* current = t->methodHashMapNode;
    if (!current) return;
    /* Retired, not freed: hosts may still hold handles into it. Its chain of
     * older generations goes with it. */
    node_t* last = current;
    while (last->next) last = last->next;
    last->next = t->retired;
    t->retired = current;
    __atomic_store_n(&t->methodHashMapNode, static_cast<node_t*>(nullptr), __ATOMIC_RELEASE);
}

void vx::retire_method_table(node_t* expected)
{
    VXMethodTable_t* t = table();
    if (!t) return;
    vx::VXLockGuard guard(t->methodEntryLock);
    if (t->methodHashMapNode == expected) free_methodHashMapNode();
}

extern "C" int isMethodInHashMap(char* mName) VX_NOEXCEPT
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !mName || !app->Server.testRunRunning || app->Server.gettingstopInstrumenatation)
        return 0;
    VXMethodTable_t& t = app->methodTable;
    vx::VXLockGuard guard(t.methodEntryLock);
    if (!t.methodHashMapNode) return 0;
    if (find(t.methodHashMapNode, mName)) return 1;
    /* Debug sessions of auto-instrumentation answer 1 for every name once
     * they exist. */
    const char* dot = strchr(mName, '.');
    if (!dot) return 1;
    if (dot == mName) return 0;
    char cls[kKeySize];
    size_t n = static_cast<size_t>(dot - mName);
    if (n >= sizeof cls) n = sizeof cls - 1;
    memcpy(cls, mName, n);
    cls[n] = '\0';
    return find(t.methodHashMapNode, cls) ? 1 : 0;
}

extern "C" int getArgValueForCustomLog(char* methodName) VX_NOEXCEPT
{
    VXMethodTable_t* t = table();
    if (!t || !methodName) return 0;
    vx::VXLockGuard guard(t->methodEntryLock);
    if (!t->methodHashMapNode) return 0;
    methodPropProperties* m = find(t->methodHashMapNode, methodName);
    return m ? m->methodArgIndex : -1;
}

extern "C" char* get_proces_name(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return nullptr;
    if (app->VXSys.AgentprocessName) return app->VXSys.AgentprocessName;
    char path[64];
    snprintf(path, sizeof path, "/proc/%lld/comm", static_cast<long long>(vxlb_get_pid()));
    FILE* fp = fopen(path, "r");
    if (!fp) return nullptr;
    char name[256] = "";
    if (fgets(name, sizeof name, fp)) {
        if (char* nl = strchr(name, '\n')) *nl = '\0';
    }
    fclose(fp);
    app->VXSys.AgentprocessName = strdup(name);
    return app->VXSys.AgentprocessName;
}

extern "C" void dumpFileforGoAgent(char* fileName, char* fileData)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !fileName || !fileData || !app->VXBCISetting.agentType ||
        strcmp(app->VXBCISetting.agentType, "go") != 0)
        return;
    char dir[vx::kPathSize];
    snprintf(dir, sizeof dir, "%s/.cache/", app->VXSys.vxHomePath ? app->VXSys.vxHomePath : ".");
    vx::mkdir_ex(dir);
    const char* proc = get_proces_name();
    char path[vx::kPathSize * 2];
    snprintf(path, sizeof path, "%s%s_%s_%lld", dir, fileName, proc ? proc : "",
             static_cast<long long>(vxlb_get_pid()));
    FILE* fp = fopen(path, "w");
    if (!fp) {
        VX_ERROR("FLOWPATH", "Could not open file '%s' in write mode.", path);
        return;
    }
    fputs(fileData, fp);
    fclose(fp);
}

extern "C" void dumpMethodTableMetaData(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    vx::VXLockGuard guard(app->methodTable.methodEntryLock);
    node_t* node = app->methodTable.methodHashMapNode;
    if (!node || !node->ptr) return;
    for (apr_hash_index_t* hi = apr_hash_first(nullptr, node->ptr); hi; hi = apr_hash_next(hi)) {
        auto* m = static_cast<methodPropProperties*>(apr_hash_this_val(hi));
        if (m->methodRetType)
            dumpMetadataForSig(m);
        else
            dump_method_record(m);
    }
}

extern "C" void hashMapForAgent(void)
{
    VX_TRACE(trace_level(), 4, "FLOWPATH", "Method called");
}
