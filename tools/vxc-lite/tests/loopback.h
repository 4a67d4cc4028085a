/* Loopback round trips: the server runs in this process on a port of its own
 * choosing; plain TCP clients play the agent's connections. Every wait is
 * bounded; nothing here depends on how fast anything runs. The agent's
 * end-to-end tests run their collector through LoopbackCollector too. */
#ifndef VXC_LITE_TESTS_LOOPBACK_H
#define VXC_LITE_TESTS_LOOPBACK_H

#include <apr_general.h>
#include <arpa/inet.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "auto_sensor.h"
#include "discovery.h"
#include "exceptions.h"
#include "http_headers.h"
#include "queries.h"
#include "server.h"
#include "topology.h"

namespace vxc_test {

constexpr auto kWait = std::chrono::seconds(20);

const char kRequest[] =
    "vx_ctrl_msg_req:appName=shop;vxAppServerHost=web1;tierName=front;bciVersion=0.1.0;"
    "bciStartTime=1700000000000;vxHome=/opt/vx;pid=4242;BCITimeStamp=1700000000100;"
    "agentType=native;serverIp=127.0.0.1;hostName=web1;isAgentLess=N;jvmType=native;"
    "javaVersion=1.0;javaHome=/apps/java;machineType=Linux;requestType=1;"
    "lastConnectionTimeStamp=0;connDuration=0;connDestination=127.0.0.1:7892;"
    "agentName=shop-1;supportedProtocols=TCP;authtoken=NA;tags={};attributes={};protoVer=0; \n";

const char kOpening[] =
    "vx_data_msg_req:appName=shop;appID=0;vxAppServerID=0;vxAppServerHost=web1;tierName=front;"
    "tierID=0;VXCollectorIP=127.0.0.1;VXCollectorPort=7892;testIdx=12;pid=4242;agentName=shop-1\n";

/* Its vector is front>web1>shop, its ids tier 1, app 2, server 3. */
const char kAsOpening[] =
    "auto_sensor_thread_hotspot_data_req:appName=shop;appID=2;vxAppServerID=3;"
    "vxAppServerHost=web1;tierName=front;tierID=1;VXCollectorIP=127.0.0.1;"
    "VXCollectorPort=7892,testIdx=12;pid=4242;agentName=shop-1\n";

class Client {
public:
    explicit Client(int port)
    {
        fd_ = socket(AF_INET, SOCK_STREAM, 0);
        timeval tv{1, 0};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        sockaddr_in sa{};
        sa.sin_family = AF_INET;
        sa.sin_port = htons(static_cast<uint16_t>(port));
        sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        connected_ = connect(fd_, reinterpret_cast<sockaddr*>(&sa), sizeof sa) == 0;
    }
    ~Client()
    {
        if (fd_ >= 0) close(fd_);
    }
    bool connected() const { return connected_; }
    bool send(const std::string& s)
    {
        return ::send(fd_, s.data(), s.size(), MSG_NOSIGNAL) == (ssize_t)s.size();
    }
    void shut() { shutdown(fd_, SHUT_WR); }

    /* The next line without its line feed; false when the peer closed or
     * nothing came within the wait. */
    bool read_line(std::string* line, std::chrono::milliseconds wait = kWait)
    {
        const auto end = std::chrono::steady_clock::now() + wait;
        for (;;) {
            const size_t nl = buf_.find('\n');
            if (nl != std::string::npos) {
                *line = buf_.substr(0, nl);
                buf_.erase(0, nl + 1);
                return true;
            }
            if (std::chrono::steady_clock::now() >= end || !fill()) return false;
        }
    }

    /* Exactly n bytes; false when they did not all come within the wait. */
    bool read_bytes(size_t n, std::string* out)
    {
        const auto end = std::chrono::steady_clock::now() + kWait;
        while (buf_.size() < n)
            if (std::chrono::steady_clock::now() >= end || !fill()) return false;
        *out = buf_.substr(0, n);
        buf_.erase(0, n);
        return true;
    }

    /* True when the peer closes within the wait. */
    bool closed_by_peer()
    {
        const auto end = std::chrono::steady_clock::now() + kWait;
        while (std::chrono::steady_clock::now() < end) {
            char tmp[256];
            const ssize_t n = recv(fd_, tmp, sizeof tmp, 0);
            if (n == 0) return true;
            if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) return true;
        }
        return false;
    }

private:
    /* One receive into the buffer, waiting at most the socket's 1 s time-out;
     * false when the peer closed. */
    bool fill()
    {
        char tmp[65536];
        const ssize_t n = recv(fd_, tmp, sizeof tmp, 0);
        if (n == 0) return false;
        if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) return false;
        if (n > 0) buf_.append(tmp, static_cast<size_t>(n));
        return true;
    }

    int fd_ = -1;
    bool connected_ = false;
    std::string buf_;
};

