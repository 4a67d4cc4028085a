/*
 * SQL calls in flowpaths: the query dictionary (record 22), the state of an
 * open database call.
 *
 * A query text is sent once per session as record 22; flowpaths carry only
 * its id. Ids 1 to 5 are the fixed queries; discovered ones start at 6.
 */
#ifndef VX_SQL_PROCESSOR_H
#define VX_SQL_PROCESSOR_H

#include <cstddef>
#include <functional>

struct VXPerThreadData_t;

extern "C" {
/* Start values of the session: fixed queries not yet sent, last id 5. */
void VXSQLProcessorInit(void);
/* Keyword DBIPName: "-", "NA" or empty give "DB_SQLDB", X gives "SQL_X". */
void setDBIPName(char* dBIPName, char* keyword, int index);

/* A database method was entered at `startTime` (ms from the flowpath's
 * start) with `originalQuery` and encoded bound values `DBQueryParam`. */
void dbMethodEntry(VXPerThreadData_t* vxTD, long long startTime, char* originalQuery,
                   char* backendName, char* DBQueryParam);
/* Sends the fixed queries once per session; true when `query` is null. */
bool validateConditionsAtDiscovery(VXPerThreadData_t* vxTD, char* query);
/* The id of `sql` after escaping, old or new; -1 for a null or empty text. */
long long dumpSQLQuery(VXPerThreadData_t* vxTD, char* sqlt, char* sql);
/* The id of an escaped text; a new one is entered and sent as record 22. */
long long checkAndProcessQuery(char* queryStr, long long flowpathInstance);
void dumpOneQueryRecord(char* QUERY, long long id, long long fpi);
void dumpDBMetaRecord(long long flowpathInstance, long long id, char* escapeSql, int metaRecordId);
void dumpDefaultQueryRecords(void);
void dumpDBCallOutRecordForEntry(VXPerThreadData_t* vxTD, long long startTime, long long sqlId,
                                 char* backendName, char* DBQueryParam);
long long generateNextSqlQueryID(void);
/* End of session: the dictionary empties and DBIPName is "DB_SQLDB". */
void free_preparedQueryIDLookup(void);
}

namespace vx {
/* Most texts the dictionary holds in a session (fixed ones included). */
inline constexpr size_t kQueryDictionaryMax = 100000;
/* Number of distinct texts in the dictionary (fixed ones included). */
long long sql_query_count();
/* Calls `fn` with each text of the dictionary and its id, in the map's
 * order, under the dictionary's lock (host threads making a query id wait
 * meanwhile; `fn` must not call into this unit). Stops when `fn` returns
 * false. */
void sql_query_for_each(const std::function<bool(long long id, const char* text)>& fn);
}

#endif
