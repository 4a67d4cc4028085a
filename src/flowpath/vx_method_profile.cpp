#include "flowpath/vx_method_profile.h"

#include <apr_hash.h>
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
#include "flowpath/vx_method_table.h"
#include "monitor/vx_backend_monitor.h"
#include "monitor/vx_method_monitor.h"

namespace {

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
void set_arguments(apr_pool_t* pool, methodPropProperties* m, char* args, char sep,
                   bool type_alone_ok)
{
    if (!args) return;
    char* parts[vx::kProfileArgsMax];
    char delim[] = ";";
    int n = vxlb_get_tokens_with_multi_delimiter(args, parts, delim, vx::kProfileArgsMax);
    if (n <= 0) return;
    auto* list = static_cast<methodArgList_t*>(
        apr_pcalloc(pool, sizeof(methodArgList_t) * static_cast<size_t>(n)));
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
    VXMethodTable_t* t = vx::method_table();
    if (methodPropProperties* db = vx::find_method(node, kDefaultDBBackendName)) {
        db->type_ = kMethodTypeDatabase;
        if (profile) vx::store_relaxed(db->usedFlag, 1);
    } else if ((db = updateMethodHashMap(const_cast<char*>(kDefaultDBBackendName), 0,
                                         kMethodTypeDatabase, node, profile ? 0 : 10)) != nullptr) {
        t->dbBackendId = db->methodId;
        checkAndIncrementAggrBackendDataArray(db);
    }
    methodPropProperties* root = vx::find_method(node, kRootMethodName);
    if (root) {
        vx::store_relaxed(root->usedFlag, 1);
    } else if ((root = updateMethodHashMap(const_cast<char*>(kRootMethodName), 0, kMethodTypePlain,
                                           node, 0)) != nullptr) {
        root->instrumentationProp = 1;
    }
    vx::store_release(t->DefaultMethod, root);
}

/* Entry-point file types: kind, sub-kind and the flag they set. */
struct EntryType {
    const char* text;
    int type_; /* -1: unchanged */
    int callOutValue;
    int flag;
};
constexpr EntryType kEntryTypes[] = {
    {"HTTP_CALLOUT", 1, 3, kEntryPointCallout},
    {"SQL_CALLOUT", 2, 10, kEntryPointCallout},
    {"RABBITMQ_CALLOUT", 27, 27, kEntryPointCallout},
    {"REDIS", 2, 16, kEntryPointCallout},
    {"MONGO_DB", 2, 15, kEntryPointCallout},
    {"ORACLE", 2, 17, kEntryPointCallout},
    {"MYSQL_CALLOUT", 2, 18, kEntryPointCallout},
    {"PG", 2, 19, kEntryPointCallout},
    {"MEMCACHED", 2, 20, kEntryPointCallout},
    {"ODBC", 2, 21, kEntryPointCallout},
    {"CASSANDRA", 2, 22, kEntryPointCallout},
    {"SQLITE", 2, 23, kEntryPointCallout},
    {"DB2_CALLOUT", 2, 24, kEntryPointCallout},
    {"FIREBIRD", 2, 25, kEntryPointCallout},
    {"COUCHBASE_DB", 2, 6, kEntryPointCallout},
    {"CUSTOM_CALLOUT", 6, 8, kEntryPointCustomCallout},
    {"CUSTOM_LOG", 83, 83, kEntryPointCallout},
    {"EXCEPTION_CALLOUT", -1, 7, kEntryPointCallout},
    {"HTTP_ENTRY", -1, 1, 0},
    {"TX_EXIT", -1, 4, 0},
    {"ASYNC_CALL", -1, 5, 0},
    {"CUSTOM_ENTRY", -1, 6, 0},
};

/* Apply an entry-point type to `m`; `param` is the text after ":". */
void apply_entry_type(methodPropProperties* m, const char* type_text, const char* param,
                      bool is_new)
{
    for (const EntryType& e : kEntryTypes) {
        if (strcmp(type_text, e.text) != 0) continue;
        if (e.type_ >= 0) m->type_ = static_cast<char>(e.type_);
        m->callOutValue = static_cast<char>(e.callOutValue);
        int flag = e.flag;
        /* A custom callout is its own backend only when the method is new. */
        if (e.flag == kEntryPointCustomCallout && !is_new) flag = kEntryPointCallout;
        m->isEntryPoint |= flag;
        if (e.type_ == kMethodTypeCustomLog)
            m->methodArgIndex = (param && *param) ? atoi(param) : 1;
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
            char line[vx::kProfileLineSize];
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
        char key[vx::kMethodKeySize];
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
        if (methodPropProperties* m = vx::find_method(node, key)) {
            m->isEntryPoint = entry;
            m->callOutValue = static_cast<char>(callOut);
            vx::store_relaxed(m->usedFlag, 0);
            m->instrumentationProp = 2;
            m->instrumentationStatus = 0;
            return;
        }
        methodPropProperties* m = vx::new_method_entry(node->pool);
        m->methodName = apr_pstrdup(node->pool, key);
        m->moduleName = vx::pool_dup_or_null(node->pool, module);
        m->methodId = t.methodIDGlobal;
        m->isEntryPoint = entry;
        m->callOutValue = static_cast<char>(callOut);
        m->instrumentationProp = 1;
        if (n > 5) m->isAsyncCall = atoi(cols[5]);
        m->methodRetType = vx::pool_dup_or_null(node->pool, sig.ret);
        set_arguments(node->pool, m, sig.args, ' ', false);
        if (vx::method_metadata_wanted()) vx::announce_new_method(m);
        vx::insert_method(node, m);
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
        node_t* node = vx::new_method_generation();
        if (!node) {
            VX_ERROR("FLOWPATH", "Failed to malloced methodHashMapNode.");
            return;
        }
        vx::store_release(t.methodHashMapNode, node);
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
    if (!t.methodHashMapNode) {
        node_t* fresh = vx::new_method_generation();
        if (!fresh) return -1;
        vx::store_release(t.methodHashMapNode, fresh);
    }
    node_t* node = t.methodHashMapNode;
    for_each_line(buffer, [&](char* line) {
        /* module|class|method|isProfiled|isEntryPoint|kind-or-callout-name */
        char* cols[6];
        int n = split_columns(line, cols, 6);
        if (n < 5) return;
        char key[vx::kMethodKeySize];
        Signature sig = split_signature(cols[2]);
        if (*sig.name)
            snprintf(key, sizeof key, "%s.%s", cols[1], sig.name);
        else
            vx::copy_text(key, sizeof key, cols[1]);
        if (vx::find_method(node, key)) return;
        methodPropProperties* m = updateMethodHashMap(key, atoi(cols[4]), 0, node, atoi(cols[3]));
        if (!m) return;
        m->moduleName = vx::pool_dup_or_null(node->pool, cols[0]);
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
        if (methodPropProperties* m = vx::find_method(node, fixed)) m->callOutValue = 0;
    return 0;
}

namespace {

/* The table a file of `kind` (3 the entry file, 2 the method monitor file)
 * fills: made when there is none; else its marks of that kind cleared, or
 * at run time a new generation, so flowpaths in progress keep the one they
 * hold. Null when memory runs out. Caller holds methodEntryLock. */
node_t* table_for_file(VXProxyInstance_t* app, int kind)
{
    VXMethodTable_t& t = app->methodTable;
    if (!t.methodHashMapNode) {
        node_t* fresh = vx::new_method_generation();
        if (!fresh) {
            VX_ERROR("FLOWPATH", "Failed to malloced methodHashMapNode.");
            return nullptr;
        }
        vx::store_release(t.methodHashMapNode, fresh);
    } else if (!app->isRunTime) {
        resetmethodHashMapNode(t.methodHashMapNode->ptr, kind);
    } else {
        makeHashmapCopyAndaddToLL(kind);
    }
    return t.methodHashMapNode;
}

}  // namespace

extern "C" void parseEntryFile(char* buffer)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    VXMethodTable_t& t = app->methodTable;
    vx::VXLockGuard guard(t.methodEntryLock);
    node_t* node = table_for_file(app, 3);
    if (!node) return;
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
            if (methodPropProperties* m = vx::find_method(node, sig.name)) {
                apply_entry_type(m, cols[2], param, false);
                if (service) m->isEntryPoint |= kEntryPointService;
                if (m->isEntryPoint & kEntryPointCallout) checkAndIncrementAggrBackendDataArray(m);
                return;
            }
            methodPropProperties* m = vx::new_method_entry(node->pool);
            m->methodName = apr_pstrdup(node->pool, sig.name);
            m->moduleName = vx::pool_dup_or_null(node->pool, cols[0]);
            m->methodRetType = vx::pool_dup_or_null(node->pool, sig.ret);
            set_arguments(node->pool, m, sig.args, ':', true);
            apply_entry_type(m, cols[2], param, true);
            if (service) m->isEntryPoint |= kEntryPointService;
            /* The id is taken before a custom callout's backend takes the
             * next one, so that the two never share an id. */
            m->methodId = t.methodIDGlobal++;
            vx::store_relaxed(m->usedFlag, 1);
            m->instrumentationProp = 1;
            if (vx::method_metadata_wanted()) vx::announce_new_method(m);
            if (m->isEntryPoint & kEntryPointCustomCallout) {
                char name[vx::kPathSize];
                snprintf(name, sizeof name, "CUSTOM_%s", (param && *param) ? param : sig.name);
                m->customCalloutName = apr_pstrdup(node->pool, name);
                m->customCalloutptr = updateMethodHashMap(name, 0, kMethodTypeCustom, node, 0);
                checkAndIncrementAggrBackendDataArray(m->customCalloutptr);
            }
            vx::insert_method(node, m);
            if (m->isEntryPoint & kEntryPointCallout) checkAndIncrementAggrBackendDataArray(m);
        });
    }
    if (!app->isRunTime) {
        if (methodPropProperties* db = vx::find_method(node, kDefaultDBBackendName)) {
            db->type_ = kMethodTypeDatabase;
        } else if ((db = updateMethodHashMap(const_cast<char*>(kDefaultDBBackendName), 0,
                                             kMethodTypeDatabase, node, 10)) != nullptr) {
            t.dbBackendId = db->methodId;
        }
    }
}

