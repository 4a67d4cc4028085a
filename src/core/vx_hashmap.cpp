#include "core/vx_hashmap.h"

#include <apr_thread_rwlock.h>

#include <memory>
#include <mutex>
#include <unordered_map>

#include "core/vx_limits.h"
#include "core/vx_thread.h"
#include "core/vx_trace_log.h"

namespace {

/*
 * One reader-writer lock per map family, created on first use. The original
 * design had writers-only mutexes; reads take the lock as readers because an
 * APR table may be resized by a concurrent write.
 */
struct FamilyLock {
    std::once_flag once;
    apr_thread_rwlock_t* lock = nullptr;
    apr_pool_t* pool = nullptr;

    apr_thread_rwlock_t* get()
    {
        std::call_once(once, [this] {
            if (apr_pool_create(&pool, nullptr) == APR_SUCCESS)
                apr_thread_rwlock_create(&lock, pool);
        });
        return lock;
    }
};

FamilyLock modify_hashmap_lock;
FamilyLock modify_int_hashmap_lock;
FamilyLock modify_u16_hashmap_lock;
FamilyLock modify_mscore_hashmap_lock;

class WriteGuard {
public:
    explicit WriteGuard(FamilyLock& f) : l_(f.get())
    {
        if (l_) apr_thread_rwlock_wrlock(l_);
    }
    ~WriteGuard()
    {
        if (l_) apr_thread_rwlock_unlock(l_);
    }

private:
    apr_thread_rwlock_t* l_;
};

class ReadGuard {
public:
    explicit ReadGuard(FamilyLock& f) : l_(f.get())
    {
        if (l_) apr_thread_rwlock_rdlock(l_);
    }
    ~ReadGuard()
    {
        if (l_) apr_thread_rwlock_unlock(l_);
    }

private:
    apr_thread_rwlock_t* l_;
};

void set_locked(FamilyLock& f, const void* key, apr_ssize_t klen, const void* value,
                apr_hash_t* ht)
{
    if (!ht || !key) return;
    WriteGuard g(f);
    apr_hash_set(ht, key, klen, value);
}

void* get_locked(FamilyLock& f, const void* key, apr_ssize_t klen, apr_hash_t* ht)
{
    if (!ht || !key) return nullptr;
    ReadGuard g(f);
    return apr_hash_get(ht, key, klen);
}

/* hashArray: up to ten integer-keyed maps. Owning containers, so that keys
 * removed are freed and memory stays bounded. */
struct IntMaps {
    std::once_flag once;
    apr_pool_t* pool = nullptr;
    apr_thread_mutex_t* arrayHashMapLock = nullptr;

    apr_thread_mutex_t* lock()
    {
        std::call_once(once, [this] {
            if (apr_pool_create(&pool, nullptr) == APR_SUCCESS) arrayHashMapLock = vx::mutex_create(pool);
        });
        return arrayHashMapLock;
    }
    std::unique_ptr<std::unordered_map<int, int*>> hashArray[vx::kIntHashMapCount];
};
IntMaps g_int_maps;

}  // namespace

extern "C" apr_hash_t* create_hashmap(apr_pool_t* mp)
{
    apr_pool_t* sub = nullptr;
    if (apr_pool_create(&sub, mp) != APR_SUCCESS) return nullptr;
    return apr_hash_make(sub);
}

extern "C" void modify_hashmap(void* key, void* value, apr_hash_t* ht)
{
    set_locked(modify_hashmap_lock, key, APR_HASH_KEY_STRING, value, ht);
}

extern "C" void* search_hashmap(void* s1, apr_hash_t* ht)
{
    return get_locked(modify_hashmap_lock, s1, APR_HASH_KEY_STRING, ht);
}

extern "C" void modify_int_hashmap(int* key, time_t* value, apr_hash_t* ht)
{
    set_locked(modify_int_hashmap_lock, key, sizeof(int), value, ht);
}

extern "C" time_t* search_int_hashmap(int* s1, apr_hash_t* ht)
{
    return static_cast<time_t*>(get_locked(modify_int_hashmap_lock, s1, sizeof(int), ht));
}

extern "C" void modify_uint16_hashmap(apr_port_t* key, void* value, apr_hash_t* ht)
{
    set_locked(modify_u16_hashmap_lock, key, sizeof(apr_port_t), value, ht);
}

extern "C" void* search_uint16_hashmap(apr_port_t* s1, apr_hash_t* ht)
{
    return get_locked(modify_u16_hashmap_lock, s1, sizeof(apr_port_t), ht);
}

extern "C" void modify_hashmap_for_mscorlib(void* key, void* value, apr_hash_t* ht)
{
    set_locked(modify_mscore_hashmap_lock, key, APR_HASH_KEY_STRING, value, ht);
}

extern "C" void iterate_hashtable_and_free_hashmap(apr_hash_t* ht)
{
    if (!ht) return;
    WriteGuard g(modify_hashmap_lock);
    apr_hash_clear(ht);
}

extern "C" char hashMapPutIntKey_c(int hashMapType, int key, int* value)
{
    if (hashMapType < 0 || hashMapType >= vx::kIntHashMapCount) return 0;
    IntMaps& m = g_int_maps;
    try {
        vx::VXLockGuard g(m.lock());
        auto& map = m.hashArray[hashMapType];
        if (!map) map = std::make_unique<std::unordered_map<int, int*>>();
        (*map)[key] = value;
    } catch (...) {
        VX_ERROR("CONTROL_THREAD", "Error in allocating hashMap entry");
    }
    return 0;
}

extern "C" int* hashMapGetAndRemoveIntKey_c(int hashMapType, int key)
{
    IntMaps& m = g_int_maps;
    if (hashMapType < 0 || hashMapType >= vx::kIntHashMapCount) {
        VX_ERROR("CONTROL_THREAD", "HashMap does not exit.");
        return nullptr;
    }
    vx::VXLockGuard g(m.lock());
    auto& map = m.hashArray[hashMapType];
    if (!map) {
        VX_ERROR("CONTROL_THREAD", "HashMap does not exit.");
        return nullptr;
    }
    auto it = map->find(key);
    if (it == map->end()) {
        VX_ERROR("CONTROL_THREAD", "Key does not exist in hashMap");
        return nullptr;
    }
    int* v = it->second;
    map->erase(it);
    return v;
}

namespace vx {

bool remove_hashmap_if(void* key, void* expected, apr_hash_t* ht)
{
    if (!ht || !key) return false;
    WriteGuard g(modify_hashmap_lock);
    if (apr_hash_get(ht, key, APR_HASH_KEY_STRING) != expected) return false;
    apr_hash_set(ht, key, APR_HASH_KEY_STRING, nullptr);
    return true;
}

bool insert_hashmap_if_absent(void* key, void* value, apr_hash_t* ht)
{
    if (!ht || !key) return false;
    WriteGuard g(modify_hashmap_lock);
    if (apr_hash_get(ht, key, APR_HASH_KEY_STRING)) return false;
    apr_hash_set(ht, key, APR_HASH_KEY_STRING, value);
    return true;
}

}  // namespace vx
