/*
 * The link's socket helpers against a listener on the loopback address.
 */
#include <gtest/gtest.h>

#include <apr_network_io.h>

#include <cstring>
#include <string>

#include "link/vx_socket.h"
#include "vx_test_support.h"

namespace {

class Sockets : public testing::Test {
protected:
    void SetUp() override
    {
        vx_test::agent();
        ASSERT_EQ(apr_pool_create(&pool_, nullptr), APR_SUCCESS);
        apr_sockaddr_t* addr = nullptr;
        ASSERT_EQ(apr_sockaddr_info_get(&addr, "127.0.0.1", APR_INET, 0, 0, pool_), APR_SUCCESS);
        ASSERT_EQ(apr_socket_create(&listener_, APR_INET, SOCK_STREAM, APR_PROTO_TCP, pool_), APR_SUCCESS);
        ASSERT_EQ(apr_socket_bind(listener_, addr), APR_SUCCESS);
        ASSERT_EQ(apr_socket_listen(listener_, 4), APR_SUCCESS);
        apr_sockaddr_t* bound = nullptr;
        apr_socket_addr_get(&bound, APR_LOCAL, listener_);
        port_ = bound->port;
        char host[] = "127.0.0.1";
        client_ = vxlb_create_client_con(host, port_, err_, sizeof err_, pool_);
        ASSERT_NE(client_, nullptr) << err_;
        ASSERT_EQ(apr_socket_accept(&server_, listener_, pool_), APR_SUCCESS);
        /* Reads in these tests never wait long. */
        apr_socket_timeout_set(client_, apr_time_from_sec(5));
    }
    void TearDown() override { apr_pool_destroy(pool_); }

    void peer_sends(const char* text)
    {
        apr_size_t len = strlen(text);
        ASSERT_EQ(apr_socket_send(server_, text, &len), APR_SUCCESS);
    }

    apr_pool_t* pool_ = nullptr;
    apr_socket_t* listener_ = nullptr;
    apr_socket_t* client_ = nullptr;
    apr_socket_t* server_ = nullptr;
    int port_ = 0;
    char err_[256] = "";
};

TEST_F(Sockets, LinesSplitAcrossReadsComeOutWholeAndTheRestWaits)
{
    char buf[64];
    char carry[64];
    int carry_len = 0;
    peer_sends("one\ntwo\nthr");
    EXPECT_EQ(vxlb_read_line(client_, buf, sizeof buf, carry, &carry_len, err_, sizeof err_), 4);
    EXPECT_STREQ(buf, "one\n");
    EXPECT_EQ(vxlb_read_line(client_, buf, sizeof buf, carry, &carry_len, err_, sizeof err_), 4);
    EXPECT_STREQ(buf, "two\n");
    peer_sends("ee\n");
    EXPECT_EQ(vxlb_read_line(client_, buf, sizeof buf, carry, &carry_len, err_, sizeof err_), 6);
    EXPECT_STREQ(buf, "three\n");
    EXPECT_EQ(carry_len, 0);

    /* A line longer than the buffer: what fits comes back as -1. */
    char small[8];
    peer_sends("0123456789\n");
    EXPECT_EQ(vxlb_read_line(client_, small, sizeof small, carry, &carry_len, err_, sizeof err_), -1);
    EXPECT_STREQ(small, "0123456");
    EXPECT_NE(std::string(err_).find("Return Partial Buffer as buffer get full"), std::string::npos);

    /* The peer goes away: end of file. */
    EXPECT_EQ(vxlb_read_line(client_, buf, sizeof buf, carry, &carry_len, err_, sizeof err_), 4);
    apr_socket_close(server_);
    EXPECT_EQ(vxlb_read_line(client_, buf, sizeof buf, carry, &carry_len, err_, sizeof err_), -2);
    EXPECT_EQ(vxlb_read_bytes(client_, buf, sizeof buf, err_, sizeof err_), -2);
}

TEST_F(Sockets, SendReadAndAddresses)
{
    char line[] = "vx_ctrl_msg_req:appName=a;\n";
    EXPECT_EQ(vxlb_send_n_bytes(client_, line, static_cast<int>(strlen(line)), err_, sizeof err_),
              static_cast<int>(strlen(line)));
    char buf[64];
    EXPECT_EQ(vxlb_read_n_bytes(server_, buf, static_cast<int>(strlen(line)) + 1, err_, sizeof err_),
              static_cast<int>(strlen(line)));
    EXPECT_STREQ(buf, line);

    char ip[16];
    int port = 0;
    ASSERT_EQ(get_dst_addr(client_, ip, sizeof ip, &port), 0);
    EXPECT_STREQ(ip, "127.0.0.1");
    EXPECT_EQ(port, port_);
    ASSERT_EQ(get_src_addr(client_, ip, sizeof ip, &port), 0);
    EXPECT_NE(port, port_);

    EXPECT_EQ(vxlb_send_n_bytes(nullptr, line, 3, err_, sizeof err_), -2);
    EXPECT_NE(std::string(err_).find("is NULL, returning."), std::string::npos);
}

TEST_F(Sockets, ConnectingWhereNobodyListensGivesNullAndTheReason)
{
    apr_socket_close(listener_);
    char host[] = "127.0.0.1";
    err_[0] = '\0';
    EXPECT_EQ(vxlb_create_client_con(host, port_, err_, sizeof err_, pool_), nullptr);
    EXPECT_STRNE(err_, "");
}

}  // namespace
