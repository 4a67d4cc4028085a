/*
 * The data channel, measured: what dumpData costs the threads that produce
 * records, and how many bytes a second the channel carries to a collector on
 * loopback, next to plain write() calls on the same kind of socket in the
 * same run.
 *
 *   ./build/bench/vx_data_bench --benchmark_repetitions=3 --benchmark_report_aggregates_only=true
 *
 * The process runs vxc-lite on a thread of its own (127.0.0.1, a port the
 * system picks, a temporary run directory) and starts the agent against it,
 * so that the control connection is real. The ring benchmarks come first and
 * need no data thread; the first collector benchmark starts the data thread,
 * which drains the ring from then on, so the ring benchmarks refuse to run
 * after it: keep the registration order, and interleave repetitions only
 * with a filter that leaves them out (--benchmark_filter=Collector).
 *
 * vxc-lite logs to stderr; the benchmark table and the check below go to
 * stdout.
 *
 * At the end the session is closed, the data thread flushes and ends (this
 * takes about 5 s: the method table is retired after a drain pause), and
 * vxc-lite's own count of record 100 is compared with the number of records
 * the benchmarks handed over. A difference is printed and makes the exit
 * status 1.
 */
#include <apr_general.h>
#include <apr_portable.h>
#include <apr_time.h>
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <netinet/in.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>

#include "agent/vx_instance.h"
#include "core/vx_platform.h"
#include "core/vx_thread.h"
#include "link/vx_data_buffers.h"
#include "link/vx_data_dispatcher.h"
#include "session/vx_session.h"
#include "server.h"
#include "vx_sdk.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kRecordBytes = 200;
constexpr int kBufferBytes = 102400; /* bciDataBufferMaxSize, the default */
constexpr int kRecordsPerBuffer = kBufferBytes / kRecordBytes; /* 512: records never straddle */
static_assert(kBufferBytes % kRecordBytes == 0);

/* Ring benchmarks: one iteration is a batch of this many records per
 * thread (64 buffers' worth). */
constexpr int kRingBatchRecords = 64 * kRecordsPerBuffer;
/* Below this many free buffers the read list is handed back (see ring_refill). */
constexpr int kRingRefillBelow = 256;

/* Collector benchmarks: one iteration carries this many bytes, a whole
 * number of buffers, so that the last record fills the last buffer and no
 * byte waits for the data thread's partial-buffer tick. */
constexpr int kStreamBuffers = 1024;
constexpr long long kStreamBytes =
    static_cast<long long>(kStreamBuffers) * kBufferBytes; /* 100 MiB */
constexpr long long kStreamRecords = kStreamBytes / kRecordBytes;
/* The producer waits while fewer buffers than this are free, so that it never
 * meets a full ring. */
constexpr int kPaceBelow = 8;
constexpr auto kArrivalTimeout = std::chrono::seconds(60);

std::string g_home;    /* VXHOME of the agent */
std::string g_run_dir; /* vxc-lite's run directory */
vxc::Server* g_vxc = nullptr;
std::thread g_vxc_thread;

bool g_channel_started = false; /* the data thread runs: the ring is no longer idle */
long long g_records_to_vxc = 0; /* record 100 lines handed to vxc-lite, by any path */
std::string g_agent_file;       /* vxc-lite's file of the agent's data connection */

char* S(const char* s)
{
    return const_cast<char*>(s);
}

VXProxyInstance_t* app()
{
    return tlvxApplication;
}

int load(const int& v)
{
    return __atomic_load_n(&v, __ATOMIC_RELAXED);
}

/* Record 100 of kRecordBytes bytes: "100,<n in 12 digits>,xxx...x\n". */
void make_record(char* out, unsigned long long n)
{
    memcpy(out, "100,", 4);
    for (int i = 15; i >= 4; --i, n /= 10) out[i] = static_cast<char>('0' + n % 10);
    out[16] = ',';
    memset(out + 17, 'x', kRecordBytes - 18);
    out[kRecordBytes - 1] = '\n';
}

/* Only the number changes from one record to the next. */
void renumber(char* rec, unsigned long long n)
{
    for (int i = 15; i >= 4; --i, n /= 10) rec[i] = static_cast<char>('0' + n % 10);
}

