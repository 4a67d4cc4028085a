/*
 * Classifying a request by the URL pattern state machine: one look-up of a
 * five-segment URL with two query parameters and its method, against 10,
 * 100 and 1,000 pattern rules (the same requests at every size), and the
 * same look-up on one and two threads sharing one machine.
 *
 *   ./build/bench/vx_bt_bench --benchmark_repetitions=3 --benchmark_report_aggregates_only=true
 */
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "bt/vx_url_state_machine.h"

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

}  // namespace

BENCHMARK_MAIN();
