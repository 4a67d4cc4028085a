/*
 * The method table: every name that enters a flowpath (instrumented methods,
 * backends, the root method) as a small integer id, announced to the
 * collector in record 5 (vx_method_announce.h). The profiles that fill it
 * are read by vx_method_profile.h.
 *
 * The table changes at run time by making a new generation (node_t): the
 * previous one is left as it was, so flowpaths started on it finish on it.
 * Generations are never freed, and at the end of a session the table is
 * retired rather than freed: a host may keep a method handle (the
 * methodPropProperties* that vxMethodEntry returned) for as long as it likes,
 * and a handle must never point at freed memory. A handle is used without a
 * lookup only while it belongs to the current generation.
 *
 * Lock: methodEntryLock (the method lock) guards lookups and changes of the
 * current generation and the pointer to it. It is taken outside the map
 * family locks and outside the data buffer lock (record 5 goes out under it).
 */
#ifndef VX_METHOD_TABLE_H
#define VX_METHOD_TABLE_H

#include <apr_hash.h>
#include <apr_pools.h>
#include <apr_thread_mutex.h>

/* The profile readers: callers of the table apply profiles through it too. */
#include "flowpath/vx_method_profile.h"

struct VXPerThreadData_t;
struct node_t;

struct methodArgList_t {
    char* argName;
    char* type;
};

/* One method (or backend) of the table. */
struct methodPropProperties {
    char type_;        /* 0 plain, 1 HTTP, 2 database, 6 custom, 27 MQ, 83 custom log, 5 monitor */
    char callOutValue; /* sub-kind: 1 HTTP_ENTRY, 4 TX_EXIT, 10 SQL, ... */
    char* moduleName;
    char* methodName; /* the key */
    char* mon_methodName;
    char* customCalloutName;
    char* aliasMethodName;
    char* methodRetType;
    char autoDeInstrFlg;
    char isInBlackListFlg;
    int methodId;
    int isEntryPoint; /* flags: 1 service entry, 2 callout, 4 method monitor, 8 custom callout */
    /* Host threads mark it as they run the method: atomic access only
     * (vx_atomic.h). copy_entry copies the fields one by one: a new field
     * is added there too. */
    int usedFlag;
    int instrumentationProp; /* 1 new, 2 kept from the previous profile, 3 no longer listed */
    int instrumentationStatus;
    int isAsyncCall;
    int methodArgIndex;
    unsigned int methodArgsListCount;
    methodArgList_t* methodArgList;
    methodPropProperties* customCalloutptr;
    node_t* generation; /* the table this entry belongs to */
};

/* Entry-point flags. */
enum : int {
    kEntryPointService = 1,
    kEntryPointCallout = 2,
    kEntryPointMonitor = 4,
    kEntryPointCustomCallout = 8,
};

/* Method kinds (type_). */
enum : int {
    kMethodTypePlain = 0,
    kMethodTypeHttp = 1,
    kMethodTypeDatabase = 2,
    kMethodTypeMonitor = 5, /* listed by the method monitor file */
    kMethodTypeCustom = 6,
    kMethodTypeMessageQueue = 27,
    kMethodTypeCustomLog = 83,
};

/* Sub-kinds (callOutValue) that force tokens. */
enum : int {
    kCallOutHttpEntry = 1,
    kCallOutTxExit = 4,
};

/* One generation of the table. */
struct node_t {
    apr_hash_t* ptr;     /* methodName -> methodPropProperties */
    int ref_count;       /* flowpaths started on this generation and not ended */
    char type;           /* 1 once an instrumentation profile was applied */
    long long timeStamp; /* ms when superseded */
    node_t* next;        /* the generation this one superseded */
    apr_pool_t* pool;    /* the hash's memory */
};

struct VXMethodTable_t {
    apr_thread_mutex_t* methodEntryLock;
    node_t* methodHashMapNode;     /* current generation */
    node_t* methodHashMapNodeTemp; /* the one being built during a copy */
    int methodIDGlobal;            /* next id */
    methodPropProperties* DefaultMethod;
    int dbBackendId;
    node_t* retired; /* generations of ended sessions, kept for hosts' handles */
};

/* Name of the root method of every flowpath. */
inline constexpr const char kRootMethodName[] = "Profiler.Kelvane.BeginRequest";
/* Name of the default database backend. */
inline constexpr const char kDefaultDBBackendName[] = "DB_SQLDB";

extern "C" {

void getMethodHashMapLock(void);
void releaseMethodHashMapLock(void);

/* Find `mName` (or the backend key its type forms) in `node`, creating it
 * when absent. With `updateFlag` the entry is a backend: counted, and capped
 * at maxIPCount distinct backends beyond which the name is "Others". Takes
 * the method lock. Null for an HTTP backend without a name. */
methodPropProperties* searchAndUpdateMethodHashMap(char* mName, node_t* methodHashMapNodeLocal,
                                                   int updateFlag, int type, int callOutValue);

/* Create `backendName` in `node` with the next id and send record 5. Caller
 * holds the method lock. */
methodPropProperties* updateMethodHashMap(char* backendName, int isEntryPointPtr, int type,
                                          node_t* methodHashMapNodeLocal, int callOutValue);

/* Find without creating, under the method lock. */
methodPropProperties* getMethodPropFromMethodName(char* mName, node_t* methodHashMapNodeLocal);

methodPropProperties* make_node_copy(methodPropProperties* in);
void make_argument_copy(methodPropProperties* dst, methodPropProperties* src);
void make_hash_copy(apr_hash_t* dst, apr_hash_t* src);
void make_haspmap_copy(void);
void resetmethodHashMapNode(void* hashMap, int type);
void makeHashmapCopyAndaddToLL(int type);

/* Bind the flowpath to the current generation (its ref_count rises) / a
 * flowpath on `node` ended. */
void saveNodeAndIncrementMethodRefCount(VXPerThreadData_t* vxTD);
void vxDecrementMethodRefCount(node_t* node);

void free_node(node_t* node);
/* Session end: the current generation is retired and the table emptied. */
void free_methodHashMapNode(void);

void hashMapForAgent(void);
}

namespace vx {
/* free_methodHashMapNode, only while `expected` is still the current
 * generation: a table that a newer session made stays. */
void retire_method_table(node_t* expected);

/* The current instance's table; null before the agent has one. */
VXMethodTable_t* method_table();

/* For the units that fill the table (profiles); callers hold the method
 * lock for all but method_table. */
/* A new, empty generation in its own pool; null when out of memory. */
node_t* new_method_generation();
/* The entry of `name` in `node`; null when absent or either is null. */
methodPropProperties* find_method(node_t* node, const char* name);
/* Put `m` in `node` under its methodName; `m` belongs to `node` from then. */
void insert_method(node_t* node, methodPropProperties* m);
/* A zeroed entry in `pool` (a generation's). */
methodPropProperties* new_method_entry(apr_pool_t* pool);
/* A copy of `s` in `pool`; null for a null or empty text. */
char* pool_dup_or_null(apr_pool_t* pool, const char* s);
}  // namespace vx

#endif
