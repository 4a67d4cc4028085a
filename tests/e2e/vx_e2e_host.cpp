/*
 * The host of the end-to-end tests: a process that loads the agent the way a
 * host does (agent_init with a collector from the environment) and then
 * plays one role, reporting what it did as "key=value" lines on stdout.
 *
 *   stream SECONDS   register, open a session with the data thread, write
 *                    numbered records (record 100, "100,<seq>,e2e") every
 *                    10 ms, and whenever the session is lost (the collector
 *                    went away) open a new one once the agent has registered
 *                    again; stop the last session at the end
 *   load SECONDS THREADS
 *                    register, open a session, and have THREADS threads write
 *                    200-byte records as fast as they can; then wait for the
 *                    buffers to drain and stop the session
 *   idle SECONDS     make host calls (flowpath start and end) in a loop,
 *                    whatever the collector does, and report the slowest
 *   methods SECONDS  leave the session to the collector and run a
 *                    transaction every 20 ms: "/shop/cart?item=7" entering
 *                    Shop.handle, which calls Shop.loadCart three times,
 *                    only once the data connection has been open for 200 ms;
 *                    report how many transactions the agent took
 *   urls SECONDS THREADS HOLD_MS URL...
 *                    once the data connection has been open for 200 ms,
 *                    THREADS threads run transactions on the URLs in turn
 *                    ("path?query|METHOD"), each lasting HOLD_MS and ending
 *                    with status 200, 5 ms apart; report how many the agent
 *                    took, then wait (up to 15 s) for the session to stop
 *   front SECONDS FILE
 *                    once the data connection has been open for 200 ms, run
 *                    ten transactions "/front/pay" that each call another
 *                    tier through Http.post; every other one arrives with an
 *                    upstream caller's traceparent (trace id kUpstreamTrace).
 *                    The call's correlation header and traceparent go to
 *                    FILE, one line "<instance> <header> <traceparent>" each
 *                    ("-" for none); report the count, then wait for the
 *                    session to stop
 *   back SECONDS FILE
 *                    serve, as the called tier, one transaction "/back/stock"
 *                    per line of FILE as the lines appear (up to ten), with
 *                    the header as the caller's correlation text and the
 *                    traceparent among its request headers, then three with
 *                    headers no caller would send; report how many the agent
 *                    took, then wait for the session to stop
 *   diag SECONDS
 *                    once the data connection has been open for 200 ms, two
 *                    threads run twelve transactions "/shop/order" each,
 *                    entering Shop.order, which runs kQueries[i % 4]
 *                    through Db.query (the second calls Db.query again from
 *                    inside, a nested call) and throws now and then
 *                    (kThrows); report "transactions", "runs<i>" per query
 *                    and "thrown<j>" per exception, then wait for the
 *                    session to stop
 *   mixed SESSIONS
 *                    two threads start transactions "/shop/order" without
 *                    waiting for anything, each with a method, a query (one
 *                    of forty, so ids are still made late in a session), a
 *                    database callout and now and then an exception; ends
 *                    when SESSIONS sessions have ended, or after 60 s
 *   discover SECONDS CALLBACK
 *                    with CALLBACK 1 register a discovery callback that
 *                    reports kDiscovered and then the summary, and wait for
 *                    it to run; with 0 register none and wait SECONDS once
 *                    registered; report what the callback was given
 *
 * Until the collector starts sessions itself, the session is opened here by
 * raising its flags and starting the data thread.
 *
 * The agent reads its environment as any host's agent does; a test that
 * needs several auto-sensor intervals quickly passes VX_AS_TICK_MS and
 * VX_AS_RETRY_MS (see diag/vx_autosensor_thread.h) in the host's extra
 * environment.
 */
#include <apr_time.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "agent/vx_instance.h"
#include "core/vx_atomic.h"
#include "core/vx_platform.h"
#include "core/vx_thread.h"
#include "http/vx_http_capture.h"
#include "http/vx_trace_headers.h"
#include "link/vx_data_dispatcher.h"
#include "session/vx_session.h"
#include "vx_sdk.h"

