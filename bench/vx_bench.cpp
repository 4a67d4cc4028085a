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
#include "diag/vx_sql_processor.h"
#include "flowpath/vx_backend_naming.h"
#include "flowpath/vx_method_profile.h"
#include "flowpath/vx_method_table.h"
#include "flowpath/vx_per_thread_data.h"
#include "http/vx_http_capture.h"
#include "http/vx_http_capture_settings.h"
#include "http/vx_trace_context.h"
#include "http/vx_trace_headers.h"
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
        char profile[] = "bench|Bench|work|0|0\nbench|Bench|inner|0|0\n"
                         "bench|Http|post|0|1\nbench|Db|query|0|2\n";
        setMethodHashMapNode(profile);
        char entries[] = "bench|Http.post|HTTP_CALLOUT|2\nbench|Db.query|SQL_CALLOUT|2\n";
        parseEntryFile(entries);
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

/* A callout pair as a host makes it: entry, the correlation header for the
 * outgoing request (HTTP), exit naming the backend. The backend exists after
 * the first call; the target is a method pair + 300 ns and no allocation
 * (the header's buffer is the record's, made at the first callout of each
 * flowpath). Each thread has a flowpath of its own. */
void callout_pair(benchmark::State& state, const char* method, const char* backend, bool http)
{
    start_agent();
    VXPerThreadData_t* td = open_flowpath();
    auto once = [&] {
        void* m = vxMethodEntry(nullptr, td, S(method), S("/stock/17"), nullptr, 1, nullptr, nullptr, 0, nullptr);
        if (http) benchmark::DoNotOptimize(getTierCallOut(td, nullptr));
        vxMethodExit(m, td, S(method), 0, -1, S(backend), 0, 1, 1, nullptr, 1, nullptr, 0, nullptr);
    };
    once();
    const long long before = g_mallocs.load();
    for (auto _ : state) once();
    if (state.thread_index() == 0)
        state.counters["allocs_per_pair"] =
            static_cast<double>(g_mallocs.load() - before) / static_cast<double>(state.iterations() * state.threads());
    state.SetItemsProcessed(state.iterations());
    close_flowpath(td);
}

void BM_HttpCalloutPair(benchmark::State& state)
{
    callout_pair(state, "Http.post", "HTTP|stock.internal|8080|/api/stock", true);
}
BENCHMARK(BM_HttpCalloutPair)->Threads(1)->Threads(2)->UseRealTime();

void BM_DbCalloutPair(benchmark::State& state)
{
    callout_pair(state, "Db.query", "MySQL|db.internal|3306|shop", false);
}
BENCHMARK(BM_DbCalloutPair)->Threads(1)->Threads(2)->UseRealTime();

/* A query text of 200 characters with separators to escape. */
std::string bench_query(long long n)
{
    std::string q = "select o.id, o.total, c.name from orders o join customers c on c.id = o.cust "
                    "where o.state = 'open' and o.total > 100 order by o.created desc limit " +
                    std::to_string(n);
    q.resize(200, ' ');
    return q;
}

/* The id of a query already seen: its escape into the stack buffer and the
 * look-up under the lock. Target: at most 1 us and no allocation. */
void BM_SqlKnownQuery(benchmark::State& state)
{
    start_agent();
    std::string q = bench_query(1);
    dumpSQLQuery(nullptr, nullptr, q.data());
    const long long before = g_mallocs.load();
    for (auto _ : state) benchmark::DoNotOptimize(dumpSQLQuery(nullptr, nullptr, q.data()));
    if (state.thread_index() == 0)
        state.counters["allocs_per_query"] =
            static_cast<double>(g_mallocs.load() - before) / static_cast<double>(state.iterations() * state.threads());
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SqlKnownQuery)->Threads(1)->Threads(2)->UseRealTime();

