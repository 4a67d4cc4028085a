/*
 * A native host that uses only the agent's C interface: it starts the agent,
 * and reports every request it serves as a transaction, with the methods it
 * runs and the calls it makes to a database and to another service.
 *
 * The road of one request:
 *   vx_bt_begin                       the request arrives (URL, cookies, headers)
 *   sdk_httpReqRespWrapper("req")     its headers
 *   vx_method_entry / vx_method_exit  each instrumented method
 *   vx_ip_*_callout_begin / _end      each outgoing call
 *   sdk_httpReqRespWrapper("resp")    the response headers and status
 *   sdk_getVXSessionCookie            the session cookie to set
 *   vx_bt_end                         the response is sent
 */
#include "vx_example_host.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>

#include "vx_sdk.h"

namespace {

char* S(const char* s)
{
    return const_cast<char*>(s);
}

/* The agent tells the host on its control thread when a session starts and
 * stops. */
std::atomic<int> g_session_running{0};
std::atomic<int> g_session_changes{0};

void on_test_status(int running)
{
    g_session_running = running;
    ++g_session_changes;
    printf("host: collector session %s\n", running ? "started" : "stopped");
}

/* Wait up to `seconds` for the session to be `running`. */
bool wait_session(int running, int seconds)
{
    for (int i = 0; i < seconds * 10 && g_session_running != running; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    return g_session_running == running;
}

struct Request {
    const char* url;
    const char* headers;
    const char* caller; /* correlation header of a calling tier, or null */
    bool database;
    bool payment;
    int status;
    int slow_ms; /* time the payment takes */
    int work_ms; /* time the page itself takes */
};

/* One request from arrival to response. */
bool serve(const Request& req)
{
    vxBTHandle h =
        vx_bt_begin(S(req.url), nullptr, nullptr, S("7301-1-1-12"), S(req.headers), S(req.caller));
    if (!h) return false; /* no session: nothing to report */
    sdk_httpReqRespWrapper(h, S(req.headers), S("req"), 0);

    vx_method_entry(h, S("Shop.handle"));
    vx_method_entry(h, S("Shop.loadCart"));
    if (req.database) {
        vx_ip_db_callout_begin(S("Db.query"), h, S("select * from cart where user = ?"), S("42"));
        vx_ip_db_callout_end(S("Db.query"), S("MySQL|db.internal|3306|shop"), h, nullptr);
    }
    vx_method_exit(h, S("Shop.loadCart"), nullptr);
    if (req.payment) {
        vx_method_entry(h, S("Shop.pay"));
        vx_ip_http_callout_begin(S("Http.post"), h, S("https://pay.internal/charge"));
        if (req.slow_ms) std::this_thread::sleep_for(std::chrono::milliseconds(req.slow_ms));
        char* header = get_custom_vx_header(h); /* to send with the outgoing call */
        (void)header;
        vx_ip_http_callout_end(S("Http.post"), S("HTTP|pay.internal|443|/charge"), h, nullptr);
        vx_method_exit(h, S("Shop.pay"), nullptr);
    }
    if (req.work_ms) std::this_thread::sleep_for(std::chrono::milliseconds(req.work_ms));
    vx_method_exit(h, S("Shop.handle"), nullptr);

    sdk_httpReqRespWrapper(h, S("Content-Type: text/html"), S("resp"), req.status);
    char* cookie = sdk_getVXSessionCookie(h);
    sdk_free_memory(cookie);
    vx_bt_end(h, req.status, 0, nullptr);
    return true;
}

}  // namespace

int example_host_start(void)
{
    register_test_status_for_agent(on_test_status);
    /* vx_init2 holds its caller for a fixed time so that the collector can
     * start a session; this host goes on with its own start-up meanwhile and
     * waits for the session itself. */
    std::thread([] { vx_init2(S("cppAgent"), S("example-host"), S("1.0.0"), S("shop")); }).detach();
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

int example_host_serve(void)
{
    /* Fast pages, a database call, a payment, errors, one slow payment, a
     * call from another tier, a health check and a page no rule names. */
    static const Request kRequests[] = {
        {"/cart|GET", "User-Agent: demo", nullptr, true, false, 200, 0, 0},
        {"/api/stock/17|GET", "User-Agent: demo", "4611686018427387905_4611686018427387903_1.2_NA",
         true, false, 200, 0, 0},
        {"/checkout?step=2|POST", "User-Agent: demo", nullptr, true, true, 200, 0, 0},
        {"/health|GET", "User-Agent: probe", nullptr, false, false, 200, 0, 0},
        {"/cart|GET", "User-Agent: demo", nullptr, true, false, 200, 0, 0},
        {"/api/stock/42|GET", "User-Agent: demo", nullptr, true, false, 200, 0, 0},
        {"/checkout?step=3|POST", "User-Agent: demo", nullptr, false, true, 502, 0, 0},
        {"/about|GET", "User-Agent: demo", nullptr, false, false, 200, 0, 0},
        {"/checkout?step=2|POST", "User-Agent: demo", nullptr, true, true, 200, 3200, 0},
        {"/cart|GET", "User-Agent: demo", nullptr, true, false, 500, 0, 0},
        {"/api/stock/17|GET", "User-Agent: demo", nullptr, true, false, 200, 0, 0},
    };
    /* Then two lighter rounds a moment apart, so that the monitors'
     * intervals differ. */
    static const Request kLater[] = {
        {"/cart|GET", "User-Agent: demo", nullptr, true, false, 200, 0, 0},
        {"/api/stock/42|GET", "User-Agent: demo", nullptr, true, false, 200, 0, 0},
        {"/checkout?step=2|POST", "User-Agent: demo", nullptr, true, true, 200, 0, 0},
    };
    int served = 0;
    for (const Request& r : kRequests) served += serve(r) ? 1 : 0;
    for (int round = 0; round < 2; ++round) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        for (const Request& r : kLater) served += serve(r) ? 1 : 0;
    }
    /* Then paced rounds of pages that take their time, a round further apart
     * than a monitor interval is long: each page ends at most once per
     * interval, so each value its BT's digest gets is one page's time. */
    static const int kWorkMs[][3] = {
        {12, 8, 60}, {15, 9, 75}, {40, 11, 90}, {180, 95, 900}, {14, 10, 70},
    };
    for (const auto& work : kWorkMs) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2300));
        const Request paced[] = {
            {"/cart|GET", "User-Agent: demo", nullptr, true, false, 200, 0, work[0]},
            {"/api/stock/8|GET", "User-Agent: demo", nullptr, true, false, 200, 0, work[1]},
            {"/checkout?step=1|POST", "User-Agent: demo", nullptr, true, true, 200, 0, work[2]},
        };
        for (const Request& r : paced) served += serve(r) ? 1 : 0;
    }
    return served;
}

void example_host_stop(void)
{
    vx_free();
}
