/* The settings reader: vxsettings.conf line rules and keys, the environment
 * and its precedence, the collector list, protocol lists, validation of the
 * collector address and sizes, instance naming, processes.conf and the
 * request lines. */
#include "agent/vx_collector_servers.h"
#include "agent/vx_request_lines.h"
#include "agent/vx_settings.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "agent/vx_bci_setting.h"
#include "agent/vx_instance.h"
#include "vx_test_support.h"

namespace {

using vx_test::S;
using vx_test::str;

/* Each test starts from an empty identity and collector list and gets the
 * shared agent's settings back afterwards. */
class Settings : public ::testing::Test {
protected:
    void SetUp() override
    {
        VXBCISetting_t& s = app_->VXBCISetting;
        /* The saved texts are never freed: the test's setters allocate anew. */
        s.tierName = s.appServerName = s.appName = nullptr;
        s.encodedtierName = s.encodedappServerName = s.encodedappName = nullptr;
        s.vxcHost = s.tierAttr = s.agentAppName = s.endPointPrefix = s.projectKey = s.authToken =
            nullptr;
        s.KLV_INSTANCE_AS_TIER = 0;
        s.num_vxc_config = 0;
        s.isEnableEnvVar = 0;
        s.saasMode = 0;
        s.vxcPort = 443;
        s.vxc_TCP_Port = s.vxc_WS_Port = s.vxc_WSS_Port = 0;
        s.stackSize = 512;
        s.autoScalingMode = 2;
        app_->controlLink.vxc_server_arr = nullptr;
        app_->controlLink.server_arr_size = 0;
        app_->controlLink.active_vxc = nullptr;
        memset(app_->controlLink.supportedProtocolArray, 0, sizeof app_->controlLink.supportedProtocolArray);
        app_->controlLink.supportedProtocols[0] = '\0';
        app_->controlLink.ActiveAgentProtocolIndex = 0;
        app_->lws_active = 0;
        app_->controlLink.vx_dr_state = 0;
        app_->VXSys.proxyMode = app_->vxProxyMode = 0;
        app_->Server.isClusterMode = 0;
        app_->Server.sameAppNameOccur = 0;

        dir_ = vx_test::agent_home() + "/cppAgent/config";
        mkdir(dir_.c_str(), 0755);
    }

    void TearDown() override
    {
        unlink((dir_ + "/vxsettings.conf").c_str());
        unlink((dir_ + "/processes.conf").c_str());
        VXBCISetting_t& s = app_->VXBCISetting;
        for (char* p : {s.tierName, s.appServerName, s.appName, s.encodedtierName,
                        s.encodedappServerName, s.encodedappName, s.vxcHost, s.tierAttr,
                        s.agentAppName, s.endPointPrefix, s.projectKey, s.authToken})
            if (p) free(p);
        /* A host without a colon frees a copied saasHost and leaves a static text. */
        setSaasHostPort(S("none"));
        for (int i = 0; i < app_->controlLink.server_arr_size; ++i)
            free(app_->controlLink.vxc_server_arr[i].vxc_host);
        free(app_->controlLink.vxc_server_arr);
    }

    void write_conf(const std::string& text, const char* name = "vxsettings.conf")
    {
        std::ofstream(dir_ + "/" + name, std::ios::binary) << text;
    }

    int apply(const std::string& text)
    {
        write_conf(text);
        return read_conf_file();
    }

    std::vector<int> protocols() const
    {
        return std::vector<int>(app_->controlLink.supportedProtocolArray, app_->controlLink.supportedProtocolArray + 5);
    }

