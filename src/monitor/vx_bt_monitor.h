/*
 * The BT monitor: per-interval counters of business transactions, by BT id.
 *
 * aggBTDataArr holds one element per BT id (0 is the overall line); a
 * pattern-rule request reads the BT bound to its id from here without a
 * lock, so the array is never reallocated in place: it grows by publishing a
 * larger copy (array first, then its size, both with release) and retiring
 * the old one. Readers load the size with acquire, then the array.
 *
 * STAND-IN(monitors): the interval counters, their fold and records 52, 53
 * and 74 are not built yet; what exists is the array, its binding and
 * growth, and the tag lists' holders.
 *
 * Threads: growth and binding under bt_obj_map_lock; tag lists under
 * btGlobalTag_lock.
 */
#ifndef VX_BT_MONITOR_H
#define VX_BT_MONITOR_H

#include <apr_thread_mutex.h>

struct VXPerThreadData_t;
struct BTObject;
struct BTTagArray;

struct VXBTMonitorDataCounters {
    BTObject* tlBTObj; /* the BT bound to this id, read without a lock */
    void* tdigest_key;
    void* cdigest_key;
    char tdigestDataExist;
    char cdigestDataExist;
};

struct VXBTMonitor_t {
    int aggDataArraySize;
    VXBTMonitorDataCounters* aggBTDataArr;
    int currentSizeOfBTTagArray;
    char vectorPrefix[1024];
    char vectorPrefixID[64];
    int currentReportingCount;
    char isBTMonitorOn;
    int btMonitorErrorLevel;
    int maxBTCount;
    int numberOfThreads;
    char doNotDisacrdAnyTransaction; /* report uncaptured normal transactions too */
    BTTagArray** btTagArray;         /* tag definitions by BT id */
    BTTagArray* btGlobalTag;
    apr_thread_mutex_t* btGlobalTag_lock;
};

extern "C" {
/* Makes the array and the tag holders if absent, re-initialises every
 * element. Control thread, at model set-up. */
void VXBTMonitorInit(void);

/* Binds a BT to the element of its id, growing the array when the id does
 * not fit; clears the element's digest fields. Caller holds bt_obj_map_lock. */
void checkAndIncrementAggrBTDataArray(BTObject* tlBTObj);

/* The interval's fold: appends record 74 for each BT that had transactions
 * and the overall line to buff (its length in *len, its size bufLen),
 * handing the buffer to the auto-sensor channel whenever it fills. 1 when
 * records were written. Auto-sensor thread. */
int generateAndDumpBTMonitoringRecord(char* buff, int* len, int bufLen);

void initThreadBasedModelMap(void);
void initVXMonitorDataModel(VXPerThreadData_t* tlData);
void updateCounterAndDurationForBT(VXPerThreadData_t* vxTD);
}

namespace vx {

/* The BT bound to `id`, or null (also for an id outside the array). Any
 * thread, no lock. `size_out` gets the size seen. */
BTObject* bt_bound_to(int id, int* size_out);

/* Grows the array to hold at least `size` elements (keyword
 * BTAggDataArraySize); the size never shrinks. Takes bt_obj_map_lock. */
void bt_monitor_resize(int size);

/* Session clean-up: no element is bound any longer. */
void bt_monitor_unbind_all();

/* Length after growth for an id that does not fit: the smallest multiple of
 * 2 * old + 1 above the id. */
int bt_monitor_grown_size(int oldLength, int id);

}  // namespace vx

#endif
