#include "monitor/vx_bt_monitor.h"

#include <apr_hash.h>

#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "agent/vx_instance.h"
#include "bt/vx_bt_object.h"
#include "bt/vx_bt_tags.h"
#include "core/vx_atomic.h"
#include "core/vx_platform.h"
#include "core/vx_record_door.h"
#include "core/vx_retire_list.h"
#include "core/vx_thread.h"
#include "core/vx_trace_log.h"
#include "flowpath/vx_per_thread_data.h"
#include "http/vx_transaction_tags.h"
#include "link/vx_as_buffers.h"
#include "monitor/vx_bt_percentiles.h"
#include "monitor/vx_monitor_model.h"

namespace {

constexpr size_t kCacheLine = 64;
constexpr char kOverallName[] = "AllTransactions";

int trace_level()
{
    return VX_LEVEL(btMonitorTraceLevel);
}

/* ---- Counters ---------------------------------------------------------- */

constexpr VXBTMonitorDataCounters make_start()
{
    VXBTMonitorDataCounters c{};
    c.minDuration = c.minNormalDuration = c.minSlowDuration = kBTMinStart;
    c.minVerySlowDuration = c.minErrorDuration = kBTMinStart;
    c.minWaitTime = c.minSyncTime = c.minQueueTime = kBTMinStart;
    c.minCpuTime = LLONG_MAX;
    c.unique_id = -1;
    return c;
}
constexpr VXBTMonitorDataCounters kStart = make_start();
/* The counters are the fields ahead of tlBTObj; re-initialising copies them
 * from kStart and leaves what identifies the object. */
constexpr size_t kCountersBytes = offsetof(VXBTMonitorDataCounters, tlBTObj);

void counters_reset(VXBTMonitorDataCounters* c)
{
    memcpy(c, &kStart, kCountersBytes);
    c->dataExist = 0;
}

void add_min_max(long long v, long long& mn, long long& mx)
{
    if (v < mn) mn = v;
    if (v > mx) mx = v;
}

void add_category(long long d, int& count, long long& sum, long long& mn, long long& mx)
{
    ++count;
    sum += d;
    add_min_max(d, mn, mx);
}

void add_generic(const VXPerThreadData_t* td, VXBTMonitorDataCounters* c)
{
    add_category(td->tlDuration, c->count, c->duration, c->minDuration, c->maxDuration);
    /* A transaction that ended on another thread than it began on has no
     * meaningful CPU difference; it counts as none. */
    const long long cpu = td->tlFpCPUTime > 0 ? td->tlFpCPUTime : 0;
    c->cpuTime += cpu;
    add_min_max(cpu, c->minCpuTime, c->maxCpuTime);
    add_category(td->waitTime, c->waitCount, c->cumWaitTime, c->minWaitTime, c->maxWaitTime);
    add_category(td->syncTime, c->syncCount, c->cumSyncTime, c->minSyncTime, c->maxSyncTime);
    /* Queue time: -1 or 0 when the host gave none; only real values count in
     * the sum and the minimum, every flowpath in the count. */
    const long long q = td->qTimeInMS;
    ++c->queueCount;
    if (q > 0) {
        c->cumQueueTime += q;
        if (q < c->minQueueTime) c->minQueueTime = q;
    }
    if (q > c->maxQueueTime) c->maxQueueTime = q;
}

void merge_min_max(long long mn, long long mx, long long& aggMin, long long& aggMax)
{
    if (mn < aggMin) aggMin = mn;
    if (mx > aggMax) aggMax = mx;
}

/* updateBTDataCountersForAggregate: sums add, minimums and maximums merge. */
void merge(VXBTMonitorDataCounters* a, const VXBTMonitorDataCounters* o)
{
    a->count += o->count;
    a->duration += o->duration;
    merge_min_max(o->minDuration, o->maxDuration, a->minDuration, a->maxDuration);
    a->cpuTime += o->cpuTime;
    merge_min_max(o->minCpuTime, o->maxCpuTime, a->minCpuTime, a->maxCpuTime);
    a->normalCount += o->normalCount;
    a->normalDuration += o->normalDuration;
    merge_min_max(o->minNormalDuration, o->maxNormalDuration, a->minNormalDuration,
                  a->maxNormalDuration);
    a->slowCount += o->slowCount;
    a->slowDuration += o->slowDuration;
    merge_min_max(o->minSlowDuration, o->maxSlowDuration, a->minSlowDuration, a->maxSlowDuration);
    a->verySlowCount += o->verySlowCount;
    a->verySlowDuration += o->verySlowDuration;
    merge_min_max(o->minVerySlowDuration, o->maxVerySlowDuration, a->minVerySlowDuration,
                  a->maxVerySlowDuration);
    a->errorCount += o->errorCount;
    a->errorDuration += o->errorDuration;
    merge_min_max(o->minErrorDuration, o->maxErrorDuration, a->minErrorDuration,
                  a->maxErrorDuration);
    a->waitCount += o->waitCount;
    a->cumWaitTime += o->cumWaitTime;
    merge_min_max(o->minWaitTime, o->maxWaitTime, a->minWaitTime, a->maxWaitTime);
    a->syncCount += o->syncCount;
    a->cumSyncTime += o->cumSyncTime;
    merge_min_max(o->minSyncTime, o->maxSyncTime, a->minSyncTime, a->maxSyncTime);
    a->queueCount += o->queueCount;
    a->cumQueueTime += o->cumQueueTime;
    merge_min_max(o->minQueueTime, o->maxQueueTime, a->minQueueTime, a->maxQueueTime);
}

/* A model's counter object: whole cache lines (models of different host
 * threads sit side by side), the tag text in the same block, so that the
 * model frees it with free(). Null when memory runs out. */
VXBTMonitorDataCounters* new_counters(int btId, int slot, const char* tagName)
{
    const size_t text = tagName ? strlen(tagName) + 1 : 0;
    const size_t size =
        (sizeof(VXBTMonitorDataCounters) + text + kCacheLine - 1) / kCacheLine * kCacheLine;
    auto* c = static_cast<VXBTMonitorDataCounters*>(aligned_alloc(kCacheLine, size));
    if (!c) {
        VX_ERROR("BT_MON", "Could not allocate the counters of slot %d", slot);
        return nullptr;
    }
    *c = kStart;
    c->btId = btId;
    c->unique_id = slot;
    if (tagName) {
        c->tagName = reinterpret_cast<char*>(c + 1);
        memcpy(c->tagName, tagName, text);
    }
    return c;
}

/* ---- Slots ------------------------------------------------------------- */

/* An entry of bt_tag_obj_map: its slot and, in the same block, its key. */
struct VXBTSlotKey {
    int slot;
    char key[1];
};

/* The slot of `key`, -1 when it has none. Caller holds
 * bt_tag_obj_map_lock. */
int slot_found(const VXBTTagManager& t, const char* key)
{
    const auto* e = t.bt_tag_obj_map ? static_cast<const VXBTSlotKey*>(apr_hash_get(
                                           t.bt_tag_obj_map, key, APR_HASH_KEY_STRING))
                                     : nullptr;
    return e ? e->slot : -1;
}

/* The slot of `key`, made when absent: slots are numbered by the count of
 * the map. -1 past kBTSlotMax or without memory. Caller holds
 * bt_tag_obj_map_lock. */
int slot_for_key(VXBTTagManager& t, const char* key)
{
    if (!t.bt_tag_obj_map) return -1;
    if (const int found = slot_found(t, key); found >= 0) return found;
    const int slot = static_cast<int>(apr_hash_count(t.bt_tag_obj_map));
    if (slot >= vx::kBTSlotMax) {
        VX_ERROR("BT_MON", "No counter slot left for '%s' (%d in use)", key, slot);
        return -1;
    }
    const size_t n = strlen(key) + 1;
    auto* e = static_cast<VXBTSlotKey*>(apr_palloc(t.slotPool, offsetof(VXBTSlotKey, key) + n));
    if (!e) return -1;
    e->slot = slot;
    memcpy(e->key, key, n);
    apr_hash_set(t.bt_tag_obj_map, e->key, APR_HASH_KEY_STRING, e);
    return slot;
}

int slot_of_key(const char* key)
{
    VXBTTagManager& t = vx_app()->tagManager;
    vx::VXLockGuard guard(t.bt_tag_obj_map_lock);
    return slot_for_key(t, key);
}

/* The cache in a BTObject: epoch (24 bits), id and slot (20 bits each); 0
 * is empty. */
constexpr int kFieldBits = 20;
constexpr long long kFieldMask = (1LL << kFieldBits) - 1;
static_assert(vx::kBTSlotMax <= (1 << kFieldBits), "a slot fits its field of the cache");

long long slot_cache(int epoch, int id, int slot)
{
    return (static_cast<long long>(epoch & 0xFFFFFF) << (2 * kFieldBits)) |
           (static_cast<long long>(id) << kFieldBits) | slot;
}

/* The slot of the BT's own series. The steady path reads the cache only;
 * the first update of a BT in a session looks the slot up under
 * bt_tag_obj_map_lock and publishes it. -1 when there is none. */
int bt_slot(VXProxyInstance_t* app, BTObject* bt, int id)
{
    const long long cached = vx::load_acquire(bt->monitorSlot);
    const int epoch = vx::load_relaxed(app->VXBTMonitor.slotEpoch);
    if (cached && cached == slot_cache(epoch, id, static_cast<int>(cached & kFieldMask)))
        return static_cast<int>(cached & kFieldMask);
    char key[16];
    snprintf(key, sizeof key, "%d", id);
    VXBTTagManager& t = app->tagManager;
    int slot, epochNow;
    {
        vx::VXLockGuard guard(t.bt_tag_obj_map_lock);
        slot = slot_for_key(t, key);
        epochNow = app->VXBTMonitor.slotEpoch;
    }
    if (slot >= 0 && id <= kFieldMask)
        vx::store_release(bt->monitorSlot, slot_cache(epochNow, id, slot));
    return slot;
}

/* The object of `slot` in the model, made when absent. Caller holds
 * lockForBT. Null when the slot cannot be had. */
VXBTMonitorDataCounters* object_at(VXMonitorDataModel* m, int slot, int btId, const char* tagName)
{
    if (slot < 0) return nullptr;
    if (slot >= m->currentSizeOfBTArray)
        m->currentSizeOfBTArray = handleSizeDataArr(reinterpret_cast<void**>(&m->btmDataArray),
                                                    m->currentSizeOfBTArray, slot, 0);
    if (slot >= m->currentSizeOfBTArray) return nullptr;
    VXBTMonitorDataCounters*& c = m->btmDataArray[slot];
    if (!c) c = new_counters(btId, slot, tagName);
    return c;
}

/* ---- Tag sequences ----------------------------------------------------- */

vx::BTTagSeqSource g_tag_source = get_json_bt_per_thread;

/* An entry of tag_obj_map made here: the tag object and its key. */
struct VXBTTagEntry {
    VXBTTagObject tag;
    char key[1];
};

/* The id of a tag sequence, numbered by the count of tag_obj_map when new
 * (record 112 then announces it). -1 without memory.
 * Entries stay for the instance's life: the map is made once, if missing, so
 * a tag sequence keeps its id (and its record 112) across sessions. */
int tag_id_of(VXProxyInstance_t* app, const char* seq)
{
    VXBTTagManager& t = app->tagManager;
    int id;
    {
        vx::VXLockGuard guard(t.tag_obj_map_lock);
        if (!t.tag_obj_map) return -1;
        if (auto* o =
                static_cast<VXBTTagObject*>(apr_hash_get(t.tag_obj_map, seq, APR_HASH_KEY_STRING)))
            return o->tagId;
        const size_t n = strlen(seq) + 1;
        if (!t.tagPool && apr_pool_create(&t.tagPool, nullptr) != APR_SUCCESS)
            return -1;
        auto* e = static_cast<VXBTTagEntry*>(apr_palloc(t.tagPool, offsetof(VXBTTagEntry, key) + n));
        if (!e) return -1;
        id = static_cast<int>(apr_hash_count(t.tag_obj_map));
        e->tag = VXBTTagObject{id, 0};
        memcpy(e->key, seq, n);
        apr_hash_set(t.tag_obj_map, e->key, APR_HASH_KEY_STRING, &e->tag);
    }
    char rec[vx::kTagRecordSize];
    vx::dump_record(rec, sizeof rec, "112,%d,%s\n", id, seq);
    return id;
}

void free_seq_list(BTTagSeqArray* n)
{
    while (n) {
        BTTagSeqArray* next = n->next;
        free(n->tagSeq);
        free(n);
        n = next;
    }
}

/* UpdateTagSeqForBT: the flowpath's tag sequence becomes the BT's list on
 * the record, with its tag id and slot. The list holds the current
 * flowpath's sequence only: those of earlier flowpaths on the record would
 * otherwise be counted again with every later one (see drop_stale_seqs).
 * The record's thread. */
void UpdateTagSeqForBT(VXPerThreadData_t* vxTD, VXMonitorDataModel* m, int id)
{
    resolveInlineTag(vxTD, id);
    BTTagSeqArray* node = g_tag_source(vxTD, id);
    if (!node) return;
    VXProxyInstance_t* app = vx_app();
    node->next = nullptr;
    node->flowpathInstance = vxTD->flowpathInstance;
    node->tagId = node->tagSeq ? tag_id_of(app, node->tagSeq) : -1;
    node->slot = -1;
    if (node->tagId >= 0) {
        char key[32];
        snprintf(key, sizeof key, "%d-%d", id, node->tagId);
        node->slot = slot_of_key(key);
    }
    vx::VXLockGuard guard(m->lockForBT);
    if (id >= m->currentSizeOfBTSeqArray)
        m->currentSizeOfBTSeqArray = handleSizeDataArr(reinterpret_cast<void**>(&m->btTagSeqArray),
                                                       m->currentSizeOfBTSeqArray, id, 0);
    if (node->slot < 0 || id >= m->currentSizeOfBTSeqArray) {
        free_seq_list(node);
        return;
    }
    free_seq_list(m->btTagSeqArray[id]);
    m->btTagSeqArray[id] = node;
    /* The values resolved for this flowpath are spent; the chain stays. */
    if (m->btPerThreadArray && id < m->currentSizeOfBTPerThreadArray)
        for (BTTagArray* t = m->btPerThreadArray[id]; t; t = t->next) {
            free(t->resolvedValue);
            t->resolvedValue = nullptr;
        }
}

/* A flowpath without a sequence of its own must not count in the previous
 * flowpath's tag sets. Caller holds lockForBT. */
void drop_stale_seqs(VXMonitorDataModel* m, int btID, long long flowpathInstance)
{
    if (!m->btTagSeqArray || btID >= m->currentSizeOfBTSeqArray) return;
    BTTagSeqArray*& head = m->btTagSeqArray[btID];
    if (head && head->flowpathInstance != flowpathInstance) {
        free_seq_list(head);
        head = nullptr;
    }
}

BTTagSeqArray* seq_list(VXMonitorDataModel* m, int btID)
{
    return m->btTagSeqArray && btID < m->currentSizeOfBTSeqArray ? m->btTagSeqArray[btID] : nullptr;
}

/* ---- Aggregate array growth -------------------------------------------- */

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

/* ---- The fold ---------------------------------------------------------- */

/* Makes `arr` hold at least `need` elements at start values. The reporting
 * thread. */
bool ensure_report(VXBTMonitorDataCounters*& arr, int& size, int need)
{
    return vx::monitor_report_reserve(arr, size, need, kStart, "BT_MON");
}

/* The fold's values for the BTs' digests, under reportLock. */
vx::DigestFeeds g_feeds;

struct FoldCtx {
    VXBTMonitor_t* m;
    bool tags;
};

/* Merges one model's objects into the reporting arrays and re-initialises
 * them, under the model's lockForBT. */
void fold_model(VXMonitorDataModel* model, void* arg)
{
    auto* ctx = static_cast<FoldCtx*>(arg);
    VXBTMonitor_t& m = *ctx->m;
    vx::VXLockGuard guard(model->lockForBT);
    for (int s = 0; s < model->currentSizeOfBTArray; ++s) {
        VXBTMonitorDataCounters* o = model->btmDataArray[s];
        if (!o || (o->count == 0 && o->cpuTime == 0)) continue;
        VXBTMonitorDataCounters* a = nullptr;
        if (!o->tagName) {
            if (o->btId > 0 && o->btId <= vx::kBTCountMax &&
                ensure_report(m.reportArr, m.reportArrSize, o->btId + 1))
                a = &m.reportArr[o->btId];
        } else if (ctx->tags && ensure_report(m.tagReportArr, m.tagReportArrSize, s + 1)) {
            a = &m.tagReportArr[s];
            a->btId = o->btId;
            /* The model may free its object once unlocked: the text is copied. */
            if (!a->tagName) a->tagName = strdup(o->tagName);
        }
        if (a) {
            if (!o->tagName) g_feeds.add(o->btId, o->duration); /* tag sets have no digest */
            merge(a, o);
            a->dataExist = 1;
            a->unique_id = s;
        }
        counters_reset(o);
    }
}

/* The text of a tag set the first time it is reported, else "" (and the
 * set is marked as sent). */
const char* tag_text_once(VXProxyInstance_t* app, const char* tagName)
{
    VXBTTagManager& t = app->tagManager;
    vx::VXLockGuard guard(t.tag_obj_map_lock);
    auto* o =
        t.tag_obj_map
            ? static_cast<VXBTTagObject*>(apr_hash_get(t.tag_obj_map, tagName, APR_HASH_KEY_STRING))
            : nullptr;
    if (!o || o->sent) return "";
    o->sent = 1;
    return tagName;
}

double mean(long long sum, int n)
{
    return n > 0 ? static_cast<double>(sum) / n : 0.0;
}

/* Minimums that no transaction touched show as 500000.0. */
double min_or_untouched(long long v, long long start)
{
    return v == start ? 500000.0 : static_cast<double>(v);
}

int ids_size(VXBTMonitor_t& m)
{
    return vx::load_acquire(m.aggDataArraySize);
}

}  // namespace