    VXProxyInstance_t* app_ = vx_test::agent();
    std::string dir_;

private:
    vx_test::Restore keep_{app_->VXBCISetting,    app_->VXSys,          app_->Server,
                           app_->controlLink,     app_->lws_active,     app_->vxProxyMode,
                           app_->instrumentSleep, app_->sendLogsToProxy};
};

TEST_F(Settings, LineRulesDecideWhichLinesSetTheTier)
{
    struct Case {
        const char* file;
        const char* tier; /* expected; "Before" means the line changed nothing */
    };
    const Case cases[] = {
        {"tier=Shop\n", "Shop"},       {"tierName=Shop\n", "Shop"}, /* a key matches as a prefix */
        {"TIER=Shop\n", "Shop"},                                    /* whatever its case */
        {"tier=\n", "Before"},                                      /* an empty value is no match */
        {"tier\n", "Before"},                                       /* nor is a line without "=" */
        {"  tier=Shop\n", "Before"},                                /* indented lines are skipped */
        {"\ttier=Shop\n", "Before"},   {"#tier=Shop\n", "Before"},
        {"\n\r\ntier=Shop\n", "Shop"}, /* blank lines in between */
        {"tier=Shop\rRest\n", "Shop"}, /* cut at the first CR */
        {"tier=Sh op\n", "Sh op"},     /* blanks inside the value stay */
        {"tier=a=b\n", "a=b"},         /* the value follows the first "=" */
        {"tier=One\ntier=Two", "Two"}, /* the last line wins; no final LF needed */
        {"server=tier=x\n", "Before"}, /* a key inside a value is no key */
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.file);
        setTierName(S("Before"), nullptr, 0);
        EXPECT_EQ(apply(c.file), 0);
        EXPECT_EQ(str(app_->VXBCISetting.tierName), c.tier);
    }
}

TEST_F(Settings, LongLineIsCutAndItsRestIsNotALine)
{
    /* 2,047 characters fit; the rest of the line must not be read as
     * "tier=Tail", which would override the tier line before it. */
    std::string line = "tier=Real\nserver=" + std::string(2040, 's') + "tier=Tail\n";
    EXPECT_EQ(apply(line), 0);
    EXPECT_EQ(strlen(app_->VXBCISetting.appServerName), 2047u - 7u);
    EXPECT_STREQ(app_->VXBCISetting.tierName, "Real");
}

TEST_F(Settings, EachKeyReachesItsSetting)
{
    const int rc = apply(
        "server=web-01\ninstance=shop_1\nVX_LOG_RETENTION_DAYS=3\nautoScalingMode=1\n"
        "agentTraceLevel=4\nagentPCTraceLevel=2\ninstrumentSleep=9\nproxyConType=5\n"
        "proxyIP=10.1.1.1\nproxyPort=7777\nvxAgentDebugLogging=0\n");
    EXPECT_EQ(rc, 0);
    const VXBCISetting_t& s = app_->VXBCISetting;
    EXPECT_STREQ(s.appServerName, "web-01");
    EXPECT_STREQ(s.appName, "shop_1");
    EXPECT_STREQ(s.encodedappName, "shop&#95;1");
    EXPECT_EQ(s.pastLog, 3);
    EXPECT_EQ(s.autoScalingMode, 1);
    EXPECT_EQ(app_->VXSys.agentTraceLevel, 4);
    EXPECT_EQ(app_->VXSys.agentPCTraceLevel, 2);
    EXPECT_EQ(app_->instrumentSleep, 9);
    EXPECT_EQ(app_->VXSys.proxyConType, 0); /* any other type is put back to 0 */
    EXPECT_STREQ(app_->VXSys.proxyIP, "10.1.1.1");
    EXPECT_EQ(app_->VXSys.proxyPort, 7777);
    EXPECT_EQ(app_->sendLogsToProxy, 0);
    EXPECT_STREQ(s.endPointPrefix, "collector"); /* no endPointPrefix line */
    EXPECT_EQ(s.vxcPort, 443);                   /* no vxcPort line */
}

TEST_F(Settings, InstanceAsTierWinsWhicheverLineComesFirst)
{
    const char* files[] = {
        "instance=inst\nKLV_INSTANCE_AS_TIER=1\ntier=x\n",
        "tier=x\ninstance=inst\nKLV_INSTANCE_AS_TIER=1\n",
        "KLV_INSTANCE_AS_TIER=1\ntier=x\ninstance=inst\n",
    };
    for (const char* f : files) {
        SCOPED_TRACE(f);
        app_->VXBCISetting.KLV_INSTANCE_AS_TIER = 0;
        EXPECT_EQ(apply(f), 0);
        EXPECT_STREQ(app_->VXBCISetting.tierName, "inst");
        EXPECT_EQ(app_->VXBCISetting.KLV_INSTANCE_AS_TIER, 1);
    }
    /* Turned off again, the tier of the preceding tier line comes back. */
    EXPECT_EQ(apply("instance=inst\nKLV_INSTANCE_AS_TIER=1\ntier=x\nKLV_INSTANCE_AS_TIER=0\n"), 0);
    EXPECT_STREQ(app_->VXBCISetting.tierName, "x");
    EXPECT_EQ(app_->VXBCISetting.KLV_INSTANCE_AS_TIER, 0);
}

