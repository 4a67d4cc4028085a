/*
 * The agent's tags and attributes: parsing of the configuration, each
 * source (inline, env, nds, prop, json, sys, scripts, cloud metadata), the
 * JSON text, and the failures that must end in bounded time with a log
 * line: a missing file, a script that hangs or prints megabytes, a
 * metadata service that is down or slow.
 */
#include "agent/vx_tag_resolvers.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

#include "agent/vx_cloud_metadata.h"
#include "agent/vx_instance.h"
#include "agent/vx_script_runner.h"
#include "agent/vx_settings.h"
#include "agent/vx_tag_resolvers_private.h"
#include "vx_test_support.h"

namespace {

using vx_test::S;
using Clock = std::chrono::steady_clock;

long long ms_since(Clock::time_point t0)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0).count();
}

void write_file(const std::string& path, const std::string& text, bool exec = false)
{
    std::ofstream(path) << text;
    if (exec) chmod(path.c_str(), 0755);
}

/* A metadata service stand-in on loopback: answers each connection with
 * `answer` and keeps the last request it read. A silent one only listens:
 * connections are made by the kernel and never answered. */
class LoopbackHttp {
public:
    LoopbackHttp(std::string answer, bool silent) : answer_(std::move(answer))
    {
        fd_ = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in sa{};
        sa.sin_family = AF_INET;
        sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(fd_, reinterpret_cast<sockaddr*>(&sa), sizeof sa);
        socklen_t len = sizeof sa;
        getsockname(fd_, reinterpret_cast<sockaddr*>(&sa), &len);
        port_ = ntohs(sa.sin_port);
        listen(fd_, 4);
        if (!silent) thread_ = std::thread([this] { serve(); });
    }
    ~LoopbackHttp()
    {
        stop_ = true;
        shutdown(fd_, SHUT_RDWR);
        close(fd_);
        if (thread_.joinable()) thread_.join();
    }
    std::string addr() const { return "127.0.0.1:" + std::to_string(port_); }
    std::string request()
    {
        std::lock_guard<std::mutex> g(m_);
        return request_;
    }

private:
    void serve()
    {
        while (!stop_) {
            const int c = accept(fd_, nullptr, nullptr);
            if (c < 0) return;
            char buf[2048];
            const ssize_t n = recv(c, buf, sizeof buf, 0);
            {
                std::lock_guard<std::mutex> g(m_);
                request_.assign(buf, n > 0 ? static_cast<size_t>(n) : 0);
            }
            send(c, answer_.data(), answer_.size(), MSG_NOSIGNAL);
            close(c);
        }
    }
    std::string answer_;
    int fd_ = -1;
    int port_ = 0;
    std::atomic<bool> stop_{false};
    std::mutex m_;
    std::string request_;
    std::thread thread_;
};

class TagResolvers : public testing::Test {
protected:
    void SetUp() override
    {
        dir_ = vx_test::make_temp_dir("vx_tags");
        scripts_ = std::string(vx_settings_home_path()) + "/scripts";
        mkdir(scripts_.c_str(), 0755);
        list_ = apr_hash_make(pool_);
        files_ = apr_hash_make(pool_);
        vx::cloud_metadata_reset();
    }
    void TearDown() override
    {
        FREE_HASHLIST(list_);
        std::string cmd = "rm -rf '" + dir_ + "' '" + scripts_ + "'";
        EXPECT_EQ(system(cmd.c_str()), 0);
        unsetenv("VX_CLOUD_METADATA_ADDR");
        vx::cloud_metadata_reset();
    }
    /* Parses and resolves `conf`; the JSON as tags (1) or attributes (0). */
    std::string resolve(const std::string& conf, int tags = 0)
    {
        ParseTags(S(conf.c_str()), list_, files_);
        processTags(list_);
        char* json = convertTagsToJson(list_, tags);
        std::string out = json ? json : "(null)";
        free(json);
        return out;
    }

    struct Pool {
        Pool() { apr_pool_create(&p, nullptr); }
        ~Pool() { apr_pool_destroy(p); }
        operator apr_pool_t*() const { return p; }
        apr_pool_t* p;
    } pool_;
    std::string dir_, scripts_;
    apr_hash_t* list_ = nullptr;
    apr_hash_t* files_ = nullptr;
};

