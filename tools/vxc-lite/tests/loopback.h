/* Loopback round trips: the server runs in this process on a port of its own
 * choosing; plain TCP clients play the agent's connections. Every wait is
 * bounded; nothing here depends on how fast anything runs. */
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
#include <sstream>
#include <string>
#include <thread>

#include "server.h"

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
        std::string error;
        ASSERT_EQ(vxc::server_create(opts, &server_, &error), 0) << error;
        port_ = vxc::server_port(server_);
        ASSERT_GT(port_, 0);
        thread_ = std::thread([this] { run_result_ = vxc::server_run(server_); });
    }

    void stop()
    {
        if (!thread_.joinable()) return;
        vxc::server_request_stop(server_);
        thread_.join();
    }

    void TearDown() override
    {
        stop();
        vxc::server_destroy(server_);
        if (!root_.empty()) std::system(("rm -rf " + root_).c_str());
    }

    /* The value of key in summary.txt, "" when absent. */
    std::string summary_value(const std::string& key)
    {
        std::istringstream in(slurp(dir_ + "/summary.txt"));
        for (std::string l; std::getline(in, l);)
            if (l.rfind(key + "=", 0) == 0) return l.substr(key.size() + 1);
        return "";
    }

    vxc::Server* server_ = nullptr;
    std::thread thread_;
    int run_result_ = -2;
    int port_ = 0;
    std::string root_; /* everything a test writes */
    std::string dir_;  /* the run directory, root_/run */
};

}  // namespace vxc_test

#endif
