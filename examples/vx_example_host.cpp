/*
 * The agent's life in a native host: vx_init2 on a thread of its own, the
 * session the collector starts and stops, vx_free at the end.
 */
#include "vx_example_host.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "vx_sdk.h"

namespace {

/* The agent tells the host on its control thread when a session starts and
 * stops. */
std::atomic<int> g_session_running{0};

void on_test_status(int running)
{
    g_session_running = running;
    printf("host: collector session %s\n", running ? "started" : "stopped");
    fflush(stdout);
}

/* Wait up to `seconds` for the session to be `running`. */
bool wait_session(int running, int seconds)
{
    for (int i = 0; i < seconds * 10 && g_session_running != running; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    return g_session_running == running;
}

}  // namespace

int example_host_start(const char* app_name, const char* process_name)
{
    register_test_status_for_agent(on_test_status);
    /* vx_init2 holds its caller for a fixed time so that the collector can
     * start a session; this host goes on with its own start-up meanwhile and
     * waits for the session itself. */
    std::thread([app = std::string(app_name), process = std::string(process_name)] {
        vx_init2(const_cast<char*>("cppAgent"), const_cast<char*>(process.c_str()),
                 const_cast<char*>("1.0.0"), const_cast<char*>(app.c_str()));
    }).detach();
    if (!wait_session(1, 40)) return -1;
    /* The session is announced just before it opens: give it a moment. */
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    return 0;
}

int example_host_wait_stop(void)
{
    if (!wait_session(0, 60)) return -1;
    /* The agent sends what is left of the session on its own thread. */
    std::this_thread::sleep_for(std::chrono::seconds(1));
    return 0;
}

void example_host_stop(void)
{
    vx_free();
}
