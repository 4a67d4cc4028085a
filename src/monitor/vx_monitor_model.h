/*
 * The monitors' counter model: one VXMonitorDataModel per transaction record,
 * the instance's map of all of them, and the settings the monitors share.
 *
 * A host thread counts into the model of the record it holds, under that
 * model's own lock for the monitor; once per interval the reporting
 * (auto-sensor) thread walks every model, folds and re-initialises its
 * counters. So a host thread on its steady path contends with no other host
 * thread, only, briefly, with the fold.
 *
 * Ownership: a model owns its arrays, every counter object in them and the
 * tag lists; all are plain heap blocks released with free(). In the normal
 * mode a model is made with its record's pool block and lives as long as the
 * record; at a session's end only its counters go (resetMonitorCounters). In
 * the proxy process models are made on first use and freed at a session's
 * end; their shells (the struct and its four locks, which come from a pool and
 * cannot be given back one by one) are kept for the next ones.
 *
 * Lock order: controlThreadTmpLock (the map and the shells), then one model's
 * lockForBT, lockForMM, lockForIP or lockForEM, then the tag map locks.
 * tlsMutex is never taken under any of them: a model's locks are made under
 * it before the map lock is taken.
 */
#ifndef VX_MONITOR_MODEL_H
#define VX_MONITOR_MODEL_H

#include <apr_hash.h>
#include <apr_thread_mutex.h>

#include <cstdlib>

#include "core/vx_atomic.h"
#include "core/vx_retire_list.h"

struct VXPerThreadData_t;
struct VXProxyInstance_t;
struct VXBTMonitorDataCounters;
struct BTTagArray;
struct VXBackendMonitorDataCounters;
struct VXMethodMonitorDataCounters;
struct _VXExceptionMonitorDataCounters_t;

/* One tag sequence of one flowpath; tagSeq is owned. */
struct BTTagSeqArray {
    char* tagSeq;
    int tagId;
    long long flowpathInstance;
    BTTagSeqArray* next;
    int slot; /* the tag set's counter slot, set by the BT monitor */
};

struct VXMonitorDataModel {
    int currentSizeOfBTArray;
    int currentSizeOfBackendArray;
    int currentSizeOfMethodArray;
    int currentSizeOfExcepMonArray;
    int currentSizeOfBTSeqArray;
    int currentSizeOfBTPerThreadArray;
    long long lastUpdateTimeStamp; /* ms, my_gettimeofday */
    apr_thread_mutex_t* lockForBT;
    apr_thread_mutex_t* lockForMM;
    apr_thread_mutex_t* lockForIP;
    apr_thread_mutex_t* lockForEM;
    VXBTMonitorDataCounters** btmDataArray;      /* by slot (see vx_bt_monitor.h) */
    BTTagArray** btPerThreadArray;               /* resolved tags by BT id */
    BTTagSeqArray** btTagSeqArray;               /* the current flowpath's tag sequences by BT id */
    VXMethodMonitorDataCounters** mmDataArray;   /* by method id, made on first use */
    VXBackendMonitorDataCounters** ipmDataArray; /* by backend id, made on first use */
    _VXExceptionMonitorDataCounters_t** excepDataArray; /* by exception id, made on first use */
    long long threadId;            /* the key in threadBasedModelMap: tlThreadId */
    VXMonitorDataModel* nextShell; /* proxy process: kept shells */
};

/* Settings shared by the monitors, as the collector's keywords set them. */
struct VXMonitorSettings_t {
    long long vxMonitorInterval; /* ms */
    int vxMonitorIntervalInSecs; /* rates divide by this, not by measured time */
    char vxVectorSeperator;
    int isNewMonitorRecordEnabled;
    int BTAggDataArraySize;
};

/* The instance's models. */
struct VXMonitorModels_t {
    apr_hash_t* threadBasedModelMap; /* &model->threadId -> model */
    VXMonitorDataModel* shells;      /* proxy process: freed models' shells */
};

inline constexpr int kMonitorArrayInitial = 128; /* entries of a model's arrays at start */

