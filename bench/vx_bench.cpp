/*
 * The host's hot path, measured: method entry and exit, a whole flowpath, and
 * the clock primitives they are made of, all in one run so that targets can
 * be stated as ratios of the same machine's numbers.
 *
 *   ./build/bench/vx_bench --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
 */
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/stat.h>

#include "core/vx_hashmap.h"
#include "agent/vx_instance.h"
#include "core/vx_platform.h"
#include "flowpath/vx_method_table.h"
#include "session/vx_session.h"
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

char* S(const char* s) { return const_cast<char*>(s); }

void start_agent()
{
    static bool done = [] {
        char tmpl[] = "/tmp/vx_bench_XXXXXX";
        const char* home = mkdtemp(tmpl);
        setenv("VXHOME", home ? home : "/tmp", 1);
        agent_init(S("BenchPool"), 1, S("bench"), S("cppAgent"), S("1"));
        long long now = my_gettimeofday();
        vx::session_start(1, now - now % 86400000LL);
        char profile[] = "bench|Bench|work|0|0\nbench|Bench|inner|0|0\n";
        setMethodHashMapNode(profile);
        tlvxApplication->VXSys.bciInstrSessionPct = 100;
        return true;
    }();
    (void)done;
}

VXPerThreadData_t* open_flowpath()
{
    return static_cast<VXPerThreadData_t*>(
        startFP(nullptr, S("/bench"), nullptr, nullptr, nullptr, nullptr, nullptr, -1, 0));
}

void close_flowpath(VXPerThreadData_t* td)
{
    endFP(td, 200, nullptr, 0, 0, 0, nullptr);
    reset(td);
}

/* One read of the thread CPU-time clock: a system call here. */
void BM_ThreadCpuClock(benchmark::State& state)
{
    start_agent();
    for (auto _ : state) benchmark::DoNotOptimize(getThreadCpuTimeNs());
}
BENCHMARK(BM_ThreadCpuClock);

void BM_WallClock(benchmark::State& state)
{
    start_agent();
    for (auto _ : state) benchmark::DoNotOptimize(my_gettimeofday());
}
BENCHMARK(BM_WallClock);

/* The per-flowpath lock (sequenceBlobLock): one uncontended lock and unlock. */
void BM_RecordLock(benchmark::State& state)
{
    start_agent();
    VXPerThreadData_t* td = open_flowpath();
    for (auto _ : state) {
        apr_thread_mutex_lock(td->sequenceBlobLock);
        apr_thread_mutex_unlock(td->sequenceBlobLock);
    }
    close_flowpath(td);
}
BENCHMARK(BM_RecordLock);

/* The string-map write lock with the insert and removal a flowpath does in
 * the instance map at start and end. */
void BM_MapInsertRemove(benchmark::State& state)
{
    start_agent();
    char key[] = "4611686018427387905";
    int value = 0;
    for (auto _ : state) {
        vx::insert_hashmap_if_absent(key, &value, tlvxApplication->fpiToTLS);
        vx::remove_hashmap_if(key, &value, tlvxApplication->fpiToTLS);
    }
}
BENCHMARK(BM_MapInsertRemove);

/* (a) and (d): one entry and exit pair on a captured flowpath, with the
 * method handle the host cached. Each thread has a flowpath of its own. */
void BM_MethodPair(benchmark::State& state)
{
    start_agent();
    VXPerThreadData_t* td = open_flowpath();
    void* method = vxMethodEntry(nullptr, td, S("Bench.work"), nullptr, nullptr, 1, nullptr, nullptr, 0, nullptr);
    vxMethodExit(method, td, S("Bench.work"), 0, -1, nullptr, 0, 1, 0, nullptr, 1, nullptr, 0, nullptr);
    const long long before = g_mallocs.load();
    for (auto _ : state) {
        vxMethodEntry(method, td, S("Bench.work"), nullptr, nullptr, 1, nullptr, nullptr, 0, nullptr);
        vxMethodExit(method, td, S("Bench.work"), 0, -1, nullptr, 0, 1, 0, nullptr, 1, nullptr, 0, nullptr);
    }
    if (state.thread_index() == 0)
        state.counters["allocs_per_pair"] =
            static_cast<double>(g_mallocs.load() - before) / static_cast<double>(state.iterations() * state.threads());
    state.SetItemsProcessed(state.iterations());
    close_flowpath(td);
}
BENCHMARK(BM_MethodPair)->Threads(1)->Threads(2)->Threads(8)->UseRealTime();