TEST_F(Settings, InvalidValuesAreRefusedAndTheOldOnesKept)
{
    /* Each line is read on "host stack mode port" = kBefore; what they are
     * after it, kBefore when it is refused. */
    const std::string kBefore = "10.0.0.1 512 2 7000";
    const std::pair<const char*, std::string> cases[] = {
        {"vxcHost=collector.example.com", kBefore},
        {"vxcHost=10.0.0.256", kBefore},
        {"vxcHost=10.0.0", kBefore},
        {"vxcHost=10.0.0.1.2", kBefore},
        {"vxcHost=10..0.1", kBefore},
        {"vxcHost=10.0.0.1 ", kBefore},
        {"vxcHost=0255.0.0.1", kBefore},
        {"vxcHost=192.168.1.20", "192.168.1.20 512 2 7000"},
        {"stackSize=300", kBefore},
        {"stackSize=128", kBefore},
        {"stackSize=2048", kBefore},
        {"stackSize=256", "10.0.0.1 256 2 7000"},
        {"stackSize=1024", "10.0.0.1 1024 2 7000"},
        {"autoScalingMode=4", kBefore},
        {"autoScalingMode=-1", kBefore},
        {"autoScalingMode=0", "10.0.0.1 512 0 7000"},
        {"vxcPort=70000", kBefore},
        {"vxcPort=7892", "10.0.0.1 512 2 7892"},
    };
    VXBCISetting_t& s = app_->VXBCISetting;
    for (const auto& [line, after] : cases) {
        ASSERT_EQ(setVXCHost(S("10.0.0.1")), 0);
        s.stackSize = 512;
        s.autoScalingMode = 2;
        s.vxcPort = 7000;
        /* Without any vxcPort line the port would be defaulted. */
        const bool portLine = strncmp(line, "vxcPort", 7) == 0;
        EXPECT_EQ(apply(std::string(line) + (portLine ? "\n" : "\nvxcPort=7000\n")), 0);
        EXPECT_EQ(str(s.vxcHost) + " " + std::to_string(s.stackSize) + " " +
                      std::to_string(s.autoScalingMode) + " " + std::to_string(s.vxcPort),
                  after)
            << line;
    }
}

TEST_F(Settings, PrimaryAndBackupsFillTheCollectorListWhichGrowsByFive)
{
    std::string file = "vxcHost=10.0.0.1\nvxcPort=7891\n";
    for (int i = 1; i <= 5; ++i)
        file += "backupVxcHostName=10.0.1." + std::to_string(i) +
                "\nbackupVxcPort=" + std::to_string(8000 + i) + "\n";
    EXPECT_EQ(apply(file), 0);
    ASSERT_NE(app_->controlLink.vxc_server_arr, nullptr);
    EXPECT_EQ(app_->controlLink.server_arr_size, 10); /* the sixth entry grew the list */
    EXPECT_EQ(app_->VXBCISetting.num_vxc_config, 6);
    const vxc_servers_t* e = app_->controlLink.vxc_server_arr;
    EXPECT_STREQ(e[0].vxc_host, "10.0.0.1");
    EXPECT_EQ(e[0].vxc_port, 7891u);
    EXPECT_EQ(e[0].state, 1);
    for (int i = 1; i <= 5; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(str(e[i].vxc_host), "10.0.1." + std::to_string(i));
        EXPECT_EQ(e[i].vxc_port, 8000u + i);
    }
    for (int i = 6; i < 10; ++i)
        EXPECT_TRUE(e[i].vxc_host == nullptr && e[i].vxc_port == 0 && e[i].state == 0);
    EXPECT_EQ(app_->controlLink.vx_dr_state, 1); /* a backup is configured */

    /* In cluster mode the file is not read at all. */
    app_->Server.isClusterMode = 1;
    EXPECT_EQ(apply("backupVxcHostName=10.0.2.1\n"), 0);
    EXPECT_EQ(app_->VXBCISetting.num_vxc_config, 6);
}

