/*
 * Start-up and shutdown. agent_init builds the one instance of a process, so
 * every case runs in a child process of its own.
 */
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "agent/vx_instance.h"
#include "core/vx_trace_log.h"
#include "vx_sdk.h"
#include "vx_test_support.h"

namespace {

using vx_test::S;

bool exists(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

TEST(AgentInit, NullArgumentsGiveTheDefaultsAndConfigureOnly)
{
    EXPECT_IN_CHILD([](const std::string& home) {
        /* An old log of another process, and a file that is no log. */
        mkdir((home + "/logs").c_str(), 0755);
        std::ofstream(home + "/logs/vx_trace_other_p_20000101120000_77.log_0") << "x";
        std::ofstream(home + "/logs/notes_kept") << "x";

        agent_init(nullptr, 0, nullptr, nullptr, nullptr);
        VXProxyInstance_t* app = tlvxApplication;
        CHILD_CHECK(app != nullptr);
        CHILD_CHECK(strcmp(gPool, "DefaultPool") == 0);
        CHILD_CHECK(strcmp(gProcessName, "DefaultProcess") == 0);
        CHILD_CHECK(strcmp(app->VXBCISetting.agentType, "PHP") == 0);
        CHILD_CHECK(strcmp(app->VXBCISetting.agentVersion, "v1.0.0") == 0);
        CHILD_CHECK(app->agentName == nullptr);
        CHILD_CHECK(app->VXBCISetting.appName == nullptr);
        CHILD_CHECK(pool_name == nullptr && proc_name == nullptr);
        /* Configured only: no pool of records, no thread. */
        CHILD_CHECK(app->tlsPool.g_tlsidx == 0 && app->tlsPool.gFreeTLSHead == nullptr);
        CHILD_CHECK(app->controlLink.control_thread_id == nullptr);
        /* Old logs were cleaned, other files left alone. */
        CHILD_CHECK(!exists(home + "/logs/vx_trace_other_p_20000101120000_77.log_0"));
        CHILD_CHECK(exists(home + "/logs/notes_kept"));
        CHILD_CHECK(trace_log_key != nullptr);
        std::string log = trace_log_key->log_file[0];
        CHILD_CHECK(log.rfind(home + "/logs//vx_trace_DefaultProcess_DefaultPool_", 0) == 0);
        /* No session: transactions are refused, and bad handles ignored. */
        CHILD_CHECK(startFP(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, -1, 0) ==
                    nullptr);
        endFP(nullptr, 200, nullptr, 0, 0, 0, nullptr);
        reset(nullptr);
        agent_shutdown();
        return 0;
    });
}

TEST(AgentInit, NamesAndTypeComeFromTheArguments)
{
    EXPECT_IN_CHILD([](const std::string& home) {
        mkdir((home + "/Python").c_str(), 0755);
        std::ofstream(home + "/Python/version") << "# comment\n\n4.2.0\nbuild 7\n";
        agent_init(S("shop"), 0, S("worker"), S("Python"), S("3.11"));
        VXProxyInstance_t* app = tlvxApplication;
        CHILD_CHECK(strcmp(app->agentName, "shop") == 0);
        CHILD_CHECK(strcmp(app->VXBCISetting.appName, "shop") == 0);
        CHILD_CHECK(strcmp(proc_name, "worker") == 0);
        CHILD_CHECK(strcmp(app->VXSys.vxHomePath, (home + "/Python").c_str()) == 0);
        CHILD_CHECK(app->VXSys.vxBuild && strcmp(app->VXSys.vxBuild, "4.2.0 build 7 ") == 0);
        /* The log's second line is the build; VX_ERROR names this file. */
        VX_ERROR("CONTROL_THREAD", "first line");
        std::ifstream in(trace_log_key->log_file[0]);
        std::string header, build, line;
        std::getline(in, header);
        std::getline(in, build);
        std::getline(in, line);
        CHILD_CHECK(build == "4.2.0 build 7 ");
        CHILD_CHECK(line.find("|CONTROL_THREAD|agent_init_test.cpp|") != std::string::npos);
        CHILD_CHECK(line.find("|Error|first line") != std::string::npos);
        return 0;
    });
}

TEST(AgentInit, ConnectingStartsThePoolAndTheControlThreadAndShutdownStopsIt)
{
    EXPECT_IN_CHILD([](const std::string&) {
        /* A collector that is not there: the thread sits in its
         * retry wait when shutdown comes. */
        setenv("KLV_APP_AGENT_VXCHOST", "127.0.0.1", 1);
        setenv("KLV_APP_AGENT_VXCPORT", "1", 1);
        setenv("KLV_APP_AGENT_VXC_COMM_PROTOCOL", "TCP:1", 1);
        agent_shutdown(); /* before agent_init: no effect */
        agent_init(S("p"), 1, nullptr, S("cppAgent"), nullptr);
        VXProxyInstance_t* app = tlvxApplication;
        CHILD_CHECK(app->tlsPool.g_tlsidx == 64);
        CHILD_CHECK(app->tlsPool.gFreeTLSCnt == 64);
        CHILD_CHECK(app->fpiToTLS != nullptr);
        CHILD_CHECK(app->controlLink.control_thread_id != nullptr);
        CHILD_CHECK(app->processID == getpid());
        /* A second call does not replace the instance. */
        agent_init(S("q"), 1, nullptr, nullptr, nullptr);
        CHILD_CHECK(tlvxApplication == app);
        agent_shutdown();
        CHILD_CHECK(closeCtrlThread == 0); /* the control thread saw it */
        apr_status_t rv;
        CHILD_CHECK(apr_thread_join(&rv, app->controlLink.control_thread_id) == APR_SUCCESS);
        return 0;
    });
}

TEST(AgentInit, ShutdownGivesUpOnAThreadThatNeverStops)
{
    EXPECT_IN_CHILD([](const std::string&) {
        agent_init(nullptr, 0, nullptr, nullptr, nullptr);
        /* A control thread that never answers. */
        tlvxApplication->controlLink.control_thread_id = reinterpret_cast<apr_thread_t*>(1);
        tlvxApplication->controlLink.control_thread_running = 1;
        agent_shutdown();
        CHILD_CHECK(closeCtrlThread == 1);
        return 0;
    });
}

}  // namespace
