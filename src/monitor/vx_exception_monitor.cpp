#include "monitor/vx_exception_monitor.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "agent/vx_instance.h"
#include "bt/vx_bt_rule_file.h"
#include "core/vx_atomic.h"
#include "core/vx_limits.h"
#include "core/vx_platform.h"
#include "core/vx_thread.h"
#include "core/vx_trace_log.h"
#include "flowpath/vx_per_thread_data.h"
#include "monitor/vx_bt_monitor.h"
#include "monitor/vx_monitor_model.h"

namespace {

constexpr int kExceptionIdMax = 1048576;
constexpr int kLineSize = 1024;

int trace_level()
{
    return VX_LEVEL(exceptionTraceLevel);
}

constexpr _VXExceptionMonitorDataCounters_t kStart{};

void free_entry(void* p)
{
    auto* e = static_cast<currMonitoringExcepStruct_t*>(p);
    if (!e) return;
    free(e->exceptionMethodName);
    free(e->aliasMName);
    free(e);
}

/* A larger copy of aggExceptionDataArr, published whole. Under
 * exceptionEntryLock. */
bool grow_to(_VXExceptionMonitor_t& m, int length)
{
    return vx::monitor_bindings_grow(m.aggExceptionDataArr, m.aggExceptionArraySize, length,
                                     kStart, &_VXExceptionMonitorDataCounters_t::expData,
                                     m.retired, "EXCEPTION_MON");
}

currMonitoringExcepStruct_t* bound_to(const _VXExceptionMonitor_t& m, int id)
{
    const int size = vx::load_acquire(m.aggExceptionArraySize);
    if (id < 0 || id >= size) return nullptr;
    const _VXExceptionMonitorDataCounters_t* arr = vx::load_acquire(m.aggExceptionDataArr);
    return vx::load_acquire(arr[id].expData);
}

bool ensure_report(_VXExceptionMonitor_t& m, int need)
{
    return vx::monitor_report_reserve(m.reportArr, m.reportArrSize, need, kStart,
                                      "EXCEPTION_MON");
}

/* The thread's count goes to the aggregate and is cleared; its cumCount
 * stays and is summed afresh every interval. */
void fold_model(VXMonitorDataModel* model, void* arg)
{
    _VXExceptionMonitor_t& m = *static_cast<_VXExceptionMonitor_t*>(arg);
    vx::VXLockGuard guard(model->lockForEM);
    if (!model->excepDataArray) return;
    int size = model->currentSizeOfExcepMonArray;
    if (!ensure_report(m, size)) size = m.reportArrSize;
    for (int id = 1; id < size; ++id) {
        _VXExceptionMonitorDataCounters_t* o = model->excepDataArray[id];
        if (!o) continue;
        _VXExceptionMonitorDataCounters_t& a = m.reportArr[id];
        a.count += o->count;
        a.cumCount += o->cumCount;
        a.dataExist = 1;
        o->count = 0;
    }
}

void dump63(VXProxyInstance_t* app, char* buff, int* len, int bufLen,
            const _VXExceptionMonitorDataCounters_t& c, int id, const char* name)
{
    const _VXExceptionMonitor_t& m = app->vxExceptionMonitor;
    const int cap = vx::monitor_record_begin(buff, len, bufLen);
    if (cap < 2) return;
    const int n = snprintf(buff + *len, static_cast<size_t>(cap), "%d,%s%d:%s%s|%d %lf \n", 63,
                           m.vectorPrefixID, id, m.vectorPrefix, name, c.cumCount,
                           static_cast<double>(c.count) / vx::monitor_interval_secs(app));
    vx::monitor_record_end(buff, len, bufLen, n, cap);
}

/* The map and its pool, made anew; the entries of the old one are unbound
 * and retired. Under exceptionEntryLock. */
bool renew_map(_VXExceptionMonitor_t& m)
{
    if (m.currentMonitoringExceptionMap) {
        for (apr_hash_index_t* hi = apr_hash_first(nullptr, m.currentMonitoringExceptionMap); hi;
             hi = apr_hash_next(hi)) {
            auto* e = static_cast<currMonitoringExcepStruct_t*>(apr_hash_this_val(hi));
            if (e->excepmethodid > 0 && e->excepmethodid < m.aggExceptionArraySize)
                vx::store_release(m.aggExceptionDataArr[e->excepmethodid].expData,
                                  static_cast<currMonitoringExcepStruct_t*>(nullptr));
            vx::retire(m.retired, e, free_entry);
        }
        apr_hash_clear(m.currentMonitoringExceptionMap);
        return true;
    }
    if (!m.mapPool && apr_pool_create(&m.mapPool, nullptr) != APR_SUCCESS) {
        m.mapPool = nullptr;
        return false;
    }
    m.currentMonitoringExceptionMap = apr_hash_make(m.mapPool);
    return m.currentMonitoringExceptionMap != nullptr;
}

/* One "alias|class|rest" line. Under exceptionEntryLock. */
void take_line(VXProxyInstance_t* app, _VXExceptionMonitor_t& m, char* line)
{
    char* bar1 = strchr(line, '|');
    char* bar2 = bar1 ? strchr(bar1 + 1, '|') : nullptr;
    if (!bar2) {
        VX_TRACE(trace_level(), 1, "EXCEPTION_MON", "Exception monitor line without two '|': %s",
                 line);
        return;
    }
    *bar1 = '\0';
    *bar2 = '\0';
    const char* alias = line;
    const char* cls = bar1 + 1;
    const char* shown = *alias ? alias : cls;
    auto* e = static_cast<currMonitoringExcepStruct_t*>(
        apr_hash_get(m.currentMonitoringExceptionMap, cls, APR_HASH_KEY_STRING));
    if (e) {
        char* fresh = strdup(shown);
        if (!fresh) return;
        /* The reporting thread may be formatting the old alias. */
        vx::retire(m.retired, e->aliasMName, nullptr);
        vx::store_release(e->aliasMName, fresh);
    } else {
        e = static_cast<currMonitoringExcepStruct_t*>(calloc(1, sizeof *e));
        if (!e || !(e->exceptionMethodName = strdup(cls)) || !(e->aliasMName = strdup(shown))) {
            VX_ERROR("EXCEPTION_MON", "Could not keep exception class %s", cls);
            free_entry(e);
            return;
        }
        e->excepmethodid = m.exceptionID++;
        e->setEnableExceptionMon = 1;
        apr_hash_set(m.currentMonitoringExceptionMap, e->exceptionMethodName, APR_HASH_KEY_STRING,
                     e);
    }
    checkAndIncrementAggrExceptionDataArray(e);
    m.exceptionMonFlag = 1;
    vx::store_relaxed(app->VXSys.enableExceptionMonitor, 1);
}

}  // namespace

