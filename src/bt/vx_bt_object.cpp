#include "bt/vx_bt_object.h"

#include <apr_strings.h>
#include <apr_time.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "agent/vx_instance.h"
#include "bt/vx_bt_rule_file.h"
#include "bt/vx_bt_tags.h"
#include "core/vx_atomic.h"
#include "core/vx_hashmap.h"
#include "core/vx_record_door.h"
#include "core/vx_retire_list.h"
#include "core/vx_text.h"
#include "core/vx_thread.h"
#include "core/vx_trace_log.h"
#include "monitor/vx_bt_monitor.h"

namespace {

constexpr const char* kDefaultTags[] = {"Host=localhost", "OS=Linux", "application=Common",
                                        "Technology=Php"};

VXProxyInstance_t* app()
{
    return vx_app();
}

int trace_level()
{
    return app()->VXSys.btMonitorTraceLevel;
}

bool run_active(const VXProxyInstance_t* a)
{
    return vx::load_relaxed(a->Server.testRunRunning) == 1 &&
           vx::load_relaxed(a->VXBCISetting.data_thread_running) == 1;
}

/* Opens the BT's auto-instrumentation window when dynamic diagnostics ask. */
void open_ai_window(VXProxyInstance_t* a, BTObject* bt)
{
    if (a->vxDynamicSettings.enableDDAI[0] != 1) return;
    const long long now = apr_time_sec(apr_time_now());
    bt->bt_startTime = now;
    bt->dd_IntervalTime = a->vxDynamicSettings.ddAIInterval;
    bt->bt_endTime = now + bt->dd_IntervalTime;
    bt->AIFlag = 1;
}

/* An object for `name`: one recycled from an ended session when there is
 * one, else a new one from the model's pool. Caller holds bt_obj_map_lock. */
BTObject* take_object(VXProxyInstance_t* a, const char* name)
{
    VXBTObjectStore& s = a->btStore;
    BTObject* bt = nullptr;
    if (s.recycled) {
        bt = static_cast<BTObject*>(apr_hash_get(s.recycled, name, APR_HASH_KEY_STRING));
        if (bt) apr_hash_set(s.recycled, bt->bt_name, APR_HASH_KEY_STRING, bt->recycleNext);
    }
    if (bt) {
        /* Flowpaths of an ended session may still read its id and
         * thresholds: those are written atomically, the name is the same. */
        vx::store_relaxed(bt->bt_id, 0);
        vx::store_relaxed(bt->bt_threshold.slow, 0);
        vx::store_relaxed(bt->bt_threshold.very_slow, 0);
        vx::store_relaxed(bt->monitorSlot, 0);
        bt->bt_category = 0;
        bt->is_meta_data_dumped = 0;
        bt->bt_startTime = bt->bt_endTime = bt->dd_IntervalTime = 0;
        bt->AIFlag = 0;
        bt->enableBodyCapture = bt->maxBodySize = 0;
        bt->selfID = bt->parentID = bt->prevPID = bt->isBTOverride = bt->btCounter = 0;
    } else {
        bt = static_cast<BTObject*>(apr_pcalloc(s.pool, sizeof(BTObject)));
        if (!bt) return nullptr;
        vx::copy_text(bt->bt_name, sizeof bt->bt_name, name);
    }
    bt->recycleNext = s.sessionObjects;
    s.sessionObjects = bt;
    return bt;
}

void set_threshold(BTObject* bt, int slow, int verySlow)
{
    vx::store_relaxed(bt->bt_threshold.slow, slow);
    vx::store_relaxed(bt->bt_threshold.very_slow, verySlow);
}

/* The session's objects go to the recycling chains by name. Caller holds
 * bt_obj_map_lock. */
void recycle_session_objects(VXProxyInstance_t* a)
{
    VXBTObjectStore& s = a->btStore;
    if (!s.recycled) s.recycled = apr_hash_make(s.pool);
    BTObject* bt = s.sessionObjects;
    while (bt) {
        BTObject* next = bt->recycleNext;
        bt->recycleNext =
            static_cast<BTObject*>(apr_hash_get(s.recycled, bt->bt_name, APR_HASH_KEY_STRING));
        apr_hash_set(s.recycled, bt->bt_name, APR_HASH_KEY_STRING, bt);
        bt = next;
    }
    s.sessionObjects = nullptr;
}

void add_default_tags(VXProxyInstance_t* a)
{
    VXBTTagManager& t = a->tagManager;
    vx::VXLockGuard guard(t.tag_obj_map_lock);
    /* Host threads add sequences under the map's lock: the map has a pool
     * of its own. */
    if (!t.tag_obj_map) t.tag_obj_map = create_hashmap(a->btStore.pool);
    int id = 0;
    for (const char* tag : kDefaultTags) {
        if (apr_hash_get(t.tag_obj_map, tag, APR_HASH_KEY_STRING)) {
            ++id;
            continue;
        }
        auto* o = static_cast<VXBTTagObject*>(apr_pcalloc(a->btStore.pool, sizeof(VXBTTagObject)));
        o->tagId = id++;
        apr_hash_set(t.tag_obj_map, apr_pstrdup(a->btStore.pool, tag), APR_HASH_KEY_STRING, o);
    }
}

}  // namespace

