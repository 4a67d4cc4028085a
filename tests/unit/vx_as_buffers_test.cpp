/*
 * The auto-sensor channel's buffers: the add cases, growth only once the
 * free list is empty, the batch clamp and drops counted at the ceiling. The
 * list algorithm it shares with the data channel is tested over a mixed run
 * there.
 */
#include "link/vx_as_buffers.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "agent/vx_instance.h"
#include "core/vx_thread.h"
#include "vx_test_support.h"

namespace {

class ASBuffers : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(!ch_.writeListAS && !ch_.readListAS && !ch_.bufferWriteLockAS);
        ASSERT_EQ(apr_pool_create(&pool_, nullptr), APR_SUCCESS);
        ch_.bufferWriteLockAS = vx::mutex_create(pool_);
        ch_.bufferMoveLockAS = vx::mutex_create(pool_);
        app_->VXSys.discardCount = 0;
        configure(8, 2, 16);
    }

    void TearDown() override
    {
        for (nioSettings_t* head : {ch_.writeListAS, ch_.readListAS})
            while (nioSettings_t* n = head) head = n->next, free(n->buff), free(n);
        ch_ = VXAutoSensorChannel_t{};
        apr_pool_destroy(pool_);
    }

    void configure(int size, int min, int max)
    {
        app_->VXSys.bciASDataBufferMaxSize = size;
        app_->VXSys.ASDataBuffMinCount = min;
        app_->VXSys.ASDataBuffMaxCount = max;
    }

    static int add(const std::string& rec)
    {
        return addDataInASSendBuffer(const_cast<char*>(rec.data()), static_cast<int>(rec.size()));
    }

    /* Every byte in the lists, read list first, then the write list. */
    std::string contents() const
    {
        std::string out;
        for (nioSettings_t* head : {ch_.readListAS, ch_.writeListAS})
            for (; head; head = head->next)
                out.append(head->buff, static_cast<size_t>(head->use_len));
        return out;
    }

    void expect_nodes_conserved() const
    {
        int w = 0, r = 0;
        for (nioSettings_t* n = ch_.writeListAS; n; n = n->next) ++w;
        for (nioSettings_t* n = ch_.readListAS; n; n = n->next) ++r;
        EXPECT_EQ(w, ch_.writeListSizeAS);
        EXPECT_EQ(r, ch_.readListSizeAS);
        EXPECT_EQ(w + r, ch_.curBuffers);
        EXPECT_EQ(ch_.VXBCIAgentBBAS, ch_.writeListAS);
        EXPECT_EQ(ch_.VXCollectorBBAS, ch_.readListAS);
    }

    VXProxyInstance_t* app_ = vx_test::agent();
    VXAutoSensorChannel_t& ch_ = app_->asChannel;
    apr_pool_t* pool_ = nullptr;

private:
    vx_test::Restore keep_{app_->VXSys};
};

/* Two buffers of 8 bytes; the records carry distinct bytes so that what is
 * kept can be compared with what was offered. */