template <typename Pred>
bool wait_for(Pred done, int seconds)
{
    for (int i = 0; i < seconds * 100; ++i) {
        if (done()) return true;
        apr_sleep(apr_time_from_msec(10));
    }
    return done();
}

double seconds(Clock::duration d)
{
    return std::chrono::duration<double>(d).count();
}

long long file_size(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : -1;
}

/* The data connection vxc-lite accepted last: "conn-<n>-data.lines" with the
 * highest n, or "" when there is none. */
std::string newest_data_file()
{
    std::string best;
    unsigned best_id = 0;
    if (DIR* d = opendir(g_run_dir.c_str())) {
        while (dirent* e = readdir(d)) {
            unsigned id = 0;
            int end = 0;
            if (sscanf(e->d_name, "conn-%u-data.lines%n", &id, &end) == 1 &&
                e->d_name[end] == '\0' && id > best_id) {
                best_id = id;
                best = g_run_dir + "/" + e->d_name;
            }
        }
        closedir(d);
    }
    return best;
}

/* ---- the ring, with nothing draining it ---- */

/* Give every filled buffer back to the free list, emptied, as the data
 * thread does after sending one. Under bufferWriteLock, so producers may be
 * running; the buffer they fill stays as it is. */
void ring_refill()
{
    VXProxyInstance_t* a = app();
    vx::VXLockGuard guard(a->dataChannel.bufferWriteLock);
    while (nioSettings_t* node = a->dataChannel.VXCollectorBB) {
        node->use_len = node->send_len = 0;
        moveToWriteList();
    }
}

/* The same, and the current buffer emptied too: only while nobody produces. */
void ring_empty()
{
    ring_refill();
    if (nioSettings_t* cur = app()->dataChannel.VXBCIAgentBB) cur->use_len = cur->send_len = 0;
}

/* A session without a data thread, the two buffer locks and the ring, every
 * page of it touched once so that no page fault lands in a measurement. */
bool prepare_ring()
{
    VXProxyInstance_t* a = app();
    long long now = my_gettimeofday();
    vx::session_start(1, now - now % 86400000LL); /* records reach the ring; no data thread */
    if (!a->dataChannel.data_pool && apr_pool_create(&a->dataChannel.data_pool, a->control_pool) != APR_SUCCESS)
        return false;
    if (!a->dataChannel.bufferWriteLock) a->dataChannel.bufferWriteLock = vx::mutex_create(a->dataChannel.data_pool);
    if (!a->dataChannel.bufferMoveLock) a->dataChannel.bufferMoveLock = vx::mutex_create(a->dataChannel.data_pool);
    a->VXSys.bciDataBufferMaxSize = kBufferBytes;
    if (!a->dataChannel.bufferWriteLock || !a->dataChannel.bufferMoveLock || buff_list_init() != 0) return false;
    for (nioSettings_t* n = a->dataChannel.writeList; n; n = n->next) memset(n->buff, 0, n->buff_size);
    return a->dataChannel.writeListSize > 0;
}

/* dumpData of 200-byte records into an idle ring, from 1 and 2 threads.
 * An iteration is a batch of kRingBatchRecords records per thread. When the
 * free list runs low, the filled buffers are handed back with the clock of
 * that thread stopped: about once every 750 buffers of the 1000. */
void BM_DumpDataIdleRing(benchmark::State& state)
{
    VXProxyInstance_t* a = app();
    static int discards_before = 0;
    /* Every thread skips, or none: a thread that skips runs no iteration. */
    if (g_channel_started)
        state.SkipWithError("the data thread runs: the ring is not idle (run this one first)");
    else if (a->VXSys.dataBuffMaxCount < kRingRefillBelow + 2 * 64 + 8)
        state.SkipWithError("the ring is too small for two batches");
    else if (state.thread_index() == 0) {
        ring_empty();
        discards_before = load(a->VXSys.discardCount);
    }
    char rec[kRecordBytes];
    make_record(rec, 1);
    long long refills = 0;
    for (auto _ : state) {
        if (load(a->dataChannel.writeListSize) < kRingRefillBelow) {
            state.PauseTiming();
            ring_refill();
            ++refills;
            state.ResumeTiming();
        }
        for (int i = 0; i < kRingBatchRecords; ++i) dumpData(rec, kRecordBytes);
    }
    const long long records = state.iterations() * kRingBatchRecords;
    state.SetItemsProcessed(records);
    state.SetBytesProcessed(records * kRecordBytes);
    state.counters["refills"] = static_cast<double>(refills);
    if (state.thread_index() == 0) {
        const int discards = load(a->VXSys.discardCount) - discards_before;
        state.counters["discards"] = discards;
        if (discards != 0) state.SkipWithError("records were discarded: the ring filled up");
    }
}
BENCHMARK(BM_DumpDataIdleRing)->Threads(1)->Threads(2)->UseRealTime();