extern "C" void VXBTConfigModelInit(void)
{
    VXProxyInstance_t* a = app();
    if (!a) return;
    /* Locks and the object pool are made once and live with the instance:
     * request threads may hold BT objects across sessions. */
    if (!a->btStore.pool && apr_pool_create(&a->btStore.pool, a->control_pool) != APR_SUCCESS)
        return;
    if (!a->manager.bt_obj_map_lock) a->manager.bt_obj_map_lock = vx::mutex_create(a->control_pool);
    if (!a->tagManager.tag_obj_map_lock)
        a->tagManager.tag_obj_map_lock = vx::mutex_create(a->control_pool);
    if (!a->tagManager.bt_tag_obj_map_lock)
        a->tagManager.bt_tag_obj_map_lock = vx::mutex_create(a->control_pool);
    {
        vx::VXLockGuard guard(a->manager.bt_obj_map_lock);
        /* The maps are made once and emptied for each session: the pool
         * they live in lasts as long as the instance. */
        free_BTObjMap();
        if (!a->manager.bt_obj_map.hash)
            a->manager.bt_obj_map.hash = apr_hash_make(a->btStore.pool);
        if (!a->config.bt_obj_map.hash) a->config.bt_obj_map.hash = apr_hash_make(a->btStore.pool);
        vx::store_relaxed(a->config.max_bt_count, vx::kBTDefaultMaxCount);
        a->config.total_bt_count = 1;
    }
    add_default_tags(a);
    if (!a->tagManager.bt_tag_obj_map) vx::bt_slot_map_reset(); /* filled by host threads */
    vx::bt_rules_reset();
    vx::bt_tags_clear(-1); /* the monitor's set-up forgets the global list */
    VXBTMonitorInit();

    const char* home = a->VXSys.vxHomePath ? a->VXSys.vxHomePath : ".";
    char path[vx::kPathSize];
    snprintf(path, sizeof path, "%s/BTThresholdFile.txt", home);
    vx::bt_read_threshold_path(path);
    snprintf(path, sizeof path, "%s/BTRuleFile.txt", home);
    vx::bt_read_rule_path(path);
    if (vx::load_relaxed(a->bt_rule) == kBTRuleNone) {
        VX_TRACE(trace_level(), 1, "BT_MON", "Setting defult BT rule = %s", kDefaultGlobalRule);
        char line[vx::kBTRuleLineSize];
        vx::copy_text(line, sizeof line, kDefaultGlobalRule);
        parse_global_rule(line);
    }
}

extern "C" BTObject* make_new_bt_obj(char* bt_name, int bt_id, int slow, int verySlow)
{
    VXProxyInstance_t* a = app();
    if (!a || !bt_name) return nullptr;
    BTObject* bt = take_object(a, bt_name);
    if (!bt) {
        VX_ERROR("BT_MON", "Could not allocate a BT object for '%s'", bt_name);
        return nullptr;
    }
    if (bt_id > 0) vx::store_relaxed(bt->bt_id, bt_id);
    set_threshold(bt, slow, verySlow);
    return bt;
}

