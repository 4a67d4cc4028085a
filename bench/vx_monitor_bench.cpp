/*
 * The BT monitor: the update a flowpath's end makes (one and two threads,
 * each on a record of its own, all on one BT), the interval's fold over R
 * records x B BTs, and the memory of 100 sessions of 256 BTs on 16 threads.
 * The backend monitor: the update a callout's exit makes (one and two
 * threads, each on a record of its own, all on one backend); the method and
 * exception monitors' updates likewise.
 *
 *   ./build/bench/vx_monitor_bench --benchmark_repetitions=3 --benchmark_report_aggregates_only=true
 *
 * "allocs_per_update" counts the thread's heap allocations after warm-up.
 * "models_peak_s10/s100" are the bytes the models hold after the fold of
 * session 10 and 100 (they follow how many records the threads happened to
 * use), "models_idle_s10/s100" after the clean-up of those sessions,
 * "live_growth_10_to_100" the growth of all live heap bytes in between.
 */
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "agent/vx_instance.h"
#include "bt/vx_bt_object.h"
#include "core/vx_retire_list.h"
#include "core/vx_thread.h"
#include "flowpath/vx_method_profile.h"
#include "flowpath/vx_method_table.h"
#include "monitor/vx_backend_monitor.h"
#include "monitor/vx_bt_monitor.h"
#include "monitor/vx_exception_monitor.h"
#include "monitor/vx_method_monitor.h"
#include "monitor/vx_monitor_model.h"
#include "session/vx_session_data.h"
#include "vx_sdk.h"

/* The heap is watched by interposing its entry points in this binary (the
 * agent is linked in statically): calls are counted, live bytes summed. */
extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);
void __libc_free(void*);
}
static thread_local long long t_allocs = 0; /* this thread's, so that threads don't mix */
static std::atomic<long long> g_live{0};

static void* counted(void* p)
{
    if (p) {
        ++t_allocs;
        g_live.fetch_add(static_cast<long long>(malloc_usable_size(p)), std::memory_order_relaxed);
    }
    return p;
}
extern "C" void* malloc(size_t n)
{
    return counted(__libc_malloc(n));
}
extern "C" void* calloc(size_t n, size_t s)
{
    return counted(__libc_calloc(n, s));
}
extern "C" void* aligned_alloc(size_t a, size_t n)
{
    return counted(__libc_memalign(a, n));
}
extern "C" void free(void* p)
{
    if (p)
        g_live.fetch_sub(static_cast<long long>(malloc_usable_size(p)), std::memory_order_relaxed);
    __libc_free(p);
}
extern "C" void* realloc(void* p, size_t n)
{
    const long long was = p ? static_cast<long long>(malloc_usable_size(p)) : 0;
    void* q = __libc_realloc(p, n);
    if (q) {
        g_live.fetch_add(static_cast<long long>(malloc_usable_size(q)) - was,
                         std::memory_order_relaxed);
        ++t_allocs;
    }
    return q;
}

