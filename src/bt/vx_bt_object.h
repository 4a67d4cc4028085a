/*
 * Business transactions: the BTObject a flowpath is bound to, the manager's
 * name map, and the category of a finished transaction.
 *
 * STAND-IN(bt-rules): until the rule files and the
 * URL matcher exist, get_obj_from_bt_name gives one BT per URL path, with ids
 * from 2 (0 is the overall line, 1 is "Others"). findCategoryOfBT is final.
 *
 * Lock order: a flowpath's updateBTLock before bt_obj_map_lock.
 */
#ifndef VX_BT_OBJECT_H
#define VX_BT_OBJECT_H

#include <apr_hash.h>
#include <apr_pools.h>
#include <apr_thread_mutex.h>

struct VXPerThreadData_t;

/* Slow and very slow, in milliseconds. */
struct Threshold {
    long long slow;
    long long very_slow;
};

struct BTObject {
    int bt_id;
    char* bt_name;
    Threshold bt_threshold;
    int is_meta_data_dumped;
};

struct VXBTManager {
    apr_pool_t* bt_pool;    /* BT objects and their names; they live as long as the instance */
    apr_hash_t* bt_obj_map; /* name -> BTObject */
    apr_thread_mutex_t* bt_obj_map_lock;
    int total_bt_count;
    int max_bt_count;
};

/* Categories of record 4. */
enum VXCategory : int {
    kCategoryNormal = 10,
    kCategorySlow = 11,
    kCategoryVerySlow = 12,
    kCategoryError = 13,
    kCategoryExcluded = -99,
};

extern "C" {

/* Prepare the manager of the current instance. */
void VXBTManagerInit(void);

/* Session end: forget every BT, so that the next session numbers and
 * announces them anew. The objects stay in bt_pool: flowpaths still running
 * may hold them. */
void VXBTManagerReset(void);

/* Classify one request; null means the transaction is excluded. May emit
 * record 7 for a BT seen for the first time. Any thread. */
BTObject* get_obj_from_bt_name(char* url, char* parameters, char* btHeaderValue,
                               apr_thread_mutex_t* updateBTLock, char* httpMethod);

/* 13 when the status is an error by the BT error table, else 10, 11 or 12 by
 * the thresholds. A status outside 0..599 is never an error. */
int findCategoryOfBT(Threshold bt_threshold, long long duration, int statusCode,
                     VXPerThreadData_t* vxTD);
}

#endif
