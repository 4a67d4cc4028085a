/*
 * Business transactions: the BTObject a flowpath is bound to, the two name
 * maps, id allocation, "Others", the category of a finished transaction and
 * the BT metadata record 7.
 *
 * Ids: 0 is the overall line of the monitor and never a BT; 1 is "Others";
 * rule lines give their own ids; BTs discovered at run time take the next
 * value of total_bt_count (the first is 2), at most max_bt_count of them,
 * after which new names fold into "Others". No id is reused in a session.
 *
 * Lifetime: a BTObject is never freed while the instance lives. At a
 * session's clean-up the session's objects go to a recycling list by name,
 * and a later session that makes a BT of the same name takes one from there;
 * a flowpath still holding an object of an old session thus always reads
 * valid memory, and memory is bounded by the names ever seen.
 *
 * Threads: request threads read bt_id and bt_threshold of objects they hold
 * (atomically: a rule re-read may change them); everything else is under
 * bt_obj_map_lock. Lock order: a flowpath's updateBTLock, then
 * bt_obj_map_lock, then the data door.
 */
#ifndef VX_BT_OBJECT_H
#define VX_BT_OBJECT_H

#include <apr_hash.h>
#include <apr_pools.h>
#include <apr_thread_mutex.h>

#include "core/vx_limits.h"

struct VXPerThreadData_t;

/* Slow and very slow, in milliseconds. */
struct Threshold {
    int slow;
    int very_slow;
};

struct BTObject {
    char bt_name[vx::kBTNameSize];
    char bt_category;        /* reserved */
    int is_meta_data_dumped; /* record 7 went out from discovery */
    int bt_id;               /* 0: not assigned yet */
    long long bt_startTime;  /* auto-instrumentation window, seconds */
    long long bt_endTime;
    long long dd_IntervalTime;
    char AIFlag;
    Threshold bt_threshold;
    int enableBodyCapture;
    int maxBodySize;
    int selfID; /* rule id of the pattern rule that made it, -1 none */
    int parentID;
    int prevPID;
    int isBTOverride;
    int btCounter;
    BTObject* recycleNext; /* the session's objects, then the recycling chain */
    long long monitorSlot; /* the BT monitor's slot cache (vx_bt_monitor.h); atomic */
};

struct BTObjectMap {
    apr_hash_t* hash; /* name -> BTObject* */
};

/* BTs named by rule lines. */
struct VXBTConfigModel {
    BTObjectMap bt_obj_map;
    int max_bt_count;
    int total_bt_count;
};

/* Every BT in use, by name. */
struct VXBTManager {
    apr_thread_mutex_t* bt_obj_map_lock;
    BTObjectMap bt_obj_map;
};

struct VXBTTagManager {
    apr_thread_mutex_t* tag_obj_map_lock;
    apr_hash_t* tag_obj_map; /* tag sequence text -> tag id and "sent" */
    apr_thread_mutex_t* bt_tag_obj_map_lock;
    apr_hash_t* bt_tag_obj_map; /* "<bt id>" or "<bt id>-<tag id>" -> counter slot */
    /* Where the two maps' entries live, each used only under its map's
     * lock (host threads add entries): tagPool for tag_obj_map's,
     * slotPool for bt_tag_obj_map and its entries, made anew each session.
     * Both are children of APR's global pool, whose allocator is locked, so
     * any thread may make or destroy them. */
    apr_pool_t* tagPool;
    apr_pool_t* slotPool;
};

/* A tag sequence and whether its record went out. */
struct VXBTTagObject {
    int tagId;
    int sent;
};

/* Where BT objects come from and go to; owned by the BT model. */
struct VXBTObjectStore {
    apr_pool_t* pool;         /* long-lived: objects and the maps' keys */
    BTObject* sessionObjects; /* made in this session, chained by recycleNext */
    apr_hash_t* recycled;     /* name -> chain of objects of ended sessions */
};

/* Categories of record 4. */
enum VXCategory : int {
    kCategoryNormal = 10,
    kCategorySlow = 11,
    kCategoryVerySlow = 12,
    kCategoryError = 13,
    kCategoryNoUpdate = 14,
    kCategoryOther = 15,
    kCategoryExcluded = -99, /* the byte 157 */
};

inline constexpr int kOthersBTId = 1;
inline constexpr char kOthersBTName[] = "Others";

extern "C" {

/* Sets up the model (maps, locks, default tags, the BT monitor), reads the
 * threshold and rule files of the home directory, and falls back to the
 * default global rule. Control thread, at agent start and session start. */
void VXBTConfigModelInit(void);

/* Finds or makes the BT of that name; `bt_name` must be writable and hold
 * kBTNameSize bytes (it becomes "Others" past max_bt_count). Null for an
 * empty name: the transaction is excluded. Takes bt_obj_map_lock. */
BTObject* updateBTObject(char* bt_name);

BTObject* find_bt_obj_in_manager_map(char* bt_name);

/* Registers a BT from a rule line (bt_id > 0) or only a threshold (-1).
 * The caller holds bt_obj_map_lock. Never null but on memory exhaustion. */
BTObject* find_bt_obj_in_config_map(char* bt_name, int bt_id, int slow, int verySlow, int selfID,
                                    int parentID);

BTObject* make_new_bt_obj(char* bt_name, int bt_id, int slow, int verySlow);

/* Copies the key into the model's pool and stores the pair. */
void insert_in_hasmap(char* key, BTObject* bt_obj, apr_hash_t* hash);

/* Emits record 7, "7,<id>,<name>". */
void dumpBtMetaData(char* BtName, int BtId);

/* Forgets every BT of manager.bt_obj_map; the objects are recycled, never
 * freed. The caller holds bt_obj_map_lock. */
void free_BTObjMap(void);

/* 13 when the status is an error by btErrorArray, else by the thresholds:
 * 10 normal, 11 slow, 12 very slow. A status outside 0..599 is not an error. */
int findCategoryOfBT(Threshold bt_threshold, long long duration, int statusCode,
                     VXPerThreadData_t* vxTD);
int getBTCategoryBasedOnThresold(VXPerThreadData_t* vxTD, Threshold bt_threshold,
                                 long long duration);

/* The value of the item "<key>=" in a BT header text "k=v&k=v&", cut in
 * place; null when the item is absent or no '&' follows it. */
char* getBtBaseOnHeader1(char* btHeaderValue, char* correlation_header);
/* The same with the global rule's header as key. */
char* getBtBaseOnHeader(char* btHeader_val);
}

namespace vx {

/* The thresholds a request thread reads of a BT it holds. */
inline Threshold bt_threshold_of(const BTObject* bt);

/* Session clean-up: clears the monitor's bindings, forgets the session's BTs
 * and frees rule sets retired long enough ago. */
void bt_session_free();

}  // namespace vx

#include "core/vx_atomic.h"

inline Threshold vx::bt_threshold_of(const BTObject* bt)
{
    return Threshold{vx::load_relaxed(bt->bt_threshold.slow),
                     vx::load_relaxed(bt->bt_threshold.very_slow)};
}

#endif
