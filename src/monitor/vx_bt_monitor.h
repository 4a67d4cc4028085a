/*
 * The BT monitor: per-interval counters of business transactions, record 74.
 *
 * Three arrays, three owners:
 *
 *  - aggBTDataArr (instance), one element per BT id: the BT bound to the id
 *    (tlBTObj) and its digests. A pattern-rule request reads the binding
 *    without a lock, so the array is never reallocated in place: host threads
 *    grow it under bt_obj_map_lock by publishing a larger copy (array first,
 *    then its size, both with release) and retiring the old one. Readers load
 *    the size with acquire, then the array. No counter is kept here.
 *  - btmDataArray (each record's model, vx_monitor_model.h), by slot: the
 *    counter objects a host thread updates at endFP, under that model's
 *    lockForBT. A slot is handed out by bt_tag_obj_map for the key "<bt id>"
 *    (or "<bt id>-<tag id>" for a tag set) and means the same on every model.
 *  - reportArr and tagReportArr (VXBTMonitor), by BT id and by slot: the
 *    aggregate counters, owned by the reporting thread under reportLock.
 *
 * Why the fold is race-free: it merges each model's objects under that
 * model's lockForBT (the only lock a host thread's update takes, so the two
 * never touch an object at once) into reportArr, which no host thread ever
 * reads or writes; it reads from aggBTDataArr only the bindings, atomically,
 * as request threads do, so a copy made by a growing host thread at the same
 * moment loses nothing. reportArr is sized at fold time from aggDataArraySize
 * and grows if an object names a larger id. Records are formatted after the
 * model locks are released.
 *
 * The steady path of an update takes no lock shared between host threads:
 * the slot of a BT is looked up under bt_tag_obj_map_lock once per BT and
 * session, then cached in the BTObject (monitorSlot, one atomic word holding
 * the session's slot epoch, the id and the slot); later updates read the
 * cache and take only their model's lockForBT. A counter object is made on
 * the first update of a slot on a record and then only re-initialised, so
 * nothing is allocated after a BT's first transaction on a record.
 *
 * Lock order: reportLock, controlThreadTmpLock, one model's lockForBT, then
 * tag_obj_map_lock or bt_tag_obj_map_lock (each taken alone); the
 * auto-sensor channel's locks (dumpASData) under reportLock only. Growth and
 * binding of aggBTDataArr under bt_obj_map_lock, which is never held with
 * these. Tag lists under btGlobalTag_lock.
 */
#ifndef VX_BT_MONITOR_H
#define VX_BT_MONITOR_H

#include <apr_thread_mutex.h>

#include <functional>

struct VXPerThreadData_t;
struct VXMonitorDataModel;
struct BTObject;
struct BTTagArray;
struct BTTagSeqArray;
struct td_histogram_t;
struct tslb_cdigest_t;

/* Counters of one BT (or tag set) in one interval; durations in ms, CPU in
 * ns. Minimums start at kBTMinStart (CPU at the largest long long). */
struct VXBTMonitorDataCounters {
    int count;
    long long duration;
    long long minDuration;
    long long maxDuration;
    long long cpuTime;
    long long minCpuTime;
    long long maxCpuTime;
    int normalCount;
    long long normalDuration;
    long long minNormalDuration;
    long long maxNormalDuration;
    int slowCount;
    long long slowDuration;
    long long minSlowDuration;
    long long maxSlowDuration;
    int verySlowCount;
    long long verySlowDuration;
    long long minVerySlowDuration;
    long long maxVerySlowDuration;
    int errorCount;
    long long errorDuration;
    long long minErrorDuration;
    long long maxErrorDuration;
    int waitCount;
    long long cumWaitTime;
    long long minWaitTime;
    long long maxWaitTime;
    int syncCount;
    long long cumSyncTime;
    long long minSyncTime;
    long long maxSyncTime;
    int queueCount;
    long long minQueueTime;
    long long maxQueueTime;
    long long cumQueueTime;
    /* aggBTDataArr: the BT bound to this id, read without a lock. reportArr:
     * the BT its digests were fed for (vx_bt_percentiles.h). */
    BTObject* tlBTObj;
    char dataExist; /* reportArr: got data in this interval */
    /* reportArr only: the BT's digests, under reportLock and the
     * percentiles' lock. */
    td_histogram_t* tdigest_key;
    char tdigestDataExist;
    tslb_cdigest_t* cdigest_key;
    char cdigestDataExist;
    char* tagName; /* a tag slot's sequence text (a model's object: in its own block) */
    int unique_id; /* slot; -1 after re-initialisation */
    int btId;
};

inline constexpr long long kBTMinStart = 2147483647; /* start of the minimums but CPU's */

struct VXBTMonitor_t {
    int aggDataArraySize;
    VXBTMonitorDataCounters* aggBTDataArr;
    int currentSizeOfBTTagArray;
    char vectorPrefix[1024];
    char vectorPrefixID[64];
    int currentReportingCount;
    char isBTMonitorOn; /* read by host threads: atomic */
    int btMonitorErrorLevel;
    int maxBTCount;
    int numberOfThreads;
    char doNotDisacrdAnyTransaction; /* report uncaptured normal transactions too; atomic */
    BTTagArray** btTagArray;         /* tag definitions by BT id */
    BTTagArray* btGlobalTag;
    apr_thread_mutex_t* btGlobalTag_lock;
    /* Slots: bumped (under bt_tag_obj_map_lock) when bt_tag_obj_map is
     * emptied, so that slots cached in BTObjects of an earlier session are
     * not taken for this one's. Never 0. */
    int slotEpoch;
    /* The reporting thread's aggregates, under reportLock. */
    apr_thread_mutex_t* reportLock;
    VXBTMonitorDataCounters* reportArr; /* by BT id; 0 is the overall line */
    int reportArrSize;
    VXBTMonitorDataCounters* tagReportArr; /* by slot: tag sets */
    int tagReportArrSize;
};

