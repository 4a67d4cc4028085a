/*
 * The method monitor: per-interval counters of the methods the method
 * monitor file marks (flag 4 of isEntryPoint), record 61.
 *
 * The three arrays of the backend monitor (vx_backend_monitor.h), with the
 * same owners:
 *
 *  - aggMethodDataArr (VXMethodMonitor), by method id: the entry bound to
 *    the id (mpp). Bound and grown under methodEntryLock when the file is
 *    read; growth publishes a larger copy and retires the old one, so the
 *    reporting thread reads the bindings without that lock.
 *  - mmDataArray (each record's model), by method id: the counter objects a
 *    host thread updates at a monitored method's exit, under that model's
 *    lockForMM. An object is made on a method's first exit on a record.
 *  - reportArr (VXMethodMonitor), by method id: the aggregates, owned by the
 *    reporting thread under reportLock.
 *
 * Lock order: reportLock, controlThreadTmpLock, one model's lockForMM.
 */
#ifndef VX_METHOD_MONITOR_H
#define VX_METHOD_MONITOR_H

#include <apr_thread_mutex.h>

#include "core/vx_retire_list.h"
#include "vx_sdk.h"

struct VXPerThreadData_t;
struct methodPropProperties;

/* Counters of one method in one interval; durations in ms. */
struct VXMethodMonitorDataCounters {
    int count;    /* calls in this interval */
    int cumCount; /* a model's object: calls since the start */
    long long duration;
    long long minDuration; /* kMMMinStart when untouched */
    long long maxDuration;
    methodPropProperties* mpp; /* aggMethodDataArr: the method bound to the id */
    char dataExist;            /* reportArr: merged from a model this interval */
};

inline constexpr long long kMMMinStart = 2147483647;
inline constexpr int kDefaultMaxMethodCount = 256;

struct VXMethodMonitor_t {
    int aggDataArraySize; /* published with release after the array */
    VXMethodMonitorDataCounters* aggMethodDataArr;
    char vectorPrefix[1024];
    char vectorPrefixID[64];
    int currentReportingCount;
    char isMethodMonitorOn; /* read by host threads: atomic */
    int methodMonitorTraceLevel;
    int methodMonitorErrorLevel;
    char sendReSetEventOnAggDataConn;
    int maxMethodCount; /* stored for hosts; no count is held against it */
    int numberOfThreads;
    char doNotDisacrdAnyTransaction;
    char vxMethodMonTraceLevel;
    methodPropProperties* mpp;
    vx::RetireList retired; /* earlier aggMethodDataArr blocks; under methodEntryLock */
    apr_thread_mutex_t* reportLock;
    VXMethodMonitorDataCounters* reportArr; /* by method id, under reportLock */
    int reportArrSize;
};

extern "C" {
/* Builds the prefixes, makes aggMethodDataArr if absent, clears every
 * aggregate and turns the monitor on. Agent and session start. */
void VXMethodMonitorInit(void);

/* Binds a monitored method to the element of its id, growing the array when
 * the id does not fit. Caller holds methodEntryLock. */
void checkAndIncrementAggrMethodDataArray(methodPropProperties* mPP);

/* At a monitored method's exit: counts one call of `duration` ms on the
 * record's model. The record's thread. */
void updateCounterAndDurationForMethod(VXPerThreadData_t* vxTD, methodPropProperties* mPP,
                                       long long duration);

/* Counts the call under lockForMM, growing the model's array and making the
 * object as needed. 1 when counted, 0 when memory ran out or no model. */
int updatePropertiesOfMethod(VXPerThreadData_t* tlData, const char* methodName, int methodID,
                             long long duration);

/* The interval's fold, then one record 61 per bound method merged from a
 * model, appended to buff (*len used of bufLen; full buffers are handed to
 * dumpASData). The number of models: 0 means no record. Reporting thread. */
int generateAndDumpMethodMonitoringRecord(char* buff, int* len, int bufLen);

/* The host setters (parseMethodMonitorKeyword ...) are declared with the C API. */
}

namespace vx {

/* The method bound to `id`, or null. Any thread, no lock. */
methodPropProperties* method_bound_to(int id);

}  // namespace vx

#endif
