#include "monitor/vx_backend_monitor.h"

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "agent/vx_instance.h"
#include "core/vx_atomic.h"
#include "core/vx_encode.h"
#include "core/vx_limits.h"
#include "core/vx_platform.h"
#include "core/vx_record_door.h"
#include "core/vx_thread.h"
#include "core/vx_trace_log.h"
#include "flowpath/vx_method_table.h"
#include "flowpath/vx_per_thread_data.h"
#include "link/vx_as_buffers.h"
#include "monitor/vx_backend_percentiles.h"
#include "monitor/vx_bt_monitor.h"
#include "monitor/vx_monitor_model.h"
#include "monitor/vx_percentiles.h"

namespace {

constexpr size_t kCacheLine = 64;
constexpr size_t kNameSize = 1024; /* a backend's name in record 75 */

int trace_level()
{
    return VX_LEVEL(backendMonTraceLevel);
}

/* ---- Counters ---------------------------------------------------------- */

constexpr VXBackendMonitorDataCounters make_start()
{
    VXBackendMonitorDataCounters c{};
    c.minDuration = kIPMinStart;
    return c;
}
constexpr VXBackendMonitorDataCounters kStart = make_start();
/* The counters are the fields ahead of mpp; re-initialising copies them
 * from kStart and leaves what identifies the object and its digests. */
constexpr size_t kCountersBytes = offsetof(VXBackendMonitorDataCounters, mpp);

/* An aggregate back to its start values, cumCount too: the fold sums the
 * records' cumCount afresh every interval. */
void initOnStartInstrumentationIP(VXBackendMonitorDataCounters* c)
{
    memcpy(c, &kStart, kCountersBytes);
    c->dataExist = 0;
}

/* A model's object back to its start values but cumCount, which counts the
 * session's calls on this record. */
void initVXBackendMonitorDataCounters(VXBackendMonitorDataCounters* c)
{
    const long long cum = c->cumCount;
    memcpy(c, &kStart, kCountersBytes);
    c->cumCount = cum;
}

/* A model's counter object: whole cache lines, since models of different
 * host threads sit side by side; the model frees it with free(). Null when
 * memory runs out. */
VXBackendMonitorDataCounters* new_counters(int id)
{
    const size_t size =
        (sizeof(VXBackendMonitorDataCounters) + kCacheLine - 1) / kCacheLine * kCacheLine;
    auto* c = static_cast<VXBackendMonitorDataCounters*>(aligned_alloc(kCacheLine, size));
    if (!c) {
        VX_ERROR("BACKEND_MON", "Could not allocate the counters of backend %d", id);
        return nullptr;
    }
    *c = kStart;
    return c;
}

/* The model's object of backend `id`, made (with the array, 128 entries or
 * grown by the model's rule) when absent. Caller holds lockForIP. Null when
 * memory runs out. */
VXBackendMonitorDataCounters* object_at(VXMonitorDataModel* m, int id)
{
    void** slot = vx::monitor_slot(reinterpret_cast<void***>(&m->ipmDataArray),
                                   &m->currentSizeOfBackendArray, id);
    if (!slot) return nullptr;
    auto*& c = reinterpret_cast<VXBackendMonitorDataCounters*&>(*slot);
    if (!c) c = new_counters(id);
    return c;
}

/* ---- aggIPDataArr ------------------------------------------------------ */

/* A larger copy of the array, published whole. Caller holds methodEntryLock;
 * the old array is retired, never freed in place. */
bool grow_to(VXBackendMonitor_t& m, int length)
{
    return vx::monitor_bindings_grow(m.aggIPDataArr, m.aggDataArraySize, length, kStart,
                                     &VXBackendMonitorDataCounters::mpp, m.retired, "BACKEND_MON");
}

/* Length of aggIPDataArr that holds `id`: 128 at first, then the models'
 * growth rule, so that a model's array and the aggregate agree. */
int length_for(int old, int id)
{
    if (old < vx::kIPAggArrayInitial) old = vx::kIPAggArrayInitial;
    return id < old ? old : vx::bt_monitor_grown_size(old, id);
}

/* ---- The fold ---------------------------------------------------------- */

/* Makes reportArr hold at least `need` elements at start values. Under
 * reportLock. */
bool ensure_report(VXBackendMonitor_t& m, int need)
{
    return vx::monitor_report_reserve(m.reportArr, m.reportArrSize, need, kStart, "BACKEND_MON");
}

/* The fold's values for the backends' digests, under reportLock. */
vx::DigestFeeds g_feeds;

/* Merges one model's objects into reportArr and re-initialises them, under
 * the model's lockForIP. reportArr grows to the model's array: no record is
 * skipped, and calls of an id with no backend bound wait there. */
void fold_model(VXMonitorDataModel* model, void* arg)
{
    VXBackendMonitor_t& m = *static_cast<VXBackendMonitor_t*>(arg);
    vx::VXLockGuard guard(model->lockForIP);
    if (!model->ipmDataArray) return;
    int size = model->currentSizeOfBackendArray;
    if (!ensure_report(m, size)) size = m.reportArrSize;
    for (int id = 1; id < size; ++id) {
        VXBackendMonitorDataCounters* o = model->ipmDataArray[id];
        if (!o) continue;
        VXBackendMonitorDataCounters* a = &m.reportArr[id];
        /* An idle object still adds its cumCount: field 1 counts the
         * session's calls on every record. */
        if (o->count > 0) {
            g_feeds.add(id, o->duration);
            a->dataExist = 1;
        }
        updateBackendDataCountersForAggregate(a, o);
    }
}

double mean(long long sum, long long n)
{
    return n > 0 ? static_cast<double>(sum) / static_cast<double>(n) : 0.0;
}

}  // namespace