extern "C" void insert_in_hasmap(char* key, BTObject* bt_obj, apr_hash_t* hash)
{
    if (!key || !hash) return;
    /* An object's own name outlives the entry (objects are never freed), so
     * it serves as the key; a copy would grow the pool with every session. */
    const char* k = bt_obj && strcmp(bt_obj->bt_name, key) == 0
                        ? bt_obj->bt_name
                        : apr_pstrdup(app()->btStore.pool, key);
    apr_hash_set(hash, k, APR_HASH_KEY_STRING, bt_obj);
}

extern "C" void dumpBtMetaData(char* BtName, int BtId)
{
    char buf[vx::kMetaRecordSize];
    vx::dump_record(buf, sizeof buf, "7,%d,%s\n", BtId, BtName ? BtName : "");
}

extern "C" BTObject* find_bt_obj_in_manager_map(char* bt_name)
{
    VXProxyInstance_t* a = app();
    if (!a || !bt_name || !a->manager.bt_obj_map.hash) return nullptr;
    return static_cast<BTObject*>(
        apr_hash_get(a->manager.bt_obj_map.hash, bt_name, APR_HASH_KEY_STRING));
}

extern "C" BTObject* updateBTObject(char* bt_name)
{
    VXProxyInstance_t* a = app();
    if (!a || !bt_name) return nullptr;
    vx::VXLockGuard guard(a->manager.bt_obj_map_lock);
    if (!a->manager.bt_obj_map.hash) return nullptr;
    if (BTObject* bt = find_bt_obj_in_manager_map(bt_name)) {
        open_ai_window(a, bt);
        return bt;
    }
    /* An empty name makes no object and takes no id: a rule that names
     * nothing would otherwise use up the ids one request at a time. */
    if (!*bt_name) return nullptr;
    int id = ++a->config.total_bt_count;
    const int maxCount = vx::load_relaxed(a->config.max_bt_count); /* a keyword may change it */
    if (id > maxCount) {
        vx::copy_text(bt_name, vx::kBTNameSize, kOthersBTName);
        --a->config.total_bt_count;
        id = kOthersBTId;
        VX_TRACE(trace_level(), 2, "BT_MON",
                 "max_bt_count '%d' reached, assiging id '%d' to Others", maxCount, id);
    }
    if (BTObject* bt = find_bt_obj_in_manager_map(bt_name)) return bt; /* "Others" made earlier */
    BTObject* bt = make_new_bt_obj(bt_name, id, vx::load_relaxed(a->allSlow),
                                   vx::load_relaxed(a->allVerySlow));
    if (!bt) return nullptr;
    insert_in_hasmap(bt_name, bt, a->manager.bt_obj_map.hash);
    dumpBtMetaData(bt->bt_name, id);
    bt->is_meta_data_dumped = 1;
    open_ai_window(a, bt);
    checkAndIncrementAggrBTDataArray(bt);
    return bt;
}