/* A text never seen: its entry, its id and its record 22. */
void BM_SqlNewQuery(benchmark::State& state)
{
    start_agent();
    static std::atomic<long long> next{1000000};
    for (auto _ : state) {
        state.PauseTiming();
        std::string q = bench_query(next++);
        state.ResumeTiming();
        benchmark::DoNotOptimize(dumpSQLQuery(nullptr, nullptr, q.data()));
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SqlNewQuery);

/* Naming a backend from its description by a rule: the whole cost of the
 * name on a callout's exit, before the table look-up. */
void BM_SettingBackendName(benchmark::State& state)
{
    start_agent();
    char desc[] = "jdbc|db&#46;internal|5432|select * from cart|PostgreSQL|shop|16";
    char rule[] = "Host_Port_DataBaseName";
    char out[kBackendNameSize];
    for (auto _ : state) benchmark::DoNotOptimize(settingBackendName(desc, rule, out, sizeof out));
}
BENCHMARK(BM_SettingBackendName);

/* A new backend each time (named, entered in the method table with its
 * record 5) against the look-up of an existing one. The cap on backends is
 * lifted for the run so that each is really new. */
void BM_BackendFirstCall(benchmark::State& state)
{
    start_agent();
    VXPerThreadData_t* td = open_flowpath();
    tlvxApplication->VXBackendMonitor.maxIPCount = 1 << 30;
    long long n = 0;
    char desc[96];
    for (auto _ : state) {
        snprintf(desc, sizeof desc, "MySQL|db%lld.internal|3306|shop", n++);
        void* m = vxMethodEntry(nullptr, td, S("Db.query"), nullptr, nullptr, 1, nullptr, nullptr, 0, nullptr);
        vxMethodExit(m, td, S("Db.query"), 0, -1, desc, 0, 1, 1, nullptr, 1, nullptr, 0, nullptr);
    }
    state.SetItemsProcessed(state.iterations());
    close_flowpath(td);
}
BENCHMARK(BM_BackendFirstCall)->Iterations(20000);

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

/* Trace context of one request: an incoming traceparent and tracestate
 * read and validated, then the outgoing W3C pair built. The values are
 * copied first, as header capture hands over its work copy (validation
 * splits them in place). Target: 300 ns together, no allocation. */
void BM_TraceContextInOut(benchmark::State& state)
{
    start_agent();
    VXProxyInstance_t* app = tlvxApplication;
    app->VXSys.enableOTELStandard = 1;
    arrPropagationHeaders[0] = 1;
    arrPropagationHeaders[1] = arrPropagationHeaders[2] = 0;
    VXPerThreadData_t* td = open_flowpath();
    strcpy(td->trans_span_id, "4000000000000123");
    static const char kParent[] = "00-4bf92f3577b34da6a3ce929d0e0e4736-00f067aa0ba902b7-01";
    static const char kState[] = "congo=t61rcWkgMzE,rojo=00f067aa0ba902b7";
    char tp[sizeof kParent], ts[sizeof kState], out[2048];
    auto once = [&] {
        memcpy(tp, kParent, sizeof kParent);
        memcpy(ts, kState, sizeof kState);
        Propheaderdata pd;
        init_propagation_header(&pd);
        int flag = store_propagation_header(&pd, "traceparent", tp);
        flag |= store_propagation_header(&pd, "tracestate", ts);
        Validate_propheader(td, &pd, flag);
        out[0] = '\0';
        get_propagation_header(td, out);
        benchmark::DoNotOptimize(out);
    };
    once(); /* the record's context block is made on its first context */
    const long long before = g_mallocs.load();
    for (auto _ : state) once();
    state.counters["allocs_per_op"] =
        static_cast<double>(g_mallocs.load() - before) / static_cast<double>(state.iterations());
    if (strncmp(out, "traceparent:00-4bf92f3577b34da6a3ce929d0e0e4736-4000000000000123-01\n", 68) !=
        0)
        state.SkipWithError("unexpected outgoing text");
    close_flowpath(td);
}
BENCHMARK(BM_TraceContextInOut);

/* Header capture of one request: 20 headers, 5 of them listed for
 * capture, record 12 written; names have their ids already. */
void BM_HeaderCapture(benchmark::State& state)
{
    start_agent();
    char setting[] = "3%20Host,Accept,User-Agent,X-Request-Id,Referer";
    setHttpReqRespCaptureSettings(setting, S("captureHTTPReqFullFp"), 0);
    std::string block;
    const char* names[] = {"Host", "Accept", "User-Agent", "X-Request-Id", "Referer", "Accept-Encoding",
                           "Accept-Language", "Cache-Control", "Connection", "Cookie", "Content-Type",
                           "Content-Length", "Origin", "Pragma", "Sec-Fetch-Mode", "Sec-Fetch-Site",
                           "Upgrade-Insecure-Requests", "X-Forwarded-For", "X-Forwarded-Proto", "DNT"};
    for (const char* n : names) {
        if (!block.empty()) block += '\x7f';
        block += std::string(n) + "$value-of-" + n + ".example:8080";
    }
    VXPerThreadData_t* td = open_flowpath();
    httpReqRespWrapper(td, block.data(), S("req"), -1);
    const long long before = g_mallocs.load();
    for (auto _ : state) httpReqRespWrapper(td, block.data(), S("req"), -1);
    state.counters["mallocs"] =
        benchmark::Counter(static_cast<double>(g_mallocs.load() - before), benchmark::Counter::kAvgIterations);
    close_flowpath(td);
}
BENCHMARK(BM_HeaderCapture);

/* An exception whose five texts were all seen before, thrown in an
 * instrumented method, with a 30-frame stack: five dictionary look-ups and
 * record 38. */
void BM_ExceptionKnownTexts(benchmark::State& state)
{
    start_agent();
    VXPerThreadData_t* td = open_flowpath();
    std::string stack;
    for (int i = 0; i < 30; ++i)
        stack += "at com.shop.cart.Service" + std::to_string(i) + ".handle(Service" + std::to_string(i) +
                 ".java:" + std::to_string(100 + i) + ")\n";
    auto raise = [&] {
        getstacktracearray(td, stack.data(), S("Bench.java"), S("java.lang.IllegalStateException"), S("Bench"),
                           S("cart is closed"), S("work"), 42, S("java.io.IOException: gone"));
    };
    raise();
    const long long before = g_mallocs.load();
    for (auto _ : state) {
        raise();
        td->sequenceBlobLen = 0; /* the blob token would fill the blob */
    }
    state.counters["allocs_per_exception"] =
        static_cast<double>(g_mallocs.load() - before) / static_cast<double>(state.iterations());
    state.SetItemsProcessed(state.iterations());
    close_flowpath(td);
}
BENCHMARK(BM_ExceptionKnownTexts);

}  // namespace

BENCHMARK_MAIN();
