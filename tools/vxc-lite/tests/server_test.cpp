/* Loopback round trips: the server runs in this process on a port of its own
 * choosing; plain TCP clients play the agent's control and data connections.
 * Every wait is bounded; nothing here depends on how fast anything runs. */
#include "server.h"

#include <apr_general.h>
#include <arpa/inet.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

namespace {

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
    bool read_line(std::string* line)
    {
        const auto end = std::chrono::steady_clock::now() + kWait;
        for (;;) {
            const size_t nl = buf_.find('\n');
            if (nl != std::string::npos) {
                *line = buf_.substr(0, nl);
                buf_.erase(0, nl + 1);
                return true;
            }
            if (std::chrono::steady_clock::now() >= end) return false;
            char tmp[4096];
            const ssize_t n = recv(fd_, tmp, sizeof tmp, 0);
            if (n == 0) return false;
            if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) return false;
            if (n > 0) buf_.append(tmp, static_cast<size_t>(n));
        }
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
    int fd_ = -1;
    bool connected_ = false;
    std::string buf_;
};

std::string slurp(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

/* The one file of the run directory whose name ends in suffix, or "". */
std::string find_file(const std::string& dir, const std::string& suffix)
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
bool wait_for_text(const std::string& dir, const std::string& suffix, const std::string& needle)
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

    void start(vxc::Options opts)
    {
        char tmpl[] = "/tmp/vxc-lite-test-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = std::string(tmpl) + "/run";
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
        if (!dir_.empty()) std::system(("rm -rf " + dir_.substr(0, dir_.size() - 4)).c_str());
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
    std::string dir_;
};

TEST_F(Loopback, ControlAndDataConnectionsAreAnsweredStoredAndCounted)
{
    vxc::Options o;
    o.heartbeat_ms = 50;
    o.status = "RUNNING";
    o.after_reply_line = "vx_control_req:action=start_instrumentation;testIdx=12;";
    start(o);

    Client ctrl(port_);
    ASSERT_TRUE(ctrl.connected());
    ASSERT_TRUE(ctrl.send(kRequest));
    std::string line;
    ASSERT_TRUE(ctrl.read_line(&line));
    EXPECT_EQ(line,
              "vx_ctrl_msg_rep:result=Ok;status=RUNNING;state=1;retryPolicy=3%60%10%30;"
              "ProtoVersion=1;supportedProtocols=TCP:" +
                  std::to_string(port_) + ";");
    ASSERT_TRUE(ctrl.read_line(&line));
    EXPECT_EQ(line, "vx_control_req:action=start_instrumentation;testIdx=12;");
    ASSERT_TRUE(ctrl.read_line(&line));
    EXPECT_EQ(line,
              "vx_control_req:action=reconnect;heartBeat 0;dataConnState=1;AutosensorConnState=1;");
    ASSERT_TRUE(ctrl.read_line(&line));
    EXPECT_EQ(line,
              "vx_control_req:action=reconnect;heartBeat 1;dataConnState=1;AutosensorConnState=1;");
    ASSERT_TRUE(
        ctrl.send("vx_control_rep:action=start_instrumentation;status=starting;result=Ok;\n"));

    Client data(port_);
    ASSERT_TRUE(data.connected());
    const std::string record2 =
        "2,123456789,5000,77,77.1,3,/shop/cart,,123456789,000000000000000000077,55,,0,15,,,\n";
    ASSERT_TRUE(data.send("\n" + std::string(kOpening) + "\n" +
                          "\n99,NewConnection,FPGVersion:1.0\n"
                          "5,main,1\n7,3,/shop/cart\n" +
                          record2.substr(0, 30)));
    ASSERT_TRUE(data.send(record2.substr(30) + std::string("\0", 1) + "\n"));
    ASSERT_TRUE(
        data.send("3,123456789,1:0_0_0__\n4,123456789,200,10,250000,40,3,0,,0,-1,1:0_0_0__\n"
                  "4,123456789,oops\n" +
                  std::string(300, 'z') + "\n10,\n"));
    data.shut();
    ASSERT_TRUE(wait_for_text(dir_, "-data.lines", "\n10,\n"));
    ASSERT_TRUE(wait_for_text(dir_, "-control.lines", "status=starting"));
    stop();
    EXPECT_EQ(run_result_, 0);

    EXPECT_EQ(slurp(find_file(dir_, "-data.lines")),
              std::string(kOpening) +
                  "\n\n99,NewConnection,FPGVersion:1.0\n5,main,1\n7,3,/shop/cart\n" + record2 +
                  "\n3,123456789,1:0_0_0__\n"
                  "4,123456789,200,10,250000,40,3,0,,0,-1,1:0_0_0__\n4,123456789,oops\n" +
                  std::string(300, 'z') + "\n10,\n");
    EXPECT_EQ(slurp(find_file(dir_, "-control.lines")),
              std::string(kRequest) +
                  "vx_control_rep:action=start_instrumentation;status=starting;result=Ok;\n");
    const std::string malformed = slurp(dir_ + "/malformed.txt");
    EXPECT_NE(malformed.find("| 4,123456789,oops\n"), std::string::npos) << malformed;
    EXPECT_NE(malformed.find("| zzz"), std::string::npos) << malformed;

    EXPECT_EQ(summary_value("connections"), "2");
    EXPECT_EQ(summary_value("control_connections"), "1");
    EXPECT_EQ(summary_value("data_connections"), "1");
    EXPECT_EQ(summary_value("control_requests_with_problems"), "0");
    EXPECT_EQ(summary_value("agent_control_lines"), "1");
    EXPECT_EQ(summary_value("records"), "7");
    EXPECT_EQ(summary_value("malformed"), "2");
    EXPECT_EQ(summary_value("data_heartbeats"), "3");
    EXPECT_EQ(summary_value("nul_bytes"), "1");
    EXPECT_EQ(summary_value("record.99"), "1");
    EXPECT_EQ(summary_value("record.2"), "1");
    EXPECT_EQ(summary_value("record.4"), "1");
    EXPECT_EQ(summary_value("record.10"), "1");
    EXPECT_NE(summary_value("heartbeats_sent"), "0");
    const std::string conn1 = summary_value("conn.1"), conn2 = summary_value("conn.2");
    EXPECT_EQ(conn1.rfind("control peer=127.0.0.1:", 0), 0u) << conn1;
    EXPECT_NE(conn1.find(" appName=shop agentName=shop-1 pid=4242 lines=2 records=0 malformed=0 "
                         "state=closed: "),
              std::string::npos)
        << conn1;
    EXPECT_EQ(conn2.rfind("data peer=127.0.0.1:", 0), 0u) << conn2;
    EXPECT_NE(conn2.find(" appName=shop agentName=shop-1 pid=4242 lines=13 records=7 malformed=2 "
                         "state=closed: "),
              std::string::npos)
        << conn2;
}

TEST_F(Loopback, StrangersSilentPeersAndOverflowAreClosed)
{
    vxc::Options o;
    o.max_connections = 2;
    o.idle_first_line_ms = 100;
    o.max_line = 1024;
    start(o);

    Client http(port_);
    ASSERT_TRUE(http.connected());
    ASSERT_TRUE(http.send("GET / HTTP/1.1\r\n\r\n"));
    EXPECT_TRUE(http.closed_by_peer()) << "an unknown first line closes the connection";

    Client silent(port_);
    ASSERT_TRUE(silent.connected());
    EXPECT_TRUE(silent.closed_by_peer()) << "no first line in time closes the connection";

    Client overlong(port_);
    ASSERT_TRUE(overlong.connected());
    overlong.send(std::string(5000, 'x'));
    EXPECT_TRUE(overlong.closed_by_peer()) << "an overlong first line never identifies it";

    /* Two held connections fill the limit; the third is refused. */
    Client a(port_), b(port_);
    ASSERT_TRUE(a.send(kOpening));
    ASSERT_TRUE(b.send(kOpening));
    ASSERT_TRUE(wait_for_text(dir_, "0004-data.lines", "vx_data_msg_req"));
    ASSERT_TRUE(wait_for_text(dir_, "0005-data.lines", "vx_data_msg_req"));
    Client c(port_);
    EXPECT_TRUE(c.closed_by_peer()) << "a connection over the limit is closed at once";
    stop();
    EXPECT_EQ(summary_value("connections_refused"), "1");
    EXPECT_EQ(summary_value("unknown_connections"), "3");
    EXPECT_EQ(summary_value("overlong"), "1");
    EXPECT_EQ(summary_value("data_connections"), "2");
}

}  // namespace
