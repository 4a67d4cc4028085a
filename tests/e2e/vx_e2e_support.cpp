#include "vx_e2e_support.h"

#include <apr_general.h>
#include <apr_time.h>
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>

#include "vx_test_support.h"

namespace e2e {

namespace {

/* APR for the whole test binary; a peer that goes away must not end it. */
class AprEnvironment : public ::testing::Environment {
public:
    void SetUp() override
    {
        apr_initialize();
        signal(SIGPIPE, SIG_IGN);
    }
};
const auto* const kApr = ::testing::AddGlobalTestEnvironment(new AprEnvironment);

}  // namespace

vxc::Options collector_options(int port)
{
    vxc::Options o;
    o.port = port;
    o.run_dir = vx_test::make_temp_dir("vx_e2e_run_");
    o.heartbeat_ms = 2000;
    o.retry_policy = "3%1%10%30"; /* reconnect one second after a break */
    return o;
}

Host::Host(const std::vector<std::string>& args, int port,
           const std::vector<std::string>& extra_env, const std::string& settings)
{
    home_ = vx_test::make_temp_dir("vx_e2e_home_");
    const std::string type_dir = home_ + "/" + "cppAgent";
    mkdir(type_dir.c_str(), 0755);
    mkdir((home_ + "/php").c_str(), 0755);
    std::ofstream(type_dir + "/version") << "e2e build\n";
    std::ofstream(home_ + "/php/version") << "e2e build\n";
    if (!settings.empty()) {
        mkdir((type_dir + "/config").c_str(), 0755);
        std::ofstream(type_dir + "/config/vxsettings.conf") << settings;
    }
    out_path_ = home_ + "/host.out";
    fflush(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
        const int fd = open(out_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd >= 0) dup2(fd, 1);
        setenv("VXHOME", home_.c_str(), 1);
        const std::string p = std::to_string(port);
        if (settings.empty()) {
            setenv("KLV_APP_AGENT_VXCHOST", "127.0.0.1", 1);
            setenv("KLV_APP_AGENT_VXCPORT", p.c_str(), 1);
            setenv("KLV_APP_AGENT_VXC_COMM_PROTOCOL", ("TCP:" + p).c_str(), 1);
        }
        setenv("KLV_APP_AGENT_TIER", "E2ETier", 1);
        setenv("KLV_APP_AGENT_SERVER", "e2e-server", 1);
        for (const std::string& kv : extra_env) putenv(strdup(kv.c_str()));
        std::vector<char*> argv;
        argv.push_back(const_cast<char*>(VX_E2E_HOST));
        for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        execv(VX_E2E_HOST, argv.data());
        _exit(127);
    }
}

Host::~Host()
{
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
}

int Host::wait(int timeout_s)
{
    if (pid_ <= 0) return -1;
    int status = 0;
    int rc = -1;
    for (int i = 0; i < timeout_s * 20; ++i) {
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            rc = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            pid_ = -1;
            break;
        }
        apr_sleep(apr_time_from_msec(50));
    }
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
    lines_ = vxc_test::read_lines(out_path_);
    return rc;
}

std::string Host::value(const std::string& key) const
{
    auto all = values(key);
    return all.empty() ? "" : all.back();
}

long long Host::number(const std::string& key) const { return atoll(value(key).c_str()); }

std::vector<std::string> Host::values(const std::string& key) const
{
    std::vector<std::string> out;
    for (const std::string& line : lines_)
        if (line.rfind(key + "=", 0) == 0) out.push_back(line.substr(key.size() + 1));
    return out;
}

std::string Host::trace_log() const
{
    std::string all;
    const std::string dir = home_ + "/cppAgent/logs";
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d)) {
            if (strncmp(e->d_name, "vx_trace", 8) == 0)
                all += vxc_test::slurp(dir + "/" + e->d_name);
        }
        closedir(d);
    }
    return all;
}

std::string Host::settings() const
{
    return vxc_test::slurp(home_ + "/cppAgent/config/vxsettings.conf");
}

RawCollector::RawCollector(Serve serve) : serve_(std::move(serve))
{
    apr_pool_create(&pool_, nullptr);
    apr_sockaddr_t* sa = nullptr;
    apr_sockaddr_info_get(&sa, "127.0.0.1", APR_INET, 0, 0, pool_);
    apr_socket_create(&listener_, APR_INET, SOCK_STREAM, APR_PROTO_TCP, pool_);
    apr_socket_opt_set(listener_, APR_SO_REUSEADDR, 1);
    apr_socket_bind(listener_, sa);
    apr_socket_listen(listener_, 16);
    apr_sockaddr_t* local = nullptr;
    apr_socket_addr_get(&local, APR_LOCAL, listener_);
    port_ = local->port;
    apr_socket_timeout_set(listener_, apr_time_from_msec(100));
    accept_thread_ = std::thread([this] {
        while (!stop_) {
            apr_pool_t* p = nullptr;
            apr_pool_create(&p, nullptr);
            apr_socket_t* s = nullptr;
            if (apr_socket_accept(&s, listener_, p) != APR_SUCCESS) {
                apr_pool_destroy(p);
                continue;
            }
            const int index = count_++;
            apr_socket_timeout_set(s, apr_time_from_sec(5));
            workers_.emplace_back([this, s, p, index] {
                serve_(s, index);
                apr_socket_close(s);
                apr_pool_destroy(p);
            });
        }
    });
}

RawCollector::~RawCollector()
{
    stop_ = true;
    accept_thread_.join();
    for (auto& w : workers_) w.join();
    apr_socket_close(listener_);
    apr_pool_destroy(pool_);
}

std::string RawCollector::read_line(apr_socket_t* skt)
{
    std::string line;
    char c;
    for (;;) {
        apr_size_t len = 1;
        if (apr_socket_recv(skt, &c, &len) != APR_SUCCESS || len == 0) return line;
        if (c == '\n') return line;
        line += c;
    }
}

void RawCollector::send(apr_socket_t* skt, const std::string& bytes)
{
    apr_size_t len = bytes.size();
    apr_socket_send(skt, bytes.data(), &len);
}

bool eventually(const std::function<bool()>& done, int timeout_s)
{
    for (int i = 0; i < timeout_s * 20; ++i) {
        if (done()) return true;
        apr_sleep(apr_time_from_msec(50));
    }
    return done();
}

}  // namespace e2e
