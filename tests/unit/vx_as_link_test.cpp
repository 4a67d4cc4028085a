/*
 * The auto-sensor connection against a listener on loopback: the opening
 * line as the collector reads it, records in order, the unsent rest first on
 * the next connection after the peer went away; and the thread: it reports,
 * leaves a connection the collector's heartbeat closes, survives a quick
 * stop-then-start and ends on a stop.
 */
#include "link/vx_as_link.h"

#include <apr_network_io.h>
#include <apr_portable.h>
#include <apr_time.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "agent/vx_instance.h"
#include "core/vx_atomic.h"
#include "diag/vx_autosensor_thread.h"
#include "vx_test_support.h"

namespace {

using vx_test::S;

/* A collector's listening socket on 127.0.0.1, and the agent pointed at it. */
class ASLink : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(apr_pool_create(&pool_, nullptr), APR_SUCCESS);
        apr_sockaddr_t* addr = nullptr;
        ASSERT_EQ(apr_sockaddr_info_get(&addr, "127.0.0.1", APR_INET, 0, 0, pool_), APR_SUCCESS);
        ASSERT_EQ(apr_socket_create(&listener_, APR_INET, SOCK_STREAM, APR_PROTO_TCP, pool_),
                  APR_SUCCESS);
        ASSERT_EQ(apr_socket_bind(listener_, addr), APR_SUCCESS);
        ASSERT_EQ(apr_socket_listen(listener_, 4), APR_SUCCESS);
        apr_socket_opt_set(listener_, APR_SO_NONBLOCK, 1);
        apr_sockaddr_t* bound = nullptr;
        apr_socket_addr_get(&bound, APR_LOCAL, listener_);
        collector_.vxc_host = S("127.0.0.1");
        collector_.vxc_port = bound->port;
        app_->controlLink.active_vxc = &collector_;
        app_->controlLink.ActiveAgentProtocolIndex = 1;
        VXBCISetting_t& s = app_->VXBCISetting;
        s.appName = S("App");
        s.appID = 11;
        s.serverID = 12;
        s.appServerName = S("Srv");
        s.tierName = S("Tier");
        s.tierID = 13;
        s.vxcHost = S("10.0.0.9");
        s.vxcPort = 7892;
        app_->Server.TestRunIDValue = 21;
        app_->agentName = S("UnitPool");
        app_->monitorSettings.vxVectorSeperator = '>';
    }

    void TearDown() override { apr_pool_destroy(pool_); }

    /* The next connection the agent opens, within 5 s. */
    apr_socket_t* accept_one()
    {
        apr_socket_t* peer = nullptr;
        for (int i = 0; i < 500; ++i) {
            const apr_status_t rv = apr_socket_accept(&peer, listener_, pool_);
            if (rv == APR_SUCCESS) {
                apr_socket_timeout_set(peer, apr_time_from_sec(5));
                return peer;
            }
            if (!APR_STATUS_IS_EAGAIN(rv) && !APR_STATUS_IS_TIMEUP(rv)) break;
            apr_sleep(apr_time_from_msec(10));
        }
        return nullptr;
    }

    /* Close with a reset, as a collector that went away does. */
    static void reset(apr_socket_t* peer)
    {
        apr_os_sock_t fd;
        apr_os_sock_get(&fd, peer);
        const linger abort{1, 0};
        setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
        apr_socket_close(peer);
    }

    /* One line from `peer`, with its line feed; "" at its end. */
    std::string line(apr_socket_t* peer)
    {
        char buf[4096];
        char err[256];
        const int n = vxlb_read_line(peer, buf, sizeof buf, carry_, &carry_len_, err, sizeof err);
        return n > 0 ? std::string(buf, static_cast<size_t>(n)) : "";
    }

    static std::string opening()
    {
        return vx_test::fill(
            "auto_sensor_thread_hotspot_data_req:appName=App;appID=11;vxAppServerID=12;"
            "vxAppServerHost=Srv;tierName=Tier;tierID=13;VXCollectorIP=10.0.0.9;VXCollectorPort="
            "7892,"
            "testIdx=21;pid={pid};agentName=UnitPool\n",
            {{"pid", std::to_string(getpid())}});
    }

    static void hand_in(const char* rec)
    {
        dumpAndSendDataToVXC(S(rec), static_cast<int>(strlen(rec)), 1);
    }

    VXProxyInstance_t* app_ = vx_test::agent();
    vx_test::Restore keep_{app_->controlLink,
                           app_->VXBCISetting,
                           app_->VXSys,
                           app_->Server,
                           app_->agentName,
                           app_->monitorSettings,
                           app_->vxAutoSensorUsingStackTrace};
    vx_test::ASChannelScope as_;
    apr_pool_t* pool_ = nullptr;
    apr_socket_t* listener_ = nullptr;
    vxc_servers_t collector_{};
    char carry_[4096];
    int carry_len_ = 0;
};

