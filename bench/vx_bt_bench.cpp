/*
 * Classifying a request by the URL pattern state machine: one look-up of a
 * five-segment URL with two query parameters and its method, against 10,
 * 100 and 1,000 pattern rules (the same requests at every size), and the
 * same look-up on one and two threads sharing one machine. Then the whole
 * classification a flowpath's start makes (get_obj_from_bt_name) under a
 * rule file of 10, 100 and 1,000 pattern lines, on one and two threads; the
 * look-up of an existing BT under the default global rule; and the
 * category of a finished transaction. "allocs" counts heap allocations per
 * request.
 *
 *   ./build/bench/vx_bt_bench --benchmark_repetitions=3 --benchmark_report_aggregates_only=true
 */
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "agent/vx_instance.h"
#include "bt/vx_bt_object.h"
#include "bt/vx_bt_rule_exec.h"
#include "bt/vx_bt_rule_file.h"
#include "bt/vx_url_state_machine.h"
#include "vx_sdk.h"

/* Heap allocations are counted by interposing malloc in this binary: the
 * agent is linked in statically, so its calls land here. */
extern "C" void* __libc_malloc(size_t);
static std::atomic<long long> g_mallocs{0};
extern "C" void* malloc(size_t n)
{
    g_mallocs.fetch_add(1, std::memory_order_relaxed);
    return __libc_malloc(n);
}

