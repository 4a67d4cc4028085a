/*
 * The example's two tiers over loopback, without an agent (every SDK call is
 * inert before vx_init2): the stock service's answers, and the shop's client
 * ending every call in bounded time whatever the other side does.
 */
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include "vx_stock_client.h"
#include "vx_stock_service.h"

namespace {

/* A listening socket on a loopback port the system picked; it accepts
 * connections into its backlog and never answers. */
struct MuteListener {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    int port = 0;
    MuteListener()
    {
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof a;
        if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 && listen(fd, 8) == 0 &&
            getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) == 0)
            port = ntohs(a.sin_port);
    }
    ~MuteListener() { close(fd); }
};

long long ms_since(std::chrono::steady_clock::time_point t0)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                 t0)
        .count();
}

TEST(StockHttp, CallsEndInBoundedTimeWhenNoAnswerComes)
{
    MuteListener mute;
    ASSERT_GT(mute.port, 0);
    StockClient* client = stock_client_create(mute.port);
    ASSERT_NE(client, nullptr);
    /* Twice: a killed connection must not hold the next call up either. */
    for (int i = 0; i < 2; ++i) {
        const auto t0 = std::chrono::steady_clock::now();
        EXPECT_EQ(stock_client_get(client, "/api/stock/1", "X-VX-Correlation:1_2_3.4_NA_5_NA_t_s_i", 300), -1);
        EXPECT_LT(ms_since(t0), 1500);
    }
    stock_client_destroy(client);

    /* Nobody listens once the socket is closed: refused at once. */
    const int gone = mute.port;
    close(mute.fd);
    mute.fd = -1;
    client = stock_client_create(gone);
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(stock_client_get(client, "/api/stock/1", nullptr, 3000), -1);
    EXPECT_LT(ms_since(t0), 1000);
    stock_client_destroy(client);
}

TEST(StockHttp, ServiceAnswersItemsAndStopsWhenAsked)
{
    /* A free port: taken from the system, then given back for the service. */
    int port = 0;
    {
        MuteListener probe;
        port = probe.port;
    }
    ASSERT_GT(port, 0);
    int rc = -2;
    std::thread service([&rc, port] { rc = stock_service_run(port); });
    StockClient* client = stock_client_create(port);
    ASSERT_NE(client, nullptr);
    /* What the front sends: correlation and trace context, an empty line
     * between them as when the agent gives no correlation text. */
    static const char kHeaders[] =
        "X-VX-Correlation:1_2_3.4_NA_5_NA_t_s_i\n\n"
        "traceparent:00-4bf92f3577b34da6a3ce929d0e0e4736-00f067aa0ba902b7-01\ntracestate:a=1";
    int status = -1;
    for (int i = 0; i < 50 && status == -1; ++i) {
        status = stock_client_get(client, "/api/stock/17", kHeaders, 1000);
        if (status == -1) std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EXPECT_EQ(status, 200);
    EXPECT_EQ(stock_client_get(client, "/api/stock/42", nullptr, 1000), 200);
    EXPECT_EQ(stock_client_get(client, "/api/stock/0", nullptr, 1000), 404);
    EXPECT_EQ(stock_client_get(client, "/api/stock/17x", nullptr, 1000), 404);
    EXPECT_EQ(stock_client_get(client, "/cart", nullptr, 1000), 404);
    EXPECT_EQ(stock_client_get(client, "/api/stock/17", "no colon here", 1000), -1)
        << "a header without a name is not sent half-made";
    stock_client_destroy(client);

    stock_service_request_stop();
    service.join();
    EXPECT_EQ(rc, 0);
}

}  // namespace
