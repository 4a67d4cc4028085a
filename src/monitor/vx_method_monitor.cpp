#include "monitor/vx_method_monitor.h"

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "agent/vx_instance.h"
#include "core/vx_atomic.h"
#include "core/vx_limits.h"
#include "core/vx_platform.h"
#include "core/vx_thread.h"
#include "core/vx_trace_log.h"
#include "flowpath/vx_method_table.h"
#include "flowpath/vx_per_thread_data.h"
#include "monitor/vx_bt_monitor.h"
#include "monitor/vx_monitor_model.h"

namespace {

constexpr int kMethodIdMax = 1048576; /* method ids the monitor counts */

int trace_level()
{
    return VX_LEVEL(methodMonTraceLevel);
}

constexpr VXMethodMonitorDataCounters make_start()
{
    VXMethodMonitorDataCounters c{};
    c.minDuration = kMMMinStart;
    return c;
}
constexpr VXMethodMonitorDataCounters kStart = make_start();
constexpr size_t kCountersBytes = offsetof(VXMethodMonitorDataCounters, mpp);

/* An aggregate back to its start values, cumCount too: the fold sums the
 * records' cumCount afresh every interval. */
void init_aggregate(VXMethodMonitorDataCounters* c)
{
    memcpy(c, &kStart, kCountersBytes);
    c->dataExist = 0;
}

/* The monitor counts while its field is set; the host setter writes '1' or
 * '0', and '0' means off as well. */
bool monitor_on(const VXMethodMonitor_t& m)
{
    const char on = vx::load_relaxed(m.isMethodMonitorOn);
    return on != 0 && on != '0';
}

/* A larger copy of aggMethodDataArr, published whole. Caller holds
 * methodEntryLock; the old array is retired, never freed in place. */
bool grow_to(VXMethodMonitor_t& m, int length)
{
    return vx::monitor_bindings_grow(m.aggMethodDataArr, m.aggDataArraySize, length, kStart,
                                     &VXMethodMonitorDataCounters::mpp, m.retired, "METHOD_MON");
}

/* reportArr holds at least `need` elements. Under reportLock. */
bool ensure_report(VXMethodMonitor_t& m, int need)
{
    return vx::monitor_report_reserve(m.reportArr, m.reportArrSize, need, kStart, "METHOD_MON");
}

/* Merges one model's objects into reportArr and brings them back to their
 * start values but cumCount, under the model's lockForMM. reportArr grows to
 * the model's array, so no model waits for a later interval. */
void fold_model(VXMonitorDataModel* model, void* arg)
{
    VXMethodMonitor_t& m = *static_cast<VXMethodMonitor_t*>(arg);
    vx::VXLockGuard guard(model->lockForMM);
    if (!model->mmDataArray) return;
    int size = model->currentSizeOfMethodArray;
    if (!ensure_report(m, size)) size = m.reportArrSize;
    for (int id = 1; id < size; ++id) {
        VXMethodMonitorDataCounters* o = model->mmDataArray[id];
        if (!o) continue;
        VXMethodMonitorDataCounters& a = m.reportArr[id];
        if (o->minDuration < a.minDuration) a.minDuration = o->minDuration;
        if (o->maxDuration > a.maxDuration) a.maxDuration = o->maxDuration;
        a.count += o->count;
        a.cumCount += o->cumCount;
        a.duration += o->duration;
        a.dataExist = 1;
        const int cum = o->cumCount;
        memcpy(o, &kStart, kCountersBytes);
        o->cumCount = cum;
    }
}

void dump61(VXProxyInstance_t* app, char* buff, int* len, int bufLen,
            const VXMethodMonitorDataCounters& c, int id, const char* name)
{
    const VXMethodMonitor_t& m = app->VXMethodMonitor;
    const double interval = vx::monitor_interval_secs(app);
    const int cap = vx::monitor_record_begin(buff, len, bufLen);
    if (cap < 2) return;
    const double mean =
        c.count > 0 ? static_cast<double>(c.duration) / static_cast<double>(c.count) : 0.0;
    const int n = snprintf(buff + *len, static_cast<size_t>(cap), "%d,%s%d:%s%s|%d %lf %lf %lf %lld %d\n",
                           61, m.vectorPrefixID, id, m.vectorPrefix, name, c.cumCount,
                           static_cast<double>(c.count) / interval, mean,
                           static_cast<double>(c.minDuration), c.maxDuration, c.count);
    vx::monitor_record_end(buff, len, bufLen, n, cap);
}

}  // namespace

extern "C" void VXMethodMonitorInit(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    VXMethodMonitor_t& m = app->VXMethodMonitor;
    if (!m.reportLock) m.reportLock = vx::mutex_create(app->control_pool);
    vx::monitor_vector_prefix(m.vectorPrefix, m.vectorPrefixID);
    {
        vx::VXLockGuard guard(app->methodTable.methodEntryLock);
        if (!m.aggMethodDataArr) grow_to(m, kMonitorArrayInitial);
    }
    {
        vx::VXLockGuard report(m.reportLock);
        for (int id = 0; id < m.reportArrSize; ++id) init_aggregate(&m.reportArr[id]);
    }
    m.sendReSetEventOnAggDataConn = 0;
    m.maxMethodCount = kDefaultMaxMethodCount;
    m.numberOfThreads = 0;
    vx::store_relaxed(m.isMethodMonitorOn, 1);
}

