/*
 * What the unit tests share: one agent instance for the whole test binary, a
 * sink that collects the records dumpData accepts, a frozen clock, and a
 * session opened for the length of a scope.
 */
#ifndef VX_TEST_SUPPORT_H
#define VX_TEST_SUPPORT_H

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

struct VXProxyInstance_t;
struct apr_pool_t;

namespace vx_test {

/* The session's time origin (klvEpochDiff, ms) SessionScope starts with. */
constexpr long long kEpoch = 1388534400000LL;

/* A fresh, empty directory under /tmp; removed by the caller if wanted. */
std::string make_temp_dir(const char* prefix);

/* The instance of this test binary, made on first use by agent_init with
 * VXHOME in a temporary directory (agent type "cppAgent", a "version" file
 * holding "9.9.9 build 42"). */
VXProxyInstance_t* agent();
/* The home directory the agent was started with. */
const std::string& agent_home();

/* A writable C string for the C API's char* parameters; the callee must not
 * write to it. */
inline char* S(const char* s)
{
    return const_cast<char*>(s);
}

/* Puts objects back as they were when the guard was made: the blocks of the
 * shared instance a test changes (app->Server, app->controlLink, ...) or
 * globals. Each is copied byte for byte; what the test allocated meanwhile is
 * the test's to free before the guard goes. */
class Restore {
public:
    template <class... T>
    explicit Restore(T&... objects)
    {
        static_assert((std::is_trivially_copyable_v<T> && ...));
        (kept_.emplace_back(&objects, std::vector<char>(reinterpret_cast<char*>(&objects),
                                                        reinterpret_cast<char*>(&objects + 1))),
         ...);
    }
    ~Restore()
    {
        for (auto it = kept_.rbegin(); it != kept_.rend(); ++it)
            memcpy(it->first, it->second.data(), it->second.size());
    }
    Restore(const Restore&) = delete;
    Restore& operator=(const Restore&) = delete;

private:
    std::vector<std::pair<void*, std::vector<char>>> kept_;
};

/* Start-up may run once per process: EXPECT_IN_CHILD(body) runs `body` in a
 * child process of its own with VXHOME a fresh directory (passed to it) and
 * KLV_APP_AGENT_LOGGINGLEVEL unset, and passes when the body returns 0.
 * CHILD_CHECK prints a failed check, which the report shows, and returns 1. */
int in_fresh_home(const std::function<int(const std::string& home)>& body);
#define EXPECT_IN_CHILD(...) \
    EXPECT_EXIT(_exit(vx_test::in_fresh_home(__VA_ARGS__)), testing::ExitedWithCode(0), "")
#define CHILD_CHECK(cond)                                                            \
    do {                                                                             \
        if (!(cond)) {                                                               \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
            return 1;                                                                \
        }                                                                            \
    } while (0)

/* The whole text of the trace log's active file. */
std::string trace_log_text();

/* Whether the trace log's active file holds `text`. */
inline bool logged(const std::string& text)
{
    return trace_log_text().find(text) != std::string::npos;
}

/* The whole content of a file; empty when it cannot be read. */
std::string read_file(const std::string& path);

/* A C string as text, "<null>" for a null pointer, so that a null and an
 * empty text read apart in a comparison. */
inline std::string str(const char* s)
{
    return s ? s : "<null>";
}

/* Replace "{name}" placeholders in a golden line by values read from the
 * record under test (identity numbers the test cannot choose). */
std::string fill(std::string golden, const std::vector<std::pair<std::string, std::string>>& values);

/* Field `n` (0-based) of a record line, without its line feed; "<missing>"
 * when the line has fewer fields. */
std::string field(const std::string& line, size_t n);

/* Collects every record line dumpData accepts while it is alive. */
class RecordSink {
public:
    RecordSink();
    ~RecordSink();
    std::vector<std::string> lines() const;
    /* Lines whose record number is `type`. */
    std::vector<std::string> of_type(int type) const;
    size_t size() const;
    void clear();

private:
    static void on_record(const char* data, int len, void* ctx);
    mutable std::mutex mu_;
    std::vector<std::string> lines_;
};

/* Replaces the wall clock and the thread CPU clock while it is alive. */
class FrozenClock {
public:
    FrozenClock(long long now_ms, long long cpu_ns);
    ~FrozenClock();
    static void set(long long now_ms, long long cpu_ns);
    static void advance_ms(long long ms);
};

/* The auto-sensor channel for the length of a scope, made as a session
 * start makes it (VXAutoSensorUsingStackTraceInit); at the end its
 * connection is closed, its buffers freed and its state zeroed, so the next
 * test finds none. No auto-sensor thread may outlive the scope. */
class ASChannelScope {
public:
    ASChannelScope();
    ~ASChannelScope();
    /* The bytes the ring holds and has not sent, oldest first; the ring is
     * emptied. */
    std::string take();
};

/* The BT monitor as a session's start leaves it (no counters, counter slots
 * from 0) for tier "T" (id 3), server "S" and instance "I" (id 4): records
 * begin "<n>,3|4|<id>:T>S>I>". The caller restores app->VXBCISetting. */
void fresh_bt_monitor();

/* fresh_bt_monitor, and the backend monitor as a session's start leaves it
 * (no counters, no digests), with the same record heads. */
void fresh_backend_monitor();

/* The lines of a text, each with its line feed. */
std::vector<std::string> split_lines(const std::string& text);

/* A digest record (96 or 121) as the auto-sensor channel carries it: its
 * head line, without the line feed, and its binary body. */
struct DigestRecord {
    std::string head;
    std::string body;
};
/* The digest records of the channel's bytes; a malformed one fails the
 * test. */
std::vector<DigestRecord> digest_records(const std::string& bytes);
/* The centroid means of a record 96 body. */
std::vector<double> tdigest_means(const std::string& body);

/* Opens a session on construction and closes it (closing every flowpath still
 * open) on destruction; restores the VXSys values tests commonly change. */
class SessionScope {
public:
    explicit SessionScope(int testIdx = 7, long long klvEpochDiffTime = kEpoch);
    ~SessionScope();
};

/* The agent's control connection as one end of a socket pair for the
 * length of a scope: the test reads the other end. At the end the agent's
 * end is closed and the connection is unset again. A failed set-up fails
 * the test. */
class ControlPeer {
public:
    ControlPeer();
    ~ControlPeer();
    ControlPeer(const ControlPeer&) = delete;
    ControlPeer& operator=(const ControlPeer&) = delete;
    /* What the agent wrote since the last call, without waiting. */
    std::string take();

private:
    apr_pool_t* pool_ = nullptr;
    int collector_ = -1;
};

}  // namespace vx_test

#endif