/* ---- the channel to vxc-lite ---- */

/* The CPU clock of a thread, and what it shows so far in seconds. */
clockid_t cpu_clock(pthread_t t)
{
    clockid_t c = CLOCK_THREAD_CPUTIME_ID;
    pthread_getcpuclockid(t, &c);
    return c;
}

double cpu_s(clockid_t c)
{
    timespec ts{};
    clock_gettime(c, &ts);
    return static_cast<double>(ts.tv_sec) + 1e-9 * static_cast<double>(ts.tv_nsec);
}

/* When the first and the last of `bytes` arrived, and the CPU time the
 * sending and the receiving thread used in between; watched every 200 us
 * from a thread of its own while the benchmark's thread produces. */
struct Arrival {
    Clock::time_point first{}, last{};
    double sender_cpu = 0, receiver_cpu = 0;
    bool complete = false;
};

template <typename Received>
std::thread watch(Arrival* out, long long base, long long bytes, Received received,
                  clockid_t sender, clockid_t receiver)
{
    return std::thread([=] {
        const Clock::time_point give_up = Clock::now() + kArrivalTimeout;
        bool seen = false;
        double sender0 = 0, receiver0 = 0;
        for (;;) {
            const long long got = received() - base;
            const Clock::time_point now = Clock::now();
            if (!seen && got > 0) {
                out->first = now;
                sender0 = cpu_s(sender);
                receiver0 = cpu_s(receiver);
                seen = true;
            }
            if (got >= bytes) {
                out->last = now;
                out->sender_cpu = cpu_s(sender) - sender0;
                out->receiver_cpu = cpu_s(receiver) - receiver0;
                out->complete = true;
                return;
            }
            if (now > give_up) return;
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    });
}

/* Closes the tap-only session of the ring benchmarks, empties the ring and
 * opens a session with the data thread; waits for its connection and for
 * vxc-lite's file of it. */
bool start_channel(std::string* why)
{
    static int result = 0; /* 0 not tried, 1 up, -1 failed */
    if (result) return result > 0;
    result = -1;
    VXProxyInstance_t* a = app();
    vx::session_stop();
    ring_empty();
    long long now = my_gettimeofday();
    vx::session_start(1, now - now % 86400000LL, vx::SessionData::kDataThread);
    g_channel_started = true;
    if (!wait_for([a] { return a->VXSys.dataConnState == 1 && a->dataChannel.dataSkt.skt; }, 10)) {
        *why = "the data connection did not open within 10 s";
        return false;
    }
    if (!wait_for([] { return !(g_agent_file = newest_data_file()).empty(); }, 10)) {
        *why = "vxc-lite shows no data connection";
        return false;
    }
    result = 1;
    return true;
}

/* Sets the iteration's time to the span from the first byte the receiver
 * took to the last, and keeps the sums the counters are made of:
 *   first_byte_ms  from the first record offered to the first byte received
 *   batch_MiBps    the batch over the time from its first record offered to
 *                  its last byte received
 *   sender_busy, receiver_busy  the CPU time of the thread that sends (the
 *                  data thread, or the writing thread) and of the one that
 *                  receives, as a share of the stream's time: 1 is a core. */
struct StreamTotals {
    double stream_s = 0, first_byte_s = 0, batch_s = 0, sender_cpu = 0, receiver_cpu = 0;
    void add(benchmark::State& state, Clock::time_point start, const Arrival& arrival)
    {
        const double stream = seconds(arrival.last - arrival.first);
        state.SetIterationTime(stream);
        stream_s += stream;
        first_byte_s += seconds(arrival.first - start);
        batch_s += seconds(arrival.last - start);
        sender_cpu += arrival.sender_cpu;
        receiver_cpu += arrival.receiver_cpu;
    }
    void report(benchmark::State& state)
    {
        const double n = static_cast<double>(state.iterations());
        state.SetBytesProcessed(state.iterations() * kStreamBytes);
        state.SetItemsProcessed(state.iterations() * kStreamRecords);
        state.counters["first_byte_ms"] = n ? 1000 * first_byte_s / n : 0;
        state.counters["batch_MiBps"] = batch_s > 0 ? n * kStreamBytes / batch_s / (1 << 20) : 0;
        state.counters["sender_busy"] = stream_s > 0 ? sender_cpu / stream_s : 0;
        state.counters["receiver_busy"] = stream_s > 0 ? receiver_cpu / stream_s : 0;
    }
};

/* dumpData to vxc-lite over loopback: 100 MiB a batch, offered as fast
 * as the ring takes them. Time: from the first byte vxc-lite stored to the
 * last (see StreamTotals); first_byte_ms is the wait before the first, most
 * of it the idle data thread's 100 ms tick. */
void BM_DataChannelToCollector(benchmark::State& state)
{
    std::string why;
    if (!start_channel(&why)) {
        state.SkipWithError(why.c_str());
        return;
    }
    VXProxyInstance_t* a = app();
    char rec[kRecordBytes];
    make_record(rec, 0);
    static unsigned long long seq = 0;
    StreamTotals totals;
    long long paced = 0;
    const int discards_before = load(a->VXSys.discardCount);
    apr_os_thread_t* data_thread = nullptr;
    apr_os_thread_get(&data_thread, a->dataChannel.data_thread_id);
    const clockid_t sender = data_thread ? cpu_clock(*data_thread) : CLOCK_THREAD_CPUTIME_ID;
    const clockid_t receiver = cpu_clock(g_vxc_thread.native_handle());
    for (auto _ : state) {
        /* Start from an empty ring, so that the batch ends on a buffer boundary. */
        if (!wait_for(
                [a] {
                    return load(a->dataChannel.readListSize) == 0 && a->dataChannel.VXBCIAgentBB &&
                           a->dataChannel.VXBCIAgentBB->use_len == 0;
                },
                10)) {
            state.SkipWithError("the ring did not drain between batches");
            break;
        }
        const long long base = file_size(g_agent_file);
        Arrival arrival;
        const Clock::time_point start = Clock::now();
        std::thread watcher = watch(
            &arrival, base, kStreamBytes, [] { return file_size(g_agent_file); }, sender, receiver);
        for (long long i = 0; i < kStreamRecords; ++i) {
            while (load(a->dataChannel.writeListSize) < kPaceBelow) {
                ++paced;
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
            renumber(rec, ++seq);
            dumpData(rec, kRecordBytes);
        }
        watcher.join();
        g_records_to_vxc += kStreamRecords;
        if (!arrival.complete) {
            state.SkipWithError("vxc-lite did not store the batch within 60 s");
            break;
        }
        totals.add(state, start, arrival);
    }
    totals.report(state);
    const int discards = load(a->VXSys.discardCount) - discards_before;
    state.counters["discards"] = discards;
    state.counters["paced_waits"] = static_cast<double>(paced);
    if (discards != 0) state.SkipWithError("records were discarded");
}
BENCHMARK(BM_DataChannelToCollector)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);

/* The ceiling: the same records in 100 KiB write() calls on a blocking
 * loopback TCP socket, one thread, no ring. */
int connect_loopback(int port)
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) return -1;
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(static_cast<uint16_t>(port));
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