inline std::string slurp(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

/* The one file of the run directory whose name ends in suffix, or "". */
inline std::string find_file(const std::string& dir, const std::string& suffix)
{
    std::string found;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d)) {
            const std::string n = e->d_name;
            if (n.size() > suffix.size() &&
                n.compare(n.size() - suffix.size(), suffix.size(), suffix) == 0)
                found = dir + "/" + n;
        }
        closedir(d);
    }
    return found;
}

/* Waits until the file ending in suffix holds needle. */
inline bool wait_for_text(const std::string& dir, const std::string& suffix,
                          const std::string& needle)
{
    const auto end = std::chrono::steady_clock::now() + kWait;
    while (std::chrono::steady_clock::now() < end) {
        const std::string f = find_file(dir, suffix);
        if (!f.empty() && slurp(f).find(needle) != std::string::npos) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

inline std::vector<std::string> read_lines(const std::string& path)
{
    std::vector<std::string> lines;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

/* The lines of each conn-<n>-<kind>.lines of a run directory, by connection. */
inline std::vector<std::vector<std::string>> connection_lines(const std::string& dir,
                                                              const std::string& kind)
{
    std::map<int, std::string> by_id;
    const std::string tail = "-" + kind + ".lines";
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d)) {
            const std::string n = e->d_name;
            if (n.rfind("conn-", 0) == 0 && n.size() > tail.size() &&
                n.compare(n.size() - tail.size(), tail.size(), tail) == 0)
                by_id[atoi(n.c_str() + 5)] = dir + "/" + n;
        }
        closedir(d);
    }
    std::vector<std::vector<std::string>> out;
    for (const auto& [id, path] : by_id) out.push_back(read_lines(path));
    return out;
}

/* The value of key in a run directory's summary.txt, "" when absent. */
inline std::string summary_value(const std::string& run_dir, const std::string& key)
{
    std::istringstream in(slurp(run_dir + "/summary.txt"));
    for (std::string l; std::getline(in, l);)
        if (l.rfind(key + "=", 0) == 0) return l.substr(key.size() + 1);
    return "";
}

/* Each "key=value" of `want` (blank-separated) is in the run's summary.txt. */
inline void expect_summary(const std::string& run_dir, const std::string& want)
{
    std::istringstream in(want);
    for (std::string kv; in >> kv;) {
        const size_t eq = kv.find('=');
        EXPECT_EQ(summary_value(run_dir, kv.substr(0, eq)), kv.substr(eq + 1)) << kv;
    }
}

/* vxc-lite serving on its own thread of this process. */
class LoopbackCollector {
public:
    explicit LoopbackCollector(vxc::Options opts) : opts_(std::move(opts)) {}
    ~LoopbackCollector() { stop(); }
    LoopbackCollector(const LoopbackCollector&) = delete;
    LoopbackCollector& operator=(const LoopbackCollector&) = delete;

