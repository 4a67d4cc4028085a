/*
 * The data channel's buffer lists and the producers' door to them: records
 * split across buffers, cut or dropped (and counted), and the moves between
 * the write and read lists that the sender drives.
 */
#include "link/vx_data_buffers.h"

#include <apr_thread_mutex.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "agent/vx_instance.h"
#include "link/vx_data_dispatcher.h"
#include "proxy/vx_proxy_state.h"
#include "vx_test_support.h"

namespace {

using vx_test::S;

std::string record(char fill, int len)
{
    return std::string(static_cast<size_t>(len - 1), fill) + "\n";
}

/* The shared agent has no buffers: each test builds a small ring of its own,
 * and the fixture frees it and gives back every value it touched. */
class DataBuffers : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(!app_->dataChannel.writeList && !app_->dataChannel.readList &&
                    !app_->dataChannel.bufferWriteLock);
        app_->VXSys.discardCount = 0;
    }

    void TearDown() override
    {
        free_ring();
        if (pool_) apr_pool_destroy(pool_);
    }

    void build(int count, int size)
    {
        app_->VXSys.dataBuffMaxCount = count;
        app_->VXSys.bciDataBufferMaxSize = size;
        ASSERT_EQ(buff_list_init(), 0);
    }

    void free_ring()
    {
        for (nioSettings_t* n : nodes(app_->dataChannel.writeList)) free(n->buff), free(n);
        for (nioSettings_t* n : nodes(app_->dataChannel.readList)) free(n->buff), free(n);
        app_->dataChannel.writeList = app_->dataChannel.writeListLast = app_->dataChannel.readList = app_->dataChannel.readListLast = nullptr;
        app_->dataChannel.VXBCIAgentBB = app_->dataChannel.VXCollectorBB = nullptr;
        app_->dataChannel.writeListSize = app_->dataChannel.readListSize = 0;
    }

    /* The locks a data thread would have made (both nested). */
    void make_locks()
    {
        ASSERT_EQ(apr_pool_create(&pool_, nullptr), APR_SUCCESS);
        apr_thread_mutex_create(&app_->dataChannel.bufferWriteLock, APR_THREAD_MUTEX_NESTED, pool_);
        apr_thread_mutex_create(&app_->dataChannel.bufferMoveLock, APR_THREAD_MUTEX_NESTED, pool_);
    }

    int add(const std::string& rec)
    {
        return addDataInSendBuffer(const_cast<char*>(rec.data()), static_cast<int>(rec.size()));
    }

    static std::vector<nioSettings_t*> nodes(nioSettings_t* head)
    {
        std::vector<nioSettings_t*> out;
        for (; head; head = head->next) out.push_back(head);
        return out;
    }

    /* The sender: every published buffer out, emptied, back to the free list. */
    std::string drain()
    {
        std::string out;
        while (nioSettings_t* node = app_->dataChannel.VXCollectorBB) {
            out.append(node->buff, static_cast<size_t>(node->use_len));
            node->use_len = node->send_len = 0;
            moveToWriteList();
        }
        return out;
    }

    /* Heads, tails and counts agree with the lists, and no node is lost. */
    void expect_lists_consistent(int total)
    {
        const auto w = nodes(app_->dataChannel.writeList), r = nodes(app_->dataChannel.readList);
        EXPECT_EQ(app_->dataChannel.VXBCIAgentBB, app_->dataChannel.writeList);
        EXPECT_EQ(app_->dataChannel.VXCollectorBB, app_->dataChannel.readList);
        EXPECT_EQ(app_->dataChannel.writeListLast, w.empty() ? nullptr : w.back());
        EXPECT_EQ(app_->dataChannel.readListLast, r.empty() ? nullptr : r.back());
        EXPECT_EQ(static_cast<int>(w.size()), app_->dataChannel.writeListSize);
        EXPECT_EQ(static_cast<int>(r.size()), app_->dataChannel.readListSize);
        EXPECT_EQ(app_->dataChannel.writeListSize + app_->dataChannel.readListSize, total);
    }

    VXProxyInstance_t* app_ = vx_test::agent();
    apr_pool_t* pool_ = nullptr;