namespace {

long long now_ms()
{
    return apr_time_now() / 1000;
}

void sleep_ms(int ms)
{
    apr_sleep(apr_time_from_msec(ms));
}

template <typename Pred>
bool wait_for(Pred done, long long timeout_ms)
{
    const long long end = now_ms() + timeout_ms;
    while (!done()) {
        if (now_ms() >= end) return false;
        sleep_ms(20);
    }
    return true;
}

bool registered(VXProxyInstance_t* app, long long since)
{
    return vx::load_relaxed(app->controlLink.ctrlServing) &&
           vx::load_relaxed(app->Server.lastConnectionTime) >= since;
}

bool data_open(VXProxyInstance_t* app)
{
    return vx::load_relaxed(app->VXSys.dataConnState) == 1 &&
           vx::load_relaxed(app->dataChannel.dataSkt.skt);
}

/* Waits up to 30 s for the data connection, then 200 ms more. */
bool wait_data(VXProxyInstance_t* app)
{
    if (!wait_for([app] { return data_open(app); }, 30000)) return false;
    sleep_ms(200);
    return true;
}

/* The monitors report what ended before the stop: a role stays for it, and
 * for the data thread to send the session's end. */
void wait_session_end(VXProxyInstance_t* app)
{
    wait_for([app] { return !vx::load_acquire(app->Server.testRunRunning); }, 15000);
    wait_for([app] { return !vx::load_relaxed(app->VXBCISetting.data_thread_running); }, 15000);
}

/* A transaction on `url` ("path?query|METHOD") called with the correlation
 * text `caller` (null: none); null when the agent takes none. */
VXPerThreadData_t* start_tx(char* url, const char* caller = nullptr, long long queue_ms = -1)
{
    return static_cast<VXPerThreadData_t*>(startFP(const_cast<char*>(caller), url, nullptr, nullptr,
                                                   nullptr, nullptr, nullptr, queue_ms, 0));
}

/* Ends `fp` with status 200 and gives its record back. */
void end_tx(VXPerThreadData_t* fp)
{
    endFP(fp, 200, nullptr, 0, 0, 0, nullptr);
    reset(fp);
}

void* enter(VXPerThreadData_t* fp, char* method, char* query = nullptr)
{
    return vxMethodEntry(nullptr, fp, method, query, nullptr, 0, nullptr, nullptr, 0, nullptr);
}

/* Leaves `method`; with a `backend`, as a callout that went out. */
void leave(void* h, VXPerThreadData_t* fp, char* method, char* backend = nullptr,
           long long end_ms = 0)
{
    const int callout = backend ? 1 : 0;
    vxMethodExit(h, fp, method, 0, -1, backend, 0, 0, callout, nullptr, callout, nullptr, end_ms,
                 nullptr);
}

bool ring_drained(VXProxyInstance_t* app)
{
    vx::VXLockGuard write(app->dataChannel.bufferWriteLock);
    vx::VXLockGuard move(app->dataChannel.bufferMoveLock);
    return app->dataChannel.readListSize == 0 &&
           (!app->dataChannel.VXBCIAgentBB || app->dataChannel.VXBCIAgentBB->use_len == 0);
}

long long peak_rss_kb()
{
    std::ifstream in("/proc/self/status");
    std::string line;
    while (std::getline(in, line))
        if (line.rfind("VmHWM:", 0) == 0) return atoll(line.c_str() + 6);
    return -1;
}

void write_record(long long seq, const char* tail)
{
    char rec[256];
    int n = snprintf(rec, sizeof rec, "100,%lld,%s\n", seq, tail);
    dumpData(rec, n);
}

int run_stream(VXProxyInstance_t* app, int seconds)
{
    const long long end = now_ms() + seconds * 1000LL;
    long long seq = 0;
    int sessions = 0;
    long long since = 0;
    while (now_ms() < end) {
        if (!vx::load_relaxed(app->Server.testRunRunning)) {
            /* A new session once the agent has registered (again) and the
             * last data thread has ended. */
            if (registered(app, since) &&
                !vx::load_relaxed(app->VXBCISetting.data_thread_running)) {
                vx::session_start(++sessions, 1388534400000LL, vx::SessionData::kDataThread);
                since = vx::load_relaxed(app->Server.lastConnectionTime) + 1;
                printf("session=%d\nsession_from=%lld\n", sessions, seq);
                fflush(stdout);
                wait_for(
                    [app] {
                        return data_open(app) || !vx::load_relaxed(app->Server.testRunRunning);
                    },
                    5000);
            }
            sleep_ms(10);
            continue;
        }
        write_record(seq++, "e2e");
        sleep_ms(10);
    }
    vx::session_stop();
    wait_for([app] { return !vx::load_relaxed(app->VXBCISetting.data_thread_running); }, 20000);
    printf("offered=%lld\nsessions=%d\ndiscard=%d\n", seq, sessions,
           vx::load_relaxed(app->VXSys.discardCount));
    return sessions > 0 ? 0 : 1;
}

int run_load(VXProxyInstance_t* app, int seconds, int threads)
{
    if (!wait_for([app] { return registered(app, 0); }, 30000)) return 2;
    vx::session_start(1, 1388534400000LL, vx::SessionData::kDataThread);
    if (!wait_for([app] { return data_open(app); }, 10000)) return 3;
    /* The data heartbeat goes through the same door: off, so that every
     * discard counted is one of the records offered here. */
    vx::store_relaxed(app->VXSys.vxcBciDataConnectionHeartBeat, 0);
    const long long base_rss = peak_rss_kb();
    std::atomic<bool> stop{false};
    std::vector<long long> offered(static_cast<size_t>(threads), 0);
    std::vector<long long> slowest_us(static_cast<size_t>(threads), 0);
    std::vector<std::thread> producers;
    for (int t = 0; t < threads; ++t) {
        producers.emplace_back([&, t] {
            char rec[200];
            memset(rec, 'x', sizeof rec);
            long long n = 0;
            while (!stop.load(std::memory_order_relaxed)) {
                int head = snprintf(rec, sizeof rec, "100,%d%012lld,", t, n);
                rec[head] = 'x';
                rec[sizeof rec - 1] = '\n';
                const long long t0 = apr_time_now();
                dumpData(rec, sizeof rec);
                const long long took = apr_time_now() - t0;
                if (took > slowest_us[static_cast<size_t>(t)])
                    slowest_us[static_cast<size_t>(t)] = took;
                ++n;
            }
            offered[static_cast<size_t>(t)] = n;
        });
    }
    sleep_ms(seconds * 1000);
    stop = true;
    for (auto& p : producers) p.join();
    const bool drained = wait_for([app] { return ring_drained(app); }, 120000);
    const int discard = vx::load_relaxed(app->VXSys.discardCount);
    long long total = 0, slowest = 0;
    for (int t = 0; t < threads; ++t) {
        total += offered[static_cast<size_t>(t)];
        if (slowest_us[static_cast<size_t>(t)] > slowest)
            slowest = slowest_us[static_cast<size_t>(t)];
    }
    long long buffers = 0;
    {
        vx::VXLockGuard move(app->dataChannel.bufferMoveLock);
        buffers = app->dataChannel.writeListSize + app->dataChannel.readListSize;
    }
    const long long ring_bytes = buffers * app->VXSys.bciDataBufferMaxSize;
    vx::session_stop();
    wait_for([app] { return !vx::load_relaxed(app->VXBCISetting.data_thread_running); }, 20000);
    printf("offered=%lld\ndiscard=%d\ndrained=%d\nbuffers=%lld\nring_bytes=%lld\n", total, discard,
           drained ? 1 : 0, buffers, ring_bytes);
    printf("base_rss_kb=%lld\npeak_rss_kb=%lld\nslowest_call_us=%lld\n", base_rss, peak_rss_kb(),
           slowest);
    return 0;
}

int run_idle(VXProxyInstance_t* app, int seconds)
{
    const long long end = now_ms() + seconds * 1000LL;
    long long calls = 0, slowest = 0;
    bool ever_registered = false;
    char url[] = "/idle";
    while (now_ms() < end) {
        const long long t0 = apr_time_now();
        if (auto* fp = start_tx(url, nullptr, 0)) end_tx(fp);
        const long long took = apr_time_now() - t0;
        if (took > slowest) slowest = took;
        ++calls;
        ever_registered = ever_registered || registered(app, 0);
        if (calls % 64 == 0) sleep_ms(1);
    }
    printf("calls=%lld\nslowest_call_us=%lld\nregistered=%d\n", calls, slowest,
           ever_registered ? 1 : 0);
    return 0;
}

int run_methods(VXProxyInstance_t* app, int seconds)
{
    const long long end = now_ms() + seconds * 1000LL;
    long long taken = 0;
    long long open_since = 0;
    char url[] = "/shop/cart?item=7|GET";
    char handle[] = "Shop.handle";
    char load[] = "Shop.loadCart";
    while (now_ms() < end) {
        if (!data_open(app)) open_since = 0;
        if (!open_since && data_open(app)) open_since = now_ms();
        if (!open_since || now_ms() - open_since < 200) {
            sleep_ms(5);
            continue;
        }
        if (auto* fp = start_tx(url)) {
            ++taken;
            void* h = enter(fp, handle);
            for (int i = 0; i < 3; ++i) leave(enter(fp, load), fp, load);
            leave(h, fp, handle);
            end_tx(fp);
        }
        sleep_ms(20);
    }
    printf("transactions=%lld\n", taken);
    return 0;
}

int run_urls(VXProxyInstance_t* app, int seconds, int threads, int hold_ms,
             const std::vector<std::string>& urls)
{
    if (urls.empty() || threads < 1) return 64;
    if (!wait_data(app)) return 3;
    const long long end = now_ms() + seconds * 1000LL;
    std::atomic<long long> taken{0};
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&, t] {
            for (size_t i = static_cast<size_t>(t); now_ms() < end; ++i) {
                std::string url = urls[i % urls.size()];
                if (auto* fp = start_tx(url.data())) {
                    ++taken;
                    if (hold_ms > 0) sleep_ms(hold_ms);
                    end_tx(fp);
                }
                sleep_ms(5);
            }
        });
    }
    for (auto& w : workers) w.join();
    printf("transactions=%lld\n", taken.load());
    wait_session_end(app);
    return 0;
}

