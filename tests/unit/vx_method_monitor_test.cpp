/*
 * The method and exception monitors: their files, calls and throws counted
 * on two records by two threads and folded into records 61 and 63.
 */
#include "monitor/vx_method_monitor.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "agent/vx_instance.h"
#include "flowpath/vx_method_profile.h"
#include "flowpath/vx_method_table.h"
#include "flowpath/vx_per_thread_data.h"
#include "monitor/vx_exception_monitor.h"
#include "vx_test_support.h"

namespace {

using namespace vx_test;
using Lines = std::vector<std::string>;

class MethodMonitor : public testing::Test {
protected:
    void SetUp() override
    {
        vx_test::fresh_backend_monitor();
        VXMethodMonitorInit();
        VXExceptionMonitorInit();
        app_->monitorSettings.vxMonitorIntervalInSecs = 10;
        clock_.emplace(kEpoch + 7000000, 0);
        session_.emplace(7, kEpoch);
        records_ = {get_free_tls_slot(), get_free_tls_slot()};
    }
    void TearDown() override
    {
        for (VXPerThreadData_t* td : records_) {
            resetAllThreadLocals(td, nullptr);
            free_tls_slot(td);
        }
    }

    using Dump = int (*)(char*, int*, int);
    static Lines fold(Dump dump)
    {
        std::vector<char> buf(vx::kASWorkBufferSize);
        int len = 0;
        dump(buf.data(), &len, vx::kASWorkBufferSize);
        return vx_test::split_lines(std::string(buf.data(), static_cast<size_t>(len)));
    }

    methodPropProperties* method(const char* name)
    {
        return vx::find_method(app_->methodTable.methodHashMapNode, name);
    }
    void exit(int record, methodPropProperties* m, long long ms)
    {
        updateCounterAndDurationForMethod(records_[static_cast<size_t>(record)], m, ms);
    }
    int thrown(int record, const char* cls)
    {
        return updateCounterAndDurationForException(records_[static_cast<size_t>(record)], cls);
    }
    int exception_id(const char* cls)
    {
        auto* e = static_cast<currMonitoringExcepStruct_t*>(apr_hash_get(
            app_->vxExceptionMonitor.currentMonitoringExceptionMap, cls, APR_HASH_KEY_STRING));
        return e ? e->excepmethodid : -1;
    }
    static std::string head(int record, int id, const std::string& name)
    {
        return std::to_string(record) + ",3|4|" + std::to_string(id) + ":T>S>I>" + name + "|";
    }