/* ---- Entry points ------------------------------------------------------ */

int vx::bt_monitor_grown_size(int oldLength, int id)
{
    if (oldLength < 1) oldLength = 1;
    const int step = 2 * oldLength + 1;
    return (id / step + 1) * step; /* ids and slots stay within kBTSlotMax */
}

extern "C" void createVectorPrefix(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    vx::monitor_vector_prefix(app->VXBTMonitor.vectorPrefix, app->VXBTMonitor.vectorPrefixID);
}

extern "C" void VXBTMonitorInit(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    VXBTMonitor_t& m = app->VXBTMonitor;
    if (!m.btGlobalTag_lock) m.btGlobalTag_lock = vx::mutex_create(app->control_pool);
    if (!m.reportLock) m.reportLock = vx::mutex_create(app->control_pool);
    createVectorPrefix();
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
        }
    }
    vx::bt_digests_release_all();
    {
        vx::VXLockGuard guard(app->tagManager.bt_tag_obj_map_lock);
        if (m.slotEpoch == 0) vx::store_relaxed(m.slotEpoch, 1);
    }
    if (!m.btTagArray) {
        m.btTagArray =
            static_cast<BTTagArray**>(calloc(vx::kBTAggArrayInitial, sizeof(BTTagArray*)));
        m.currentSizeOfBTTagArray = m.btTagArray ? vx::kBTAggArrayInitial : 0;
    }
    m.btGlobalTag = nullptr;
    m.maxBTCount = vx::kBTDefaultMaxCount;
    m.numberOfThreads = 0;
    vx::store_relaxed(m.isBTMonitorOn, 1);
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
    /* The digests live in reportArr and follow their BT there. */
    vx::store_release(m.aggBTDataArr[id].tlBTObj, tlBTObj);
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