/* The engine's own cost of the same pair: the thread CPU clock (a system
 * call at entry and at exit) is replaced by a constant, so what remains is
 * the lookup, the tokens and one wall-clock read per event. */
void BM_MethodPairEngine(benchmark::State& state)
{
    start_agent();
    vx::clock_set_source(nullptr, [] { return 0LL; });
    VXPerThreadData_t* td = open_flowpath();
    void* method = vxMethodEntry(nullptr, td, S("Bench.work"), nullptr, nullptr, 1, nullptr, nullptr, 0, nullptr);
    vxMethodExit(method, td, S("Bench.work"), 0, -1, nullptr, 0, 1, 0, nullptr, 1, nullptr, 0, nullptr);
    for (auto _ : state) {
        vxMethodEntry(method, td, S("Bench.work"), nullptr, nullptr, 1, nullptr, nullptr, 0, nullptr);
        vxMethodExit(method, td, S("Bench.work"), 0, -1, nullptr, 0, 1, 0, nullptr, 1, nullptr, 0, nullptr);
    }
    state.SetItemsProcessed(state.iterations());
    close_flowpath(td);
    vx::clock_set_source(nullptr, nullptr);
}
BENCHMARK(BM_MethodPairEngine);

/* (b): the same pair through the SDK calls, which look the method up by
 * name on every event. */
void BM_SdkMethodPair(benchmark::State& state)
{
    start_agent();
    vxBTHandle h = vx_bt_begin(S("/bench-sdk"), nullptr, nullptr, nullptr, nullptr, nullptr);
    for (auto _ : state) {
        vx_method_entry(h, S("Bench.work"));
        vx_method_exit(h, S("Bench.work"), nullptr);
    }
    state.SetItemsProcessed(state.iterations());
    vx_bt_end(h, 200, 0, nullptr);
}
BENCHMARK(BM_SdkMethodPair);

/* (c): a whole flowpath: start, ten method pairs, end and reset. */
void BM_FlowpathWithTenMethods(benchmark::State& state)
{
    start_agent();
    VXPerThreadData_t* warm = open_flowpath();
    void* method = vxMethodEntry(nullptr, warm, S("Bench.inner"), nullptr, nullptr, 1, nullptr, nullptr, 0, nullptr);
    vxMethodExit(method, warm, S("Bench.inner"), 0, -1, nullptr, 0, 1, 0, nullptr, 1, nullptr, 0, nullptr);
    close_flowpath(warm);
    for (auto _ : state) {
        VXPerThreadData_t* td = open_flowpath();
        for (int i = 0; i < 10; ++i) {
            vxMethodEntry(method, td, S("Bench.inner"), nullptr, nullptr, 1, nullptr, nullptr, 0, nullptr);
            vxMethodExit(method, td, S("Bench.inner"), 0, -1, nullptr, 0, 1, 0, nullptr, 1, nullptr, 0, nullptr);
        }
        close_flowpath(td);
    }
}
BENCHMARK(BM_FlowpathWithTenMethods);

/* The same flowpath without its methods: what start, end and reset cost. */
void BM_FlowpathStartEndReset(benchmark::State& state)
{
    start_agent();
    for (auto _ : state) close_flowpath(open_flowpath());
}
BENCHMARK(BM_FlowpathStartEndReset);

}  // namespace

BENCHMARK_MAIN();