namespace {

void start_agent()
{
    static bool done = [] {
        char tmpl[] = "/tmp/vx_mon_bench_XXXXXX";
        const char* home = mkdtemp(tmpl);
        setenv("VXHOME", home ? home : "/tmp", 1);
        agent_init(const_cast<char*>("BenchPool"), 1, const_cast<char*>("bench"),
                   const_cast<char*>("cppAgent"), const_cast<char*>("1"));
        tlvxApplication->config.max_bt_count = 4096;
        return true;
    }();
    (void)done;
}

BTObject* bt_named(const std::string& name)
{
    char buf[vx::kBTNameSize];
    snprintf(buf, sizeof buf, "%s", name.c_str());
    return updateBTObject(buf);
}

std::vector<BTObject*> bts(int n)
{
    std::vector<BTObject*> out;
    for (int i = 0; i < n; ++i) out.push_back(bt_named("/bench/bt" + std::to_string(i)));
    return out;
}

/* A flowpath of `bt` that just ended, as endFP leaves the record. */
void end_on(VXPerThreadData_t* td, BTObject* bt, long long ms)
{
    td->tlBTObj = bt;
    td->tlCategory = static_cast<char>(ms < 3000 ? kCategoryNormal : kCategorySlow);
    td->tlDuration = ms;
    td->tlFpCPUTime = 150000;
    td->qTimeInMS = 3;
}

/* What an interval does with the reporting buffer. */
void fold()
{
    static char buf[65536];
    int len = 0;
    generateAndDumpBTMonitoringRecord(buf, &len, sizeof buf);
}

/* The endFP update alone. Each thread ends flowpaths on a record of its
 * own; all count on one BT, whose slot every thread reads from the cache. */
void BM_MonitorUpdate(benchmark::State& state)
{
    start_agent();
    static BTObject* bt = bt_named("/bench/update");
    VXPerThreadData_t* td = get_free_tls_slot();
    end_on(td, bt, 12);
    updateCounterAndDurationForBT(td); /* the first makes the counters */
    const long long before = t_allocs;
    for (auto _ : state) benchmark::DoNotOptimize(updateCounterAndDurationForBT(td));
    const long long allocs = t_allocs - before;
    state.counters["allocs_per_update"] =
        benchmark::Counter(static_cast<double>(allocs) / static_cast<double>(state.iterations()),
                           benchmark::Counter::kAvgThreads);
    state.SetItemsProcessed(state.iterations());
    resetAllThreadLocals(td, nullptr);
    free_tls_slot(td);
}
BENCHMARK(BM_MonitorUpdate)->Threads(1)->Threads(2)->UseRealTime();

/* The backend update a callout's exit makes: each thread on a record of its
 * own, all calling one backend of the method table. */
void BM_BackendUpdate(benchmark::State& state)
{
    start_agent();
    static methodPropProperties* backend = [] {
        if (!tlvxApplication->methodTable.methodHashMapNode) setMethodHashMapNode(nullptr);
        return searchAndUpdateMethodHashMap(const_cast<char*>("bench-db"),
                                            tlvxApplication->methodTable.methodHashMapNode, 1, 2,
                                            10);
    }();
    VXPerThreadData_t* td = get_free_tls_slot();
    long long ms = 3;
    if (updateCounterAndDurationForBackend(td, backend, ms, 0) != 0) /* makes the counters */
        state.SkipWithError("the backend update did not count");
    const long long before = t_allocs;
    for (auto _ : state) {
        benchmark::DoNotOptimize(updateCounterAndDurationForBackend(td, backend, ms, 0));
        ms = (ms + 7) & 255;
    }
    state.counters["allocs_per_update"] = benchmark::Counter(
        static_cast<double>(t_allocs - before) / static_cast<double>(state.iterations()),
        benchmark::Counter::kAvgThreads);
    state.SetItemsProcessed(state.iterations());
    resetAllThreadLocals(td, nullptr);
    free_tls_slot(td);
}
BENCHMARK(BM_BackendUpdate)->Threads(1)->Threads(2)->UseRealTime();

/* The method monitor's update at a marked method's exit, and the
 * exception monitor's at a listed class's capture: each thread on a record
 * of its own, all on one method or class. */
void BM_MethodMonitorUpdate(benchmark::State& state)
{
    start_agent();
    static methodPropProperties* m = [] {
        VXMethodMonitorInit();
        char file[] = "bench|Handler|Bench.handle|-\n";
        parseMethodMonitor(file);
        return vx::find_method(tlvxApplication->methodTable.methodHashMapNode, "Bench.handle");
    }();
    if (!m) return state.SkipWithError("the method monitor file marked nothing");
    VXPerThreadData_t* td = get_free_tls_slot();
    long long ms = 3;
    updateCounterAndDurationForMethod(td, m, ms); /* makes the counters */
    const long long before = t_allocs;
    for (auto _ : state) {
        updateCounterAndDurationForMethod(td, m, ms);
        ms = (ms + 7) & 255;
    }
    state.counters["allocs_per_update"] = benchmark::Counter(
        static_cast<double>(t_allocs - before) / static_cast<double>(state.iterations()),
        benchmark::Counter::kAvgThreads);
    resetAllThreadLocals(td, nullptr);
    free_tls_slot(td);
}
BENCHMARK(BM_MethodMonitorUpdate)->Threads(1)->Threads(2)->UseRealTime();

void BM_ExceptionMonitorUpdate(benchmark::State& state)
{
    start_agent();
    static bool listed = [] {
        VXExceptionMonitorInit();
        char file[] = "Timeout|bench.Timeout|-\n";
        parseExceptionMonFile(file);
        return true;
    }();
    (void)listed;
    VXPerThreadData_t* td = get_free_tls_slot();
    if (updateCounterAndDurationForException(td, "bench.Timeout") != 0)
        return state.SkipWithError("the exception monitor did not count");
    const long long before = t_allocs;
    for (auto _ : state) benchmark::DoNotOptimize(updateCounterAndDurationForException(td, "bench.Timeout"));
    state.counters["allocs_per_update"] = benchmark::Counter(
        static_cast<double>(t_allocs - before) / static_cast<double>(state.iterations()),
        benchmark::Counter::kAvgThreads);
    resetAllThreadLocals(td, nullptr);
    free_tls_slot(td);
}
BENCHMARK(BM_ExceptionMonitorUpdate)->Threads(1)->Threads(2)->UseRealTime();

/* The fold of R records x B BTs: records and BTs stay between iterations,
 * only the fold is timed. */
void BM_Fold(benchmark::State& state)
{
    start_agent();
    const int records = static_cast<int>(state.range(0));
    const std::vector<BTObject*> all = bts(static_cast<int>(state.range(1)));
    std::vector<VXPerThreadData_t*> tds;
    for (int r = 0; r < records; ++r) tds.push_back(get_free_tls_slot());
    for (auto _ : state) {
        for (VXPerThreadData_t* td : tds)
            for (BTObject* bt : all) {
                end_on(td, bt, 40);
                updateCounterAndDurationForBT(td);
            }
        const auto t0 = std::chrono::steady_clock::now();
        fold();
        state.SetIterationTime(
            std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
    }
    for (VXPerThreadData_t* td : tds) {
        resetAllThreadLocals(td, nullptr);
        free_tls_slot(td);
    }
}
BENCHMARK(BM_Fold)
    ->ArgsProduct({{16, 64}, {64, 256, 1024}})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

/* Bytes the models hold: arrays, counter objects, tag lists. */
void add_model_bytes(VXMonitorDataModel* m, void* total)
{
    vx::VXLockGuard guard(m->lockForBT);
    long long n = static_cast<long long>(malloc_usable_size(m));
    n += static_cast<long long>(malloc_usable_size(m->btmDataArray));
    n += static_cast<long long>(malloc_usable_size(m->btTagSeqArray));
    n += static_cast<long long>(malloc_usable_size(m->btPerThreadArray));
    for (int i = 0; i < m->currentSizeOfBTArray; ++i)
        n += static_cast<long long>(malloc_usable_size(m->btmDataArray[i]));
    *static_cast<long long*>(total) += n;
}

long long model_bytes()
{
    long long total = 0;
    vx::monitor_models_each(add_model_bytes, &total);
    return total;
}

/* 100 sessions, each: the start's clean-up and set-up, 16 threads ending
 * flowpaths of 256 BTs on records taken from the pool, one fold. */
void BM_SessionMemory(benchmark::State& state)
{
    start_agent();
    constexpr int kSessions = 100, kThreads = 16, kBTs = 256;
    long long at1 = 0, at10 = 0, at100 = 0, peak10 = 0, peak100 = 0, idle10 = 0, idle100 = 0;
    for (auto _ : state) {
        for (int s = 1; s <= kSessions; ++s) {
            free_agent_data(); /* as at the start of a session */
            VXBTConfigModelInit();
            tlvxApplication->config.max_bt_count = 4096;
            resetMonitorDataModelFromTLS();
            const std::vector<BTObject*> all = bts(kBTs);
            std::vector<std::thread> threads;
            for (int t = 0; t < kThreads; ++t)
                threads.emplace_back([&all, t] {
                    for (int k = 0; k < 4; ++k)
                        for (BTObject* bt : all) {
                            VXPerThreadData_t* td = get_free_tls_slot();
                            end_on(td, bt, 10 + t + k);
                            updateCounterAndDurationForBT(td);
                            resetAllThreadLocals(td, nullptr);
                            free_tls_slot(td);
                        }
                });
            for (std::thread& th : threads) th.join();
            fold();
            const long long peak = model_bytes();
            free_agent_data(); /* as at its end */
            {
                /* Rule sets replaced at each start wait out a 60-second grace
                 * for their readers; sessions here are milliseconds apart,
                 * so the grace is cut short. */
                vx::VXLockGuard guard(tlvxApplication->manager.bt_obj_map_lock);
                vx::retire_collect(tlvxApplication->btRetired, apr_time_now(), 0);
            }
            const long long live = g_live.load();
            if (s == 1) at1 = live;
            if (s == 10) at10 = live, peak10 = peak, idle10 = model_bytes();
            if (s == kSessions) at100 = live, peak100 = peak, idle100 = model_bytes();
        }
    }
    state.counters["models_peak_s10"] = static_cast<double>(peak10);
    state.counters["models_peak_s100"] = static_cast<double>(peak100);
    state.counters["models_idle_s10"] = static_cast<double>(idle10);
    state.counters["models_idle_s100"] = static_cast<double>(idle100);
    state.counters["models"] = vx::monitor_models_each([](VXMonitorDataModel*, void*) {}, nullptr);
    state.counters["live_after_1"] = static_cast<double>(at1);
    state.counters["live_growth_10_to_100"] = static_cast<double>(at100 - at10);
}
BENCHMARK(BM_SessionMemory)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