void vx::tag_sequence_for_each(const std::function<bool(int id, const char* text)>& fn)
{
    VXBTTagManager& t = vx_app()->tagManager;
    if (!t.tag_obj_map_lock) return;
    vx::VXLockGuard guard(t.tag_obj_map_lock);
    if (!t.tag_obj_map) return;
    for (apr_hash_index_t* hi = apr_hash_first(nullptr, t.tag_obj_map); hi; hi = apr_hash_next(hi)) {
        const void* key = nullptr;
        void* val = nullptr;
        apr_hash_this(hi, &key, nullptr, &val);
        if (!fn(static_cast<VXBTTagObject*>(val)->tagId, static_cast<const char*>(key))) return;
    }
}

void vx::bt_tag_seq_source_set(BTTagSeqSource source)
{
    g_tag_source = source ? source : get_json_bt_per_thread;
}

int vx::bt_monitor_tag_id(const VXPerThreadData_t* vxTD)
{
    const VXMonitorDataModel* m = vxTD ? vxTD->tlMonitorDataModel : nullptr;
    if (!m || !vxTD->tlBTObj) return -1;
    const int id = vx::load_relaxed(vxTD->tlBTObj->bt_id);
    /* The array pointer changes only on the record's own thread: without
     * sequences no lock is needed to know there are none. */
    if (id < 0 || !m->btTagSeqArray) return -1;
    vx::VXLockGuard guard(m->lockForBT);
    if (id >= m->currentSizeOfBTSeqArray) return -1;
    for (const BTTagSeqArray* n = m->btTagSeqArray[id]; n; n = n->next)
        if (n->flowpathInstance == vxTD->flowpathInstance) return n->tagId;
    return -1;
}