/* ---- Entry points ------------------------------------------------------ */

extern "C" void createVectorPrefixBackend(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    vx::monitor_vector_prefix(app->VXBackendMonitor.vectorPrefix,
                              app->VXBackendMonitor.vectorPrefixID);
}

extern "C" void VXBackendMonitorInit(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    VXBackendMonitor_t& m = app->VXBackendMonitor;
    if (!m.reportLock) m.reportLock = vx::mutex_create(app->control_pool);
    createVectorPrefixBackend();
    {
        vx::VXLockGuard guard(app->methodTable.methodEntryLock);
        if (!m.aggIPDataArr) grow_to(m, vx::kIPAggArrayInitial);
    }
    {
        /* Counters of the last session, and those that waited for a
         * binding, go. */
        vx::VXLockGuard report(m.reportLock);
        for (int id = 0; id < m.reportArrSize; ++id) initOnStartInstrumentationIP(&m.reportArr[id]);
    }
    vx::ip_digests_release_all();
    m.numberOfThreads = 0;
    vx::store_relaxed(m.isBackendMonitorOn, 1);
}

extern "C" void checkAndIncrementAggrBackendDataArray(methodPropProperties* mpp)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !mpp) return;
    VXBackendMonitor_t& m = app->VXBackendMonitor;
    const int id = mpp->methodId;
    if (id < 1 || id >= vx::kBackendIdMax) {
        VX_ERROR("BACKEND_MON", "Backend id %d is outside the monitor's range; not bound", id);
        return;
    }
    if ((id >= m.aggDataArraySize || !m.aggIPDataArr) &&
        !grow_to(m, length_for(m.aggDataArraySize, id)))
        return;
    /* The digests live in reportArr and follow their backend there. */
    vx::store_release(m.aggIPDataArr[id].mpp, mpp);
}

methodPropProperties* vx::backend_bound_to(int id)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return nullptr;
    const VXBackendMonitor_t& m = app->VXBackendMonitor;
    const int size = vx::load_acquire(m.aggDataArraySize);
    if (id < 0 || id >= size) return nullptr;
    const VXBackendMonitorDataCounters* arr = vx::load_acquire(m.aggIPDataArr);
    return vx::load_acquire(arr[id].mpp);
}

void vx::backend_monitor_unbind_all()
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    VXBackendMonitor_t& m = app->VXBackendMonitor;
    vx::VXLockGuard guard(app->methodTable.methodEntryLock);
    for (int i = 0; i < m.aggDataArraySize; ++i)
        vx::store_release(m.aggIPDataArr[i].mpp, static_cast<methodPropProperties*>(nullptr));
    vx::retire_collect(m.retired, apr_time_now(), apr_time_from_sec(vx::kIPRetireGraceSeconds));
}

extern "C" void updateBackendDataCounters(VXBackendMonitorDataCounters* c, long long duration,
                                          int isError)
{
    /* Minimum and maximum take the duration as a 32-bit value, as the
     * record's readers do; the sum keeps it whole. */
    const long long d = static_cast<int>(duration);
    if (d < c->minDuration) c->minDuration = d;
    if (d > c->maxDuration) c->maxDuration = d;
    ++c->count;
    ++c->cumCount;
    c->duration += duration;
    if (isError) ++c->errorCount;
}

extern "C" int updatePropertiesOfBackend(VXPerThreadData_t* tlData, int backendId,
                                         long long duration, int isError)
{
    VXMonitorDataModel* model = tlData->tlMonitorDataModel;
    if (!model || !model->lockForIP) return 0;
    vx::VXLockGuard guard(model->lockForIP);
    model->lastUpdateTimeStamp = my_gettimeofday();
    VXBackendMonitorDataCounters* c = object_at(model, backendId);
    if (!c) return 0;
    updateBackendDataCounters(c, duration, isError);
    return 1;
}

