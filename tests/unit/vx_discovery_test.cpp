/*
 * Loaded-class discovery: what a request line gives the host's callback, and
 * the answer on the control connection (a vx_test::ControlPeer).
 * No collector is configured, so a worker started here ends at once.
 */
#include "link/vx_discovery.h"

#include <gtest/gtest.h>
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
    vx_test::ControlPeer collector;

    std::string with_id = "vxc_req:action=discover_loaded_classes;classFilters=*;ID=5;";
    std::string without_id = "vxc_req:action=discover_loaded_classes;Idx=6;classFilters=*;";
    startLoadedClassDiscovery(with_id.data()); /* the line is cut in place */
    startLoadedClassDiscovery(without_id.data());
    /* The answer is written before the calls return. */
    EXPECT_EQ(collector.take(), "vxc_rep:action=discover_loaded_classes;Id=5;result=Success;\n");

    for (int i = 0; i < 200 && vx::load_acquire(app->discovery.discover_thread_running); ++i)
        usleep(10000);
    EXPECT_EQ(vx::load_acquire(app->discovery.discover_thread_running), 0);
}