extern "C" void getExcepMonHashMapLock(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    _VXExceptionMonitor_t& m = app->vxExceptionMonitor;
    if (!m.exceptionEntryLock) m.exceptionEntryLock = vx::mutex_create(app->control_pool);
    if (m.exceptionEntryLock) apr_thread_mutex_lock(m.exceptionEntryLock);
    if (!m.currentMonitoringExceptionMap) renew_map(m);
}

extern "C" void releaseExcepMonHashMapLock(void)
{
    VXProxyInstance_t* app = vx_app();
    if (app && app->vxExceptionMonitor.exceptionEntryLock)
        apr_thread_mutex_unlock(app->vxExceptionMonitor.exceptionEntryLock);
}

extern "C" void VXExceptionMonitorInit(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    _VXExceptionMonitor_t& m = app->vxExceptionMonitor;
    if (!m.reportLock) m.reportLock = vx::mutex_create(app->control_pool);
    vx::monitor_vector_prefix(m.vectorPrefix, m.vectorPrefixID);
    getExcepMonHashMapLock();
    if (m.exceptionID < 1) m.exceptionID = 1;
    if (!m.aggExceptionDataArr) grow_to(m, kMonitorArrayInitial);
    /* Arrays and entries retired a while ago have no reader left. */
    vx::retire_collect(m.retired, apr_time_now(), apr_time_from_sec(vx::kIPRetireGraceSeconds));
    releaseExcepMonHashMapLock();
    {
        vx::VXLockGuard report(m.reportLock);
        for (int id = 0; id < m.reportArrSize; ++id) m.reportArr[id] = kStart;
    }
    m.numberOfThreads = 0;
    vx::store_relaxed(m.isExceptionMonitorOn, 1);
}