TEST_F(Settings, ProtocolListsFromTheFile)
{
    struct Case {
        const char* file;
        const char* text;
        std::vector<int> array;
        int active;
        int lws;
    };
    const Case cases[] = {
        {"server=x\n", "WSS", {3, 0, 0, 0, 0}, 0, 0}, /* none configured: WSS is offered */
        {"VXC_COMM_PROTOCOL=WSS:8443,TCP:7892\n", "WSS,TCP", {3, 1, 0, 0, 0}, 3, 1},
        {"VXC_COMM_PROTOCOL=TCP:7892\n", "TCP", {1, 0, 0, 0, 0}, 1, 0},
        {"VXC_COMM_PROTOCOL=FTP:21,WS:81\n", "WS", {2, 0, 0, 0, 0}, 2, 1},
        {"VXC_COMM_PROTOCOL=TCP,WS,WSS,TCP\n", "TCP,WS,WSS,TCP", {1, 2, 3, 0, 0}, 1, 0},
        /* A proxy-mode agent talks to its proxy only. */
        {"proxyMode=1\nVXC_COMM_PROTOCOL=TCP:7892\n", "WSS", {3, 0, 0, 0, 0}, 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.file);
        app_->VXSys.proxyMode = app_->vxProxyMode = 0;
        app_->lws_active = 0;
        app_->controlLink.ActiveAgentProtocolIndex = 0;
        EXPECT_EQ(apply(c.file), 0);
        EXPECT_STREQ(app_->controlLink.supportedProtocols, c.text);
        EXPECT_EQ(app_->VXSys.supportedProtocolsString, app_->controlLink.supportedProtocols);
        EXPECT_EQ(protocols(), c.array);
        EXPECT_EQ(app_->controlLink.ActiveAgentProtocolIndex, c.active);
        EXPECT_EQ(app_->lws_active, c.lws);
    }
}

TEST_F(Settings, ProtocolPortsAndTheListLimit)
{
    VXBCISetting_t& s = app_->VXBCISetting;
    s.vxcPort = 0;
    updateANYAgentSupportedProtocolData(1);
    EXPECT_EQ(s.vxcPort, 7892);
    EXPECT_STREQ(app_->controlLink.supportedProtocols, "TCP");
    updateANYAgentSupportedProtocolData(2); /* no such default: the list is empty */
    EXPECT_STREQ(app_->controlLink.supportedProtocols, "");
    EXPECT_EQ(protocols(), (std::vector<int>{0, 0, 0, 0, 0}));

    /* TCP's port is the primary port; a name without a port keeps the ports. */
    upDateAgentSupportedProtocolData(S("WS:8080,TCP:9000,WSS"));
    EXPECT_EQ(s.vxc_WS_Port, 8080);
    EXPECT_EQ(s.vxcPort, 9000);
    EXPECT_EQ(s.vxc_TCP_Port, 0);

    /* Eleven items: the eleventh (TCP) is not read, and slots past the third
     * stay empty. */
    std::string many;
    for (int i = 0; i < 10; ++i) many += "WSS,";
    many += "TCP:1";
    upDateAgentSupportedProtocolData(many.data());
    EXPECT_EQ(protocols(), (std::vector<int>{3, 3, 3, 0, 0}));
    EXPECT_STREQ(app_->controlLink.supportedProtocols, "WSS,WSS,WSS,WSS,WSS,WSS,WSS,WSS,WSS,WSS");
    EXPECT_EQ(s.vxcPort, 9000);
}

TEST_F(Settings, HostedCollectorFromProjectKeyAndURL)
{
    EXPECT_EQ(apply("vxProjectKey=pk-1\nvxSaasURL=10.9.9.9:9443\n"), 0);
    const VXBCISetting_t& s = app_->VXBCISetting;
    EXPECT_EQ(s.saasMode, 1);
    EXPECT_STREQ(s.projectKey, "pk-1");
    EXPECT_STREQ(s.saasHost, "10.9.9.9");
    EXPECT_EQ(s.saasPort, 9443);
    const vxc_servers_t& e = app_->controlLink.vxc_server_arr[0];
    EXPECT_STREQ(e.vxc_host, "10.9.9.9");
    EXPECT_EQ(e.vxc_port, 9443u);
    EXPECT_EQ(e.saasServer, 1);
    EXPECT_EQ(s.num_vxc_config, 1);
    EXPECT_STREQ(app_->controlLink.supportedProtocols, "WSS");
    /* A URL without the hosted mode is ignored; one without a port is loopback. */
    app_->VXBCISetting.saasMode = 0;
    EXPECT_EQ(apply("vxSaasURL=10.8.8.8:1\n"), 0);
    EXPECT_STREQ(s.saasHost, "10.9.9.9");
    setSaasHostPort(S("nocolon"));
    EXPECT_STREQ(s.saasHost, "127.0.0.1");
    EXPECT_EQ(s.saasPort, 443);
}

