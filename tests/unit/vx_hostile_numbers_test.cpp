/*
 * Numbers a hostile collector sends to size memory, counts and times: each
 * outside its range is refused where it is parsed and the value before it
 * stays; the top of each range is still taken.
 */
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "agent/vx_feature_settings.h"
#include "agent/vx_instance.h"
#include "core/vx_limits.h"
#include "link/vx_collector_failover.h"
#include "proxy/vx_proxy_state.h"
#include "session/vx_file_keywords.h"
#include "session/vx_keywords.h"
#include "vx_test_support.h"

namespace {

using I = VXProxyInstance_t;
constexpr long long kKept = -424242; /* the member keeps the value it had */

class HostileNumbers : public testing::Test {
protected:
    void SetUp() override
    {
        app_ = vx_test::agent();
        ASSERT_TRUE(app_ && !app_->controlLink.control.skt);
        saved_ = std::make_unique<I>(*app_);
        savedProxySession_ = VXProxy.enableVXSession;
    }
    void TearDown() override
    {
        free(app_->Server.InstrProfileTable);
        free(app_->Server.instrProfFileData);
        VXProxy.enableVXSession = savedProxySession_;
        app_->Server = saved_->Server;
        app_->VXSys = saved_->VXSys;
        app_->VXFlowpathGenerator = saved_->VXFlowpathGenerator;
        app_->vxAutoSensorUsingStackTrace = saved_->vxAutoSensorUsingStackTrace;
        app_->controlLink.retry_policy = saved_->controlLink.retry_policy;
        app_->controlLink.vx_dr_state = saved_->controlLink.vx_dr_state;
        app_->config.max_bt_count = saved_->config.max_bt_count;
        app_->init_flag = saved_->init_flag;
        app_->isRunTime = saved_->isRunTime;
    }
    I* app_ = nullptr;
    std::unique_ptr<I> saved_;
    int savedProxySession_ = 0;
};

/* The member a case reads, as a number. */
#define AT(member) [](I* a) -> long long { return a->member; }

long long profile_size(I* a)
{
    return a->Server.InstrProfileTable ? a->Server.InstrProfileTable[0].size : -1;
}

TEST_F(HostileNumbers, OutOfRangeIsRefusedAndTheTopOfEachRangeTaken)
{
    const struct {
        const char* fields;
        long long (*member)(I*);
        long long after;
    } cases[] = {
        {"numInstrProfile=2147483647", AT(Server.numInstrProfile), kKept},
        {"numInstrProfile=256", AT(Server.numInstrProfile), 256},
        {"bciDataBufferMaxSize=-1", AT(VXSys.bciDataBufferMaxSize), kKept},
        {"bciDataBufferMaxSize=1048576", AT(VXSys.bciDataBufferMaxSize), 1048576},
        {"bciDataBufferMaxCount=4294967296", AT(VXSys.dataBuffMaxCount), kKept},
        {"ASDataBufferSize=-262144", AT(VXSys.bciASDataBufferMaxSize), kKept},
        {"maxCharInSeqBlob=16384", AT(VXFlowpathGenerator.maxCharactersInSeqBlob), kKept},
        {"maxCharInSeqBlob=15360", AT(VXFlowpathGenerator.maxCharactersInSeqBlob), 15360},
        {"setthresholdTime=72", AT(Server.dumpremainingtstime), kKept},
        {"TimeStampDiff=-9223372036854775808", AT(Server.diffTimeFromVXC), kKept},
        {"vxcHeartBeatThreshold=0", AT(VXSys.vxcHeartBeatThreshold), kKept},
        {"BCITraceMaxSize=-5000000000", AT(VXSys.traceMaxSize), kKept},
        {"maxBTCount=100000", AT(config.max_bt_count), kKept},
        {"ASSampleInterval=-1", AT(vxAutoSensorUsingStackTrace.threadSampleInterval), kKept},
        {"enableVXSession=1%2099999%200", AT(VXSys.methodExitDepth2SetCookie), kKept},
        {"enableVXSession=1%201%200%200%20c%20d%20-5000%20-3", AT(VXSys.maxFPCountInSession), kKept},
        {"enableVXSession=1%201%200%200%20c%20d%20-5000", AT(VXSys.vxSessionIdleTimeOutSecs), 1800},
        /* A profile's size: negative, or past the largest file. */
        {"numInstrProfile=1;instrProfile=p.txt;lmd=5;size=-1", profile_size, 0},
        {"numInstrProfile=1;instrProfile=p.txt;lmd=5;size=2147483647", profile_size, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fields);
        app_->init_flag = 1;
        const long long before = c.member(app_);
        std::string msg = std::string("vx_control_req:action=modify;") + c.fields;
        findStatusFromClientMsg(msg.data());
        EXPECT_EQ(c.member(app_), c.after == kKept ? before : c.after);
        free(app_->Server.InstrProfileTable);
        app_->Server.InstrProfileTable = nullptr;
        app_->Server.numInstrProfile = app_->Server.InstrProfIdx = 0;
    }

    /* The retry interval is multiplied into microseconds: refused before. */
    retryPolicy_t& p = app_->controlLink.retry_policy;
    p.time_interval = 7;
    char policy[] = "retryPolicy=3%-9223372036854775808%10%30;";
    parse_policy_from_clientMsg(policy);
    EXPECT_EQ(p.time_interval, 7);
    char top[] = "retryPolicy=127%3600%1000%3600;";
    parse_policy_from_clientMsg(top);
    EXPECT_EQ(p.time_interval, 3600LL * 1000000);
}

}  // namespace
