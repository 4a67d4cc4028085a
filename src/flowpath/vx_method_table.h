/*
 * The method table: method names to ids, in generations that flowpaths keep
 * alive by reference count.
 *
 * STAND-IN (issue #3): only the root method exists and the table has a single
 * generation. The reference counting that flowpaths do is real.
 */
#ifndef VX_METHOD_TABLE_H
#define VX_METHOD_TABLE_H

#include <apr_hash.h>
#include <apr_thread_mutex.h>

struct VXPerThreadData_t;

/* One method of the table. */
struct methodPropProperties {
    char* methodName;
    int methodId;
    int isEntryPoint;  /* flags: 1 service entry, 2 callout, 4 monitor, 8 custom callout */
    int type_;         /* 1 HTTP, 2 database, 6 custom, 27 message queue */
    int callOutValue;  /* 1 HTTP_ENTRY, 4 TX_EXIT */
    int isAsyncCall;
    int usedFlag;
    int instrumentationProp;
};

/* One generation of the table. */
struct node_t {
    apr_hash_t* ptr; /* methodName -> methodPropProperties */
    int ref_count;   /* flowpaths started on this generation */
    char type;
    long long timeStamp;
    node_t* next;
};

struct VXMethodTable_t {
    apr_thread_mutex_t* methodEntryLock; /* the method lock */
    node_t* methodHashMapNode;           /* current generation */
    node_t* methodHashMapNodeTemp;
    int methodIDGlobal;                  /* next id */
    methodPropProperties* DefaultMethod; /* root of every flowpath */
    int dbBackendId;
};

/* Name of the root method of every flowpath. */
inline constexpr const char kRootMethodName[] = "Profiler.Kelvane.BeginRequest";

extern "C" {

/* Create the current generation with the root method in it. */
void vxMethodTableInit(void);

/* Bind the flowpath to the current generation: its ref_count rises. */
void saveNodeAndIncrementMethodRefCount(VXPerThreadData_t* vxTD);

/* A flowpath on `node` ended. */
void vxDecrementMethodRefCount(node_t* node);
}

#endif
