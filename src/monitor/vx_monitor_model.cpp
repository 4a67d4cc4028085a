#include "monitor/vx_monitor_model.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "agent/vx_instance.h"
#include "bt/vx_bt_tags.h"
#include "core/vx_atomic.h"
#include "core/vx_hashmap.h"
#include "core/vx_platform.h"
#include "link/vx_as_buffers.h"
#include "core/vx_record_door.h"
#include "core/vx_limits.h"
#include "core/vx_thread.h"
#include "core/vx_trace_log.h"
#include "flowpath/vx_per_thread_data.h"
#include "monitor/vx_bt_monitor.h"

namespace {

constexpr size_t kCacheLine = 64;

int trace_level()
{
    return VX_LEVEL(btMonitorTraceLevel);
}

/* Models are made on first use, and freed at a session's end, only in the
 * proxy process, whose records stand for remote flowpaths. */
bool made_on_use()
{
    return vx_in_proxy_process();
}

/* A shell kept from a freed model, or a new one: a zeroed struct of whole
 * cache lines (host threads write their own models side by side) with its
 * four locks. The locks come from the records' pool under tlsMutex, like the
 * records' own: the instance's pool is not the host threads' to allocate
 * from. Null when memory runs out. */
VXMonitorDataModel* take_shell(VXProxyInstance_t* app)
{
    VXMonitorDataModel* m = nullptr;
    {
        vx::VXLockGuard guard(app->controlLink.controlThreadTmpLock);
        if ((m = app->monitorModels.shells)) app->monitorModels.shells = m->nextShell;
    }
    if (m) {
        m->nextShell = nullptr;
        return m;
    }
    const size_t size = (sizeof(VXMonitorDataModel) + kCacheLine - 1) / kCacheLine * kCacheLine;
    m = static_cast<VXMonitorDataModel*>(aligned_alloc(kCacheLine, size));
    if (!m) return nullptr;
    memset(m, 0, size);
    VXTLSPool_t& pool = app->tlsPool;
    vx::VXLockGuard guard(pool.tlsMutex);
    if (pool.pool) {
        m->lockForBT = vx::mutex_create(pool.pool);
        m->lockForMM = vx::mutex_create(pool.pool);
        m->lockForIP = vx::mutex_create(pool.pool);
        m->lockForEM = vx::mutex_create(pool.pool);
    }
    if (!m->lockForBT || !m->lockForMM || !m->lockForIP || !m->lockForEM) {
        /* Locks already made stay with the pool; a shell without all four
         * is of no use. */
        free(m);
        return nullptr;
    }
    return m;
}

/* Frees each object of an array of heap blocks, then brings the array back
 * to its start length, zeroed. A null array stays null, of length 0. */
void reset_array(void** arr, int* len)
{
    void** a = static_cast<void**>(*arr);
    if (!a) {
        *len = 0;
        return;
    }
    for (int i = 0; i < *len; ++i) free(a[i]);
    if (*len > kMonitorArrayInitial) {
        /* Shrinking can fail only by keeping the larger block: then the
         * block is larger than its length says, which is harmless. */
        if (void* smaller = realloc(a, kMonitorArrayInitial * sizeof(void*))) *arr = smaller;
    }
    *len = kMonitorArrayInitial;
    memset(*arr, 0, kMonitorArrayInitial * sizeof(void*));
}

void free_tag_seq_list(BTTagSeqArray* n)
{
    while (n) {
        BTTagSeqArray* next = n->next;
        free(n->tagSeq);
        free(n);
        n = next;
    }
}

void free_tag_chain(BTTagArray* n)
{
    while (n) {
        BTTagArray* next = n->next;
        free(n->key);
        free(n->tagField);
        free(n->resolvedValue);
        free(n);
        n = next;
    }
}

/* Everything a model owns but its shell. Caller holds controlThreadTmpLock,
 * and the model is out of every record. */
void free_model_arrays(VXMonitorDataModel* m)
{
    resetMonitorCounters(m);
    free(m->btmDataArray);
    free(m->btTagSeqArray);
    free(m->btPerThreadArray);
    free(m->mmDataArray);
    free(m->ipmDataArray);
    free(m->excepDataArray);
    apr_thread_mutex_t* locks[] = {m->lockForBT, m->lockForMM, m->lockForIP, m->lockForEM};
    memset(m, 0, sizeof *m);
    m->lockForBT = locks[0];
    m->lockForMM = locks[1];
    m->lockForIP = locks[2];
    m->lockForEM = locks[3];
}

}  // namespace

extern "C" void VXMonitorSettingsInit(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    app->monitorSettings.vxMonitorInterval = 10000;
    app->monitorSettings.vxMonitorIntervalInSecs = 10;
    app->monitorSettings.vxVectorSeperator = '>';
}

extern "C" void initThreadBasedModelMap(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || app->monitorModels.threadBasedModelMap) return;
    /* A pool of its own: host threads add models (under the map's lock)
     * while the control thread allocates from control_pool. */
    vx::VXLockGuard guard(app->controlLink.controlThreadTmpLock);
    app->monitorModels.threadBasedModelMap = create_hashmap(app->control_pool);
}

