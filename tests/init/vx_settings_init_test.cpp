/*
 * Settings at start-up: agent_init reads the environment and, only when the
 * environment did not configure the collector, vxsettings.conf. Each case
 * runs in a child process of its own.
 */
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "agent/vx_instance.h"
#include "agent/vx_request_lines.h"
#include "core/vx_trace_log.h"
#include "vx_sdk.h"
#include "vx_test_support.h"

namespace {

using vx_test::S;

struct StartCase {
    const char* name;
    std::vector<std::pair<const char*, const char*>> env;
    const char* file; /* vxsettings.conf, null: none */
    const char* tier;
    const char* vxcHost; /* null: no collector */
    int isEnableEnvVar;
    const char* logged;           /* a text the trace log must hold, or null */
    const char* server = nullptr; /* null: the host name */
};

int start_with(const StartCase& c, const std::string& home)
{
    for (const char* v :
         {"KLV_INSTANCE_AS_TIER", "KLV_APP_AGENT_TIER", "KLV_APP_AGENT_SERVER",
          "KLV_APP_AGENT_INSTANCE", "KLV_APP_AGENT_VXCHOST", "KLV_APP_AGENT_VXCPORT",
          "KLV_APP_AGENT_VXC_COMM_PROTOCOL", "KLV_APP_AGENT_PROXYMODE"})
        unsetenv(v);
    for (const auto& [k, v] : c.env) setenv(k, v, 1);
    if (c.file) {
        mkdir((home + "/cppAgent").c_str(), 0755);
        mkdir((home + "/cppAgent/config").c_str(), 0755);
        std::ofstream(home + "/cppAgent/config/vxsettings.conf") << c.file;
    }
    agent_init(S("shop"), 0, S("worker"), S("cppAgent"), S("1.0"));
    VXProxyInstance_t* app = tlvxApplication;
    CHILD_CHECK(app != nullptr);
    const VXBCISetting_t& s = app->VXBCISetting;
    CHILD_CHECK(s.tierName && strcmp(s.tierName, c.tier) == 0);
    CHILD_CHECK(s.appName && strcmp(s.appName, "shop") == 0);
    CHILD_CHECK(s.appServerName != nullptr);
    if (c.server) CHILD_CHECK(strcmp(s.appServerName, c.server) == 0);
    /* With the collector from the environment the file is not even looked at. */
    if (c.isEnableEnvVar)
        CHILD_CHECK(strcmp(s.appServerName, "FileServer") != 0 && s.prevFileSize == 0);
    CHILD_CHECK(s.isEnableEnvVar == c.isEnableEnvVar);
    if (c.vxcHost) {
        CHILD_CHECK(s.vxcHost && strcmp(s.vxcHost, c.vxcHost) == 0);
        CHILD_CHECK(app->controlLink.vxc_server_arr && app->controlLink.vxc_server_arr[0].vxc_host &&
                    strcmp(app->controlLink.vxc_server_arr[0].vxc_host, c.vxcHost) == 0);
        CHILD_CHECK(app->controlLink.vxc_server_arr[0].state == 1 && s.num_vxc_config == 1);
    } else {
        CHILD_CHECK(s.vxcHost == nullptr && s.num_vxc_config == 0);
        CHILD_CHECK(!app->controlLink.vxc_server_arr || app->controlLink.vxc_server_arr[0].vxc_host == nullptr);
    }
    if (c.logged) CHILD_CHECK(vx_test::trace_log_text().find(c.logged) != std::string::npos);
    return 0;
}

TEST(SettingsAtStart, EnvironmentAndFilePrecedence)
{
    const char* file = "tier=FileTier\nvxcHost=10.1.1.1\nvxcPort=7000\n";
    const StartCase cases[] = {
        {"nothing configured", {}, nullptr, "Default", nullptr, 0, nullptr},
        {"file only", {}, file, "FileTier", "10.1.1.1", 0, nullptr},
        /* An accepted collector in the environment keeps the file out. */
        {"environment host",
         {{"KLV_APP_AGENT_VXCHOST", "10.3.3.3"}, {"KLV_APP_AGENT_TIER", "EnvTier"}},
         "tier=FileTier\nserver=FileServer\nvxcHost=10.1.1.1\n",
         "EnvTier",
         "10.3.3.3",
         1,
         nullptr},
        /* A host name is refused: no collector from it, and the file applies. */
        {"environment host name",
         {{"KLV_APP_AGENT_VXCHOST", "collector.example.com"},
          {"KLV_APP_AGENT_TIER", "EnvTier"},
          {"KLV_APP_AGENT_SERVER", "EnvServer"}},
         file,
         "FileTier",
         "10.1.1.1",
         0,
         "Invalid VXC IP - collector.example.com",
         "EnvServer"},
        {"refused host, no file",
         {{"KLV_APP_AGENT_VXCHOST", "collector.example.com"}},
         nullptr,
         "Default",
         nullptr,
         0,
         nullptr},
    };
    for (const StartCase& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_IN_CHILD([&c](const std::string& home) { return start_with(c, home); });
    }
}

TEST(SettingsAtStart, EnvironmentPortAndProtocol)
{
    EXPECT_IN_CHILD([](const std::string& home) {
        (void)home;
        setenv("KLV_APP_AGENT_VXCHOST", "10.3.3.3", 1);
        setenv("KLV_APP_AGENT_VXCPORT", "9443", 1);
        setenv("KLV_APP_AGENT_VXC_COMM_PROTOCOL", "WSS:9443,TCP", 1);
        agent_init(S("shop"), 0, nullptr, S("cppAgent"), nullptr);
        VXProxyInstance_t* app = tlvxApplication;
        CHILD_CHECK(app->VXBCISetting.vxcPort == 9443);
        CHILD_CHECK(app->controlLink.vxc_server_arr[0].vxc_port == 9443u);
        CHILD_CHECK(app->VXBCISetting.vxc_WSS_Port == 9443);
        CHILD_CHECK(strcmp(app->controlLink.supportedProtocols, "WSS,TCP") == 0);
        CHILD_CHECK(app->controlLink.ActiveAgentProtocolIndex == 3);
        CHILD_CHECK(app->lws_active == 1);
        return 0;
    });
}

}  // namespace