extern "C" void checkAndIncrementAggrExceptionDataArray(currMonitoringExcepStruct_t* expData)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !expData) return;
    _VXExceptionMonitor_t& m = app->vxExceptionMonitor;
    const int id = expData->excepmethodid;
    if (id < 1 || id >= kExceptionIdMax) return;
    if (id >= m.aggExceptionArraySize || !m.aggExceptionDataArr) {
        const int old =
            m.aggExceptionArraySize < kMonitorArrayInitial ? kMonitorArrayInitial : m.aggExceptionArraySize;
        if (!grow_to(m, id < old ? old : vx::bt_monitor_grown_size(old, id))) return;
    }
    vx::store_release(m.aggExceptionDataArr[id].expData, expData);
}

extern "C" void parseExceptionMonFile(char* buffer)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    _VXExceptionMonitor_t& m = app->vxExceptionMonitor;
    if (!buffer) {
        vx::store_relaxed(m.isExceptionMonitorOn, 0);
        return;
    }
    getExcepMonHashMapLock();
    if (m.exceptionID < 1) m.exceptionID = 1;
    if (!app->isRunTime || renew_map(m)) {
        char line[kLineSize];
        char* cursor = buffer;
        while (getNextLine(line, sizeof line, &cursor)) {
            if (!line[0] || line[0] == '#') continue;
            take_line(app, m, line);
        }
    }
    releaseExcepMonHashMapLock();
}

extern "C" int updatePropertiesOfException(VXPerThreadData_t* tlData, const char*, int methodID)
{
    VXMonitorDataModel* model = tlData->tlMonitorDataModel;
    if (!model || !model->lockForEM) return 0;
    vx::VXLockGuard guard(model->lockForEM);
    model->lastUpdateTimeStamp = my_gettimeofday();
    void** slot = vx::monitor_slot(reinterpret_cast<void***>(&model->excepDataArray),
                                   &model->currentSizeOfExcepMonArray, methodID);
    if (!slot) return 0;
    auto*& c = reinterpret_cast<_VXExceptionMonitorDataCounters_t*&>(*slot);
    if (!c) {
        c = static_cast<_VXExceptionMonitorDataCounters_t*>(calloc(1, sizeof *c));
        if (!c) {
            VX_ERROR("EXCEPTION_MON", "Could not allocate the counters of exception %d", methodID);
            return 0;
        }
    }
    ++c->count;
    ++c->cumCount;
    return 1;
}

extern "C" int updateCounterAndDurationForException(VXPerThreadData_t* vxTl,
                                                    const char* exceptionClassName)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !vxTl || !exceptionClassName) return 1;
    _VXExceptionMonitor_t& m = app->vxExceptionMonitor;
    int id = 0;
    getExcepMonHashMapLock();
    if (auto* e = static_cast<currMonitoringExcepStruct_t*>(
            apr_hash_get(m.currentMonitoringExceptionMap, exceptionClassName, APR_HASH_KEY_STRING)))
        id = e->excepmethodid;
    releaseExcepMonHashMapLock();
    if (id == 0) {
        VX_TRACE(trace_level(), 2, "EXCEPTION_MON", "exceptionClassName not found in the map %p",
                 static_cast<void*>(m.currentMonitoringExceptionMap));
        return 1;
    }
    if (!vx::load_relaxed(m.isExceptionMonitorOn) || id < 1 || id >= kExceptionIdMax) return 1;
    if (!vx::monitor_model_of(vxTl)) return 1;
    return updatePropertiesOfException(vxTl, exceptionClassName, id) ? 0 : 1;
}

extern "C" int generateAndDumpExceptionMonitoringRecord(char* buff, int* len, int bufLen)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !buff || !len) return 0;
    _VXExceptionMonitor_t& m = app->vxExceptionMonitor;
    vx::VXLockGuard report(m.reportLock);
    if (!ensure_report(m, vx::load_acquire(m.aggExceptionArraySize)) || m.reportArrSize < 1) return 0;
    if (vx::monitor_models_each(fold_model, &m) == 0) return 0;
    _VXExceptionMonitorDataCounters_t& all = m.reportArr[0];
    for (int id = 1; id < m.reportArrSize; ++id) {
        _VXExceptionMonitorDataCounters_t& e = m.reportArr[id];
        if (e.dataExist) {
            if (const currMonitoringExcepStruct_t* x = bound_to(m, id)) {
                const char* alias = vx::load_acquire(x->aliasMName);
                dump63(app, buff, len, bufLen, e, x->excepmethodid,
                       alias ? alias : x->exceptionMethodName);
                all.count += e.count;
                all.cumCount += e.cumCount;
            }
        }
        e = kStart;
    }
    dump63(app, buff, len, bufLen, all, 0, "OverAll");
    all = kStart;
    return 1;
}