extern "C" void updateeachbtrecord(VXPerThreadData_t* tlData, VXBTMonitorDataCounters* ptr)
{
    VXBTMonitorDataCounters* c = ptr;
    const long long d = tlData->tlDuration;
    switch (static_cast<signed char>(tlData->tlCategory)) {
        case kCategoryNormal:
            add_generic(tlData, c);
            add_category(d, c->normalCount, c->normalDuration, c->minNormalDuration,
                         c->maxNormalDuration);
            break;
        case kCategorySlow:
            add_generic(tlData, c);
            add_category(d, c->slowCount, c->slowDuration, c->minSlowDuration, c->maxSlowDuration);
            break;
        case kCategoryVerySlow:
            add_generic(tlData, c);
            add_category(d, c->verySlowCount, c->verySlowDuration, c->minVerySlowDuration,
                         c->maxVerySlowDuration);
            break;
        case kCategoryError:
            add_generic(tlData, c);
            add_category(d, c->errorCount, c->errorDuration, c->minErrorDuration,
                         c->maxErrorDuration);
            break;
        case kCategoryOther:
            add_generic(tlData, c);
            break;
        default: /* 14 "no update", excluded and unknown categories */
            break;
    }
}

extern "C" void updateBTDataCounters(VXPerThreadData_t* tlData, VXMonitorDataModel* model, int btID,
                                     VXBTMonitorDataCounters* own)
{
    for (BTTagSeqArray* n = seq_list(model, btID); n; n = n->next)
        if (VXBTMonitorDataCounters* c = object_at(model, n->slot, btID, n->tagSeq))
            updateeachbtrecord(tlData, c);
    updateeachbtrecord(tlData, own);
}

