#include "flowpath/vx_td_key_map.h"

#include <string>
#include <unordered_map>

#include "agent/vx_instance.h"
#include "core/vx_thread.h"
#include "core/vx_trace_log.h"

namespace {

/* Both directions, so that reset finds its key without a scan. */
struct KeyMap {
    std::unordered_map<std::string, VXPerThreadData_t*> byKey;
    std::unordered_map<VXPerThreadData_t*, std::string> byRecord;
};

KeyMap* map_of(VXProxyInstance_t* app) { return static_cast<KeyMap*>(app->vxTDHashMap); }

}  // namespace

extern "C" void set_value(char* key, VXPerThreadData_t* vxTD)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !key || !vxTD) return;
    if (!app->vxTDHashMapLock) app->vxTDHashMapLock = vx::mutex_create(app->control_pool);
    vx::VXLockGuard guard(app->vxTDHashMapLock);
    try {
        if (!app->vxTDHashMap) app->vxTDHashMap = new KeyMap();
        KeyMap* m = map_of(app);
        auto old = m->byRecord.find(vxTD);
        if (old != m->byRecord.end()) m->byKey.erase(old->second);
        m->byKey[key] = vxTD;
        m->byRecord[vxTD] = key;
    } catch (...) {
        VX_ERROR("FLOWPATH", "Error in storing key '%s'", key);
    }
}

extern "C" VXPerThreadData_t* searchvxTDfromHashMap(char* key)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !key) return nullptr;
    vx::VXLockGuard guard(app->vxTDHashMapLock);
    KeyMap* m = map_of(app);
    if (!m) return nullptr;
    auto it = m->byKey.find(key);
    return it == m->byKey.end() ? nullptr : it->second;
}

namespace vx {

void td_key_map_forget(VXPerThreadData_t* vxTD)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !vxTD || !app->vxTDHashMap) return;
    VXLockGuard guard(app->vxTDHashMapLock);
    KeyMap* m = map_of(app);
    auto it = m->byRecord.find(vxTD);
    if (it == m->byRecord.end()) return;
    auto k = m->byKey.find(it->second);
    if (k != m->byKey.end() && k->second == vxTD) m->byKey.erase(k);
    m->byRecord.erase(it);
}

}  // namespace vx
