/* vxc-lite: the stand-in collector as a command. See vxc_lite.h and --help. */
#include <apr_general.h>

#include <csignal>
#include <cstdio>
#include <string>

#include "server.h"
#include "vxc_lite.h"

namespace {

vxc::Server* g_server = nullptr;

void on_signal(int)
{
    vxc::server_request_stop(g_server);
}

}  // namespace

int main(int argc, char** argv)
{
    vxc::Options opts;
    std::string out, error;
    const int parsed = vxc::parse_args(argc, argv, &opts, &out, &error);
    if (parsed == 1) {
        fputs(out.c_str(), stdout);
        return 0;
    }
    if (parsed != 0) {
        fprintf(stderr, "vxc-lite: %s\n%s", error.c_str(), vxc::usage().c_str());
        return 2;
    }
    if (apr_initialize() != APR_SUCCESS) {
        fprintf(stderr, "vxc-lite: cannot initialise APR\n");
        return 1;
    }
    /* A peer that goes away while a line is sent must not end the run. */
    signal(SIGPIPE, SIG_IGN);
    vxc::Server* server = nullptr;
    if (vxc::server_create(opts, &server, &error) != 0) {
        fprintf(stderr, "vxc-lite: %s\n", error.c_str());
        apr_terminate();
        return 1;
    }
    g_server = server;
    struct sigaction sa = {};
    sa.sa_handler = on_signal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    /* Scripts read the port from this line. */
    printf("listening on 127.0.0.1:%d\n", vxc::server_port(server));
    fflush(stdout);
    const int rc = vxc::server_run(server);
    signal(SIGINT, SIG_DFL);
    signal(SIGTERM, SIG_DFL);
    g_server = nullptr;
    vxc::server_destroy(server);
    apr_terminate();
    return rc == 0 ? 0 : 1;
}