extern "C" int updatePropertiesOfBT(VXPerThreadData_t* tlData, int btID)
{
    VXProxyInstance_t* app = vx_app();
    VXMonitorDataModel* model = tlData->tlMonitorDataModel;
    if (!app || !model || !tlData->tlBTObj) return 0;
    const int slot = bt_slot(app, tlData->tlBTObj, btID);
    vx::VXLockGuard guard(model->lockForBT);
    model->lastUpdateTimeStamp = my_gettimeofday();
    drop_stale_seqs(model, btID, tlData->flowpathInstance);
    VXBTMonitorDataCounters* own = object_at(model, slot, btID, nullptr);
    if (!own) {
        VX_TRACE(trace_level(), 2, "BT_MON", "No counters for BT %d (slot %d); not counted", btID,
                 slot);
        return 0;
    }
    updateBTDataCounters(tlData, model, btID, own);
    return 1;
}

extern "C" int updateCounterAndDurationForBT(VXPerThreadData_t* vxTD)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !vxTD || !vxTD->tlBTObj) return 0;
    /* Id 0 is the overall line, never a BT's: an object without an id is
     * not counted. */
    const int id = vx::load_relaxed(vxTD->tlBTObj->bt_id);
    if (id < 1 || !vx::load_relaxed(app->VXBTMonitor.isBTMonitorOn)) return 0;
    VXMonitorDataModel* model = vx::monitor_model_of(vxTD);
    if (!model) return 0;
    if (app->VXSys.enableTagsSupport) UpdateTagSeqForBT(vxTD, model, id);
    return updatePropertiesOfBT(vxTD, id);
}