constexpr int kTierCalls = 10;
constexpr char kUpstreamTrace[] = "4bf92f3577b34da6a3ce929d0e0e4736";

/* The value of the "traceparent:" line of the agent's outgoing headers, or
 * "-" when it gives none. */
std::string outgoing_traceparent(VXPerThreadData_t* fp)
{
    char lines[2048] = "";
    get_propagation_header(fp, lines);
    const char* at = strstr(lines, "traceparent:");
    if (!at) return "-";
    at += strlen("traceparent:");
    return std::string(at, strcspn(at, "\n"));
}

int run_front(VXProxyInstance_t* app, const char* path)
{
    if (!wait_data(app)) return 3;
    std::ofstream out(path);
    char url[] = "/front/pay|POST";
    char post[] = "Http.post";
    char backend[] = "HTTP|back|8080|/back/stock";
    int sent = 0;
    for (int i = 0; i < kTierCalls; ++i) {
        auto* fp = start_tx(url);
        if (!fp) continue;
        std::string request = "User-Agent$e2e";
        if (i % 2 == 0)
            request += std::string("\x7ftraceparent$00-") + kUpstreamTrace + "-00f067aa0ba902b7-01";
        httpReqRespWrapper(fp, request.data(), const_cast<char*>("req"), 0);
        void* h = enter(fp, post);
        const char* header = getTierCallOut(fp, backend);
        if (header) {
            out << fp->flowpathInstance << ' ' << header << ' ' << outgoing_traceparent(fp)
                << std::endl;
            ++sent;
        }
        sleep_ms(5);
        leave(h, fp, post, backend, my_gettimeofday());
        end_tx(fp);
        sleep_ms(20);
    }
    printf("calls=%d\n", sent);
    wait_session_end(app);
    return 0;
}