extern "C" void parseMethodMonitor(char* buffer)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    VXMethodTable_t& t = app->methodTable;
    vx::VXLockGuard guard(t.methodEntryLock);
    node_t* node = table_for_file(app, 2);
    if (!node) return;
    if (!buffer) return;
    for_each_line(buffer, [&](char* line) {
        char* cols[4];
        if (split_columns(line, cols, 4) < 4) return; /* fewer than three separators */
        char* alias = cols[1];
        char* name = cols[2];
        if (methodPropProperties* m = vx::find_method(node, name)) {
            m->isEntryPoint |= kEntryPointMonitor;
            if (m->type_ == 0) m->type_ = kMethodTypeMonitor;
            m->aliasMethodName = vx::pool_dup_or_null(node->pool, alias);
            m->instrumentationProp = 2;
            checkAndIncrementAggrMethodDataArray(m);
            return;
        }
        methodPropProperties* m = vx::new_method_entry(node->pool);
        m->moduleName = vx::pool_dup_or_null(node->pool, cols[0]);
        m->aliasMethodName = vx::pool_dup_or_null(node->pool, alias);
        m->methodName = apr_pstrdup(node->pool, name);
        m->isEntryPoint = kEntryPointMonitor;
        m->type_ = kMethodTypeMonitor;
        m->methodId = t.methodIDGlobal;
        m->instrumentationProp = 1;
        if (vx::method_metadata_wanted()) {
            vx::announce_method_id(m);
            vx::store_relaxed(m->usedFlag, 1);
        }
        vx::insert_method(node, m);
        checkAndIncrementAggrMethodDataArray(m);
        ++t.methodIDGlobal;
    });
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