bool write_all(int fd, const char* p, size_t n)
{
    while (n > 0) {
        const ssize_t w = write(fd, p, n);
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) return false;
        p += w;
        n -= static_cast<size_t>(w);
    }
    return true;
}

/* One batch of write() calls; returns false when a write failed. */
bool write_batch(benchmark::State& state, int fd, unsigned long long* seq, char* chunk,
                 std::function<long long()> received, clockid_t receiver, StreamTotals* totals)
{
    Arrival arrival;
    const long long base = received();
    const Clock::time_point start = Clock::now();
    std::thread watcher =
        watch(&arrival, base, kStreamBytes, received, cpu_clock(pthread_self()), receiver);
    bool ok = true;
    for (int b = 0; b < kStreamBuffers && ok; ++b) {
        for (int r = 0; r < kRecordsPerBuffer; ++r) renumber(chunk + r * kRecordBytes, ++*seq);
        ok = write_all(fd, chunk, kBufferBytes);
    }
    watcher.join();
    if (!ok) {
        state.SkipWithError("write() failed");
        return false;
    }
    if (!arrival.complete) {
        state.SkipWithError("the reader did not receive the batch within 60 s");
        return false;
    }
    totals->add(state, start, arrival);
    return true;
}

/* The ceiling into vxc-lite: a data connection of its own, opened with the
 * agent's opening line, then the same records. vxc-lite parses and stores
 * these exactly as the agent's. */
