#include "diag/vx_sql_processor.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

#include "agent/vx_instance.h"
#include "core/vx_atomic.h"
#include "core/vx_encode.h"
#include "core/vx_record_door.h"
#include "core/vx_text.h"
#include "core/vx_trace_log.h"

namespace {

constexpr int kEscapeBufSize = 16384;  /* a longer escaped text is cut here */
constexpr int kRecordBufSize = 65536;
constexpr long long kLastFixedId = 5;
constexpr const char* kFixedQueries[] = {"Unknown", "XA TRANSACTION START", "XA TRANSACTION COMMIT",
                                         "XA TRANSACTION END", "XA TRANSACTION ROLLBACK"};

/* Heterogeneous look-up: a known text is found from the caller's buffer
 * without building a string. */
struct TextHash {
    using is_transparent = void;
    size_t operator()(std::string_view s) const noexcept { return std::hash<std::string_view>{}(s); }
};
using QueryMap = std::unordered_map<std::string, long long, TextHash, std::equal_to<>>;

/* Process-wide, like the lock that guards it: one agent instance per
 * process, and the map's nodes stay off APR pools so leak checks see them. */
std::mutex sqllock;
QueryMap& queries()
{
    static QueryMap* map = new QueryMap();  /* outlives host threads at exit */
    return *map;
}

VXSQLProcessor_t* processor()
{
    VXProxyInstance_t* app = vx_app();
    return app ? &app->VXSQLProcessor : nullptr;
}

bool g_fullLogged = false; /* under sqllock; once per session */

/* Caller holds sqllock. A host that builds its queries with literals in
 * them makes a new text per call: past kQueryDictionaryMax texts a new one
 * is called "Unknown" (id 1), so the dictionary's memory stays bounded. */
long long enter_and_send(const char* text, size_t len, long long fpi)
{
    VXSQLProcessor_t* p = processor();
    if (!p) return -1;
    if (queries().size() >= vx::kQueryDictionaryMax) {
        if (!g_fullLogged)
            VX_ERROR("SQL", "The query dictionary holds %zu texts; new queries are counted as "
                            "Unknown until the next session", queries().size());
        g_fullLogged = true;
        return 1;
    }
    try {
        queries().emplace(std::string(text, len), p->sqlQueryID + 1);
    } catch (...) {
        VX_ERROR("SQL", "Out of memory adding a query to the dictionary");
        return 1;
    }
    const long long id = generateNextSqlQueryID();
    dumpDBMetaRecord(fpi, id, const_cast<char*>(text), p->preparedQueryRecordID);
    return id;
}

}  // namespace

extern "C" void VXSQLProcessorInit(void)
{
    VXSQLProcessor_t* p = processor();
    if (!p) return;
    std::lock_guard<std::mutex> g(sqllock);
    vx::store_release(p->isDefaultQueryRecordsDumped, 0);
    p->preparedQueryRecordID = 22;
    p->sqlQueryID = kLastFixedId;
    QueryMap().swap(queries()); /* ids start again: no text may keep an old one */
    g_fullLogged = false;
    if (!p->DBIPName[0]) vx::copy_text(p->DBIPName, sizeof p->DBIPName, "DB_SQLDB");
}

extern "C" void setDBIPName(char* dBIPName, char*, int)
{
    VXSQLProcessor_t* p = processor();
    if (!p) return;
    if (!dBIPName || !*dBIPName || strcmp(dBIPName, "-") == 0 || strcmp(dBIPName, "NA") == 0)
        vx::copy_text(p->DBIPName, sizeof p->DBIPName, "DB_SQLDB");
    else
        snprintf(p->DBIPName, sizeof p->DBIPName, "SQL_%s", dBIPName);
}

extern "C" long long generateNextSqlQueryID(void)
{
    VXSQLProcessor_t* p = processor();
    return p ? ++p->sqlQueryID : -1;
}

extern "C" void dumpDBMetaRecord(long long flowpathInstance, long long id, char* escapeSql, int metaRecordId)
{
    if (!escapeSql) return;
    /* Only a new text comes here: the work buffer may be heap. */
    char* buf = static_cast<char*>(malloc(kRecordBufSize));
    if (!buf) return;
    int n = snprintf(buf, kRecordBufSize, "%d,%lld,%lld,%s\n", metaRecordId, flowpathInstance, id, escapeSql);
    if (n >= kRecordBufSize - 3) {
        /* Cut, and say so: the line still ends the record. */
        memcpy(buf + kRecordBufSize - 4, "...\n", 4);
        n = kRecordBufSize;
    }
    if (n > 0) dumpData(buf, n);
    free(buf);
}