TEST_F(Settings, FileResultsAndItsStat)
{
    EXPECT_EQ(read_conf_file(), 1); /* missing */
    EXPECT_EQ(check_file_size_of_vxsetting_files(1), 0);
    write_conf("");
    EXPECT_EQ(read_conf_file(), 1); /* empty */
    write_conf("tier=x\n");
    EXPECT_EQ(check_file_size_of_vxsetting_files(1), 1); /* an edit is noticed */
    EXPECT_EQ(read_conf_file(), 0);
    EXPECT_EQ(app_->VXBCISetting.prevFileSize, 7);
    EXPECT_EQ(check_file_size_of_vxsetting_files(1), 0);
    EXPECT_EQ(std::string(conf_file), dir_ + "/vxsettings.conf");
    chmod(conf_file, 0);
    if (access(conf_file, R_OK) != 0) { /* not when run as root */
        EXPECT_EQ(read_conf_file(), -1);
    }
    chmod(conf_file, 0644);
    app_->VXBCISetting.isEnableEnvVar = 1;
    EXPECT_EQ(apply("tier=other\n"), 0);
    EXPECT_STREQ(app_->VXBCISetting.tierName, "x");
}

TEST_F(Settings, InstanceIsNamedByAutoScalingModeWhenNothingNamesIt)
{
    ASSERT_NE(pool_name, nullptr);
    const std::string pool = pool_name;
    struct Case {
        int mode;
        std::string name;
    };
    const Case cases[] = {
        {3, pool},
        {0, pool + "*"},
        {1, pool + "_" + std::to_string(getpid())},
        {2, "<null>"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.mode);
        free(app_->VXBCISetting.appName);
        app_->VXBCISetting.appName = nullptr;
        EXPECT_EQ(apply("autoScalingMode=" + std::to_string(c.mode) + "\n"), 0);
        EXPECT_EQ(str(app_->VXBCISetting.appName), c.name);
    }
    /* Without a pool the process name is used. */
    char* savedPool = pool_name;
    pool_name = nullptr;
    EXPECT_EQ(apply("server=x\n"), 0);
    pool_name = savedPool;
    EXPECT_EQ(str(app_->VXBCISetting.appName), str(proc_name));
    /* A name from the file is kept. */
    free(app_->VXBCISetting.appName);
    app_->VXBCISetting.appName = nullptr;
    EXPECT_EQ(apply("autoScalingMode=0\ninstance=given\n"), 0);
    EXPECT_STREQ(app_->VXBCISetting.appName, "given");
}

TEST_F(Settings, SameInstanceNameIsNotedAndNamesAreEncoded)
{
    setAppName(S("a_b_c"), nullptr, 0);
    EXPECT_EQ(app_->Server.sameAppNameOccur, 0);
    setAppName(S("a_b_c"), nullptr, 0);
    EXPECT_EQ(app_->Server.sameAppNameOccur, 1);
    EXPECT_STREQ(app_->VXBCISetting.encodedappName, "a&#95;b&#95;c");
    setAppName(nullptr, nullptr, 0);
    EXPECT_STREQ(app_->VXBCISetting.appName, "a_b_c");
    /* Three bytes per character bound the encoding: mostly underscores are cut. */
    setTierName(S("___"), nullptr, 0);
    EXPECT_STREQ(app_->VXBCISetting.encodedtierName, "&#95;");
    setAppServerName(S("h"), nullptr, 0);
    EXPECT_STREQ(app_->VXBCISetting.encodedappServerName, "h");
}

TEST_F(Settings, ProcessesFileMapsNamesToValues)
{
    std::string text = "# name|value\nphp-fpm.service|1\nWorker|2\n  indented|3\nnobar\n";
    for (int i = 0; i < 60; ++i)
        text += "p" + std::to_string(i) + "|" + std::to_string(100 + i) + "\n";
    write_conf(text, "processes.conf");
    readProcessConfFile();
    EXPECT_EQ(total_process_entries, 62); /* the table grew past 50 */
    EXPECT_STREQ(processInfoStruct[0].process_name, "php-fpm");
    const std::pair<const char*, int> names[] = {
        {"PHP-FPM", 1}, {"work", 2}, {"p59", 159}, {"indented", 0}, {"absent", 0}};
    for (const auto& [name, value] : names) EXPECT_EQ(checkProcessNameInfo(S(name)), value) << name;
    EXPECT_EQ(checkProcessNameInfo(nullptr), 0);
    /* A second read replaces the table. */
    write_conf("only|5\n", "processes.conf");
    readProcessConfFile();
    EXPECT_EQ(total_process_entries, 1);
    EXPECT_EQ(checkProcessNameInfo(S("Worker")), 0);
}

