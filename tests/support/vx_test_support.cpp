#include "vx_test_support.h"

#include <apr_portable.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <iterator>

#include "agent/vx_instance.h"
#include "core/vx_platform.h"
#include "core/vx_thread.h"
#include "core/vx_trace_log.h"
#include "diag/vx_autosensor_thread.h"
#include "link/vx_as_link.h"
#include "link/vx_data_dispatcher.h"
#include "monitor/vx_backend_monitor.h"
#include "monitor/vx_bt_monitor.h"
#include "monitor/vx_monitor_model.h"
#include "monitor/vx_tdigest.h"
#include "session/vx_session.h"
#include "vx_sdk.h"

namespace vx_test {

std::string make_temp_dir(const char* prefix)
{
    std::string tmpl = std::string("/tmp/") + prefix + "XXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    if (!mkdtemp(buf.data())) return "/tmp";
    return buf.data();
}

namespace {

std::string g_home;

}  // namespace

const std::string& agent_home() { return g_home; }

VXProxyInstance_t* agent()
{
    static VXProxyInstance_t* app = [] {
        g_home = make_temp_dir("vx_unit_");
        setenv("VXHOME", g_home.c_str(), 1);
        std::string type_dir = g_home + "/cppAgent";
        mkdir(type_dir.c_str(), 0755);
        std::ofstream(type_dir + "/version") << "# build information\n9.9.9 build 42\n";
        agent_init(S("UnitPool"), 1, S("unit"), S("cppAgent"), S("v9"));
        /* No collector is configured, so the control thread ends on its own
         * after choosing its transport; units are then tested on TCP with
         * nothing running beside them. */
        apr_status_t rv;
        if (tlvxApplication->controlLink.control_thread_id) apr_thread_join(&rv, tlvxApplication->controlLink.control_thread_id);
        tlvxApplication->controlLink.control_thread_id = nullptr;
        tlvxApplication->lws_active = 0;
        return tlvxApplication;
    }();
    return app;
}

int in_fresh_home(const std::function<int(const std::string& home)>& body)
{
    const std::string home = make_temp_dir("vx_child_");
    setenv("VXHOME", home.c_str(), 1);
    unsetenv("KLV_APP_AGENT_LOGGINGLEVEL");
    return body(home);
}

std::string trace_log_text()
{
    return trace_log_key ? read_file(trace_log_key->log_file[trace_log_key->cur_index]) : "";
}

std::string read_file(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

ControlPeer::ControlPeer()
{
    VXProxyInstance_t* app = agent();
    EXPECT_EQ(app->controlLink.control.skt, nullptr) << "a control connection is open";
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0 ||
        apr_pool_create(&pool_, nullptr) != APR_SUCCESS) {
        ADD_FAILURE() << "no socket pair for the control connection";
        return;
    }
    collector_ = fds[1];
    apr_os_sock_t fd = fds[0];
    if (apr_os_sock_put(&app->controlLink.control.skt, &fd, pool_) != APR_SUCCESS)
        ADD_FAILURE() << "the control connection cannot take the socket";
}

ControlPeer::~ControlPeer()
{
    agent()->controlLink.control.skt = nullptr;
    if (pool_) apr_pool_destroy(pool_); /* closes the agent's end */
    if (collector_ >= 0) close(collector_);
}

std::string ControlPeer::take()
{
    std::string out;
    char buf[4096];
    for (ssize_t n; (n = recv(collector_, buf, sizeof buf, MSG_DONTWAIT)) > 0;)
        out.append(buf, static_cast<size_t>(n));
    return out;
}

std::string fill(std::string golden, const std::vector<std::pair<std::string, std::string>>& values)
{
    for (const auto& [name, value] : values) {
        const std::string key = "{" + name + "}";
        for (size_t at = golden.find(key); at != std::string::npos; at = golden.find(key, at + value.size()))
            golden.replace(at, key.size(), value);
    }
    return golden;
}

std::string field(const std::string& line, size_t n)
{
    size_t at = 0;
    for (size_t i = 0; i < n; ++i, ++at)
        if ((at = line.find(',', at)) == std::string::npos) return "<missing>";
    return line.substr(at, line.find_first_of(",\n", at) - at);
}

RecordSink::RecordSink() { vx::data_tap_set(&RecordSink::on_record, this); }

RecordSink::~RecordSink() { vx::data_tap_set(nullptr, nullptr); }

void RecordSink::on_record(const char* data, int len, void* ctx)
{
    auto* self = static_cast<RecordSink*>(ctx);
    std::lock_guard<std::mutex> g(self->mu_);
    self->lines_.emplace_back(data, static_cast<size_t>(len));
}

std::vector<std::string> RecordSink::lines() const
{
    std::lock_guard<std::mutex> g(mu_);
    return lines_;
}

std::vector<std::string> RecordSink::of_type(int type) const
{
    std::string prefix = std::to_string(type) + ",";
    std::vector<std::string> out;
    for (const std::string& l : lines())
        if (l.compare(0, prefix.size(), prefix) == 0) out.push_back(l);
    return out;
}

size_t RecordSink::size() const
{
    std::lock_guard<std::mutex> g(mu_);
    return lines_.size();
}

void RecordSink::clear()
{
    std::lock_guard<std::mutex> g(mu_);
    lines_.clear();
}

namespace {

std::atomic<long long> g_now_ms{0};
std::atomic<long long> g_cpu_ns{0};

long long frozen_now() { return g_now_ms.load(); }
long long frozen_cpu() { return g_cpu_ns.load(); }

}  // namespace

FrozenClock::FrozenClock(long long now_ms, long long cpu_ns)
{
    set(now_ms, cpu_ns);
    vx::clock_set_source(frozen_now, frozen_cpu);
}

FrozenClock::~FrozenClock() { vx::clock_set_source(nullptr, nullptr); }

void FrozenClock::set(long long now_ms, long long cpu_ns)
{
    g_now_ms = now_ms;
    g_cpu_ns = cpu_ns;
}

void FrozenClock::advance_ms(long long ms) { g_now_ms += ms; }

ASChannelScope::ASChannelScope()
{
    VXAutoSensorUsingStackTraceInit();
}

ASChannelScope::~ASChannelScope()
{
    VXProxyInstance_t* app = agent();
    closeAutoSensorConnection();
    for (nioSettings_t* head : {app->asChannel.writeListAS, app->asChannel.readListAS})
        while (nioSettings_t* n = head) head = n->next, free(n->buff), free(n);
    if (app->asChannel.autoSensor_pool) apr_pool_destroy(app->asChannel.autoSensor_pool);
    app->asChannel = VXAutoSensorChannel_t{};
    app->asReports = VXThreadReports_t{};
    app->asLink = VXAutoSensorLink_t{};
}

std::string ASChannelScope::take()
{
    VXAutoSensorChannel_t& ch = agent()->asChannel;
    vx::VXLockGuard write(ch.bufferWriteLockAS);
    std::string out;
    for (nioSettings_t* head : {ch.readListAS, ch.writeListAS})
        for (nioSettings_t* n = head; n; n = n->next) {
            out.append(n->buff + n->send_len, static_cast<size_t>(n->use_len - n->send_len));
            n->use_len = n->send_len = 0;
        }
    while (ch.readListAS) moveToASWriteList();
    return out;
}

SessionScope::SessionScope(int testIdx, long long klvEpochDiffTime)
{
    agent();
    vx::session_start(testIdx, klvEpochDiffTime);
}

SessionScope::~SessionScope()
{
    vx::session_stop();
    VXProxyInstance_t* app = agent();
    VXSys_t& s = app->VXSys;
    s.bciInstrSessionPct = 0;
    s.captureMethodForAllFP = 0;
    s.captureCorrelationEnabled = 0;
    s.enableOTELStandard = 0;
    s.enableTagsSupport = 1;
    s.enableCpuTime = 0;
    s.fpTraceLevel = 0;
    app->VXBTMonitor.doNotDisacrdAnyTransaction = 0;
    app->VXFlowpathGenerator.maxCharactersInSeqBlob = 13312;
}

void fresh_bt_monitor()
{
    VXBTConfigModelInit();
    free_threadBasedModelMap();
    Free_BT_Tag_Map();
    VXBCISetting_t& s = agent()->VXBCISetting;
    s.tierName = S("T");
    s.appServerName = S("S");
    s.appName = S("I");
    s.tierID = 3;
    s.appID = 4;
    createVectorPrefix();
}

void fresh_backend_monitor()
{
    fresh_bt_monitor();
    VXBackendMonitorInit();
}

std::vector<std::string> split_lines(const std::string& text)
{
    std::vector<std::string> out;
    for (size_t at = 0, nl; at < text.size(); at = nl + 1)
        out.push_back(text.substr(at, (nl = text.find('\n', at)) - at + 1));
    return out;
}

std::vector<DigestRecord> digest_records(const std::string& bytes)
{
    std::vector<DigestRecord> out;
    for (size_t at = 0; at < bytes.size();) {
        const size_t nl = bytes.find('\n', at);
        EXPECT_NE(nl, std::string::npos);
        if (nl == std::string::npos) break;
        DigestRecord r{bytes.substr(at, nl - at), {}};
        const size_t n = std::stoul(r.head.substr(r.head.rfind(',') + 1));
        r.body = bytes.substr(nl + 1, n);
        EXPECT_EQ(bytes.substr(nl + 1 + n, 1), "\n") << r.head;
        at = nl + 2 + n;
        out.push_back(r);
    }
    return out;
}

std::vector<double> tdigest_means(const std::string& body)
{
    td_histogram_t* h = td_deserialize(body.data(), body.size(), 0);
    std::vector<double> out;
    if (!h) return out;
    td_compress(h);
    for (int i = 0; i < h->merged_nodes; ++i) out.push_back(h->nodes[i].mean);
    td_free(h);
    return out;
}

}  // namespace vx_test
