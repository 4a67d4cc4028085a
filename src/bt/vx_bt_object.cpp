#include "bt/vx_bt_object.h"

#include <apr_strings.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "agent/vx_instance.h"
#include "core/vx_atomic.h"
#include "core/vx_hashmap.h"
#include "core/vx_record_door.h"
#include "core/vx_thread.h"
#include "core/vx_trace_log.h"

namespace {

constexpr int kDefaultMaxBTCount = 256;

/* Record 7: "7,<id>,<name>", cut to 1,023 bytes. */
void dump_bt_record(const BTObject* bt)
{
    char buf[vx::kMetaRecordSize];
    vx::dump_record(buf, sizeof buf, "7,%d,%s\n", bt->bt_id, bt->bt_name);
}

/* A new BT from the manager's pool; the caller holds bt_obj_map_lock. */
BTObject* make_bt(VXProxyInstance_t* app, const char* name, int id)
{
    auto* bt = static_cast<BTObject*>(apr_pcalloc(app->manager.bt_pool, sizeof(BTObject)));
    if (!bt) return nullptr;
    bt->bt_name = apr_pstrdup(app->manager.bt_pool, name);
    bt->bt_id = id;
    bt->bt_threshold.slow = app->allSlow;
    bt->bt_threshold.very_slow = app->allVerySlow;
    return bt;
}

}  // namespace

extern "C" void VXBTManagerInit(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || app->manager.bt_obj_map) return;
    if (apr_pool_create(&app->manager.bt_pool, app->control_pool) != APR_SUCCESS) return;
    app->manager.bt_obj_map = apr_hash_make(app->manager.bt_pool);
    app->manager.bt_obj_map_lock = vx::mutex_create(app->control_pool);
    app->manager.total_bt_count = 1; /* ids 0 and 1 are taken */
    app->manager.max_bt_count = kDefaultMaxBTCount;
}

extern "C" void VXBTManagerReset(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !app->manager.bt_obj_map) return;
    vx::VXLockGuard guard(app->manager.bt_obj_map_lock);
    apr_hash_clear(app->manager.bt_obj_map);
    app->manager.total_bt_count = 1;
}

extern "C" BTObject* get_obj_from_bt_name(char* url, char* parameters, char* btHeaderValue,
                                          apr_thread_mutex_t* updateBTLock, char* httpMethod)
{
    (void)parameters;
    (void)btHeaderValue;
    (void)httpMethod;
    VXProxyInstance_t* app = vx_app();
    if (!app || !url || !*url) return nullptr; /* no name, no object: excluded */
    VXBTManager& m = app->manager;
    if (!m.bt_obj_map) VXBTManagerInit();
    if (!m.bt_obj_map) return nullptr;

    vx::VXLockGuard flowpath_guard(updateBTLock);
    vx::VXLockGuard map_guard(m.bt_obj_map_lock);
    auto* bt = static_cast<BTObject*>(apr_hash_get(m.bt_obj_map, url, APR_HASH_KEY_STRING));
    if (bt) return bt;
    if (m.total_bt_count >= m.max_bt_count) {
        bt = static_cast<BTObject*>(apr_hash_get(m.bt_obj_map, "Others", APR_HASH_KEY_STRING));
        if (!bt && (bt = make_bt(app, "Others", 1)) != nullptr)
            apr_hash_set(m.bt_obj_map, bt->bt_name, APR_HASH_KEY_STRING, bt);
    } else {
        bt = make_bt(app, url, ++m.total_bt_count);
        if (bt) apr_hash_set(m.bt_obj_map, bt->bt_name, APR_HASH_KEY_STRING, bt);
    }
    if (bt && !bt->is_meta_data_dumped) {
        dump_bt_record(bt);
        bt->is_meta_data_dumped = 1;
    }
    return bt;
}

extern "C" int findCategoryOfBT(Threshold bt_threshold, long long duration, int statusCode,
                                VXPerThreadData_t* vxTD)
{
    VXProxyInstance_t* app = vx_app();
    if (app && statusCode >= 0 && statusCode < vx::kStatusCodeCount &&
        app->VXBCISetting.btErrorArray[statusCode] == 'F')
        return kCategoryError;
    if (duration < bt_threshold.slow) {
        /* A flowpath kept only for its method data is dropped when it turns
         * out to be fast. */
        if (app && vxTD && vx::load_relaxed(app->VXSys.bciInstrSessionPct) == 0 &&
            app->VXSys.captureMethodForAllFP == 1)
            vxTD->tlIsFPCaptured = 0;
        return kCategoryNormal;
    }
    if (duration < bt_threshold.very_slow) return kCategorySlow;
    return kCategoryVerySlow;
}