int run_back(VXProxyInstance_t* app, int seconds, const char* path)
{
    if (!wait_data(app)) return 3;
    /* A collector gives each agent a range of instance numbers of its own
     * (the flowpath mask); vxc-lite gives both tiers the same, so this one
     * moves to another range, as the collector's mask would put it. */
    app->VXSys.flowPathInstanceInitialID += 1LL << 60;
    char url[] = "/back/stock|GET";
    auto serve = [&](const std::string& caller, const std::string& traceparent) {
        auto* fp = start_tx(url, caller.c_str());
        if (!fp) return 0;
        std::string request = "Accept$text/plain";
        if (traceparent != "-") request += "\x7ftraceparent$" + traceparent;
        httpReqRespWrapper(fp, request.data(), const_cast<char*>("req"), 0);
        char response[] = "Content-Type$text/plain";
        httpReqRespWrapper(fp, response, const_cast<char*>("resp"), 200);
        end_tx(fp);
        return 1;
    };
    int taken = 0;
    size_t done = 0;
    const long long end = now_ms() + seconds * 1000LL;
    while (done < kTierCalls && now_ms() < end) {
        std::ifstream in(path);
        std::vector<std::string> lines;
        for (std::string l; std::getline(in, l);) lines.push_back(l);
        for (; done < lines.size(); ++done) {
            std::istringstream fields(lines[done]);
            std::string instance, header, traceparent;
            fields >> instance >> header >> traceparent;
            taken += serve(header, traceparent);
        }
        sleep_ms(20);
    }
    for (const char* hostile : {"1_2", "_______________", "9F_x_\n91,evil_NA_0_NA_t_s_i"})
        taken += serve(hostile, "-");
    printf("transactions=%d\n", taken);
    wait_session_end(app);
    return 0;
}

