/*
 * File replies on the control connection, as the collector and the proxy's
 * file store write them, read by the agent's file fetch over loopback.
 */
#include <gtest/gtest.h>

#include <apr_network_io.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "agent/vx_instance.h"
#include "link/vx_socket.h"
#include "session/vx_file_keywords.h"
#include "session/vx_keywords.h"
#include "vx_test_support.h"

namespace {

char kKeyword[] = "BTTConfig"; /* not a critical file: a failed fetch ends quietly */

/* The agent's control connection is the client end of a loopback pair; the
 * test writes the collector's side. The fetch waits at most half a second. */
class FileReply : public testing::Test {
protected:
    void SetUp() override
    {
        app_ = vx_test::agent();
        ASSERT_TRUE(app_ && !app_->controlLink.control.skt && app_->lws_active != 1);
        ASSERT_EQ(apr_pool_create(&pool_, nullptr), APR_SUCCESS);
        apr_sockaddr_t* addr = nullptr;
        ASSERT_EQ(apr_sockaddr_info_get(&addr, "127.0.0.1", APR_INET, 0, 0, pool_), APR_SUCCESS);
        apr_socket_t* listener = nullptr;
        ASSERT_EQ(apr_socket_create(&listener, APR_INET, SOCK_STREAM, APR_PROTO_TCP, pool_),
                  APR_SUCCESS);
        ASSERT_EQ(apr_socket_bind(listener, addr), APR_SUCCESS);
        ASSERT_EQ(apr_socket_listen(listener, 1), APR_SUCCESS);
        apr_sockaddr_t* bound = nullptr;
        apr_socket_addr_get(&bound, APR_LOCAL, listener);
        char host[] = "127.0.0.1";
        char err[256] = "";
        apr_socket_t* client = vxlb_create_client_con(host, bound->port, err, sizeof err, pool_);
        ASSERT_NE(client, nullptr) << err;
        ASSERT_EQ(apr_socket_accept(&collector_, listener, pool_), APR_SUCCESS);
        apr_socket_timeout_set(client, kOwnTimeOut);
        app_->controlLink.control.skt = client;
        savedTimeOut_ = app_->TimeOut;
        app_->TimeOut = apr_time_from_msec(500);
        slot().content = nullptr;
        slot().size = slot().lmd = 0;
    }

    void TearDown() override
    {
        free(slot().content);
        slot() = keywordInfo{};
        app_->controlLink.control.skt = nullptr;
        app_->TimeOut = savedTimeOut_;
        app_->VXSys.closeCtrlConFlag = 0;
        app_->VXSys.retryFlag = 0;
        app_->Server.startInstrRespBuffer[0] = '\0';
        app_->Server.startInstrRespBufferCnt = 0;
        if (pool_) apr_pool_destroy(pool_);
    }

    keywordInfo& slot() { return app_->kywdInfo[kw::BTTConfig]; }

    void collector_sends(const std::string& text)
    {
        apr_size_t len = text.size();
        ASSERT_EQ(apr_socket_send(collector_, text.data(), &len), APR_SUCCESS);
    }

    /* The fetch's text, or "(null)". */
    std::string fetch()
    {
        const char* text = get_file_from_VXC_wrapper(kKeyword, kw::BTTConfig);
        return text ? text : "(null)";
    }

    static constexpr apr_interval_time_t kOwnTimeOut = 30 * APR_USEC_PER_SEC;
    VXProxyInstance_t* app_ = nullptr;
    apr_pool_t* pool_ = nullptr;
    apr_socket_t* collector_ = nullptr;
    long long savedTimeOut_ = 0;
};

TEST_F(FileReply, TheHeaderNamesItsKeywordUpToASeparatorAndNeverAsAPrefix)
{
    const struct {
        const char* replies;
        const char* text;
    } cases[] = {
        /* The proxy's file store: the size right behind the keyword. */
        {"vx_control_rep:action=file;keyword=BTTConfig%3Bsize%3D5%3Blmd%3D1700000000000000;\nhello",
         "hello"},
        /* A ";" and the file's name between keyword and size. */
        {"vx_control_rep:action=file;keyword=BTTConfig;tt.txt%3Bsize%3D5%3Blmd%3D7\r\nhello",
         "hello"},
        /* Another file's reply whose keyword begins with ours: read past. */
        {"vx_control_rep:action=file;keyword=BTTConfigOld%3Bsize%3D3%3Blmd%3D7;\nabc"
         "vx_control_rep:action=file;keyword=BTTConfig%3Bsize%3D2%3Blmd%3D7;\nok",
         "ok"},
        {"vx_control_rep:action=file;keyword=BTTConfigOld;x%3Bsize%3D3%3Blmd%3D7\nabc", "(null)"},
    };
    for (const auto& c : cases) {
        collector_sends(c.replies);
        EXPECT_EQ(fetch(), c.text) << c.replies;
        free(slot().content);
        slot().content = nullptr;
    }
}

TEST_F(FileReply, ASizePastTheLargestFileIsRefusedAndTheSlotKeepsItsFile)
{
    for (const char* size : {"9223372036854775807", "67108865", "-5"}) {
        slot().content = strdup("old");
        slot().size = 3;
        collector_sends(std::string("vx_control_rep:action=file;keyword=BTTConfig%3Bsize%3D") +
                        size + "%3Blmd%3D7;\n");
        EXPECT_EQ(fetch(), "(null)") << size;
        EXPECT_STREQ(slot().content, "old") << size;
        free(slot().content);
        slot().content = nullptr;
    }
}

TEST_F(FileReply, TheControlSocketGetsItsOwnTimeOutBackAfterAFetch)
{
    collector_sends("vx_control_rep:action=file;keyword=BTTConfig%3Bsize%3D2%3Blmd%3D7;\nok");
    for (const char* end : {"a file", "a time-out (the slot keeps the file)"}) {
        EXPECT_EQ(fetch(), "ok") << end;
        apr_interval_time_t t = 0;
        apr_socket_timeout_get(app_->controlLink.control.skt, &t);
        EXPECT_EQ(t, kOwnTimeOut) << end;
    }
}

}  // namespace