extern "C" int updateCounterAndDurationForBackend(VXPerThreadData_t* vxTl,
                                                  methodPropProperties* mpp, long long duration,
                                                  int isError)
{
    VXProxyInstance_t* app = vx_app();
    const int id = mpp ? mpp->methodId : 0;
    if (!app || !vxTl || id < 1 || id >= vx::kBackendIdMax ||
        !vx::load_relaxed(app->VXBackendMonitor.isBackendMonitorOn)) {
        VX_TRACE(trace_level(), 2, "BACKEND_MON",
                 "Returning from Backend Monitor as Backend id '%d' and duration is '%d'", id,
                 static_cast<int>(duration));
        return 1;
    }
    if (!vx::monitor_model_of(vxTl)) return 1;
    return updatePropertiesOfBackend(vxTl, id, duration, isError) ? 0 : 1;
}

extern "C" void updateBackendDataCountersForAggregate(VXBackendMonitorDataCounters* aggDataObject,
                                                      VXBackendMonitorDataCounters* currentObj)
{
    VXBackendMonitorDataCounters& a = *aggDataObject;
    const VXBackendMonitorDataCounters& o = *currentObj;
    if (o.minDuration < a.minDuration) a.minDuration = o.minDuration;
    if (o.maxDuration > a.maxDuration) a.maxDuration = o.maxDuration;
    a.cumCount += o.cumCount;
    a.count += o.count;
    a.errorCount += o.errorCount;
    a.duration += o.duration;
    initVXBackendMonitorDataCounters(currentObj);
}

extern "C" void dump75RecordForEveryIP(char* buff, int* len, int bufLen,
                                       VXBackendMonitorDataCounters* counterObj, int backendID,
                                       const char* backendName)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !buff || !len || !counterObj) return;
    const VXBackendMonitor_t& m = app->VXBackendMonitor;
    const VXBackendMonitorDataCounters& c = *counterObj;
    const double interval = vx::monitor_interval_secs(app);
    const int cap = vx::monitor_record_begin(buff, len, bufLen);
    if (cap < 2) return;
    char* out = buff + *len;
    const int n = snprintf(
        out, static_cast<size_t>(cap),
        "%d,%s%d:%s%s|%lld %lf %lf %lld %lld %lld %lld 0.0 0 0 %lld 0.0 0 0 %lld %lf 0 0 0 0 0 0\n",
        75, m.vectorPrefixID, backendID, m.vectorPrefix, backendName, c.cumCount,
        static_cast<double>(c.count) / interval, mean(c.duration, c.count), c.minDuration,
        c.maxDuration, c.count, c.errorCount, c.count, c.count,
        c.errorCount > 0 ? static_cast<double>(c.errorCount) / interval : 0.0);
    vx::monitor_record_end(buff, len, bufLen, n, cap);
}

extern "C" int generateAndDumpBackendMonitoringRecord(char* buff, int* len, int bufLen)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !buff || !len) return 1;
    VXBackendMonitor_t& m = app->VXBackendMonitor;
    vx::VXLockGuard report(m.reportLock);
    g_feeds.n = 0;
    ensure_report(m, vx::load_acquire(m.aggDataArraySize));
    if (vx::monitor_models_each(fold_model, &m) == 0) {
        VX_TRACE(trace_level(), 2, "BACKEND_MON",
                 "Returning without dumping any monitoring record,as no threads executed any BT "
                 "yet.");
        return 1;
    }
    /* No model lock is held from here on. */
    vx::ip_digests_feed(g_feeds.at, g_feeds.n);
    char name[kNameSize];
    for (int id = 1; id < m.reportArrSize; ++id) {
        VXBackendMonitorDataCounters& e = m.reportArr[id];
        if (e.dataExist) {
            if (const methodPropProperties* mpp = vx::backend_bound_to(id)) {
                const char* text = mpp->methodName ? mpp->methodName : "";
                if (strlen(text) < kNameSize) {
                    decodeHTML(name, text);
                    text = name;
                }
                dump75RecordForEveryIP(buff, len, bufLen, &e, id, text);
                initOnStartInstrumentationIP(&e);
                continue;
            }
            VX_TRACE(trace_level(), 2, "BACKEND_MON",
                     "No backend bound to id %d; its counters wait for a later interval", id);
        }
        e.cumCount = 0; /* summed afresh from the records every interval */
    }
    return 0;
}