TEST(SettingsAtStart, TagsAndAttributesAreResolvedOnceEnvironmentFirst)
{
    const struct {
        const char* name;
        const char* vxcHost; /* KLV_APP_AGENT_VXCHOST, null: unset */
        const char* envTags; /* KLV_APP_AGENT_TAGS */
        const char* tags;
        const char* attributes; /* null: unset, the line says "{}" */
    } cases[] = {
        {"file only", nullptr, "e=inline:env", "{\"Technology\":\"cppAgent\",\"a\":\"x\"}",
         "{\"r\":\"eu\"}"},
        {"environment only", "10.3.3.3", "e=inline:env",
         "{\"Technology\":\"cppAgent\",\"e\":\"env\"}", nullptr},
        /* A refused host: the environment is read, then the file on top,
         * whose tags do not replace those of the environment. */
        {"environment kept", "collector.example.com", "e=inline:env",
         "{\"Technology\":\"cppAgent\",\"e\":\"env\"}", "{\"r\":\"eu\"}"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_IN_CHILD([&c](const std::string& home) {
            unsetenv("KLV_APP_AGENT_VXCHOST");
            unsetenv("VX_TAG_UNSET");
            if (c.vxcHost) setenv("KLV_APP_AGENT_VXCHOST", c.vxcHost, 1);
            setenv("KLV_APP_AGENT_TAGS", c.envTags, 1);
            mkdir((home + "/cppAgent").c_str(), 0755);
            mkdir((home + "/cppAgent/config").c_str(), 0755);
            std::ofstream(home + "/cppAgent/config/vxsettings.conf")
                << "tags=a=inline:x,u=env:VX_TAG_UNSET\nattributes=r=inline:eu\n";
            agent_init(S("shop"), 0, S("worker"), S("cppAgent"), S("1.0"));
            const VXBCISetting_t& s = tlvxApplication->VXBCISetting;
            CHILD_CHECK(s.json_tag && strcmp(s.json_tag, c.tags) == 0);
            CHILD_CHECK(c.attributes ? s.tierAttr && strcmp(s.tierAttr, c.attributes) == 0
                                     : s.tierAttr == nullptr);
            setControlConnectionReqMessage();
            const std::string line = s.controlConnectionReqMessage;
            CHILD_CHECK(line.find(std::string(";tags=") + c.tags + ";attributes=" +
                                  (c.attributes ? c.attributes : "{}") + ";") != std::string::npos);
            return 0;
        });
    }
}
