/*
 * The exception monitor: per-interval counts of the exception classes the
 * exception monitor file lists, record 63, with an "OverAll" line.
 *
 * currentMonitoringExceptionMap (class name -> currMonitoringExcepStruct_t)
 * is guarded by exceptionEntryLock. Its entries are never freed while a
 * reader may hold them: a run-time reload unbinds the old ids and retires
 * the old entries, released at a later session's clean-up.
 *
 * The arrays follow the method monitor (vx_method_monitor.h): bindings of id
 * to entry in aggExceptionDataArr (written under exceptionEntryLock,
 * published copies), counter objects in each model's excepDataArray under
 * lockForEM, aggregates in reportArr under reportLock.
 *
 * Lock order: reportLock, controlThreadTmpLock, one model's lockForEM.
 * exceptionEntryLock is released before lockForEM is taken.
 */
#ifndef VX_EXCEPTION_MONITOR_H
#define VX_EXCEPTION_MONITOR_H

#include <apr_hash.h>
#include <apr_pools.h>
#include <apr_thread_mutex.h>

#include "core/vx_retire_list.h"

struct VXPerThreadData_t;

/* One monitored class; the strings are owned (malloc). */
struct currMonitoringExcepStruct_t {
    int excepmethodid;
    int setEnableExceptionMon;
    char* exceptionMethodName;
    char* aliasMName;
};

struct _VXExceptionMonitorDataCounters_t {
    int count;
    int cumCount;
    currMonitoringExcepStruct_t* expData; /* aggExceptionDataArr: the bound class */
    char dataExist;
};

struct _VXExceptionMonitor_t {
    int aggExceptionArraySize; /* published with release after the array */
    _VXExceptionMonitorDataCounters_t* aggExceptionDataArr;
    char vectorPrefix[1024];
    char vectorPrefixID[64];
    int currentReportingCount;
    char isExceptionMonitorOn; /* read by host threads: atomic */
    int maxMethodCount;
    int numberOfThreads;
    /* The class map and its lock. */
    apr_thread_mutex_t* exceptionEntryLock;
    apr_pool_t* mapPool;
    apr_hash_t* currentMonitoringExceptionMap;
    int exceptionID;      /* next id, from 1 */
    int exceptionMonFlag; /* 1 once a file line was taken */
    vx::RetireList retired; /* old arrays and entries; under exceptionEntryLock */
    apr_thread_mutex_t* reportLock;
    _VXExceptionMonitorDataCounters_t* reportArr; /* by id, under reportLock */
    int reportArrSize;
};

extern "C" {
/* Makes the locks and the array if absent, clears every aggregate, turns
 * the monitor on. Agent and session start. */
void VXExceptionMonitorInit(void);

/* At a thrown exception: counts it on the record's model when its class is
 * listed. 0 when counted, 1 otherwise. The record's thread. */
int updateCounterAndDurationForException(VXPerThreadData_t* vxTl, const char* exceptionClassName);

/* Counts one exception of id methodID under lockForEM. 1 when counted. */
int updatePropertiesOfException(VXPerThreadData_t* tlData, const char* methodName, int methodID);

/* Binds a class to the element of its id. Caller holds exceptionEntryLock. */
void checkAndIncrementAggrExceptionDataArray(currMonitoringExcepStruct_t* expData);

/* The interval's fold and its records 63, the "OverAll" one last, appended
 * to buff as the other monitors do. 1 when it ran, 0 with no model. */
int generateAndDumpExceptionMonitoringRecord(char* buff, int* len, int bufLen);

/* Reads the list of monitored classes ("alias|class|rest" lines); a null
 * buffer turns the monitor off. Control thread. */
void parseExceptionMonFile(char* buffer);

void getExcepMonHashMapLock(void);
void releaseExcepMonHashMapLock(void);
}

#endif
