/*
 * A session start publishes the data channel before it raises
 * testRunRunning: host threads that write records from the moment the flag
 * is up find the buffers and their locks whole, and no record is lost. Under
 * ThreadSanitizer an early flag is also a reported race. The buffers are made
 * once per process, so the case runs in a child of its own.
 */
#include <apr_time.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "agent/vx_instance.h"
#include "core/vx_atomic.h"
#include "core/vx_thread.h"
#include "link/vx_data_buffers.h"
#include "link/vx_data_dispatcher.h"
#include "session/vx_control_dispatch.h"
#include "vx_sdk.h"
#include "vx_test_support.h"

namespace {

std::atomic<long> g_offered{0};
thread_local int tl_offered = 0;

/* The tap sees a record only once dumpData has seen the flag up. */
void count_offered(const char*, int, void*)
{
    ++tl_offered;
    ++g_offered;
}

long lines_in(const nioSettings_t* node)
{
    long n = 0;
    for (; node; node = node->next)
        for (int i = 0; i < node->use_len; ++i) n += node->buff[i] == '\n';
    return n;
}

TEST(DataPublication, RecordsWrittenAsTheSessionStartsAreAllStored)
{
    EXPECT_IN_CHILD([](const std::string&) {
                  agent_init(nullptr, 0, nullptr, nullptr, nullptr);
                  VXProxyInstance_t* app = tlvxApplication;
                  CHILD_CHECK(app != nullptr);
                  /* Room for every record below: 8 buffers of 4 KiB (a PHP
                   * agent takes a 32nd of the count). */
                  app->VXSys.dataBuffMaxCount = 256;
                  app->VXSys.bciDataBufferMaxSize = 4096;
                  /* The data thread finds no collector and waits to retry. */
                  app->Server.retryForDataConn = 1;
                  vx::data_tap_set(count_offered, nullptr);

                  constexpr int kPerThread = 400;
                  std::vector<std::thread> hosts;
                  for (int t = 0; t < 2; ++t)
                      hosts.emplace_back([app] {
                          vx_set_thread_instance(app);
                          char rec[] = "51,publication\n";
                          const apr_time_t deadline = apr_time_now() + apr_time_from_sec(10);
                          while (tl_offered < kPerThread && apr_time_now() < deadline)
                              dumpData(rec, static_cast<int>(strlen(rec)));
                      });
                  apr_sleep(2000); /* the hosts are writing before the start */
                  handleStartInstrumentationCase(nullptr);
                  for (std::thread& h : hosts) h.join();

                  CHILD_CHECK(g_offered == 2 * kPerThread);
                  CHILD_CHECK(vx::load_relaxed(app->VXSys.discardCount) == 0);
                  vx::VXLockGuard guard(app->dataChannel.bufferWriteLock);
                  CHILD_CHECK(lines_in(app->dataChannel.writeList) +
                                  lines_in(app->dataChannel.readList) ==
                              g_offered);
                  return 0;
              });
}

}  // namespace
