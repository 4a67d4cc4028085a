/* HB_STACK, the map families and the thread helper. */
#include <apr_pools.h>
#include <apr_thread_proc.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>
#include <ctime>
#include <string>

#include "agent/vx_instance.h"
#include "core/vx_hashmap.h"
#include "core/vx_platform.h"
#include "core/vx_stack.h"
#include "core/vx_thread.h"
#include "vx_test_support.h"

namespace {

using vx_test::S;

class PoolTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(apr_pool_create(&pool_, nullptr), APR_SUCCESS); }
    void TearDown() override { apr_pool_destroy(pool_); }
    apr_pool_t* pool_ = nullptr;
};

TEST(HbStack, PushCopiesDataPopsInReverseAndReusesBlocksThatFit)
{
    HB_STACK s{};
    hbStackInit(&s);
    EXPECT_EQ(hbStackPop(&s), nullptr);
    EXPECT_EQ(hbStackPop(nullptr), nullptr);
    char buf[8] = "first";
    hbStackPush(&s, buf, 6);
    strcpy(buf, "second");
    hbStackPush(&s, buf, 7);
    strcpy(buf, "gone");
    EXPECT_STREQ(static_cast<char*>(hbStackPop(&s)), "second");
    EXPECT_STREQ(static_cast<char*>(hbStackPop(&s)), "first");
    EXPECT_EQ(hbStackPop(&s), nullptr);

    /* A popped block large enough is reused; a slot's capacity only grows. */
    char big[100];
    memset(big, 'b', sizeof big);
    hbStackPush(&s, big, 16);
    void* block = hbStackPop(&s);
    hbStackPush(&s, S("tiny"), 5);
    EXPECT_EQ(s.size[0], 16) << "a smaller push must not shrink the slot";
    void* again = hbStackPop(&s);
    EXPECT_EQ(again, block) << "a block large enough is reused";
    EXPECT_STREQ(static_cast<char*>(again), "tiny");
    hbStackPush(&s, big, 100);
    EXPECT_EQ(s.size[0], 100);
    EXPECT_EQ(memcmp(hbStackPop(&s), big, 100), 0);
    hbStackFree(&s);
}

TEST(HbStack, GrowsBySixtyFourZeroedSlotsAndFreeResets)
{
    HB_STACK s{};
    hbStackInit(&s);
    for (int i = 0; i < 64; ++i) hbStackPush(&s, &i, sizeof i);
    EXPECT_EQ(s.alloc_size, 64);
    int v = 64;
    hbStackPush(&s, &v, sizeof v);
    ASSERT_EQ(s.alloc_size, 128);
    for (int i = 65; i < 128; ++i)
        EXPECT_TRUE(s.client_data[i] == nullptr && s.size[i] == 0) << "slot " << i;
    for (int i = 64; i >= 0; --i) EXPECT_EQ(*static_cast<int*>(hbStackPop(&s)), i);
    EXPECT_EQ(hbStackPop(&s), nullptr);

    hbStackFree(&s);
    EXPECT_TRUE(s.alloc_size == 0 && s.top == -1 && !s.client_data && !s.size);
    EXPECT_EQ(hbStackPop(&s), nullptr);
    hbStackPush(&s, &v, sizeof v); /* a freed stack can be used again */
    EXPECT_EQ(*static_cast<int*>(hbStackPop(&s)), 64);
    hbStackFree(&s);
}

using VxHashMap = PoolTest;

TEST_F(VxHashMap, StringMapLooksUpByTextAndNullValueRemoves)
{
    apr_hash_t* ht = create_hashmap(pool_);
    ASSERT_NE(ht, nullptr);
    static char key[] = "order/42", ms_key[] = "mscorlib";
    char probe[] = "order/42", other[] = "order/4";
    int a = 1, b = 2;
    modify_hashmap(key, &a, ht);
    EXPECT_EQ(search_hashmap(probe, ht), &a) << "lookup is by text, not by pointer";
    EXPECT_EQ(search_hashmap(other, ht), nullptr);
    modify_hashmap(key, &b, ht);
    EXPECT_EQ(search_hashmap(probe, ht), &b);
    modify_hashmap(key, nullptr, ht);
    EXPECT_EQ(search_hashmap(probe, ht), nullptr);
    EXPECT_EQ(apr_hash_count(ht), 0u);

    modify_hashmap_for_mscorlib(ms_key, &a, ht);
    EXPECT_EQ(search_hashmap(ms_key, ht), &a);
    modify_hashmap(key, &b, ht);
    iterate_hashtable_and_free_hashmap(ht);
    EXPECT_EQ(apr_hash_count(ht), 0u);
}

