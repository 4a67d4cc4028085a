/*
 * What the end-to-end tests need around the agent: vxc-lite running in the
 * test process, the host (vx_e2e_host) in a child process with the
 * collector's address in its environment, and a raw listener for collectors
 * that misbehave on purpose.
 */
#ifndef VX_E2E_SUPPORT_H
#define VX_E2E_SUPPORT_H

#include <apr_network_io.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "server.h"
#include "tests/loopback.h"
#include "vxc_lite.h"

namespace e2e {

/* vxc-lite on its own thread of the test process, shared with vxc-lite's
 * own tests. Counts are read after stop(). */
using Collector = vxc_test::LoopbackCollector;

/* Options for a collector on `port` (0: any) storing under a fresh run
 * directory, with short retries and frequent heartbeats. */
vxc::Options collector_options(int port = 0);

/* The host in a child process; stdout is kept and parsed as key=value. */
class Host {
public:
    /* Starts vx_e2e_host with `args`, VXHOME in a fresh directory, and the
     * collector at 127.0.0.1:`port` over TCP; `extra_env` is added. With
     * `settings`, the collectors come from that text as the agent's
     * vxsettings.conf instead (`port` is then unused). */
    Host(const std::vector<std::string>& args, int port,
         const std::vector<std::string>& extra_env = {}, const std::string& settings = "");
    ~Host();
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    /* Exit code, or -1 when it had to be killed after `timeout_s`. */
    int wait(int timeout_s);
    /* The last value printed for `key`, or "". */
    std::string value(const std::string& key) const;
    long long number(const std::string& key) const;
    /* Every value printed for `key`, in order. */
    std::vector<std::string> values(const std::string& key) const;
    /* The agent's trace log, all files joined. */
    std::string trace_log() const;
    /* The agent's vxsettings.conf as it stands now. */
    std::string settings() const;

private:
    int pid_ = -1;
    std::string home_;
    std::string out_path_;
    std::vector<std::string> lines_; /* of its stdout */
};

/* A listener that hands each accepted connection to `serve` on its own
 * thread and counts connections. */
class RawCollector {
public:
    using Serve = std::function<void(apr_socket_t* skt, int index)>;
    explicit RawCollector(Serve serve);
    ~RawCollector();
    int port() const { return port_; }
    int connections() const { return count_.load(); }

    /* Reads one line (up to its line feed) from `skt`; "" on close. */
    static std::string read_line(apr_socket_t* skt);
    static void send(apr_socket_t* skt, const std::string& bytes);

private:
    apr_pool_t* pool_ = nullptr;
    apr_socket_t* listener_ = nullptr;
    int port_ = 0;
    std::atomic<bool> stop_{false};
    std::atomic<int> count_{0};
    std::thread accept_thread_;
    std::vector<std::thread> workers_;
    Serve serve_;
};

/* Polls `done` every 50 ms for up to `timeout_s`. */
bool eventually(const std::function<bool()>& done, int timeout_s);

}  // namespace e2e

#endif