/* Texts the diag role hands the agent: queries that differ only in case or
 * a literal, and one with every separator of a record. */
constexpr const char* kQueries[] = {
    "SELECT * FROM items WHERE id = ?",
    "select * from items where id = ?",
    "SELECT * FROM items WHERE id = 7",
    "UPDATE stock SET n = n - 1, note = 'a|b', path = 'c:\\d' WHERE id = \"x\"\n AND _ok",
};
constexpr const char kNestedQuery[] = "SELECT 1";

/* Exceptions thrown in Shop.order: transaction i throws kThrows[j] when
 * i % every == 0. The filtered class never reaches the collector; the
 * hostile one carries a record's separators in its class and message. */
struct Throw {
    const char* cls;
    const char* message;
    int every;
};
constexpr Throw kThrows[] = {
    {"shop.OutOfStock", "item 7 is gone, sorry", 2},
    {"shop.Ignored", "filtered out", 3},
    {"shop.Bad,Class\n38,1,2", "line one\nline two, and more|more", 5},
};

int run_diag(VXProxyInstance_t* app)
{
    if (!wait_data(app)) return 3;
    constexpr int kEach = 12; /* transactions per thread, two threads */
    std::atomic<long long> taken{0};
    std::atomic<int> runs[std::size(kQueries)] = {}, thrown[std::size(kThrows)] = {};
    auto work = [&](int t) {
        char url[] = "/shop/order|POST";
        char order[] = "Shop.order", query[] = "Db.query";
        char backend[] = "mysql|db.internal|3306";
        for (int i = t * kEach; i < (t + 1) * kEach; ++i) {
            auto* fp = start_tx(url);
            if (!fp) continue;
            ++taken;
            void* h = enter(fp, order);
            const size_t q = static_cast<size_t>(i) % std::size(kQueries);
            std::string text = kQueries[q];
            void* d = enter(fp, query, text.data());
            if (q == 1) {
                std::string nested = kNestedQuery;
                leave(enter(fp, query, nested.data()), fp, query, backend, my_gettimeofday());
            }
            sleep_ms(2);
            leave(d, fp, query, backend, my_gettimeofday());
            ++runs[q];
            for (size_t j = 0; j < std::size(kThrows); ++j) {
                if (i % kThrows[j].every != 0) continue;
                std::string cls = kThrows[j].cls, message = kThrows[j].message;
                char stack[] = "at Shop.order(Shop.java:42)\nat Main.run(Main.java:7)",
                     shop[] = "Shop", method[] = "order";
                getstacktracearray(fp, stack, nullptr, cls.data(), shop, message.data(), method,
                                   42, nullptr);
                ++thrown[j];
            }
            leave(h, fp, order, nullptr, my_gettimeofday());
            end_tx(fp);
            sleep_ms(40);
        }
    };
    std::thread other(work, 1);
    work(0);
    other.join();
    printf("transactions=%lld\n", taken.load());
    for (size_t q = 0; q < std::size(kQueries); ++q) printf("runs%zu=%d\n", q, runs[q].load());
    for (size_t j = 0; j < std::size(kThrows); ++j) printf("thrown%zu=%d\n", j, thrown[j].load());
    wait_session_end(app);
    return 0;
}

/* The results the discovery callback reports, then its summary. */
constexpr const char* kDiscovered[] = {"com.shop.Cart|add,remove", "com.shop.Order|place"};
constexpr char kDiscoverySummary[] = "totalTimeTaken=15;classCount=2";

std::atomic<int> g_discover_calls{0};
std::string g_discover_args; /* written before g_discover_calls rises */

void on_discover(char** methods, char** classes, int method_count, int class_count)
{
    std::string args = std::to_string(method_count) + ":";
    for (int i = 0; i < class_count; ++i) args += (i ? "|" : "") + std::string(classes[i]);
    (void)methods;
    g_discover_args = args;
    for (const char* line : kDiscovered) wraphandleMessageForDiscovery(const_cast<char*>(line));
    wraphandleMessageForDiscovery(const_cast<char*>(kDiscoverySummary));
    ++g_discover_calls;
}