extern "C" void initVXMonitorDataModel(VXPerThreadData_t* tlData)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !tlData) return;
    apr_hash_t* map = app->monitorModels.threadBasedModelMap;
    if (!map) return;
    VXMonitorDataModel* m = take_shell(app);
    if (m) {
        m->btmDataArray = static_cast<VXBTMonitorDataCounters**>(
            calloc(kMonitorArrayInitial, sizeof(VXBTMonitorDataCounters*)));
        m->currentSizeOfBTArray = m->btmDataArray ? kMonitorArrayInitial : 0;
        m->lastUpdateTimeStamp = my_gettimeofday();
        m->threadId = tlData->tlThreadId;
    }
    if (!m || !m->btmDataArray) {
        VX_ERROR("MONITOR", "Could not make the monitor model of record '%lld'",
                 tlData->tlThreadId);
        if (m) {
            vx::VXLockGuard guard(app->controlLink.controlThreadTmpLock);
            m->nextShell = app->monitorModels.shells;
            app->monitorModels.shells = m;
        }
        return;
    }
    {
        vx::VXLockGuard guard(app->controlLink.controlThreadTmpLock);
        auto* known = static_cast<VXMonitorDataModel*>(
            apr_hash_get(map, &tlData->tlThreadId, sizeof(long long)));
        if (!known) {
            apr_hash_set(map, &m->threadId, sizeof(long long), m);
        } else {
            /* The record's model exists: attach that one, keep the shell. */
            free(m->btmDataArray);
            m->btmDataArray = nullptr;
            m->currentSizeOfBTArray = 0;
            m->nextShell = app->monitorModels.shells;
            app->monitorModels.shells = m;
            m = known;
        }
    }
    tlData->tlMonitorDataModel = m;
    VX_TRACE(trace_level(), 2, "MONITOR", "Monitor model %p of record '%lld'",
             static_cast<void*>(m), tlData->tlThreadId);
}

extern "C" int checkAndInitMonitorDataModel(VXPerThreadData_t* vxTl)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !vxTl || !app->monitorModels.threadBasedModelMap) return 0;
    VXMonitorDataModel* m;
    {
        vx::VXLockGuard guard(app->controlLink.controlThreadTmpLock);
        m = static_cast<VXMonitorDataModel*>(apr_hash_get(app->monitorModels.threadBasedModelMap,
                                                          &vxTl->tlThreadId, sizeof(long long)));
    }
    if (m) {
        vxTl->tlMonitorDataModel = m;
        if (!made_on_use()) {
            vx::VXLockGuard guard(m->lockForBT);
            m->lastUpdateTimeStamp = my_gettimeofday();
        }
        return 1;
    }
    if (!made_on_use()) return 0;
    initVXMonitorDataModel(vxTl);
    if (!vxTl->tlMonitorDataModel) return 0;
    vx::fetch_add_relaxed(app->VXBTMonitor.numberOfThreads, 1);
    return 1;
}

extern "C" int handleSizeDataArr(void** ptr, int oldLength, int id, int sizeOfStruct)
{
    if (!ptr || id < 0) return oldLength;
    if (oldLength < 0) oldLength = 0;
    if (*ptr && id < oldLength) return oldLength;
    const size_t elem = sizeOfStruct < 1 ? sizeof(void*) : static_cast<size_t>(sizeOfStruct);
    const int length = vx::bt_monitor_grown_size(oldLength, id);
    const size_t kept = *ptr ? static_cast<size_t>(oldLength) * elem : 0;
    void* grown = realloc(*ptr, static_cast<size_t>(length) * elem);
    if (!grown) {
        VX_ERROR("MONITOR", "Could not grow an array of %d entries to %d", oldLength, length);
        return oldLength;
    }
    memset(static_cast<char*>(grown) + kept, 0, static_cast<size_t>(length) * elem - kept);
    *ptr = grown;
    return length;
}

extern "C" void resetMonitorCounters(VXMonitorDataModel* value)
{
    VXMonitorDataModel* m = value;
    if (!m) return;
    {
        vx::VXLockGuard guard(m->lockForBT);
        reset_array(reinterpret_cast<void**>(&m->btmDataArray), &m->currentSizeOfBTArray);
        for (int i = 0; m->btTagSeqArray && i < m->currentSizeOfBTSeqArray; ++i) {
            free_tag_seq_list(m->btTagSeqArray[i]);
            m->btTagSeqArray[i] = nullptr;
        }
        for (int i = 0; m->btPerThreadArray && i < m->currentSizeOfBTPerThreadArray; ++i) {
            free_tag_chain(m->btPerThreadArray[i]);
            m->btPerThreadArray[i] = nullptr;
        }
    }
    {
        vx::VXLockGuard guard(m->lockForMM);
        reset_array(reinterpret_cast<void**>(&m->mmDataArray), &m->currentSizeOfMethodArray);
    }
    {
        vx::VXLockGuard guard(m->lockForIP);
        reset_array(reinterpret_cast<void**>(&m->ipmDataArray), &m->currentSizeOfBackendArray);
    }
    {
        vx::VXLockGuard guard(m->lockForEM);
        reset_array(reinterpret_cast<void**>(&m->excepDataArray), &m->currentSizeOfExcepMonArray);
    }
}

