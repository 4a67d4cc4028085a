#include "diag/vx_sql_processor.h"

#include <cstdlib>
#include <cstring>

#include "agent/vx_instance.h"

extern "C" void dbMethodEntry(VXPerThreadData_t* vxTD, long long startTime, char* originalQuery,
                              char* backendName, char* DBQueryParam)
{
    (void)originalQuery;
    (void)backendName;
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
        sql.sqlId = 0;
    }
}