extern "C" {
/* Makes the array and the tag holders if absent, re-initialises every
 * element, builds the vector prefixes, turns the monitor on. Control thread,
 * at model set-up. */
void VXBTMonitorInit(void);

/* Binds a BT to the element of its id, growing the array when the id does
 * not fit. Caller holds bt_obj_map_lock. */
void checkAndIncrementAggrBTDataArray(BTObject* tlBTObj);

/* vectorPrefix "<tier>><server>><instance>>" and vectorPrefixID
 * "<tier id>|<app id>|", with vxVectorSeperator. Control thread. */
void createVectorPrefix(void);

/* At the end of a flowpath that is not excluded: counts it in its BT's slot
 * (and its tag sets') of the record's model. 1 when counted; 0 without a BT
 * or model, with an id below 1, or with the monitor off. The record's
 * thread. */
int updateCounterAndDurationForBT(VXPerThreadData_t* vxTD);

/* Counts the flowpath in the record's model (which it has) under lockForBT.
 * 1 when counted. */
int updatePropertiesOfBT(VXPerThreadData_t* tlData, int btID);

/* Counts the flowpath in the BT's object `own` and in each tag set's object
 * of the flowpath. Caller holds the model's lockForBT. */
void updateBTDataCounters(VXPerThreadData_t* tlData, VXMonitorDataModel* model, int btID,
                          VXBTMonitorDataCounters* own);

/* Counts the flowpath in one object by tlCategory: 10 to 13 in the generic
 * counters and their category's, 15 in the generic ones, others nowhere. */
void updateeachbtrecord(VXPerThreadData_t* tlData, VXBTMonitorDataCounters* ptr);

/* Adds a child flowpath's CPU time (ns) to the BT's slots on this record,
 * making them as needed; no other counter changes. `duration` and
 * `category` are not used. */
void updateChildFPCpuTimeOfBT(VXPerThreadData_t* tlData, int btID, long long duration, int category,
                              long long fpCPUTime);

/* The interval's fold: merges and re-initialises the counters of every
 * model, then appends to buff (its length in *len, its size bufLen) one
 * record 74 per BT that had transactions, one per tag set, and the overall
 * line "AllTransactions" (always). After a record, a buffer holding more
 * than bufLen - 4097 bytes is handed to dumpASData and *len restarts at 0;
 * what remains is the caller's to hand on. 1 when records were written; 0
 * with no model or no BT yet. The caller checks isBTMonitorOn. The
 * reporting thread. */
int generateAndDumpBTMonitoringRecord(char* buff, int* len, int bufLen);

/* Formats one record 74 of `counterObj` for the series of btID (0: the
 * overall line) named btName, as above. */
void dump74RecordForEveryBT(char* buff, int* len, int bufLen, VXBTMonitorDataCounters* counterObj,
                            int btID, const char* btName);

/* Empties bt_tag_obj_map, freeing its entries: the next session hands out
 * slots from 0 again. Session clean-up. */
void Free_BT_Tag_Map(void);
}

namespace vx {

/* Makes bt_tag_obj_map anew and empty, in a pool of its own that replaces
 * (and frees) the last session's: slots start again at 0 and no cached slot
 * of an earlier session is trusted. Takes bt_tag_obj_map_lock. */
void bt_slot_map_reset();

/* The BT bound to `id`, or null (also for an id outside the array). Any
 * thread, no lock. `size_out` gets the size seen. */
BTObject* bt_bound_to(int id, int* size_out);

/* Grows the array to hold at least `size` elements (keyword
 * BTAggDataArraySize); the size never shrinks. Takes bt_obj_map_lock. */
void bt_monitor_resize(int size);

/* The series id of a BT's records: its id, or with tags on its counter
 * slot + 1 (the id record 74 gives it). Takes bt_tag_obj_map_lock. */
int bt_monitor_series_id(int btId);

/* Session clean-up: no element is bound any longer. */
void bt_monitor_unbind_all();

/* Length after growth for an id that does not fit: the smallest multiple of
 * 2 * old + 1 above the id. */
int bt_monitor_grown_size(int oldLength, int id);

/* The tag id of the flowpath's tag sequence, -1 when it has none. The
 * record's thread. */
int bt_monitor_tag_id(const VXPerThreadData_t* vxTD);

/* Where a flowpath's tag sequence comes from: a new node the monitor takes
 * over, or null: get_json_bt_per_thread unless a test installs another. */
using BTTagSeqSource = BTTagSeqArray* (*)(VXPerThreadData_t* vxTD, int btID);
void bt_tag_seq_source_set(BTTagSeqSource source);

/* Calls `fn` with each tag sequence's id and text under tag_obj_map_lock
 * (a flowpath numbering a new sequence waits meanwhile; `fn` must not call
 * into this unit); stops when `fn` returns false. */
void tag_sequence_for_each(const std::function<bool(int id, const char* text)>& fn);

}  // namespace vx

#endif