void BM_WriteToCollector(benchmark::State& state)
{
    std::string why;
    if (!start_channel(&why)) { /* for the agent's opening line */
        state.SkipWithError(why.c_str());
        return;
    }
    static int fd = -1;
    static std::string file;
    if (fd < 0) {
        const std::string before = newest_data_file();
        fd = connect_loopback(vxc::server_port(g_vxc));
        const VXBCISetting_t& s = app()->VXBCISetting;
        if (fd < 0 ||
            !write_all(fd, s.controlDataReqMessage,
                       static_cast<size_t>(s.controlDataReqMessage_len)) ||
            !write_all(fd, "\n", 1) ||
            !wait_for([&] { return (file = newest_data_file()) != before; }, 10)) {
            state.SkipWithError("no data connection of its own to vxc-lite");
            return;
        }
    }
    static unsigned long long seq = 0;
    static char chunk[kBufferBytes];
    make_record(chunk, 0);
    for (int r = 1; r < kRecordsPerBuffer; ++r)
        memcpy(chunk + r * kRecordBytes, chunk, kRecordBytes);
    StreamTotals totals;
    for (auto _ : state) {
        if (!write_batch(
                state, fd, &seq, chunk, [] { return file_size(file); },
                cpu_clock(g_vxc_thread.native_handle()), &totals))
            break;
        g_records_to_vxc += kStreamRecords;
    }
    totals.report(state);
}
BENCHMARK(BM_WriteToCollector)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);

/* The ceiling into a thread that reads and drops: loopback TCP itself. */
std::atomic<long long> g_reader_bytes{0};
clockid_t g_reader_clock = CLOCK_THREAD_CPUTIME_ID;

void BM_WriteToReader(benchmark::State& state)
{
    static int fd = -1;
    if (fd < 0) {
        const int listener = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in sa{};
        sa.sin_family = AF_INET;
        sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof sa;
        if (listener < 0 || bind(listener, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0 ||
            listen(listener, 1) != 0 ||
            getsockname(listener, reinterpret_cast<sockaddr*>(&sa), &len) != 0) {
            state.SkipWithError("no listening socket");
            return;
        }
        fd = connect_loopback(ntohs(sa.sin_port));
        const int peer = accept(listener, nullptr, nullptr);
        close(listener);
        if (fd < 0 || peer < 0) {
            state.SkipWithError("no loopback connection");
            return;
        }
        /* Reads until the process ends. */
        std::thread reader([peer] {
            static char buf[65536];
            for (;;) {
                const ssize_t n = read(peer, buf, sizeof buf);
                if (n < 0 && errno == EINTR) continue;
                if (n <= 0) break;
                g_reader_bytes.fetch_add(n, std::memory_order_relaxed);
            }
            close(peer);
        });
        g_reader_clock = cpu_clock(reader.native_handle());
        reader.detach();
    }
    static unsigned long long seq = 0;
    static char chunk[kBufferBytes];
    make_record(chunk, 0);
    for (int r = 1; r < kRecordsPerBuffer; ++r)
        memcpy(chunk + r * kRecordBytes, chunk, kRecordBytes);
    StreamTotals totals;
    for (auto _ : state)
        if (!write_batch(
                state, fd, &seq, chunk,
                [] { return g_reader_bytes.load(std::memory_order_relaxed); }, g_reader_clock,
                &totals))
            break;
    totals.report(state);
}
BENCHMARK(BM_WriteToReader)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);

