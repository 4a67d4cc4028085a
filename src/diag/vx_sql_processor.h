/*
 * SQL calls in flowpaths: the query dictionary (record 22) and the state of
 * an open database call.
 *
 * STAND-IN(sql): queries get no ids yet (sqlId 0)
 * and no record 22; the call's depth, start and bound values are kept as the
 * sequence blob needs them.
 */
#ifndef VX_SQL_PROCESSOR_H
#define VX_SQL_PROCESSOR_H

struct VXPerThreadData_t;

extern "C" {
/* A database method was entered at `startTime` (ms from the flowpath's
 * start) with `originalQuery` and encoded bound values `DBQueryParam`. */
void dbMethodEntry(VXPerThreadData_t* vxTD, long long startTime, char* originalQuery,
                   char* backendName, char* DBQueryParam);
}

#endif