TEST_F(ASLink, OpensWithItsLineSendsInOrderAndResendsWhatABrokenPeerDidNotTake)
{
    ASSERT_FALSE(startASVXCollectorCommunication());
    apr_socket_t* first = accept_one();
    ASSERT_TRUE(first);
    EXPECT_EQ(line(first), opening());
    EXPECT_EQ(vx::load_relaxed(app_->VXSys.autosensorConnState), 1);
    EXPECT_STREQ(app_->asLink.autoSensor.dstIp, "127.0.0.1");
    hand_in("74,a\n");
    hand_in("75,b\n");
    EXPECT_EQ(line(first), "74,a\n");
    EXPECT_EQ(line(first), "75,b\n");

    /* The peer resets the connection: the next send breaks, and its record
     * waits in the buffer. */
    reset(first);
    hand_in("53,c\n");
    EXPECT_EQ(vx::load_relaxed(app_->asLink.retryFlagAS), 1);
    closeAutoSensorConnection();
    hand_in("53,d\n"); /* no connection: kept */

    ASSERT_FALSE(startASVXCollectorCommunication());
    EXPECT_EQ(vx::load_relaxed(app_->asLink.retryFlagAS), 0);
    apr_socket_t* second = accept_one();
    ASSERT_TRUE(second);
    hand_in("74,e\n");
    EXPECT_EQ(line(second), opening());
    EXPECT_EQ(line(second), "53,c\n");
    EXPECT_EQ(line(second), "53,d\n");
    EXPECT_EQ(line(second), "74,e\n");
}

TEST_F(ASLink, ThreadReportsLeavesOnTheHeartbeatSurvivesAQuickRestartAndEndsOnStop)
{
    setenv("VX_AS_TICK_MS", "50", 1);
    setenv("VX_AS_RETRY_MS", "50", 1);
    vx_test::SessionScope session(21);
    VXASSettings_t& s = app_->vxAutoSensorUsingStackTrace;
    s.threadSampleInterval = 500;
    s.threadReportInterval = 100; /* below what a keyword allows: a report every other tick */
    s.threadReportDumpMode = 1;
    s.onlyAPICall = 0;

    ASSERT_EQ(create_autoSensor_thread(), 0);
    struct Stop { /* no thread outlives the test, whatever fails */
        VXProxyInstance_t* app;
        bool done = false;
        void now()
        {
            if (done) return;
            done = true;
            setToStopThread(1);
            for (int i = 0;
                 i < 300 && vx::load_acquire(app->VXBCISetting.autoSensor_thread_running); ++i)
                apr_sleep(apr_time_from_msec(10));
        }
        ~Stop() { now(); }
    } stop{app_};
    apr_socket_t* first = accept_one();
    ASSERT_TRUE(first);
    EXPECT_EQ(line(first), opening());
    std::string report = line(first); /* the monitors' lines come first */
    auto monitor_line = [](const std::string& l) {
        return l.rfind("74,", 0) == 0 || l.rfind("61,", 0) == 0 || l.rfind("63,", 0) == 0;
    };
    for (int i = 0; i < 20 && monitor_line(report); ++i) report = line(first);
    EXPECT_EQ(report.rfind("53,13|11|1:Tier>Srv>App|0 0 ", 0), 0u) << report;

    /* AutosensorConnState=0: the connection is closed and made again. */
    char beat[] =
        "vx_control_req:action=reconnect;heartBeat 1;dataConnState=1;AutosensorConnState=0;";
    handleCollectorHeartBeat(beat);
    apr_socket_t* second = accept_one();
    ASSERT_TRUE(second);
    carry_len_ = 0;
    EXPECT_EQ(line(second), opening());

    /* A stop and a start at once: the new thread follows the old one. */
    setToStopThread(1);
    EXPECT_EQ(create_autoSensor_thread(), 0);
    apr_socket_t* third = accept_one();
    ASSERT_TRUE(third);
    carry_len_ = 0;
    EXPECT_EQ(line(third), opening());

    stop.now();
    EXPECT_EQ(vx::load_acquire(app_->VXBCISetting.autoSensor_thread_running), 0);
    EXPECT_EQ(getToStopThread(), 0);
    unsetenv("VX_AS_TICK_MS");
    unsetenv("VX_AS_RETRY_MS");
}

}  // namespace