extern "C" BTObject* find_bt_obj_in_config_map(char* bt_name, int bt_id, int slow, int verySlow,
                                               int selfID, int parentID)
{
    VXProxyInstance_t* a = app();
    if (!a || !bt_name || !a->config.bt_obj_map.hash) return nullptr;
    apr_hash_t* config = a->config.bt_obj_map.hash;
    const bool patterns = vx::load_relaxed(a->bt_rule) == kBTRulePattern ||
                          vx::load_relaxed(a->btPatternReadAtRunTime) == 1;
    auto* found = static_cast<BTObject*>(apr_hash_get(config, bt_name, APR_HASH_KEY_STRING));
    if (found && run_active(a)) {
        set_threshold(found, slow, verySlow);
        vx::store_relaxed(a->allSlow, slow);
        vx::store_relaxed(a->allVerySlow, verySlow);
        /* An id below 1 is no id: the object keeps its own. */
        if (bt_id >= 1 && bt_id != vx::load_relaxed(found->bt_id)) {
            if (patterns) dumpBtMetaData(bt_name, bt_id);
            vx::store_relaxed(found->bt_id, bt_id);
        }
    }
    /* The result is a new object: registered in the config map when the
     * name is new there, otherwise a fresh one in no config map (it still
     * replaces the name's entry in the manager map below, and objects it
     * replaces stay alive for the flowpaths that hold them). */
    BTObject* bt = make_new_bt_obj(bt_name, bt_id, slow, verySlow);
    if (!bt) return nullptr;
    const bool made = !found && bt_id >= 1;
    if (made) {
        insert_in_hasmap(bt_name, bt, config);
        if (run_active(a) && patterns) dumpBtMetaData(bt_name, bt_id);
    }
    if (bt_id >= 1) {
        vx::store_relaxed(bt->bt_id, bt_id);
        if (made && bt_id >= 2) ++a->config.total_bt_count;
        bt->selfID = selfID;
        bt->parentID = parentID;
        insert_in_hasmap(bt_name, bt, a->manager.bt_obj_map.hash);
    }
    return bt;
}

extern "C" void free_BTObjMap(void)
{
    VXProxyInstance_t* a = app();
    if (!a) return;
    if (a->manager.bt_obj_map.hash) apr_hash_clear(a->manager.bt_obj_map.hash);
    if (a->config.bt_obj_map.hash) apr_hash_clear(a->config.bt_obj_map.hash);
    recycle_session_objects(a);
}

void vx::bt_session_free()
{
    VXProxyInstance_t* a = app();
    if (!a || !a->manager.bt_obj_map_lock) return;
    vx::bt_monitor_unbind_all();
    vx::VXLockGuard guard(a->manager.bt_obj_map_lock);
    free_BTObjMap();
    vx::retire_collect(a->btRetired, apr_time_now(), apr_time_from_sec(vx::kBTRetireGraceSeconds));
}

extern "C" int getBTCategoryBasedOnThresold(VXPerThreadData_t* vxTD, Threshold bt_threshold,
                                            long long duration)
{
    VXProxyInstance_t* a = app();
    if (duration < bt_threshold.slow) {
        /* A flowpath kept only for its method data is dropped when it turns
         * out to be fast. */
        if (a && vxTD && vx::load_relaxed(a->VXSys.bciInstrSessionPct) == 0 &&
            a->VXSys.captureMethodForAllFP == 1)
            vxTD->tlIsFPCaptured = 0;
        return kCategoryNormal;
    }
    if (duration < bt_threshold.very_slow) return kCategorySlow;
    return kCategoryVerySlow;
}

extern "C" int findCategoryOfBT(Threshold bt_threshold, long long duration, int statusCode,
                                VXPerThreadData_t* vxTD)
{
    VXProxyInstance_t* a = app();
    if (a && statusCode >= 0 && statusCode < vx::kStatusCodeCount &&
        a->VXBCISetting.btErrorArray[statusCode] == 'F')
        return kCategoryError;
    return getBTCategoryBasedOnThresold(vxTD, bt_threshold, duration);
}

extern "C" char* getBtBaseOnHeader1(char* btHeaderValue, char* correlation_header)
{
    if (!btHeaderValue || !correlation_header || !*correlation_header) return nullptr;
    char* at = strstr(btHeaderValue, correlation_header);
    if (!at) return nullptr;
    char* amp = strchr(at, '&');
    if (!amp) return nullptr;
    *amp = '\0';
    char* eq = strchr(at, '=');
    if (!eq) return nullptr;
    *eq = '\0';
    return eq + 1;
}

extern "C" char* getBtBaseOnHeader(char* btHeader_val)
{
    const VXBTGlobalRule* rule = app() ? vx::bt_global_rule() : nullptr;
    if (!rule || !btHeader_val) return nullptr;
    return getBtBaseOnHeader1(btHeader_val, const_cast<char*>(rule->header));
}