TEST_F(ASBuffers, AddCases)
{
    struct Case {
        const char* name;
        bool built;
        std::vector<std::string> records;
        std::vector<int> results;
        std::string kept;
        int published;
        int current; /* use_len of the current buffer, -1 for none */
    };
    // clang-format off
    const Case cases[] = {
        {"fits", true, {"abc"}, {0}, "abc", 0, 3},
        {"exact fill publishes", true, {"abcdefgh"}, {0}, "abcdefgh", 1, 0},
        {"spills into the next", true, {"abcde", "vwxyz"}, {0, 0}, "abcdevwxyz", 1, 2},
        {"longer than a buffer: head kept, no line feed", true, {"abcde", "0123456789AB"}, {0, -3}, "abcde012", 1, 0},
        {"last free buffer is not spilled into", true, {"abcdefgh", "abcde", "vwxyz"}, {0, 0, -1}, "abcdefghabcde", 1, 5},
        {"both full, none free", true, {"abcdefgh", "ijklmnop", "q"}, {0, 0, -2}, "abcdefghijklmnop", 2, -1},
        {"no buffers at all", false, {"abc"}, {-99}, "", 0, -1},
    };
    // clang-format on
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        TearDown();
        SetUp();
        if (c.built) {
            ASSERT_EQ(buff_list_init_as(), 0);
        }
        int negatives = 0;
        for (size_t i = 0; i < c.records.size(); ++i) {
            EXPECT_EQ(add(c.records[i]), c.results[i]);
            negatives += c.results[i] < 0;
        }
        EXPECT_EQ(contents(), c.kept);
        EXPECT_EQ(ch_.readListSizeAS, c.published);
        EXPECT_EQ(ch_.VXBCIAgentBBAS ? ch_.VXBCIAgentBBAS->use_len : -1, c.current);
        EXPECT_EQ(app_->VXSys.discardCount, negatives);
        expect_nodes_conserved();
    }
}

TEST_F(ASBuffers, GrowsOnlyOnceTheFreeListIsEmpty)
{
    ASSERT_EQ(buff_list_init_as(), 0);
    EXPECT_EQ(ch_.dataBufferSizeAS, 8);
    ASSERT_EQ(add("abcdefgh"), 0);
    EXPECT_EQ(buff_list_init_as(), 0); /* one buffer still free: nothing built */
    EXPECT_EQ(ch_.curBuffers, 2);
    ASSERT_EQ(add("ijklmnop"), 0);
    EXPECT_EQ(add("q"), -2); /* two buffers full: the third record is dropped */
    EXPECT_EQ(buff_list_init_as(), 0);
    EXPECT_EQ(ch_.curBuffers, 4);
    EXPECT_EQ(ch_.writeListSizeAS, 2);
    /* The door grows by itself, and counts only what it drops. */
    ASSERT_EQ(add("12345678"), 0);
    ASSERT_EQ(add("12345678"), 0);
    EXPECT_EQ(dumpASData(const_cast<char*>("rs"), 2), 0);
    EXPECT_EQ(ch_.curBuffers, 6);
    EXPECT_EQ(ch_.VXBCIAgentBBAS->use_len, 2);
    EXPECT_EQ(app_->VXSys.discardCount, 1);
    EXPECT_EQ(dumpASData(nullptr, 2), 1);
    expect_nodes_conserved();
}

TEST_F(ASBuffers, BatchesAreClampedByTheMaximum)
{
    struct Case {
        int min, max;
        std::vector<int> totals; /* curBuffers after each batch; 0 = refused */
    };
    const Case cases[] = {
        {4, 6, {4, 6, 0}}, {2, 16, {2, 4, 6, 8, 10, 12, 14, 16, 0}}, {0, 16, {0}}, {3, 2, {2, 0}}};
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.min << "/" << c.max);
        TearDown();
        SetUp();
        configure(8, c.min, c.max);
        for (int total : c.totals) {
            const int before = ch_.curBuffers;
            EXPECT_EQ(buff_list_init_as(), total ? 0 : 1);
            EXPECT_EQ(ch_.curBuffers, total ? total : before);
            while (ch_.writeListAS) moveToASReadList(); /* empty the free list */
        }
        expect_nodes_conserved();
    }
}

TEST_F(ASBuffers, DropsAtTheCeilingAreCounted)
{
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(dumpASData(const_cast<char*>("abcdefgh"), 8), i < 16 ? 0 : 1);
    EXPECT_EQ(ch_.readListSizeAS, 16);
    EXPECT_EQ(app_->VXSys.discardCount, 4);
    ch_.readListAS->use_len = 0;
    moveToASWriteList(); /* the sender returns one: producers resume */
    EXPECT_EQ(dumpASData(const_cast<char*>("ab"), 2), 0);
    EXPECT_EQ(app_->VXSys.discardCount, 4);
    expect_nodes_conserved();
}

}  // namespace