extern "C" void updateChildFPCpuTimeOfBT(VXPerThreadData_t* tlData, int btID, long long, int,
                                         long long fpCPUTime)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !tlData || !tlData->tlBTObj || btID < 1 || fpCPUTime <= 0) return;
    VXMonitorDataModel* model = vx::monitor_model_of(tlData);
    if (!model) return;
    const int slot = bt_slot(app, tlData->tlBTObj, btID);
    vx::VXLockGuard guard(model->lockForBT);
    for (BTTagSeqArray* n = seq_list(model, btID); n; n = n->next)
        if (VXBTMonitorDataCounters* c = object_at(model, n->slot, btID, n->tagSeq))
            c->cpuTime += fpCPUTime;
    if (VXBTMonitorDataCounters* c = object_at(model, slot, btID, nullptr)) c->cpuTime += fpCPUTime;
}

extern "C" void dump74RecordForEveryBT(char* buff, int* len, int bufLen,
                                       VXBTMonitorDataCounters* counterObj, int btID,
                                       const char* btName)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !buff || !len || !counterObj) return;
    const VXBTMonitor_t& m = app->VXBTMonitor;
    const VXBTMonitorDataCounters& c = *counterObj;
    const double interval = vx::monitor_interval_secs(app);
    const int cap = vx::monitor_record_begin(buff, len, bufLen);
    if (cap < 2) return;
    char* out = buff + *len;
    int n;
    if (app->VXSys.enableTagsSupport) {
        const int series = btID == 0 ? 0 : c.unique_id + 1;
        const char* text = c.tagName ? tag_text_once(app, c.tagName) : "";
        n = snprintf(out, static_cast<size_t>(cap), "74,%s%d:%s%s|%.1024s|", m.vectorPrefixID,
                     series, m.vectorPrefix, btName, text);
    } else {
        n = snprintf(out, static_cast<size_t>(cap), "74,%s%d:%s%s|", m.vectorPrefixID, btID,
                     m.vectorPrefix, btName);
    }
    if (n < 0) return;
    if (n < cap)
        n += snprintf(
            out + n, static_cast<size_t>(cap - n),
            "%lf %lf %lf %lld %d 0.0 %lf "
            "%lf %lf %lld %d %lf %lf %lld %d %lf %lf %lld %d %lf %lf %lld %d "
            "%lf %lf %lf %lf %d "
            "%lf %lld %lld %d %lf %lld %lld %d %lf %lld %lld %d\n",
            c.count / interval, mean(c.duration, c.count),
            min_or_untouched(c.minDuration, kBTMinStart), c.maxDuration, c.count,
            c.errorCount / interval, mean(c.normalDuration, c.normalCount),
            min_or_untouched(c.minNormalDuration, kBTMinStart), c.maxNormalDuration, c.normalCount,
            mean(c.slowDuration, c.slowCount), min_or_untouched(c.minSlowDuration, kBTMinStart),
            c.maxSlowDuration, c.slowCount, mean(c.verySlowDuration, c.verySlowCount),
            min_or_untouched(c.minVerySlowDuration, kBTMinStart), c.maxVerySlowDuration,
            c.verySlowCount, mean(c.errorDuration, c.errorCount),
            min_or_untouched(c.minErrorDuration, kBTMinStart), c.maxErrorDuration, c.errorCount,
            c.count > 0 ? (c.slowCount + c.verySlowCount) * 100.0 / c.count : 0.0,
            mean(c.cpuTime, c.count) / 1000000,
            /* The untouched value stands in before the unit change, as for
             * the other minimums: 0.5 on the wire. */
            min_or_untouched(c.minCpuTime, LLONG_MAX) / 1000000,
            static_cast<double>(c.maxCpuTime) / 1000000, c.count,
            /* Sync, wait and queue minimums show their start value when
             * untouched: the collector expects 2147483647 there. */
            mean(c.cumSyncTime, c.syncCount), c.minSyncTime, c.maxSyncTime, c.syncCount,
            mean(c.cumWaitTime, c.waitCount), c.minWaitTime, c.maxWaitTime, c.waitCount,
            mean(c.cumQueueTime, c.queueCount), c.minQueueTime, c.maxQueueTime, c.queueCount);
    vx::monitor_record_end(buff, len, bufLen, n, cap);
}