    /* 0 when listening; otherwise -1 and the reason in *error. */
    int start(std::string* error = nullptr)
    {
        std::string e;
        if (vxc::server_create(opts_, &server_, &e) != 0) {
            if (error) *error = e;
            return -1;
        }
        port_ = vxc::server_port(server_);
        thread_ = std::thread([this] { run_result_ = vxc::server_run(server_); });
        return 0;
    }
    /* Stops serving and closes the listener; the counts of the run. */
    const vxc::Counts& stop()
    {
        if (!server_) return counts_;
        vxc::server_request_stop(server_);
        thread_.join();
        counts_ = vxc::server_counts(server_);
        vxc::server_destroy(server_);
        server_ = nullptr;
        return counts_;
    }
    int port() const { return port_; }
    const std::string& run_dir() const { return opts_.run_dir; }
    /* Once stopped: each "key=value" of `want` is a count of the run. */
    void expect_counts(const std::string& want) const { expect_summary(opts_.run_dir, want); }
    /* What server_run returned, once stopped. */
    int run_result() const { return run_result_; }
    /* Lines of each data connection, in the order they were accepted. */
    std::vector<std::vector<std::string>> data_connections() const
    {
        return connection_lines(opts_.run_dir, "data");
    }
    /* Lines of each auto-sensor connection, in the order they were accepted. */
    std::vector<std::vector<std::string>> auto_sensor_connections() const
    {
        return connection_lines(opts_.run_dir, "autosensor");
    }
    /* The records 74 received, as bt_monitor.tsv has them. */
    std::vector<vxc::BtMonitorRow> bt_monitor() const
    {
        return vxc::read_bt_monitor(opts_.run_dir + "/bt_monitor.tsv");
    }
    /* The records 61 and 63 received, as their files have them. */
    std::vector<vxc::MethodMonitorRow> method_monitor() const
    {
        return vxc::read_method_monitor(opts_.run_dir + "/method_monitor.tsv");
    }
    std::vector<vxc::ExceptionMonitorRow> exception_monitor() const
    {
        return vxc::read_exception_monitor(opts_.run_dir + "/exception_monitor.tsv");
    }
    /* The records 75 received, as backend_monitor.tsv has them. */
    std::vector<vxc::BackendMonitorRow> backend_monitor() const
    {
        return vxc::read_backend_monitor(opts_.run_dir + "/backend_monitor.tsv");
    }
    /* The records 91 and 26 received, as topology.tsv and resources.tsv
     * have them. */
    std::vector<vxc::TopologyRow> topology() const
    {
        return vxc::read_topology(opts_.run_dir + "/topology.tsv");
    }
    std::vector<vxc::ResourceRow> resources() const
    {
        return vxc::read_resources(opts_.run_dir + "/resources.tsv");
    }
    /* Once stopped: the chained records 2 with their callers (links.tsv). */
    std::vector<vxc::LinkRow> links() const
    {
        return vxc::read_links(opts_.run_dir + "/links.tsv");
    }
    /* The trace id, parent id and flags of every record 2 (traces.tsv). */
    std::vector<vxc::TraceRow> traces() const
    {
        return vxc::read_traces(opts_.run_dir + "/traces.tsv");
    }
    /* The exceptions of records 38, texts resolved (exceptions.tsv). */
    std::vector<vxc::ExceptionRow> exceptions() const
    {
        return vxc::read_exceptions(opts_.run_dir + "/exceptions.tsv");
    }
    /* The captured headers of records 12 and 13 (headers.tsv). */
    std::vector<vxc::HeaderRow> headers() const
    {
        return vxc::read_headers(opts_.run_dir + "/headers.tsv");
    }
    /* The query texts of records 22 (queries.tsv). */
    std::vector<vxc::QueryRow> queries() const
    {
        return vxc::read_queries(opts_.run_dir + "/queries.tsv");
    }
    /* The callout tokens of the flowpaths' blobs (callouts.tsv). */
    std::vector<vxc::CalloutRow> callouts() const
    {
        return vxc::read_callouts(opts_.run_dir + "/callouts.tsv");
    }
    /* The digest records received, as percentiles.tsv has them. */
    std::vector<vxc::PercentileRow> percentiles() const
    {
        return vxc::read_percentiles(opts_.run_dir + "/percentiles.tsv");
    }
    /* Lines of each discovery connection, in the order they were accepted. */
    std::vector<std::vector<std::string>> discovery_connections() const
    {
        return connection_lines(opts_.run_dir, "discovery");
    }
    /* The discovery results and summaries (discovery.tsv). */
    std::vector<vxc::DiscoveryRow> discovery() const
    {
        return vxc::read_discovery(opts_.run_dir + "/discovery.tsv");
    }
    /* Lines of each control connection, in the order they were accepted. */
    std::vector<std::vector<std::string>> control_connections() const
    {
        return connection_lines(opts_.run_dir, "control");
    }
    /* First lines of every control connection. */
    std::vector<std::string> control_requests() const
    {
        std::vector<std::string> out;
        for (const auto& lines : connection_lines(opts_.run_dir, "control"))
            if (!lines.empty()) out.push_back(lines.front());
        return out;
    }

private:
    vxc::Options opts_;
    vxc::Server* server_ = nullptr;
    vxc::Counts counts_;
    std::thread thread_;
    int port_ = 0;
    int run_result_ = -2;
};

class Loopback : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        apr_initialize();
        signal(SIGPIPE, SIG_IGN);
    }

    void SetUp() override
    {
        char tmpl[] = "/tmp/vxc-lite-test-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        root_ = tmpl;
    }

    /* Writes a file under the test's own directory and returns its path. */
    std::string write_file(const std::string& name, const std::string& content)
    {
        const std::string path = root_ + "/" + name;
        std::ofstream(path, std::ios::binary) << content;
        return path;
    }

    void start(vxc::Options opts)
    {
        dir_ = root_ + "/run";
        opts.run_dir = dir_;
        opts.port = 0;
        collector_ = std::make_unique<LoopbackCollector>(opts);
        std::string error;
        ASSERT_EQ(collector_->start(&error), 0) << error;
        port_ = collector_->port();
        ASSERT_GT(port_, 0);
    }

    void stop()
    {
        if (!collector_) return;
        collector_->stop();
        run_result_ = collector_->run_result();
    }

    void TearDown() override
    {
        stop();
        if (!root_.empty()) std::system(("rm -rf " + root_).c_str());
    }

    std::string summary_value(const std::string& key) { return vxc_test::summary_value(dir_, key); }
    void expect_summary(const std::string& want) { vxc_test::expect_summary(dir_, want); }

    std::unique_ptr<LoopbackCollector> collector_;
    int run_result_ = -2;
    int port_ = 0;
    std::string root_; /* everything a test writes */
    std::string dir_;  /* the run directory, root_/run */
};

}  // namespace vxc_test

#endif