TEST_F(Settings, RequestLinesAreWrittenInFull)
{
    vx_test::FrozenClock clock(1700000000123LL, 0);
    VXBCISetting_t& s = app_->VXBCISetting;
    setAppName(S("inst"), nullptr, 0);
    setTierName(S("tierA"), nullptr, 0);
    setAppServerName(S("host1"), nullptr, 0);
    ASSERT_EQ(setVXCHost(S("10.0.0.7")), 0);
    s.appID = 11;
    s.serverID = 22;
    s.tierID = 33;
    s.vxc_WSS_Port = 8443;
    const int savedRun = app_->Server.TestRunIDValue;
    app_->Server.TestRunIDValue = 5;
    app_->controlLink.ActiveAgentProtocolIndex = 3;
    const std::vector<std::pair<std::string, std::string>> ids = {{"pid", std::to_string(getpid())},
                                                                  {"agent", str(app_->agentName)}};

    setControlDataReqMessage();
    EXPECT_EQ(s.controlDataReqMessage,
              vx_test::fill(
                  "vx_data_msg_req:appName=inst;appID=11;vxAppServerID=22;vxAppServerHost=host1;"
                  "tierName=tierA;tierID=33;VXCollectorIP=10.0.0.7;VXCollectorPort=8443;testIdx=5;"
                  "pid={pid};agentName={agent}\n",
                  ids));
    EXPECT_EQ(s.controlDataReqMessage_len, static_cast<int>(strlen(s.controlDataReqMessage)));
    app_->controlLink.ActiveAgentProtocolIndex = 0;
    setControlAutoSensorReqMessage();
    EXPECT_EQ(
        s.controlAutoSensorReqMessage,
        vx_test::fill("auto_sensor_thread_hotspot_data_req:appName=inst;appID=11;vxAppServerID=22;"
                      "vxAppServerHost=host1;tierName=tierA;tierID=33;VXCollectorIP=10.0.0.7;"
                      "VXCollectorPort=0,testIdx=5;pid={pid};agentName={agent}\n",
                      ids));

    updateANYAgentSupportedProtocolData(3);
    setControlConnectionReqMessage();
    std::string line = s.controlConnectionReqMessage;
    const std::string start =
        "vx_ctrl_msg_req:appName=inst;vxAppServerHost=host1;tierName=tierA;bciVersion=";
    EXPECT_EQ(line.compare(0, start.size(), start), 0) << line;
    EXPECT_NE(
        line.find(
            ";BCITimeStamp=1700000000123;agentType=cppAgent;serverIp=127.0.0.1;hostName=host1;"
            "isAgentLess=N;jvmType=cppAgent;javaVersion=1.0;javaHome=/apps/java;"),
        std::string::npos)
        << line;
    EXPECT_NE(
        line.find(";supportedProtocols=WSS;authtoken=NA;tags={};attributes={};protoVer=0; \n"),
        std::string::npos)
        << line;
    EXPECT_EQ(s.controlConnectionReqMessage_len, static_cast<int>(line.size()));

    /* The hosted form, for a hosted entry 0. */
    s.saasMode = 1;
    setProjKey(S("pk"));
    setSaasHostPort(S("10.9.9.9:443"));
    vx_collector_entry(0)->saasServer = 1;
    setControlConnectionReqMessage();
    line = s.controlConnectionReqMessage;
    EXPECT_EQ(line.rfind("klv_saas_auth_agent_msg_req:appName=inst;agentVersion=4.3.0;"
                         "agentStartTime=1700000000123;",
                         0),
              0u)
        << line;
    EXPECT_NE(
        line.find(
            ";projectKey=pk;protoVer=1;agentType=cppAgent;supportedProtocols=WSS;agentIp=10.9.9.9;"
            "tags={};attributes={};agentHostName=" +
            str(app_->agentName) + "; \n"),
        std::string::npos)
        << line;

    /* A very long name is cut at 2,047 bytes. */
    s.saasMode = 0;
    std::string huge(3000, 'n');
    setAppName(huge.data(), nullptr, 0);
    setControlConnectionReqMessage();
    EXPECT_EQ(s.controlConnectionReqMessage_len, 2047);
    app_->Server.TestRunIDValue = savedRun;
}

}  // namespace