extern "C" void free_threadBasedModelMap(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !app->monitorModels.threadBasedModelMap) return;
    const bool freeing = made_on_use();
    /* Records forget their models before the models go. tlsMutex is taken
     * alone, before the map lock. */
    if (freeing) resetMonitorDataModelFromTLS();
    vx::VXLockGuard guard(app->controlLink.controlThreadTmpLock);
    apr_hash_t* map = app->monitorModels.threadBasedModelMap;
    for (apr_hash_index_t* hi = apr_hash_first(nullptr, map); hi; hi = apr_hash_next(hi)) {
        auto* m = static_cast<VXMonitorDataModel*>(apr_hash_this_val(hi));
        if (!freeing) {
            resetMonitorCounters(m);
            continue;
        }
        /* The key lies in the model: the entry goes first (removing the
         * current entry is safe while iterating). */
        apr_hash_set(map, &m->threadId, sizeof(long long), nullptr);
        free_model_arrays(m);
        m->nextShell = app->monitorModels.shells;
        app->monitorModels.shells = m;
    }
}

extern "C" void destroyVXMonitorDataModel(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !app->monitorModels.threadBasedModelMap) return;
    vx::VXLockGuard guard(app->controlLink.controlThreadTmpLock);
    apr_hash_clear(app->monitorModels.threadBasedModelMap);
    VX_TRACE(trace_level(), 1, "MONITOR", "Sucessfully destroyed the MonitorDataModel. %p",
             static_cast<void*>(app->monitorModels.threadBasedModelMap));
}

VXMonitorDataModel* vx::monitor_model_of(VXPerThreadData_t* vxTD)
{
    if (VXMonitorDataModel* m = vxTD->tlMonitorDataModel) return m;
    if (made_on_use()) {
        initVXMonitorDataModel(vxTD);
    } else {
        if (!checkAndInitMonitorDataModel(vxTD)) return nullptr;
        resetMonitorCounters(vxTD->tlMonitorDataModel);
    }
    return vxTD->tlMonitorDataModel;
}

void vx::monitor_vector_prefix(char (&prefix)[1024], char (&prefixID)[64])
{
    VXProxyInstance_t* app = vx_app();
    const VXBCISetting_t& s = app->VXBCISetting;
    const char sep = app->monitorSettings.vxVectorSeperator;
    snprintf(prefix, sizeof prefix, "%s%c%s%c%s%c", s.tierName ? s.tierName : "", sep,
             s.appServerName ? s.appServerName : "", sep, s.appName ? s.appName : "", sep);
    snprintf(prefixID, sizeof prefixID, "%d|%d|", s.tierID, s.appID);
}

int vx::monitor_models_each(void (*fn)(VXMonitorDataModel* model, void* ctx), void* ctx)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !app->monitorModels.threadBasedModelMap) return 0;
    vx::VXLockGuard guard(app->controlLink.controlThreadTmpLock);
    int n = 0;
    for (apr_hash_index_t* hi = apr_hash_first(nullptr, app->monitorModels.threadBasedModelMap); hi;
         hi = apr_hash_next(hi), ++n)
        fn(static_cast<VXMonitorDataModel*>(apr_hash_this_val(hi)), ctx);
    return n;
}

int vx::monitor_record_begin(char* buff, int* len, int bufLen)
{
    if (bufLen - *len < vx::kMonitorRecordMax + 1 && *len > 0) {
        dumpASData(buff, *len);
        *len = 0;
    }
    return bufLen - *len < vx::kMonitorRecordMax ? bufLen - *len : vx::kMonitorRecordMax;
}

void vx::monitor_record_end(char* buff, int* len, int bufLen, int n, int cap)
{
    if (n < 0) return;
    *len += static_cast<int>(vx::end_line(buff + *len, static_cast<size_t>(n), static_cast<size_t>(cap)));
    if (*len > bufLen - (vx::kMonitorRecordMax + 1)) {
        dumpASData(buff, *len);
        *len = 0;
    }
}

double vx::monitor_interval_secs(const VXProxyInstance_t* app)
{
    const int secs = app->monitorSettings.vxMonitorIntervalInSecs;
    return secs > 0 ? secs : 1; /* a zero interval would make rates infinite */
}

void** vx::monitor_slot(void*** arr, int* len, int id)
{
    if (id < 0) return nullptr;
    if (!*arr) {
        const int length = id < kMonitorArrayInitial
                               ? kMonitorArrayInitial
                               : vx::bt_monitor_grown_size(kMonitorArrayInitial, id);
        *arr = static_cast<void**>(calloc(static_cast<size_t>(length), sizeof(void*)));
        *len = *arr ? length : 0;
    } else if (id >= *len) {
        *len = handleSizeDataArr(reinterpret_cast<void**>(arr), *len, id, 0);
    }
    return id < *len ? &(*arr)[id] : nullptr;
}

void vx::monitor_grow_failed(const char* module, const char* what, int size, int need)
{
    VX_ERROR(module, "Could not grow the %s array from %d to %d", what, size, need);
}