private:
    vx_test::Restore keep_{app_->dataChannel, app_->VXSys, app_->Server.testRunRunning,
                           app_->VXBCISetting.agentType, VXProxy.proxyServerFlag};
};

TEST_F(DataBuffers, BuiltOnceAndAPhpAgentGetsAThirtySecondOfTheCount)
{
    build(3, 100);
    EXPECT_EQ(app_->dataChannel.writeListSize, 3);
    for (nioSettings_t* n : nodes(app_->dataChannel.writeList)) EXPECT_EQ(n->buff_size, 100);
    expect_lists_consistent(3);
    app_->VXSys.dataBuffMaxCount = 50; /* the ring exists: nothing is added */
    EXPECT_EQ(buff_list_init(), 0);
    EXPECT_EQ(app_->dataChannel.writeListSize, 3);

    free_ring();
    app_->VXBCISetting.agentType = S("PhP");
    build(64, 100);
    EXPECT_EQ(app_->dataChannel.writeListSize, 2);
    free_ring();
    VXProxy.proxyServerFlag = app_->VXSys.proxyServerFlag = 1; /* the proxy process keeps them all */
    build(64, 100);
    EXPECT_EQ(app_->dataChannel.writeListSize, 64);
}

TEST_F(DataBuffers, ARestOfExactlyOneBufferIsStoredWholeAndOneByteMoreIsCut)
{
    /* With 11 bytes used, 189 end this buffer and fill the next; 190 leave a
     * rest longer than a buffer. The mixed run below covers the other spills
     * and cuts. */
    build(3, 100);
    const std::string head = record('h', 11), fits = record('f', 89 + 100),
                      over = record('o', 89 + 101);
    EXPECT_EQ(add(head), kBufferStored);
    EXPECT_EQ(add(fits), kBufferStored);
    EXPECT_EQ(drain(), head + fits);
    EXPECT_EQ(app_->VXSys.discardCount, 0);
    EXPECT_EQ(add(head), kBufferStored);
    EXPECT_EQ(add(over), kBufferRecordCut);
    EXPECT_EQ(app_->VXSys.discardCount, 1);
    EXPECT_EQ(drain(), head + over.substr(0, 89));
    EXPECT_EQ(app_->dataChannel.VXBCIAgentBB->use_len, 1) << "the line feed closing the cut";
    expect_lists_consistent(3);
}

TEST_F(DataBuffers, TheSendersTickTakesTheLastFreeBufferAndProducersRecoverWhenOneComesBack)
{
    EXPECT_EQ(add(record('z', 5)), kBufferNotReady); /* no buffers at all yet */
    EXPECT_EQ(app_->VXSys.discardCount, 1);

    build(2, 100);
    make_locks();
    movePartialToReadList(); /* nothing written: nothing published */
    EXPECT_EQ(app_->dataChannel.readListSize, 0);
    EXPECT_EQ(add(record('a', 70)), kBufferStored);
    EXPECT_EQ(add(record('b', 50)), kBufferStored); /* 20 bytes in the last free buffer */
    movePartialToReadList(); /* the sender's tick takes the last free buffer */
    EXPECT_EQ(app_->dataChannel.VXBCIAgentBB, nullptr);
    EXPECT_EQ(add(record('e', 5)), kBufferNoneFree);
    EXPECT_EQ(app_->VXSys.discardCount, 2);
    expect_lists_consistent(2);

    nioSettings_t* first = app_->dataChannel.readList;
    first->use_len = first->send_len = 0;
    moveToWriteList();
    EXPECT_EQ(app_->dataChannel.VXBCIAgentBB, first);
    expect_lists_consistent(2);
    EXPECT_EQ(add(record('f', 5)), kBufferStored);
}