extern "C" int generateAndDumpBTMonitoringRecord(char* buff, int* len, int bufLen)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !buff || !len) return 0;
    VXBTMonitor_t& m = app->VXBTMonitor;
    int total;
    {
        vx::VXLockGuard guard(app->manager.bt_obj_map_lock);
        total = app->config.total_bt_count;
    }
    if (total == 0) {
        VX_TRACE(trace_level(), 2, "BT_MON",
                 "Returning without dumping any monitoring record, as no business transactions "
                 "discovered yet.");
        return 0;
    }
    vx::VXLockGuard report(m.reportLock);
    FoldCtx ctx{&m, app->VXSys.enableTagsSupport != 0};
    if (!ensure_report(m.reportArr, m.reportArrSize, ids_size(m))) return 0;
    g_feeds.n = 0;
    if (vx::monitor_models_each(fold_model, &ctx) == 0) {
        VX_TRACE(trace_level(), 2, "BT_MON",
                 "Returning without dumping any monitoring record, as no threads executed any BT "
                 "yet.");
        return 0;
    }
    /* No model lock is held from here on. */
    vx::bt_digests_feed(g_feeds.at, g_feeds.n);
    VXBTMonitorDataCounters& overall = m.reportArr[0];
    for (int id = 1; id < m.reportArrSize; ++id) {
        VXBTMonitorDataCounters& e = m.reportArr[id];
        if (!e.dataExist) continue;
        if (e.count > 0) {
            if (const BTObject* bt = vx::bt_bound_to(id, nullptr)) {
                dump74RecordForEveryBT(buff, len, bufLen, &e, id, bt->bt_name);
                merge(&overall, &e);
            } else {
                VX_TRACE(trace_level(), 2, "BT_MON", "No BT bound to id %d; its counters go", id);
            }
        }
        counters_reset(&e);
    }
    for (int s = 0; s < m.tagReportArrSize; ++s) {
        VXBTMonitorDataCounters& e = m.tagReportArr[s];
        if (!e.dataExist) continue;
        const BTObject* bt = vx::bt_bound_to(e.btId, nullptr);
        if (e.count > 0 && bt) dump74RecordForEveryBT(buff, len, bufLen, &e, e.btId, bt->bt_name);
        counters_reset(&e);
        free(e.tagName);
        e.tagName = nullptr;
    }
    dump74RecordForEveryBT(buff, len, bufLen, &overall, 0, kOverallName);
    counters_reset(&overall);
    return 1;
}