extern "C" void dumpOneQueryRecord(char* QUERY, long long id, long long fpi)
{
    VXSQLProcessor_t* p = processor();
    if (!p || !QUERY) return;
    try {
        queries().insert_or_assign(std::string(QUERY), id);
    } catch (...) {
        VX_ERROR("SQL", "Out of memory adding a query to the dictionary");
    }
    dumpDBMetaRecord(fpi, id, QUERY, p->preparedQueryRecordID);
}

extern "C" void dumpDefaultQueryRecords(void)
{
    long long id = 0;
    for (const char* q : kFixedQueries) dumpOneQueryRecord(const_cast<char*>(q), ++id, 0);
}

extern "C" bool validateConditionsAtDiscovery(VXPerThreadData_t* vxTD, char* query)
{
    VXSQLProcessor_t* p = processor();
    if (p && !vx::load_acquire(p->isDefaultQueryRecordsDumped)) {
        std::lock_guard<std::mutex> g(sqllock);
        if (!p->isDefaultQueryRecordsDumped) {
            dumpDefaultQueryRecords();
            vx::store_release(p->isDefaultQueryRecordsDumped, 1);
        }
    }
    (void)vxTD;
    return query == nullptr;
}

extern "C" long long checkAndProcessQuery(char* queryStr, long long flowpathInstance)
{
    if (!queryStr || !*queryStr) return -1;
    const std::string_view text(queryStr);
    std::lock_guard<std::mutex> g(sqllock);
    QueryMap& map = queries();
    if (auto it = map.find(text); it != map.end()) return it->second;
    return enter_and_send(text.data(), text.size(), flowpathInstance);
}

extern "C" long long dumpSQLQuery(VXPerThreadData_t* vxTD, char*, char* sql)
{
    if (!sql || !*sql) return -1;
    char escaped[kEscapeBufSize];
    escapeHTML(escaped, kEscapeBufSize, sql, 0);
    return checkAndProcessQuery(escaped, vxTD ? vxTD->flowpathInstance : 0);
}

extern "C" void dumpDBCallOutRecordForEntry(VXPerThreadData_t* vxTD, long long startTime, long long sqlId,
                                            char*, char* DBQueryParam)
{
    VXProxyInstance_t* app = vx_app();
    if (!vxTD || !app) return;
    sqlProp& sql = vxTD->tlSQLObj;
    ++sql.DBCallDepth;
    if (DBQueryParam && *DBQueryParam && app->VXSys.enableDBQueryParamValues) {
        free(sql.DBQueryParam);
        sql.DBQueryParam = strdup(DBQueryParam);
    }
    /* A nested call keeps the outermost call's start and query. */
    if (sql.DBCallDepth == 1) {
        sql.startTime = startTime;
        sql.sqlId = sqlId;
    }
}

extern "C" void dbMethodEntry(VXPerThreadData_t* vxTD, long long startTime, char* originalQuery,
                              char* backendName, char* DBQueryParam)
{
    if (!vxTD || !vx_app()) return;
    /* A call without a text still counts in the depth, with no id (-1):
     * the method's exit lowers the depth for every database call. */
    const long long id =
        validateConditionsAtDiscovery(vxTD, originalQuery) ? -1 : dumpSQLQuery(vxTD, nullptr, originalQuery);
    dumpDBCallOutRecordForEntry(vxTD, startTime, id, backendName, DBQueryParam);
}

extern "C" void free_preparedQueryIDLookup(void)
{
    std::lock_guard<std::mutex> g(sqllock);
    QueryMap().swap(queries());
    if (VXSQLProcessor_t* p = processor()) vx::copy_text(p->DBIPName, sizeof p->DBIPName, "DB_SQLDB");
}

long long vx::sql_query_count()
{
    std::lock_guard<std::mutex> g(sqllock);
    return static_cast<long long>(queries().size());
}

void vx::sql_query_for_each(const std::function<bool(long long id, const char* text)>& fn)
{
    std::lock_guard<std::mutex> g(sqllock);
    for (const auto& [text, id] : queries())
        if (!fn(id, text.c_str())) return;
}