extern "C" void checkAndIncrementAggrMethodDataArray(methodPropProperties* mPP)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !mPP) return;
    VXMethodMonitor_t& m = app->VXMethodMonitor;
    const int id = mPP->methodId;
    if (id < 1 || id >= kMethodIdMax) {
        VX_ERROR("METHOD_MON", "Method id %d is outside the monitor's range; not bound", id);
        return;
    }
    if (id >= m.aggDataArraySize || !m.aggMethodDataArr) {
        int old = m.aggDataArraySize < kMonitorArrayInitial ? kMonitorArrayInitial : m.aggDataArraySize;
        if (!grow_to(m, id < old ? old : vx::bt_monitor_grown_size(old, id))) return;
    }
    vx::store_release(m.aggMethodDataArr[id].mpp, mPP);
}

methodPropProperties* vx::method_bound_to(int id)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return nullptr;
    const VXMethodMonitor_t& m = app->VXMethodMonitor;
    const int size = vx::load_acquire(m.aggDataArraySize);
    if (id < 0 || id >= size) return nullptr;
    const VXMethodMonitorDataCounters* arr = vx::load_acquire(m.aggMethodDataArr);
    return vx::load_acquire(arr[id].mpp);
}

extern "C" int updatePropertiesOfMethod(VXPerThreadData_t* tlData, const char*, int methodID,
                                        long long duration)
{
    VXMonitorDataModel* model = tlData->tlMonitorDataModel;
    if (!model || !model->lockForMM) return 0;
    vx::VXLockGuard guard(model->lockForMM);
    model->lastUpdateTimeStamp = my_gettimeofday();
    void** slot = vx::monitor_slot(reinterpret_cast<void***>(&model->mmDataArray),
                                   &model->currentSizeOfMethodArray, methodID);
    if (!slot) return 0;
    auto*& c = reinterpret_cast<VXMethodMonitorDataCounters*&>(*slot);
    if (!c) {
        c = static_cast<VXMethodMonitorDataCounters*>(malloc(sizeof(VXMethodMonitorDataCounters)));
        if (!c) {
            VX_ERROR("METHOD_MON", "Could not allocate the counters of method %d", methodID);
            return 0;
        }
        *c = kStart;
    }
    if (duration < c->minDuration) c->minDuration = duration;
    if (duration > c->maxDuration) c->maxDuration = duration;
    ++c->count;
    ++c->cumCount;
    c->duration += duration;
    return 1;
}

extern "C" void updateCounterAndDurationForMethod(VXPerThreadData_t* vxTD,
                                                  methodPropProperties* mPP, long long duration)
{
    VXProxyInstance_t* app = vx_app();
    const int id = mPP ? mPP->methodId : 0;
    if (!app || !vxTD || id < 1 || id >= kMethodIdMax || !monitor_on(app->VXMethodMonitor)) {
        VX_TRACE(trace_level(), 2, "METHOD_MON", "Method id '%d' not counted", id);
        return;
    }
    if (!vx::monitor_model_of(vxTD)) return;
    updatePropertiesOfMethod(vxTD, mPP->methodName, id, duration);
}

extern "C" int generateAndDumpMethodMonitoringRecord(char* buff, int* len, int bufLen)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !buff || !len) return 0;
    VXMethodMonitor_t& m = app->VXMethodMonitor;
    vx::VXLockGuard report(m.reportLock);
    ensure_report(m, vx::load_acquire(m.aggDataArraySize));
    const int models = vx::monitor_models_each(fold_model, &m);
    if (models == 0) {
        VX_TRACE(trace_level(), 2, "METHOD_MON", "No thread has a model yet; no record 61");
        return 0;
    }
    for (int id = 1; id < m.reportArrSize; ++id) {
        VXMethodMonitorDataCounters& e = m.reportArr[id];
        if (e.dataExist) {
            if (const methodPropProperties* mpp = vx::method_bound_to(id)) {
                const char* name = mpp->aliasMethodName ? mpp->aliasMethodName : mpp->methodName;
                dump61(app, buff, len, bufLen, e, mpp->methodId, name ? name : "");
            }
        }
        init_aggregate(&e);
    }
    return models;
}

/* ---- Host setters ------------------------------------------------------- */

extern "C" void parseMethodMonitorKeyword(char* value, char*, int) VX_NOEXCEPT
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !value) return;
    vx::store_relaxed(app->VXMethodMonitor.isMethodMonitorOn, atoi(value) >= 1 ? '1' : '0');
}

extern "C" void parseMethodMonitorTraceLevel(char* value, char*, int) VX_NOEXCEPT
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !value) return;
    app->VXMethodMonitor.methodMonitorTraceLevel = atoi(value);
}

extern "C" void parseMethodMonitorErrorLevel(char* value, char*, int) VX_NOEXCEPT
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !value) return;
    if (const int level = atoi(value); level >= 0) app->VXMethodMonitor.methodMonitorErrorLevel = level;
}

extern "C" void parseMaxMethodCount(char* value, char*, int) VX_NOEXCEPT
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !value) return;
    if (const int n = atoi(value); n >= 1) app->VXMethodMonitor.maxMethodCount = n;
}

/* Only turns the flag on, as for BTs. */
extern "C" void parsemmDoNotDiscardVal(char* value, char*, int) VX_NOEXCEPT
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !value) return;
    if (atoi(value) >= 1) app->VXMethodMonitor.doNotDisacrdAnyTransaction = 1;
}