int run_discover(VXProxyInstance_t* app, int seconds, bool callback)
{
    if (callback) register_AD_callback(on_discover);
    if (!wait_for([app] { return registered(app, 0); }, 30000)) return 2;
    if (callback)
        wait_for([] { return g_discover_calls.load() > 0; }, seconds * 1000LL);
    else
        sleep_ms(seconds * 1000);
    printf("discover_calls=%d\n", g_discover_calls.load());
    if (g_discover_calls.load()) printf("discover_args=%s\n", g_discover_args.c_str());
    return 0;
}

/* Traffic that races every session's start, its data connections and its
 * end: ids are made while no connection is open and while one opens. */
int run_mixed(VXProxyInstance_t* app, int sessions)
{
    const long long end = now_ms() + 60000;
    std::atomic<int> ended{0};
    auto work = [&](int t) {
        char url[] = "/shop/order|POST", order[] = "Shop.order", query[] = "Db.query";
        char backend[] = "mysql|db.internal|3306";
        for (long long i = t; ended.load() < sessions && now_ms() < end; i += 2) {
            auto* fp = start_tx(url);
            if (!fp) {
                sleep_ms(1);
                continue;
            }
            void* h = enter(fp, order);
            std::string text = "SELECT * FROM t" + std::to_string(i % 40) + " WHERE id = ?";
            leave(enter(fp, query, text.data()), fp, query, backend, my_gettimeofday());
            if (i % 5 == 0) {
                std::string cls = "shop.E" + std::to_string(i % 7), message = "no " + text;
                char stack[] = "at Shop.order(Shop.java:42)", shop[] = "Shop", method[] = "order";
                getstacktracearray(fp, stack, nullptr, cls.data(), shop, message.data(), method,
                                   42, nullptr);
            }
            leave(h, fp, order, nullptr, my_gettimeofday());
            end_tx(fp);
            sleep_ms(3);
        }
    };
    std::thread other(work, 1);
    std::thread watch([&] {
        for (bool was = false; ended.load() < sessions && now_ms() < end; sleep_ms(1)) {
            const bool running = vx::load_acquire(app->Server.testRunRunning);
            if (was && !running) ++ended;
            was = running;
        }
    });
    work(0);
    other.join();
    watch.join();
    wait_session_end(app);
    printf("sessions=%d\n", ended.load());
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 3) {
        fprintf(stderr,
                "usage: %s stream SECONDS | load SECONDS THREADS | idle SECONDS | methods SECONDS "
                "| urls SECONDS THREADS HOLD_MS URL... | front SECONDS FILE | back SECONDS FILE | "
                "diag SECONDS | discover SECONDS CALLBACK | mixed SESSIONS\n",
                argv[0]);
        return 64;
    }
    const std::string mode = argv[1];
    const int seconds = atoi(argv[2]);
    const char* type = getenv("E2E_AGENT_TYPE");
    agent_init(const_cast<char*>("e2e"), 1, const_cast<char*>("e2e-host"),
               const_cast<char*>(type ? type : "cppAgent"), const_cast<char*>("v1"));
    VXProxyInstance_t* app = tlvxApplication;
    if (!app) return 2;
    int rc = 64;
    if (mode == "stream") rc = run_stream(app, seconds);
    if (mode == "load" && argc > 3) rc = run_load(app, seconds, atoi(argv[3]));
    if (mode == "idle") rc = run_idle(app, seconds);
    if (mode == "methods") rc = run_methods(app, seconds);
    if (mode == "urls" && argc > 5)
        rc = run_urls(app, seconds, atoi(argv[3]), atoi(argv[4]),
                      std::vector<std::string>(argv + 5, argv + argc));
    if (mode == "front" && argc > 3) rc = run_front(app, argv[3]);
    if (mode == "back" && argc > 3) rc = run_back(app, seconds, argv[3]);
    if (mode == "diag") rc = run_diag(app);
    if (mode == "mixed") rc = run_mixed(app, seconds);
    if (mode == "discover" && argc > 3) rc = run_discover(app, seconds, atoi(argv[3]) == 1);
    fflush(stdout);
    agent_shutdown();
    return rc;
}
