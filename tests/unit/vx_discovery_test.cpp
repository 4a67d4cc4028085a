/*
 * Loaded-class discovery: what a request line gives the host's callback, and
 * the answer on the control connection (a socket pair stands in for it).
 * No collector is configured, so a worker started here ends at once.
 */
#include "link/vx_discovery.h"

#include <apr_portable.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "agent/vx_instance.h"
#include "vx_test_support.h"

namespace {

std::string join(char** list, int n)
{
    std::string out;
    for (int i = 0; i < n; ++i) out += (i ? "|" : "") + std::string(list[i]);
    return out;
}

}  // namespace

TEST(Discovery, RequestFieldsGiveTheIdAndTheFilterListsOfTheCallback)
{
    const std::string head = "vxc_req:action=discover_loaded_classes;";
    const std::string long_id(300, 'x');
    struct Case {
        std::string fields, connId, classes, methods;
    } cases[] = {
        {"Id=7;classFilters=*;methodFilters=NA;", "7", "", ""},
        {"Id=7;classFilters=a,b,c;methodFilters=get*;", "7", "a|b|c", "get*"},
        {"classFilters=NA;methodFilters=*;Id=abc;", "abc", "", ""},
        /* Only the exact key names connId; "ID=5" is the answer's alone. */
        {"ID=5;classFilters=com.shop.*;", "", "com.shop.*", ""},
        {"classFilters=x,,y;", "", "x|y", ""},
        {"Id=" + long_id + ";", long_id.substr(0, 255), "", ""},
    };
    for (const Case& c : cases) {
        VXAutoDiscoveryHandler_t* h = startParsingRecievedMsg((head + c.fields).c_str());
        ASSERT_NE(h, nullptr);
        EXPECT_EQ(h->connId, c.connId) << c.fields;
        EXPECT_EQ(join(h->classFiltersPatternList, h->classListLength), c.classes) << c.fields;
        EXPECT_EQ(join(h->methodFiltersPatternList, h->methodListLength), c.methods) << c.fields;
        free(h);
    }
    EXPECT_EQ(startParsingRecievedMsg(nullptr), nullptr);
}

TEST(Discovery, AnswerTakesTheIdInAnyCaseAndARequestWithoutOneIsIgnored)
{
    VXProxyInstance_t* app = vx_test::agent();
    vx_test::Restore keep(app->controlLink, active_vxc_idx);
    app->controlLink.vxc_server_arr = nullptr; /* the worker finds no collector */
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    apr_pool_t* pool = nullptr;
    apr_pool_create(&pool, nullptr);
    apr_socket_t* skt = nullptr;
    apr_os_sock_put(&skt, &fds[0], pool);
    app->controlLink.control.skt = skt;

    std::string with_id = "vxc_req:action=discover_loaded_classes;classFilters=*;ID=5;";
    std::string without_id = "vxc_req:action=discover_loaded_classes;Idx=6;classFilters=*;";
    startLoadedClassDiscovery(with_id.data()); /* the line is cut in place */
    startLoadedClassDiscovery(without_id.data());
    const std::string sent = "vxc_rep:action=discover_loaded_classes;Id=5;result=Success;\n";
    shutdown(fds[0], SHUT_WR);
    std::string got;
    char buf[256];
    for (ssize_t n; (n = read(fds[1], buf, sizeof buf)) > 0;)
        got.append(buf, static_cast<size_t>(n));
    EXPECT_EQ(got, sent);

    for (int i = 0; i < 200 && vx::load_acquire(app->discovery.discover_thread_running); ++i)
        usleep(10000);
    EXPECT_EQ(vx::load_acquire(app->discovery.discover_thread_running), 0);
    app->controlLink.control.skt = nullptr;
    apr_pool_destroy(pool); /* closes fds[0] */
    close(fds[1]);
}
