/*
 * The backend monitor: per-interval counters of the backends the application
 * calls out to, record 75.
 *
 * A backend is an entry of the method table; its methodId is its backend id.
 * Three arrays, three owners, as in the BT monitor (vx_bt_monitor.h):
 *
 *  - aggIPDataArr (VXBackendMonitor), one element per backend id: the entry
 *    bound to the id (mpp). Host threads bind and grow it when the method
 *    table makes a backend, under methodEntryLock; the reporting thread reads
 *    the bindings without that lock. So the array is never reallocated in
 *    place: growth publishes a larger copy (array first, then its size, both
 *    with release) and retires the old one, released at a session's
 *    clean-up after a grace. No counter is kept here.
 *  - ipmDataArray (each record's model, vx_monitor_model.h), by backend id:
 *    the counter objects a host thread updates at a callout's exit, under
 *    that model's lockForIP. An object is made on the first call of a
 *    backend on a record and then only re-initialised, so nothing is
 *    allocated after that.
 *  - reportArr (VXBackendMonitor), by backend id: the aggregate counters and
 *    the backends' digests, owned by the reporting thread under reportLock.
 *
 * The fold merges each model's objects under that model's lockForIP into
 * reportArr, which no host thread reads or writes, and formats the records
 * after every model lock is released.
 *
 * Lock order: reportLock, controlThreadTmpLock, one model's lockForIP; then
 * (no model lock held) VXPercentiles_t.lock and the auto-sensor channel's
 * locks. methodEntryLock is never held with any of them by this monitor.
 * The BT monitor's reportLock and this one are never held together.
 */
#ifndef VX_BACKEND_MONITOR_H
#define VX_BACKEND_MONITOR_H

#include <apr_thread_mutex.h>

#include "core/vx_retire_list.h"
/* Method exits count both monitors and reach the method monitor here. */
#include "monitor/vx_method_monitor.h"

struct VXPerThreadData_t;
struct methodPropProperties;
struct td_histogram_t;
struct tslb_cdigest_t;

/* Counters of one backend in one interval; durations in ms. */
struct VXBackendMonitorDataCounters {
    long long cumCount; /* calls since the session's start (a model's object) */
    long long count;
    long long errorCount;
    long long duration;
    long long minDuration; /* kIPMinStart when untouched */
    long long maxDuration;
    /* aggIPDataArr: the backend bound to this id, read without a lock.
     * reportArr: the backend its digests were fed for. */
    methodPropProperties* mpp;
    char dataExist; /* reportArr: got calls in this interval */
    /* reportArr only, under reportLock and the percentiles' lock. */
    td_histogram_t* tdigest_key;
    char tdigestDataExist;
    tslb_cdigest_t* cdigest_key;
    char cdigestDataExist;
};

inline constexpr long long kIPMinStart = 2147483647; /* start of minDuration */
inline constexpr int kDefaultMaxIPCount = 32;

struct VXBackendMonitor_t {
    int vxBackendMonTraceLevel;
    int maxIPCount; /* most distinct backends before "Others" */
    char vectorPrefix[1024];
    char vectorPrefixID[64];
    char isBackendMonitorOn; /* read by host threads: atomic */
    int numberOfThreads;
    int aggDataArraySize; /* published with release after the array */
    int backendIDCounter; /* distinct backends so far; under methodEntryLock */
    VXBackendMonitorDataCounters* aggIPDataArr;
    vx::RetireList retired; /* earlier aggIPDataArr blocks; under methodEntryLock */
    /* The reporting thread's aggregates, under reportLock. */
    apr_thread_mutex_t* reportLock;
    VXBackendMonitorDataCounters* reportArr; /* by backend id */
    int reportArrSize;
};

extern "C" {
/* Makes the locks and aggIPDataArr if absent, clears every aggregate and
 * releases the backends' digests, builds the vector prefixes and turns the
 * monitor on. Agent start and session start, control thread. */
void VXBackendMonitorInit(void);

/* vectorPrefix "<tier>><server>><instance>>" and vectorPrefixID
 * "<tier id>|<app id>|" of this monitor. Control thread. */
void createVectorPrefixBackend(void);

/* Binds a backend to the element of its id, growing aggIPDataArr when the
 * id does not fit. Caller holds methodEntryLock. */
void checkAndIncrementAggrBackendDataArray(methodPropProperties* mpp);

/* At a callout's exit: counts one call of `mpp` of `duration` ms (failed
 * when isError) on the record's model. 0 when counted; 1 without an entry,
 * with an id below 1, with the monitor off or without a model. The record's
 * thread. */
int updateCounterAndDurationForBackend(VXPerThreadData_t* vxTl, methodPropProperties* mpp,
                                       long long duration, int isError);

/* Counts the call in the record's model (which it has) under lockForIP,
 * growing its array and making the counter object as needed. 1 when
 * counted, 0 when memory ran out. */
int updatePropertiesOfBackend(VXPerThreadData_t* tlData, int backendId, long long duration,
                              int isError);

/* Counts one call in one object. Caller holds the model's lockForIP. */
void updateBackendDataCounters(VXBackendMonitorDataCounters* c, long long duration, int isError);

/* Merges `currentObj` into `aggDataObject` (minimums and maximums, sums) and
 * brings it back to its start values but cumCount, which keeps growing. */
void updateBackendDataCountersForAggregate(VXBackendMonitorDataCounters* aggDataObject,
                                           VXBackendMonitorDataCounters* currentObj);

/* The interval's fold: merges and re-initialises the counters of every
 * model, then appends to buff (its length in *len, its size bufLen) one
 * record 75 per bound backend that had calls; a backend with calls but no
 * binding keeps them for a later interval. After a record, a buffer holding
 * more than bufLen - 4097 bytes is handed to dumpASData and *len restarts at
 * 0; what remains is the caller's to hand on. 0 when it ran, 1 with no model
 * at all. The caller checks isBackendMonitorOn. The reporting thread. */
int generateAndDumpBackendMonitoringRecord(char* buff, int* len, int bufLen);

/* Formats one record 75 of `counterObj` for backend `backendID` named
 * `backendName`, as above. */
void dump75RecordForEveryIP(char* buff, int* len, int bufLen,
                            VXBackendMonitorDataCounters* counterObj, int backendID,
                            const char* backendName);
}

namespace vx {

/* The backend bound to `id`, or null (also for an id outside the array).
 * Any thread, no lock. */
methodPropProperties* backend_bound_to(int id);

/* Session clean-up: no element is bound any longer, and arrays retired long
 * enough ago are released. Takes methodEntryLock. */
void backend_monitor_unbind_all();

}  // namespace vx

#endif
