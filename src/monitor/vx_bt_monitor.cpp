#include "monitor/vx_bt_monitor.h"

#include <cstdlib>
#include <cstring>

#include "agent/vx_instance.h"
#include "core/vx_atomic.h"
#include "core/vx_retire_list.h"
#include "core/vx_thread.h"
#include "core/vx_trace_log.h"

namespace {

/* A larger copy of the array, published whole. The caller holds
 * bt_obj_map_lock; the old array is retired, never freed in place. */
bool grow_to(VXBTMonitor_t& m, int length)
{
    const int old = m.aggDataArraySize;
    if (length <= old && m.aggBTDataArr) return true;
    auto* fresh = static_cast<VXBTMonitorDataCounters*>(
        calloc(static_cast<size_t>(length), sizeof(VXBTMonitorDataCounters)));
    if (!fresh) {
        VX_ERROR("BT_MON", "Could not grow the BT array from %d to %d elements", old, length);
        return false;
    }
    VXBTMonitorDataCounters* prev = m.aggBTDataArr;
    if (prev) {
        /* Bindings are copied atomically: request threads read them. */
        for (int i = 0; i < old; ++i) {
            fresh[i] = prev[i];
            fresh[i].tlBTObj = vx::load_relaxed(prev[i].tlBTObj);
        }
    }
    vx::store_release(m.aggBTDataArr, fresh);
    vx::store_release(m.aggDataArraySize, length);
    if (prev) vx::retire(vx_app()->btRetired, prev, nullptr);
    return true;
}

}  // namespace

int vx::bt_monitor_grown_size(int oldLength, int id)
{
    if (oldLength < 1) oldLength = 1;
    const int step = 2 * oldLength + 1;
    return (id / step + 1) * step; /* ids stay within kBTCountMax */
}

extern "C" void VXBTMonitorInit(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    VXBTMonitor_t& m = app->VXBTMonitor;
    if (!m.btGlobalTag_lock) m.btGlobalTag_lock = vx::mutex_create(app->control_pool);
    {
        vx::VXLockGuard guard(app->manager.bt_obj_map_lock);
        if (!m.aggBTDataArr) {
            m.aggDataArraySize = 0;
            grow_to(m, vx::kBTAggArrayInitial);
        }
        /* Elements survive sessions; their bindings were cleared at the
         * session's clean-up. */
        for (int i = 0; i < m.aggDataArraySize; ++i) {
            VXBTMonitorDataCounters& e = m.aggBTDataArr[i];
            vx::store_release(e.tlBTObj, static_cast<BTObject*>(nullptr));
            e.tdigest_key = e.cdigest_key = nullptr;
            e.tdigestDataExist = e.cdigestDataExist = 0;
        }
    }
    if (!m.btTagArray) {
        m.btTagArray =
            static_cast<BTTagArray**>(calloc(vx::kBTAggArrayInitial, sizeof(BTTagArray*)));
        m.currentSizeOfBTTagArray = m.btTagArray ? vx::kBTAggArrayInitial : 0;
    }
    m.btGlobalTag = nullptr;
    m.maxBTCount = vx::kBTDefaultMaxCount;
    m.numberOfThreads = 0;
    m.isBTMonitorOn = 1;
}

extern "C" void checkAndIncrementAggrBTDataArray(BTObject* tlBTObj)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !tlBTObj) return;
    VXBTMonitor_t& m = app->VXBTMonitor;
    const int id = vx::load_relaxed(tlBTObj->bt_id);
    if (id < 0 || id > vx::kBTCountMax) {
        VX_ERROR("BT_MON", "BT id %d is outside the monitor's range; not bound", id);
        return;
    }
    if (id >= m.aggDataArraySize && !grow_to(m, vx::bt_monitor_grown_size(m.aggDataArraySize, id)))
        return;
    VXBTMonitorDataCounters& e = m.aggBTDataArr[id];
    e.tdigest_key = e.cdigest_key = nullptr;
    e.tdigestDataExist = e.cdigestDataExist = 0;
    vx::store_release(e.tlBTObj, tlBTObj);
}

BTObject* vx::bt_bound_to(int id, int* size_out)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return nullptr;
    const VXBTMonitor_t& m = app->VXBTMonitor;
    const int size = vx::load_acquire(m.aggDataArraySize);
    if (size_out) *size_out = size;
    if (id < 0 || id >= size) return nullptr;
    const VXBTMonitorDataCounters* arr = vx::load_acquire(m.aggBTDataArr);
    return vx::load_acquire(arr[id].tlBTObj);
}

void vx::bt_monitor_resize(int size)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || size <= 0) return;
    vx::VXLockGuard guard(app->manager.bt_obj_map_lock);
    if (size > app->VXBTMonitor.aggDataArraySize) grow_to(app->VXBTMonitor, size);
}

void vx::bt_monitor_unbind_all()
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    VXBTMonitor_t& m = app->VXBTMonitor;
    vx::VXLockGuard guard(app->manager.bt_obj_map_lock);
    for (int i = 0; i < m.aggDataArraySize; ++i)
        vx::store_release(m.aggBTDataArr[i].tlBTObj, static_cast<BTObject*>(nullptr));
}

/* STAND-IN(monitors): the per-thread counter models are not built yet.
 * These keep the flowpath engine's call sites in place. */
extern "C" void initThreadBasedModelMap(void) {}

extern "C" void initVXMonitorDataModel(VXPerThreadData_t* tlData)
{
    (void)tlData;
}

extern "C" void updateCounterAndDurationForBT(VXPerThreadData_t* vxTD)
{
    (void)vxTD;
}

/* STAND-IN(monitors): no counters are kept yet, so nothing is folded. */
extern "C" int generateAndDumpBTMonitoringRecord(char* buff, int* len, int bufLen)
{
    (void)buff;
    (void)len;
    (void)bufLen;
    return 0;
}
