/*
 * Maps over APR hash tables.
 *
 * String-keyed maps do not copy their keys: the caller keeps a key alive as
 * long as its entry exists. Setting a null value removes the entry. Writes
 * take one process-wide lock per map family; reads take the same lock as
 * readers, since an APR table may be resized by a concurrent write.
 *
 * Lock order: each family lock is taken alone or innermost.
 */
#ifndef VX_HASHMAP_H
#define VX_HASHMAP_H

#include <apr_hash.h>
#include <apr_network_io.h>
#include <apr_pools.h>

#include <ctime>

extern "C" {

/* A new map in a subpool of `mp` of its own, so that its allocations never
 * race with other users of `mp`. Null on failure. */
apr_hash_t* create_hashmap(apr_pool_t* mp);

void modify_hashmap(void* key, void* value, apr_hash_t* ht);
void* search_hashmap(void* s1, apr_hash_t* ht);

void modify_int_hashmap(int* key, time_t* value, apr_hash_t* ht);
time_t* search_int_hashmap(int* s1, apr_hash_t* ht);

void modify_uint16_hashmap(apr_port_t* key, void* value, apr_hash_t* ht);
void* search_uint16_hashmap(apr_port_t* s1, apr_hash_t* ht);

void modify_hashmap_for_mscorlib(void* key, void* value, apr_hash_t* ht);

/* Empty the map (apr_hash_clear); null does nothing. */
void iterate_hashtable_and_free_hashmap(apr_hash_t* ht);

/* Integer-keyed maps hashArray[hashMapType] (0..9), created on first use. */
char hashMapPutIntKey_c(int hashMapType, int key, int* value);
int* hashMapGetAndRemoveIntKey_c(int hashMapType, int key);
}

namespace vx {

/* Remove `key` only while it still maps to `expected`; returns whether it
 * did. Used where two owners could share one key text. */
bool remove_hashmap_if(void* key, void* expected, apr_hash_t* ht);

/* Set `key` only when it is absent; returns whether it did. With
 * remove_hashmap_if this keeps a borrowed key owned by the entry's value. */
bool insert_hashmap_if_absent(void* key, void* value, apr_hash_t* ht);

}  // namespace vx

#endif