namespace {

constexpr int kHitId = 7777; /* the one rule that classifies the first request */

struct Request {
    std::string url;
    std::string params;
    const char* method;
};

const std::vector<Request> kRequests = {
    {"/api/v2/orders/12345/items", "page=2&sort=asc", "GET"},
    {"/api/v1/users/987/settings", "tab=2&lang=en", "GET"},
    {"/shop/books/fiction/42/reviews", "page=1&size=20", "GET"},
    {"/api/v3/payments/77/refunds", "from=2024&to=2025", "GET"},
};

const char* const kResources[] = {"orders",   "users",    "carts",   "payments",
                                  "invoices", "products", "reviews", "shipments"};

void add(vxlbStateMachine* sm, const std::string& pattern, int id, int match_type, int mode,
         const char* method)
{
    int method_len = method ? static_cast<int>(std::char_traits<char>::length(method)) : 0;
    vxlb_state_machine_add(sm, pattern.c_str(), static_cast<int>(pattern.size()), method,
                           method_len, id, match_type, mode, 0);
}

/* Rules of the shapes a rule file holds: exact and prefix paths, a wild card
 * inside the path, parameter rules, method rules. Each carries its number,
 * so that the trie grows with their count. */
void add_generated(vxlbStateMachine* sm, int k)
{
    std::string res = kResources[k % 8];
    std::string n = std::to_string(k);
    std::string version = "/api/v" + std::to_string(k % 3 + 1) + "/";
    int id = 100 + k;
    switch (k % 6) {
        case 0:
            add(sm, version + res + n + "/list", id, 0, 0, nullptr);
            break;
        case 1:
            add(sm, "/shop/" + res + n + "/item*", id, 1, 0, nullptr);
            break;
        case 2:
            add(sm, "/svc" + n + "/*/status", id, 0, 0, nullptr);
            break;
        case 3:
            add(sm, version + "search" + n + "*q=" + res + "*", id, 0, 1, nullptr);
            break;
        case 4:
            add(sm, "/user" + n + "/profile*", id, 0, 2, (k & 8) ? "POST" : "PUT");
            break;
        default:
            add(sm, version + res + n + "*id=*", id, 1, 3, "GET");
            break;
    }
}

/* Built once, before any thread reads it, and never written again. */
const vxlbStateMachine* machine_with(int rules)
{
    auto build = [](int count) {
        vxlbStateMachine sm{};
        vxlb_state_machine_init(&sm, 128);
        for (int k = 0; k < count - 1; ++k) {
            if (k == count / 2) add(&sm, "/api/v2/orders*/items*sort=asc*", kHitId, 1, 1, nullptr);
            add_generated(&sm, k);
        }
        return sm;
    };
    static const vxlbStateMachine m10 = build(10);
    static const vxlbStateMachine m100 = build(100);
    static const vxlbStateMachine m1000 = build(1000);
    return rules <= 10 ? &m10 : rules <= 100 ? &m100 : &m1000;
}

int lookup(const vxlbStateMachine* sm, const Request& r)
{
    return vxlb_state_machine_get(sm, r.url.c_str(), static_cast<int>(r.url.size()),
                                  r.params.c_str(), static_cast<int>(r.params.size()), r.method, 3,
                                  0);
}

void run_lookups(benchmark::State& state, const vxlbStateMachine* sm)
{
    if (lookup(sm, kRequests[0]) != kHitId) {
        state.SkipWithError("the benchmark request is not classified by its rule");
        return;
    }
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(lookup(sm, kRequests[i]));
        i = (i + 1) % kRequests.size();
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_UrlLookup(benchmark::State& state)
{
    run_lookups(state, machine_with(static_cast<int>(state.range(0))));
}
BENCHMARK(BM_UrlLookup)->Arg(10)->Arg(100)->Arg(1000);

/* Request threads share one machine with no lock: throughput should scale
 * with the cores. */
void BM_UrlLookupThreads(benchmark::State& state)
{
    run_lookups(state, machine_with(1000));
}
BENCHMARK(BM_UrlLookupThreads)->Threads(1)->Threads(2)->UseRealTime();

/* ---- the whole classification, through the agent ---- */

void start_agent()
{
    static bool done = [] {
        char tmpl[] = "/tmp/vx_bt_bench_XXXXXX";
        const char* home = mkdtemp(tmpl);
        setenv("VXHOME", home ? home : "/tmp", 1);
        agent_init(const_cast<char*>("BenchPool"), 0, const_cast<char*>("bench"),
                   const_cast<char*>("cppAgent"), const_cast<char*>("1"));
        return true;
    }();
    (void)done;
}

/* A rule file of `count` pattern lines in the shapes above, one of them the
 * rule the benchmark request hits. */
std::string rule_file(int count)
{
    std::string text = "5|4096\n";
    for (int k = 0; k < count - 1; ++k) {
        const std::string res = kResources[k % 8], n = std::to_string(k),
                          id = std::to_string(100 + k);
        const std::string version = "/api/v" + std::to_string(k % 3 + 1) + "/";
        if (k == count / 2)
            text += "7|OrderItems|7777|1|/api/v2/orders*/items|0|1|sort=asc|-|-|-|-|-|-|-\n";
        switch (k % 4) {
            case 0:
                text += "7|B" + n + "|" + id + "|0|" + version + res + n + "/list|0|-\n";
                break;
            case 1:
                text += "7|B" + n + "|" + id + "|1|/shop/" + res + n + "/item|0|-\n";
                break;
            case 2:
                text += "7|B" + n + "|" + id + "|0|/svc" + n + "/*/status|0|-\n";
                break;
            default:
                text += "7|B" + n + "|" + id + "|0|/user" + n + "/profile|0|2|-|PUT|-|-|-|-|-|-\n";
                break;
        }
    }
    return text;
}

/* Loads the rule file of `count` lines unless it is the one in force.
 * Called before the timed loop by the first thread only. */
void use_rules(int count)
{
    static std::mutex mu;
    static int loaded = 0;
    std::lock_guard<std::mutex> guard(mu);
    start_agent();
    if (loaded == count) return;
    VXBTConfigModelInit();
    std::string text = rule_file(count);
    vxbt_read_rule_file(text.data());
    loaded = count;
}

void classify_loop(benchmark::State& state)
{
    char url[] = "/api/v2/orders/12345/items", params[] = "page=2&sort=asc", method[] = "GET";
    char header[] = "";
    BTObject* bt = get_obj_from_bt_name(url, params, header, nullptr, method);
    if (!bt || bt->bt_id != kHitId) {
        state.SkipWithError("the benchmark request is not classified by its rule");
        return;
    }
    const long long before = g_mallocs.load();
    for (auto _ : state)
        benchmark::DoNotOptimize(get_obj_from_bt_name(url, params, header, nullptr, method));
    state.counters["allocs"] =
        static_cast<double>(g_mallocs.load() - before) / static_cast<double>(state.iterations());
    state.SetItemsProcessed(state.iterations());
}

void BM_ClassifyPattern(benchmark::State& state)
{
    use_rules(static_cast<int>(state.range(0)));
    classify_loop(state);
}
BENCHMARK(BM_ClassifyPattern)->Arg(10)->Arg(100)->Arg(1000);

void BM_ClassifyPatternThreads(benchmark::State& state)
{
    use_rules(1000); /* every thread: the first loads, the others find it loaded */
    classify_loop(state);
}
BENCHMARK(BM_ClassifyPatternThreads)->Threads(1)->Threads(2)->UseRealTime();

/* A BT that exists already, under the default global rule: the name is
 * built on the stack and found under the two locks. */
void BM_ClassifyGlobalExisting(benchmark::State& state)
{
    use_rules(0);
    VXBTConfigModelInit();
    char url[] = "/api/v2/orders/12345/items", params[] = "page=2", method[] = "GET", header[] = "";
    apr_thread_mutex_t* lock = nullptr;
    get_obj_from_bt_name(url, params, header, lock, method);
    const long long before = g_mallocs.load();
    for (auto _ : state)
        benchmark::DoNotOptimize(get_obj_from_bt_name(url, params, header, lock, method));
    state.counters["allocs"] =
        static_cast<double>(g_mallocs.load() - before) / static_cast<double>(state.iterations());
}
BENCHMARK(BM_ClassifyGlobalExisting);

void BM_FindCategory(benchmark::State& state)
{
    start_agent();
    const Threshold t{3000, 5000};
    long long d = 0;
    const long long before = g_mallocs.load();
    for (auto _ : state) {
        benchmark::DoNotOptimize(findCategoryOfBT(t, d, d & 1 ? 200 : 500, nullptr));
        d = (d + 977) % 7000;
    }
    state.counters["allocs"] =
        static_cast<double>(g_mallocs.load() - before) / static_cast<double>(state.iterations());
}
BENCHMARK(BM_FindCategory);

}  // namespace

BENCHMARK_MAIN();