TEST_F(VxHashMap, IntAndUint16MapsKeyOnTheWholeValue)
{
    apr_hash_t* ints = create_hashmap(pool_);
    static int k7 = 7, k263 = 263;
    time_t t7 = 700, t263 = 26300;
    modify_int_hashmap(&k7, &t7, ints);
    modify_int_hashmap(&k263, &t263, ints);
    int probe[] = {7, 263, 8};
    EXPECT_EQ(search_int_hashmap(&probe[0], ints), &t7);
    EXPECT_EQ(search_int_hashmap(&probe[1], ints), &t263);
    EXPECT_EQ(search_int_hashmap(&probe[2], ints), nullptr);
    modify_int_hashmap(&k7, nullptr, ints);
    EXPECT_EQ(search_int_hashmap(&probe[0], ints), nullptr);
    EXPECT_EQ(apr_hash_count(ints), 1u);

    /* 1 and 257 share their low byte. */
    apr_hash_t* ports = create_hashmap(pool_);
    static apr_port_t p1 = 1, p257 = 257;
    int v1 = 1, v257 = 257;
    modify_uint16_hashmap(&p1, &v1, ports);
    modify_uint16_hashmap(&p257, &v257, ports);
    apr_port_t pp[] = {1, 257};
    EXPECT_EQ(search_uint16_hashmap(&pp[0], ports), &v1);
    EXPECT_EQ(search_uint16_hashmap(&pp[1], ports), &v257);
    modify_uint16_hashmap(&p1, nullptr, ports);
    EXPECT_EQ(search_uint16_hashmap(&pp[0], ports), nullptr);
    EXPECT_EQ(apr_hash_count(ports), 1u);
}

TEST(VxIntKeyMaps, GetAndRemoveGivesStoredValueOnceAndMapsAreSeparate)
{
    int a = 10, b = 20;
    EXPECT_EQ(hashMapPutIntKey_c(3, 42, &a), 0);
    EXPECT_EQ(hashMapPutIntKey_c(4, 42, &b), 0);
    EXPECT_EQ(hashMapPutIntKey_c(3, 43, &b), 0);
    EXPECT_EQ(hashMapGetAndRemoveIntKey_c(3, 42), &a);
    EXPECT_EQ(hashMapGetAndRemoveIntKey_c(3, 42), nullptr) << "removed on the first get";
    EXPECT_EQ(hashMapGetAndRemoveIntKey_c(4, 42), &b);
    EXPECT_EQ(hashMapGetAndRemoveIntKey_c(3, 43), &b);
    hashMapPutIntKey_c(3, 42, &a);
    hashMapPutIntKey_c(3, 42, &b);
    EXPECT_EQ(hashMapGetAndRemoveIntKey_c(3, 42), &b) << "a second put replaces";
    for (int type : {-1, 10}) {
        EXPECT_EQ(hashMapPutIntKey_c(type, 42, &a), 0);
        EXPECT_EQ(hashMapGetAndRemoveIntKey_c(type, 42), nullptr) << "type " << type;
    }
}

struct ThreadProbe {
    long long tid = 0;
    size_t stack_size = 0;
};

void* APR_THREAD_FUNC probe_thread(apr_thread_t* thread, void* data)
{
    auto* p = static_cast<ThreadProbe*>(data);
    p->tid = static_cast<long long>(syscall(SYS_gettid));
    pthread_attr_t attr;
    if (pthread_getattr_np(pthread_self(), &attr) == 0) {
        pthread_attr_getstacksize(&attr, &p->stack_size);
        pthread_attr_destroy(&attr);
    }
    apr_thread_exit(thread, 77);
    return nullptr;
}

class VxThread : public PoolTest {
protected:
    void TearDown() override
    {
        vx_test::agent()->VXBCISetting.stackSize = saved_;
        PoolTest::TearDown();
    }
    int saved_ = vx_test::agent()->VXBCISetting.stackSize;
};

TEST_F(VxThread, CreateRunsThreadWithConfiguredStackSize)
{
    for (int kib : {512, 1024}) {
        vx_test::agent()->VXBCISetting.stackSize = kib;
        ThreadProbe probe;
        apr_thread_t* t = nullptr;
        char err[128] = "";
        ASSERT_EQ(vxlb_thread_create(&t, probe_thread, &probe, err, sizeof err, pool_), 0) << err;
        apr_status_t rv = APR_EGENERAL;
        ASSERT_EQ(apr_thread_join(&rv, t), APR_SUCCESS);
        EXPECT_EQ(rv, 77) << "the start function ran to its exit";
        EXPECT_NE(probe.tid, static_cast<long long>(syscall(SYS_gettid)));
        /* The C library may hand over a cached stack of an ended thread, up
         * to four times the size asked; the default (8 MiB) is not one. */
        EXPECT_GE(probe.stack_size, static_cast<size_t>(kib) * 1024) << kib << " KiB";
        EXPECT_LE(probe.stack_size, static_cast<size_t>(kib) * 4096) << kib << " KiB";
    }
}

}  // namespace