int vx::bt_monitor_series_id(int btId)
{
    VXProxyInstance_t* app = vx_app();
    if (!app->VXSys.enableTagsSupport) return btId;
    char key[16];
    snprintf(key, sizeof key, "%d", btId);
    int slot;
    {
        vx::VXLockGuard guard(app->tagManager.bt_tag_obj_map_lock);
        slot = slot_found(app->tagManager, key);
    }
    if (slot < 0) {
        VX_TRACE(trace_level(), 2, "BT_MON", "BT %d has no counter slot; its series id is its id",
                 btId);
        return btId;
    }
    return slot + 1;
}

extern "C" void Free_BT_Tag_Map(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    vx::bt_slot_map_reset();
}

void vx::bt_slot_map_reset()
{
    VXProxyInstance_t* app = vx_app();
    VXBTTagManager& t = app->tagManager;
    vx::VXLockGuard guard(t.bt_tag_obj_map_lock);
    /* The map and its entries go with their pool; slots start again at 0. */
    if (t.slotPool) apr_pool_destroy(t.slotPool);
    t.slotPool = nullptr;
    t.bt_tag_obj_map = nullptr;
    if (apr_pool_create(&t.slotPool, nullptr) == APR_SUCCESS)
        t.bt_tag_obj_map = apr_hash_make(t.slotPool);
    else
        VX_ERROR("BT_MON", "No memory for the counter slots' map; BTs are not counted");
    int epoch = (app->VXBTMonitor.slotEpoch + 1) & 0xFFFFFF;
    vx::store_relaxed(app->VXBTMonitor.slotEpoch, epoch ? epoch : 1);
}
