/*
 * What the agent promises at its edges: a record cut at its buffer still
 * ends its line, and nothing thrown by the host's code or escaping one of the
 * agent's threads ends the host's process.
 */
#include <gtest/gtest.h>

#include <apr_thread_proc.h>

#include <cstring>
#include <stdexcept>
#include <string>

#include "agent/vx_instance.h"
#include "core/vx_limits.h"
#include "core/vx_thread.h"
#include "flowpath/vx_method_table.h"
#include "session/vx_control_dispatch.h"
#include "vx_sdk.h"
#include "vx_test_support.h"

namespace {

char* S(const char* s) { return const_cast<char*>(s); }

/* Every record a collector reads must start on a line of its own. */
void expect_whole_lines(const vx_test::RecordSink& sink, size_t cap)
{
    for (const std::string& line : sink.lines()) {
        ASSERT_FALSE(line.empty());
        EXPECT_EQ(line.back(), '\n') << line.substr(0, 40) << "... (" << line.size() << " bytes)";
        EXPECT_LT(line.size(), cap);
    }
}

TEST(RecordDoor, RecordsCutAtTheirBufferKeepTheirLineFeed)
{
    VXProxyInstance_t* app = vx_test::agent();
    vx_test::SessionScope session;
    vx_test::RecordSink sink;
    char profile[] = "shop|Shop|step|0|0\n";
    setMethodHashMapNode(profile);
    app->VXSys.bciInstrSessionPct = 100;
    const int saved = app->VXFlowpathGenerator.maxCharactersInSeqBlob;
    /* A blob just under its 16 KiB buffer: the records built around it
     * (3 when it flushes, 4 at the end) do not fit theirs. */
    app->VXFlowpathGenerator.maxCharactersInSeqBlob = vx::kSeqBlobSize - 10;

    auto* td = static_cast<VXPerThreadData_t*>(
        startFP(S("991"), S("/long"), nullptr, nullptr, nullptr, nullptr, nullptr, -1, 0));
    ASSERT_NE(td, nullptr);
    for (int i = 0; i < 3000; ++i) {
        vxMethodEntry(nullptr, td, S("Shop.step"), nullptr, nullptr, 0, nullptr, nullptr, 0, nullptr);
        vxMethodExit(nullptr, td, S("Shop.step"), 0, -1, nullptr, 0, 0, 0, nullptr, 1, nullptr, 0, nullptr);
    }
    endFP(td, 200, nullptr, 0, 0, 0, nullptr);
    reset(td);
    app->VXFlowpathGenerator.maxCharactersInSeqBlob = saved;

    int cut = 0;
    for (int type : {3, 4})
        for (const std::string& line : sink.of_type(type))
            cut += line.size() == static_cast<size_t>(vx::kFlowpathRecordSize - 1);
    EXPECT_GE(cut, 1) << "the blob's flush was cut at its buffer";
    expect_whole_lines(sink, vx::kFlowpathRecordSize);
}

int g_status_calls = 0;
void throwing_status(int) { ++g_status_calls; throw std::runtime_error("host failure"); }

TEST(HostBoundary, ACallbackThatThrowsIsContainedAndLogged)
{
    g_status_calls = 0;
    {
        vx_test::SessionScope session;
        register_test_status_for_agent(throwing_status);
        /* The stop tells the host; the host's failure must not stop the stop. */
        handleStoppingCaseAtStopInstrumentCase();
        EXPECT_EQ(vx_test::agent()->Server.testRunRunning, 0);
        /* Registering the thread-dump callback tells the host the state too. */
        register_thread_dump_callback(nullptr);
        register_test_status_for_agent(nullptr);
    }
    EXPECT_EQ(g_status_calls, 2);
    EXPECT_TRUE(vx_test::logged("The host's callback test_status threw"));
}

void* APR_THREAD_FUNC throwing_body(apr_thread_t*, void* flag)
{
    *static_cast<int*>(flag) = 1;
    throw std::bad_alloc();
}

TEST(HostBoundary, AnExceptionEscapingAnAgentThreadEndsOnlyThatThread)
{
    VXProxyInstance_t* app = vx_test::agent();
    apr_thread_t* thread = nullptr;
    int ran = 0;
    ASSERT_EQ(vxlb_thread_create(&thread, throwing_body, &ran, nullptr, 0, app->control_pool), 0);
    apr_status_t rv = APR_SUCCESS;
    ASSERT_EQ(apr_thread_join(&rv, thread), APR_SUCCESS);
    EXPECT_EQ(ran, 1);
    EXPECT_TRUE(vx_test::logged("ran out of memory and ends"));
}

}  // namespace