TEST_F(TagResolvers, ParsingDropsBadAndDuplicateItemsAndTagsGetTechnology)
{
    const char* conf =
        "b=inline:y,a=inline:x,noequals,=inline:e,Technology=inline:t,"
        "technology=inline:u,a=inline:again,o=other:z";
    EXPECT_EQ(resolve(conf, 1), "{\"Technology\":\"cppAgent\",\"a\":\"x\",\"b\":\"y\"}");
    EXPECT_EQ(apr_hash_count(list_), 3u); /* a, b and the unknown namespace */
    EXPECT_EQ(convertTagsToJson(nullptr, 0), nullptr);
}

TEST_F(TagResolvers, EnvironmentNdsAndPropertySources)
{
    setenv("VX_TAG_T_SET", "a,b\n", 1);
    unsetenv("VX_TAG_T_UNSET");
    const std::string prop = dir_ + "/app.properties";
    write_file(prop, "# hostname: no\nhostname=wrong\n  host : h1 \nport=80\n");
    const std::string nds = dir_ + "/nds";
    write_file(nds, "zone=a\nregion=eu-1\n");
    const std::string saved = conf_file;
    conf_file[0] = '\0'; /* unknown yet: the parameter names the file */
    const int reads = vx_tag_propfile_reads();
    const std::string conf = "e=env:VX_TAG_T_SET,u=env:VX_TAG_T_UNSET,h=prop:host:" + prop +
                             ",p=prop:port:" + prop + ",m=prop:missing:" + dir_ +
                             "/none.properties" + ",r=nds:region:" + nds;
    EXPECT_EQ(resolve(conf), "{\"e\":\"a_b\",\"h\":\"h1_\",\"p\":\"80\",\"r\":\"eu-1\"}");
    EXPECT_EQ(vx_tag_propfile_reads() - reads, 1); /* one read serves both tags */
    snprintf(conf_file, sizeof conf_file, "%s", saved.c_str());
    unsetenv("VX_TAG_T_SET");
}

TEST_F(TagResolvers, JsonSystemAndFileTypedSources)
{
    const std::string json = dir_ + "/meta.json";
    write_file(json, "{\"x\":[1,{\"y\":2}],\"a\":{\"b\":\"v\\\"q\"},\"n\":3,\"z\":null}");
    const std::string k8s = dir_ + "/pod";
    write_file(k8s, "{\"pod\":\"p-1\"}");
    const std::string conf = "j=json:a.b:" + json + ",n=json:n:" + json + ",z=json:z:" + json +
                             ",t=sys:AGENTTYPE,mt=sys:machineType,k=k8s:pod:" + k8s +
                             ",k2=k8s:pod,c=aws:zone:" + json;
    EXPECT_EQ(resolve(conf),
              "{\"j\":\"v_q\",\"k\":\"p-1\",\"mt\":\"Linux\",\"n\":\"3\","
              "\"t\":\"cppAgent\"}");
    EXPECT_TRUE(vx_test::logged("other field is mandatory while resolving k8s"));

    const struct {
        std::string name, text;
        int type;
    } files[] = {
        {"a.TXT", "x", 1},
        {"b.Json", "x", 2},
        {"c.sh", "x", 3},
        {"d.xyz", "a=b", 0},
        {"e", "{\"a\":1}", 2},
        {"f", "#!/bin/sh", 3},
        {"g", "# c\n\na=1\nb: 2\n", 1},
        {"h", "a=1\nplain\n", 0},
    };
    for (const auto& f : files) {
        write_file(dir_ + "/" + f.name, f.text);
        EXPECT_EQ(filetype(S((dir_ + "/" + f.name).c_str())), f.type) << f.name;
    }
    EXPECT_EQ(filetype(S((dir_ + "/missing.txt").c_str())), 0);
}

TEST_F(TagResolvers, ScriptsGetValuesAsArgumentsNeverThroughAShell)
{
    const std::string echo = dir_ + "/echo.sh";
    write_file(echo, "echo first\nprintf '%s|%s\\n' \"$1\" \"$2\"\necho\n");
    write_file(scripts_ + "/script.sh", "echo \"home-$1\"\n");
    const std::string pwned = dir_ + "/pwned";
    const std::string field = "x;touch${IFS}" + pwned;
    const std::string conf = "s=sys:" + field + ":" + echo + ",d=sys:custom";
    /* '{', '}' and '|' are separators: they reach the JSON as '_'. */
    EXPECT_EQ(resolve(conf), "{\"d\":\"home-custom\",\"s\":\"x_touch$_IFS_" + dir_ + "/pwned_\"}");
    EXPECT_NE(access(pwned.c_str(), F_OK), 0);
}