    VXProxyInstance_t* app_ = vx_test::agent();
    vx_test::Restore keep_{app_->VXBCISetting, app_->monitorSettings, app_->isRunTime,
                           app_->VXSys.enableExceptionMonitor};
    std::optional<vx_test::FrozenClock> clock_;
    std::optional<vx_test::SessionScope> session_;
    std::vector<VXPerThreadData_t*> records_;
};

TEST_F(MethodMonitor, FileMarksMethodsAndTwoThreadsFoldIntoRecord61)
{
    const int firstId = app_->methodTable.methodIDGlobal;
    parseMethodMonitor(S("mod|Checkout|shop.Cart.checkout|x\n"
                         "# a comment\n\r\n"
                         "too|few|bars\n"
                         "||shop.Cart.idle|\n"));
    methodPropProperties* checkout = method("shop.Cart.checkout");
    methodPropProperties* idle = method("shop.Cart.idle");
    ASSERT_NE(checkout, nullptr);
    ASSERT_NE(idle, nullptr);
    EXPECT_EQ(method("bars"), nullptr);
    EXPECT_EQ(app_->methodTable.methodIDGlobal, firstId + 2) << "one id per listed method";
    EXPECT_EQ(checkout->isEntryPoint & kEntryPointMonitor, kEntryPointMonitor);
    EXPECT_EQ(checkout->type_, kMethodTypeMonitor);
    EXPECT_STREQ(checkout->moduleName, "mod");
    EXPECT_EQ(idle->aliasMethodName, nullptr);
    EXPECT_EQ(vx::method_bound_to(idle->methodId), idle);

    /* 10 and 20 ms on one record, 30 on the other, in a 10 s interval. */
    std::thread a([&] { exit(0, checkout, 10), exit(0, checkout, 20); });
    std::thread b([&] { exit(1, checkout, 30); });
    a.join();
    b.join();
    const std::string h = head(61, checkout->methodId, "Checkout");
    EXPECT_EQ(fold(generateAndDumpMethodMonitoringRecord),
              Lines{h + "3 0.300000 20.000000 10.000000 30 3\n"})
        << "a method never called has no line";
    exit(1, checkout, 5), exit(0, checkout, 7);
    EXPECT_EQ(fold(generateAndDumpMethodMonitoringRecord),
              Lines{h + "5 0.200000 6.000000 5.000000 7 2\n"});
    /* Counted earlier, its objects still fold: field 1 keeps the session. */
    EXPECT_EQ(fold(generateAndDumpMethodMonitoringRecord),
              Lines{h + "5 0.000000 0.000000 2147483647.000000 0 0\n"});

    /* A second file moves the mark: the method no longer listed keeps its
     * entry without flag 4; a known method takes the new alias. */
    parseMethodMonitor(S("mod|Idle|shop.Cart.idle|x\n"));
    EXPECT_EQ(checkout->isEntryPoint & kEntryPointMonitor, 0);
    EXPECT_STREQ(idle->aliasMethodName, "Idle");
    EXPECT_EQ(app_->methodTable.methodIDGlobal, firstId + 2);
}

TEST_F(MethodMonitor, ExceptionFileAndThrowsFromTwoThreadsFoldIntoRecord63WithOverAll)
{
    ASSERT_NE(vx::monitor_model_of(records_[0]), nullptr);
    EXPECT_EQ(fold(generateAndDumpExceptionMonitoringRecord),
              Lines{head(63, 0, "OverAll") + "0 0.000000 \n"}) << "also with nothing thrown";
    app_->isRunTime = 1; /* the class map is made anew */
    parseExceptionMonFile(S("IO|java.io.IOException|x\n"
                            "#java.lang.Hidden|y|z\n\n\r\n"
                            "|java.lang.NullPointerException|\n"
                            "only|one bar\n"
                            "|java.lang.Idle|\n"));
    const int io = exception_id("java.io.IOException");
    const int npe = exception_id("java.lang.NullPointerException");
    ASSERT_GT(io, 0);
    EXPECT_EQ(npe, io + 1);
    EXPECT_EQ(exception_id("java.lang.Idle"), io + 2);
    EXPECT_EQ(exception_id("one bar"), -1);
    EXPECT_EQ(exception_id("y"), -1);
    EXPECT_EQ(app_->VXSys.enableExceptionMonitor, 1);

    std::thread a([&] { thrown(0, "java.io.IOException"), thrown(0, "java.io.IOException"); });
    std::thread b([&] { thrown(1, "java.io.IOException"), thrown(1, "java.lang.NullPointerException"); });
    a.join();
    b.join();
    EXPECT_EQ(thrown(0, "java.lang.Unlisted"), 1);
    EXPECT_EQ(fold(generateAndDumpExceptionMonitoringRecord),
              (Lines{head(63, io, "IO") + "3 0.300000 \n",
                     head(63, npe, "java.lang.NullPointerException") + "1 0.100000 \n",
                     head(63, 0, "OverAll") + "4 0.400000 \n"}));
    thrown(1, "java.lang.NullPointerException");
    EXPECT_EQ(fold(generateAndDumpExceptionMonitoringRecord),
              (Lines{head(63, io, "IO") + "3 0.000000 \n",
                     head(63, npe, "java.lang.NullPointerException") + "2 0.100000 \n",
                     head(63, 0, "OverAll") + "5 0.100000 \n"}));

    /* No file: the monitor is off and counts nothing. */
    parseExceptionMonFile(nullptr);
    EXPECT_EQ(thrown(0, "java.io.IOException"), 1);
}

}  // namespace