extern "C" {

/* Start values of VXMonitorSettings_t: 10000 ms, 10 s, '>'. Agent start. */
void VXMonitorSettingsInit(void);

/* Creates threadBasedModelMap; once per instance, before any record. */
void initThreadBasedModelMap(void);

/* Makes the record's model (zeroed, its locks, a BT array of 128 entries;
 * the tag arrays are made when a tag sequence first needs them), attaches
 * it and enters it in the map. On failure the record has none and
 * its updates are not counted. Any thread; takes tlsMutex, then
 * controlThreadTmpLock, one after the other. */
void initVXMonitorDataModel(VXPerThreadData_t* tlData);

/* Attaches the model the map holds for the record. 1 when the record has a
 * model afterwards; outside the proxy process 0 when the map has none (in it,
 * one is made). */
int checkAndInitMonitorDataModel(VXPerThreadData_t* vxTl);

/* Grows the array *ptr of oldLength entries of sizeOfStruct bytes (below 1:
 * a pointer) so that `id` fits: the new length is the smallest multiple of
 * 2 * oldLength + 1 above id; new entries are zero. The new length, or
 * oldLength with *ptr untouched when memory runs out. */
int handleSizeDataArr(void** ptr, int oldLength, int id, int sizeOfStruct);

/* Frees every counter object and tag list of the model, over the arrays'
 * full length, and brings the counter arrays back to 128 entries, so that a
 * model's memory does not outlive its session. Takes the model's locks. */
void resetMonitorCounters(VXMonitorDataModel* value);

/* End of a session, under controlThreadTmpLock: every model is reset; in the
 * proxy process models are freed and the map emptied. */
void free_threadBasedModelMap(void);

/* Empties the map (agent end). */
void destroyVXMonitorDataModel(void);
}

namespace vx {

/* The model the record counts into, made or attached as the role asks; null
 * when there is none (the update is then not counted). The record's own
 * thread. */
VXMonitorDataModel* monitor_model_of(VXPerThreadData_t* vxTD);

/* A monitor's vector prefixes: `prefix` "<tier>><server>><instance>>" and
 * `prefixID` "<tier id>|<app id>|", with vxVectorSeperator. Each monitor
 * keeps its own copy. Control thread. */
void monitor_vector_prefix(char (&prefix)[1024], char (&prefixID)[64]);

/* Calls fn on every model under controlThreadTmpLock; the number of models.
 * fn takes the model's own locks. The reporting thread. */
int monitor_models_each(void (*fn)(VXMonitorDataModel* model, void* ctx), void* ctx);

/* Room for one monitor record at the end of an interval's buffer (`*len`
 * used of `bufLen`): the buffer goes to the auto-sensor channel first when
 * it could not take a whole record. The record's capacity; below 2 there is
 * no room. */
int monitor_record_begin(char* buff, int* len, int bufLen);

/* Ends the record of `n` bytes (snprintf's count) written at buff + *len in
 * `cap`: its line end, the length, and the buffer handed on once it is at
 * its own limit, where it may not hold the next record. */
void monitor_record_end(char* buff, int* len, int bufLen, int n, int cap);

/* The slot of `id` in a model's array of counter pointers (*arr of *len
 * entries): the array is made (128 entries, or grown by the models' rule)
 * or grown when `id` does not fit. Null when memory runs out. Caller holds
 * the array's model lock. */
void** monitor_slot(void*** arr, int* len, int id);

/* The reporting interval in seconds, as rates divide by it (never 0). */
double monitor_interval_secs(const VXProxyInstance_t* app);

/* Logs that one of a monitor's arrays (`what`) could not grow (out of
 * memory). */
void monitor_grow_failed(const char* module, const char* what, int size, int need);

/* Makes a monitor's id-to-object bindings `arr` (of `size` elements)
 * `length` long: a new array, its elements at `start` with each binding
 * (the member `binding`) copied atomically, published whole (array, then
 * size) and the old array retired, never freed under a reader. False,
 * logged, when memory runs out. The caller holds the writers' lock. */
template <typename T, typename B>
bool monitor_bindings_grow(T*& arr, int& size, int length, const T& start, B T::*binding,
                           RetireList& retired, const char* module)
{
    const int old = size;
    if (length <= old && arr) return true;
    auto* fresh = static_cast<T*>(malloc(static_cast<size_t>(length) * sizeof(T)));
    if (!fresh) {
        monitor_grow_failed(module, "bindings", old, length);
        return false;
    }
    T* prev = arr;
    for (int i = 0; i < length; ++i) {
        fresh[i] = start;
        /* The reporting thread reads the bindings. */
        if (prev && i < old) fresh[i].*binding = load_relaxed(prev[i].*binding);
    }
    store_release(arr, fresh);
    store_release(size, length);
    if (prev) retire(retired, prev, nullptr);
    return true;
}

/* Makes a monitor's report array `arr` (of `size` elements) hold at least
 * `need`, the new elements at `start`. False, logged, when memory runs out.
 * The reporting thread, under the monitor's reportLock. */
template <typename T>
bool monitor_report_reserve(T*& arr, int& size, int need, const T& start, const char* module)
{
    if (need <= size) return true;
    auto* grown = static_cast<T*>(realloc(arr, static_cast<size_t>(need) * sizeof(T)));
    if (!grown) {
        monitor_grow_failed(module, "report", size, need);
        return false;
    }
    for (int i = size; i < need; ++i) grown[i] = start;
    arr = grown;
    size = need;
    return true;
}

}  // namespace vx

#endif