TEST_F(DataBuffers, EveryOfferedByteIsEitherSentOrCountedAsDropped)
{
    build(4, 64);
    make_locks();
    std::vector<std::string> offered;
    std::vector<int> results;
    std::string sent;
    unsigned seed = 7;
    int offeredBytes = 0, negative = 0;
    for (int i = 0; i < 120; ++i) {
        seed = seed * 1103515245u + 12345u;
        const int len = 1 + static_cast<int>((seed >> 8) % 170);
        offered.push_back(record(static_cast<char>('a' + i % 26), len));
        offeredBytes += len;
        results.push_back(add(offered.back()));
        negative += results.back() < 0;
        if (i % 4 == 1) movePartialToReadList(); /* the sender's tick ... */
        if (i % 6 == 5) sent += drain();         /* ... and its writes, at another pace */
        expect_lists_consistent(4);
    }
    movePartialToReadList();
    sent += drain();

    /* The stream is the accepted records in order; a cut one is a head of it
     * and the line feed that closes it. */
    size_t at = 0;
    int stored = 0, dropped = 0, seen[4] = {0, 0, 0, 0};
    for (size_t i = 0; i < offered.size(); ++i) {
        const std::string& rec = offered[i];
        SCOPED_TRACE("record " + std::to_string(i) + ", result " + std::to_string(results[i]));
        ASSERT_TRUE(results[i] <= 0 && results[i] >= -3);
        ++seen[-results[i]];
        size_t kept = 0;
        if (results[i] == kBufferStored) {
            kept = rec.size();
            ASSERT_EQ(sent.compare(at, kept, rec), 0);
            at += kept;
        } else if (results[i] == kBufferRecordCut) {
            const size_t lf = sent.find('\n', at);
            ASSERT_NE(lf, std::string::npos);
            kept = lf - at;
            ASSERT_LT(kept, rec.size());
            ASSERT_EQ(sent.compare(at, kept, rec, 0, kept), 0);
            at = lf + 1;
        }
        stored += static_cast<int>(kept);
        dropped += static_cast<int>(rec.size() - kept);
    }
    EXPECT_EQ(at, sent.size());
    EXPECT_EQ(stored + dropped, offeredBytes);
    EXPECT_EQ(app_->VXSys.discardCount, negative);
    for (int kind : {0, 1, 2, 3}) EXPECT_GT(seen[kind], 0) << "no case of result -" << kind;
}

TEST_F(DataBuffers, DumpDataStoresOnlyWhileASessionRunsAndCountsEachDropOnce)
{
    build(2, 100);
    std::string rec = record('r', 40), big = record('b', 150);

    app_->Server.testRunRunning = 0; /* before a session, or after it: gone without a count */
    dumpData(rec.data(), 40);
    EXPECT_EQ(app_->dataChannel.VXBCIAgentBB->use_len, 0);
    EXPECT_EQ(app_->VXSys.discardCount, 0);

    app_->Server.testRunRunning = 1; /* no data thread ever made the locks: counted */
    dumpData(rec.data(), 40);
    EXPECT_EQ(app_->dataChannel.VXBCIAgentBB->use_len, 0);
    EXPECT_EQ(app_->VXSys.discardCount, 1);

    make_locks();
    dumpData(rec.data(), 0);
    dumpData(nullptr, 40);
    for (int i = 0; i < 3; ++i) dumpData(rec.data(), 40); /* the third spills 20 bytes */
    dumpData(big.data(), 150);                             /* the last free buffer: dropped */
    EXPECT_EQ(app_->VXSys.discardCount, 2);
    EXPECT_EQ(app_->dataChannel.readListSize, 1);
    EXPECT_EQ(app_->dataChannel.VXBCIAgentBB->use_len, 20);
}

}  // namespace
