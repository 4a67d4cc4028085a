/*
 * The demo's program: one binary for the shop's two tiers and for the report.
 *
 *   vx_example_host --stock-service [--port N]   the back tier
 *   vx_example_host --stock-port N               the front tier
 *   vx_example_host --report FILE [SUMMARY]      what vxc-lite stored
 *
 * Each tier loads libvxagent.so as a language module would; its agent
 * registers with the collector named in its settings (vxc-lite in the demo),
 * which starts a session with a profile of the example's methods; the agent
 * streams its records there, and the tier waits for the collector's stop.
 * The two agents differ by their tier (KLV_APP_AGENT_TIER).
 */
#include <libwebsockets.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "vx_demo_report.h"
#include "vx_example_host.h"
#include "vx_shop_front.h"
#include "vx_stock_service.h"

namespace {

int usage()
{
    fprintf(stderr,
            "usage: vx_example_host --stock-service [--port N]\n"
            "       vx_example_host --stock-port N\n"
            "       vx_example_host --report FILE [SUMMARY]\n");
    return 2;
}

/* A port from the command line: 0 to 65535, or -1. */
int port_of(const char* text)
{
    char* end = nullptr;
    const long port = strtol(text, &end, 10);
    return end != text && *end == '\0' && port >= 0 && port <= 65535 ? static_cast<int>(port) : -1;
}

int start_agent(const char* app_name, const char* process_name)
{
    if (example_host_start(app_name, process_name) == 0) return 0;
    fprintf(stderr,
            "no session from the collector (is VXHOME an existing directory? see the agent's "
            "trace log)\n");
    example_host_stop();
    return -1;
}

void on_stop_signal(int)
{
    stock_service_request_stop();
}

/* The back tier: its session first, so that the front's first call is
 * reported, then the service until SIGINT or SIGTERM. */
int run_stock_service(int port)
{
    if (start_agent("stock", "stock-service") != 0) return 1;
    signal(SIGINT, on_stop_signal);
    signal(SIGTERM, on_stop_signal);
    const int rc = stock_service_run(port);
    /* The collector has normally stopped this session before the front's
     * ended; waiting lets the agent send what is left either way. */
    example_host_wait_stop();
    example_host_stop();
    return rc == 0 ? 0 : 1;
}

/* The front tier: the shop's pages, then the collector's stop. */
int run_shop_front(int stock_port)
{
    if (start_agent("shop", "shop-front") != 0) return 1;
    const int served = shop_front_serve(stock_port);
    if (served < 0) {
        example_host_stop();
        return 1;
    }
    printf("shop: %d pages reported; waiting for the collector to stop the session\n", served);
    fflush(stdout);
    example_host_wait_stop();
    example_host_stop();
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    if ((argc == 3 || argc == 4) && strcmp(argv[1], "--report") == 0)
        return demo_report(argv[2], argc == 4 ? argv[3] : nullptr) == 0 ? 0 : 1;
    lws_set_log_level(LLL_ERR | LLL_WARN, nullptr); /* lws's notices are not the demo's */
    if (argc == 2 && strcmp(argv[1], "--stock-service") == 0) return run_stock_service(0);
    if (argc == 4 && strcmp(argv[1], "--stock-service") == 0 && strcmp(argv[2], "--port") == 0 &&
        port_of(argv[3]) >= 0)
        return run_stock_service(port_of(argv[3]));
    if (argc == 3 && strcmp(argv[1], "--stock-port") == 0 && port_of(argv[2]) > 0)
        return run_shop_front(port_of(argv[2]));
    return usage();
}