TEST_F(TagResolvers, HangingOrFloodingScriptsAreKilledInBoundedTime)
{
    const std::string hang = dir_ + "/hang.sh";
    write_file(hang, "echo partial\nsleep 30 &\nwait\n");
    const std::string flood = dir_ + "/flood.sh";
    write_file(
        flood,
        "while :; do echo xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx; done\n");
    const struct {
        const std::string& script;
        vx::ScriptResult result;
        const char* log;
    } cases[] = {
        {hang, vx::ScriptResult::TimedOut, "was killed: time limit passed"},
        {flood, vx::ScriptResult::TooLong, "was killed: too much output"},
    };
    for (const auto& c : cases) {
        const char* argv[] = {"bash", c.script.c_str(), nullptr};
        char out[64];
        const auto t0 = Clock::now();
        EXPECT_EQ(vx::run_script("/bin/bash", argv, out, sizeof out, 300), c.result) << c.script;
        EXPECT_LT(ms_since(t0), 3000) << c.script;
        EXPECT_STREQ(out, "");
        EXPECT_TRUE(vx_test::logged(c.log)) << c.script;
    }
    const char* missing[] = {"nope", nullptr};
    char out[8];
    EXPECT_EQ(vx::run_script("/no/such/program", missing, out, sizeof out, 300),
              vx::ScriptResult::NotRunnable);
}

TEST_F(TagResolvers, CloudTagsAskTheMetadataServiceWhenNoScriptIsInstalled)
{
    LoopbackHttp service("HTTP/1.0 200 OK\r\nContent-Type: text/plain\r\n\r\ni-0abc\nmore\n",
                         false);
    setenv("VX_CLOUD_METADATA_ADDR", service.addr().c_str(), 1);
    EXPECT_EQ(resolve("id=aws:instance-id"), "{\"id\":\"i-0abc\"}");
    EXPECT_EQ(service.request().rfind("GET /latest/meta-data/instance-id HTTP/1.0\r\n", 0), 0u);
    char v[32];
    ASSERT_EQ(vx::cloud_metadata_get(vx::Cloud::Gcp, "zone", v, sizeof v), 0);
    EXPECT_NE(service.request().find("Metadata-Flavor: Google\r\n"), std::string::npos);
    EXPECT_EQ(vx::cloud_metadata_get(vx::Cloud::Azure, "name\r\nX: y", v, sizeof v), -1);

    /* An installed script takes precedence. */
    write_file(scripts_ + "/gcpmetadataresolve.sh", "echo \"script-$1\"\n");
    EXPECT_EQ(resolve("g=gcp:zone"), "{\"g\":\"script-zone\",\"id\":\"i-0abc\"}");
}

TEST_F(TagResolvers, MetadataServiceDownOrSilentEndsInBoundedTimeOnce)
{
    int port;
    {
        LoopbackHttp closed("", false); /* a port that was just free */
        port = atoi(closed.addr().substr(10).c_str());
    }
    LoopbackHttp silent("", true);
    const struct {
        std::string addr;
        const char* log;
    } cases[] = {
        {"127.0.0.1:" + std::to_string(port), "is not reachable"},
        {silent.addr(), "did not answer in time"},
    };
    for (const auto& c : cases) {
        vx::cloud_metadata_reset();
        setenv("VX_CLOUD_METADATA_ADDR", c.addr.c_str(), 1);
        char v[32];
        auto t0 = Clock::now();
        EXPECT_EQ(vx::cloud_metadata_get(vx::Cloud::Aws, "instance-id", v, sizeof v), -1);
        EXPECT_LT(ms_since(t0), 2500) << c.addr;
        EXPECT_TRUE(vx_test::logged(c.log)) << c.addr;
        t0 = Clock::now(); /* taken as down: the next tag does not wait */
        EXPECT_EQ(vx::cloud_metadata_get(vx::Cloud::Aws, "instance-id", v, sizeof v), -1);
        EXPECT_LT(ms_since(t0), 50);
    }
}

}  // namespace