/* ---- the process around it ---- */

bool start_collector_and_agent()
{
    /* vxc-lite stores every line it receives: in memory when /dev/shm is
     * there, so that no disk takes part in the figures. */
    char home_tmpl[] = "/tmp/vx_data_bench_home_XXXXXX";
    char shm_tmpl[] = "/dev/shm/vx_data_bench_run_XXXXXX";
    char tmp_tmpl[] = "/tmp/vx_data_bench_run_XXXXXX";
    const char* run = mkdtemp(shm_tmpl);
    if (!run) run = mkdtemp(tmp_tmpl);
    if (!mkdtemp(home_tmpl) || !run) return false;
    g_home = home_tmpl;
    g_run_dir = run;
    std::filesystem::create_directories(g_home + "/cppAgent");
    if (FILE* f = fopen((g_home + "/cppAgent/version").c_str(), "w")) {
        fputs("vexlane data bench\n", f);
        fclose(f);
    }

    vxc::Options opts;
    opts.port = 0;
    opts.run_dir = g_run_dir;
    opts.heartbeat_ms = 5000;
    std::string error;
    if (vxc::server_create(opts, &g_vxc, &error) != 0) {
        fprintf(stderr, "vxc-lite: %s\n", error.c_str());
        return false;
    }
    const std::string port = std::to_string(vxc::server_port(g_vxc));
    g_vxc_thread = std::thread([] { vxc::server_run(g_vxc); });

    setenv("VXHOME", g_home.c_str(), 1);
    setenv("KLV_APP_AGENT_VXCHOST", "127.0.0.1", 1);
    setenv("KLV_APP_AGENT_VXCPORT", port.c_str(), 1);
    setenv("KLV_APP_AGENT_VXC_COMM_PROTOCOL", ("TCP:" + port).c_str(), 1);
    agent_init(S("DataBenchPool"), 1, S("databench"), S("cppAgent"), S("1"));
    VXProxyInstance_t* a = app();
    if (!a) {
        fprintf(stderr, "the agent did not start\n");
        return false;
    }
    if (!wait_for([a] { return a->controlLink.control.skt && a->Server.lastConnectionTime; }, 20)) {
        fprintf(stderr, "the agent did not register with vxc-lite (see %s)\n", g_run_dir.c_str());
        return false;
    }
    if (!prepare_ring()) {
        fprintf(stderr, "the ring could not be built\n");
        return false;
    }
    return true;
}

/* Closes the session, lets the data thread flush and end, stops vxc-lite and
 * compares its count of record 100 with what was handed over. */
int finish()
{
    int status = 0;
    VXProxyInstance_t* a = app();
    if (a) {
        vx::session_stop();
        if (g_channel_started &&
            !wait_for([a] { return a->VXBCISetting.data_thread_running == 0; }, 30)) {
            fprintf(stderr, "the data thread did not end within 30 s\n");
            status = 1;
        }
        agent_shutdown();
    }
    if (g_vxc) {
        vxc::server_request_stop(g_vxc);
        g_vxc_thread.join();
        const vxc::Counts& k = vxc::server_counts(g_vxc);
        const auto it = k.per_record.find(100);
        const unsigned long long got = it == k.per_record.end() ? 0 : it->second;
        printf(
            "vxc-lite: %llu data connections, record 100 stored %llu times (%lld handed "
            "over), %llu malformed, %llu overlong\n",
            k.data_connections, got, g_records_to_vxc, k.malformed, k.overlong);
        if (got != static_cast<unsigned long long>(g_records_to_vxc) || k.malformed || k.overlong) {
            printf(
                "vxc-lite did not store exactly the records handed over; its run directory "
                "is kept: %s\n",
                g_run_dir.c_str());
            status = 1;
        }
        vxc::server_destroy(g_vxc);
    }
    std::error_code ec;
    if (status == 0 && !g_run_dir.empty()) std::filesystem::remove_all(g_run_dir, ec);
    if (!g_home.empty()) std::filesystem::remove_all(g_home, ec);
    return status;
}

}  // namespace

int main(int argc, char** argv)
{
    signal(SIGPIPE, SIG_IGN);
    apr_initialize();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    if (!start_collector_and_agent()) {
        finish();
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return finish();
}
