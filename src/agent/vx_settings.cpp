#include "agent/vx_settings.h"

#include <apr_network_io.h>
#include <apr_strings.h>
#include <strings.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "agent/vx_bci_setting.h"
#include "agent/vx_collector_servers.h"
#include "agent/vx_instance.h"
#include "agent/vx_sys.h"
#include "agent/vx_tag_resolvers.h"
#include "core/vx_atomic.h"
#include "core/vx_platform.h"
#include "core/vx_text.h"
#include "core/vx_trace_log.h"
#include "proxy/vx_proxy_state.h"

processInfo_t* processInfoStruct = nullptr;
int total_process_entries = 0;

namespace {

int process_table_size = 0;

char kCollectorPrefix[] = "collector";
char kDefaultTier[] = "Default";

/* The keys of vxsettings.conf, in the order they are tried: an earlier key
 * wins when it is a prefix of a later one. */
enum class ConfKey {
    EndPointPrefix,
    InstanceAsTier,
    Tier,
    Server,
    Instance,
    Tags,
    Attributes,
    LogRetention,
    VxcHost,
    VxcPort,
    StackSize,
    CommProtocol,
    BackupHost,
    BackupPort,
    AutoScalingMode,
    AgentTraceLevel,
    AgentPCTraceLevel,
    InstrumentSleep,
    ProxyMode,
    ProxyConType,
    ProxyIP,
    ProxyPort,
    DebugLogging,
    ProjectKey,
    SaasURL
};

struct ConfKeyDef {
    const char* name;
    ConfKey key;
    bool agentOnly; /* not read in the proxy process */
};

constexpr ConfKeyDef kConfKeys[] = {
    {"endPointPrefix", ConfKey::EndPointPrefix, true},
    {"KLV_INSTANCE_AS_TIER", ConfKey::InstanceAsTier, true},
    {"tier", ConfKey::Tier, true},
    {"server", ConfKey::Server, true},
    {"instance", ConfKey::Instance, true},
    {"tags", ConfKey::Tags, true},
    {"attributes", ConfKey::Attributes, true},
    {"VX_LOG_RETENTION_DAYS", ConfKey::LogRetention, false},
    {"vxcHost", ConfKey::VxcHost, false},
    {"vxcPort", ConfKey::VxcPort, false},
    {"stackSize", ConfKey::StackSize, false},
    {"VXC_COMM_PROTOCOL", ConfKey::CommProtocol, false},
    {"backupVxcHostName", ConfKey::BackupHost, false},
    {"backupVxcPort", ConfKey::BackupPort, false},
    {"autoScalingMode", ConfKey::AutoScalingMode, false},
    {"agentTraceLevel", ConfKey::AgentTraceLevel, false},
    {"agentPCTraceLevel", ConfKey::AgentPCTraceLevel, false},
    {"instrumentSleep", ConfKey::InstrumentSleep, false},
    {"proxyMode", ConfKey::ProxyMode, false},
    {"proxyConType", ConfKey::ProxyConType, false},
    {"proxyIP", ConfKey::ProxyIP, false},
    {"proxyPort", ConfKey::ProxyPort, false},
    {"vxAgentDebugLogging", ConfKey::DebugLogging, false},
    {"vxProjectKey", ConfKey::ProjectKey, false},
    {"vxSaasURL", ConfKey::SaasURL, false},
};

/* What one pass over vxsettings.conf remembers between lines. */
struct ConfPass {
    int idx = 1; /* the backup entry being filled */
    bool backupHostSet = false;
    bool portSeen = false;
    bool protocolSeen = false;
    char tier[vx::kConfLineSize] = ""; /* the last tier line, for KLV_INSTANCE_AS_TIER=0 */
};

const char* text_or(const char* text, const char* none)
{
    return text ? text : none;
}

void set_entry_host(vxc_servers_t* e, const char* host)
{
    if (!e || !host) return;
    char* copy = strdup(host);
    if (!copy) return;
    free(e->vxc_host);
    e->vxc_host = copy;
}

/* Lines that are never settings: comments, and anything indented or empty. */
bool skipped_line(const char* line)
{
    return line[0] == '#' || line[0] == ' ' || line[0] == '\t' || line[0] == '\n' ||
           line[0] == '\r' || line[0] == '\0';
}

/* Cut at the first CR, else at the first LF. */
void cut_line_end(char* line)
{
    char* end = strchr(line, '\r');
    if (!end) end = strchr(line, '\n');
    if (end) *end = '\0';
}

/* fgets into `buf`; a line longer than the buffer is cut there and the rest
 * is dropped, not read as a line of its own. */
bool read_line(char* buf, int size, FILE* fp)
{
    if (!fgets(buf, size, fp)) return false;
    if (!strchr(buf, '\n') && !feof(fp)) {
        int c;
        while ((c = fgetc(fp)) != EOF && c != '\n') {
        }
    }
    return true;
}

/* "1..." puts the instance name in the tier; anything else gives the tier of
 * the last tier line back. */
void apply_instance_as_tier(VXProxyInstance_t* app, const char* value, const char* tier)
{
    VXBCISetting_t& s = app->VXBCISetting;
    if (value[0] == '1') {
        s.KLV_INSTANCE_AS_TIER = 1;
        setTierName(s.appName, nullptr, 0);
    } else {
        s.KLV_INSTANCE_AS_TIER = 0;
        if (tier && *tier) setTierName(const_cast<char*>(tier), nullptr, 0);
    }
}

/* The instance name, and with it the tier while the instance serves as tier,
 * so the order of the two settings does not matter. */
void apply_instance(VXProxyInstance_t* app, char* value)
{
    setAppName(value, nullptr, 0);
    if (app->VXBCISetting.KLV_INSTANCE_AS_TIER) setTierName(app->VXBCISetting.appName, nullptr, 0);
}

void apply_protocol_list(VXProxyInstance_t* app, char* value)
{
    app->controlLink.supportedProtocolArray[0] = 0;
    upDateAgentSupportedProtocolData(value);
}

/* The active protocol after a protocol list: the first configured, with the
 * WebSocket transport for WS and WSS. */
void activate_first_protocol(VXProxyInstance_t* app)
{
    app->controlLink.ActiveAgentProtocolIndex = app->controlLink.supportedProtocolArray[0];
    if (app->controlLink.ActiveAgentProtocolIndex > 1) app->lws_active = 1;
}

/* Entry 0 becomes the hosted entry point. */
void set_hosted_entry(VXProxyInstance_t* app)
{
    vxc_servers_t* e = vx_collector_entry(0);
    if (!e) return;
    set_entry_host(e, app->VXBCISetting.saasHost);
    e->vxc_port = static_cast<unsigned int>(app->VXBCISetting.saasPort);
    e->saasServer = 1;
}

/* Tags and attributes: "filled" means a list with entries. */
bool list_filled(apr_hash_t* list)
{
    return list && apr_hash_count(list) > 0;
}

void apply_vxc_host(VXProxyInstance_t* app, char* value)
{
    /* A refused address leaves no collector behind: entry 0 and the count
     * change only with an accepted one. */
    if (setVXCHost(value) != 0) return;
    app->VXBCISetting.num_vxc_config++;
    if (vxc_servers_t* e = vx_collector_entry(0)) {
        set_entry_host(e, app->VXBCISetting.vxcHost);
        e->state = 1;
    }
}

void set_proxy_ip(VXProxyInstance_t* app, const char* value)
{
    /* A pool copy: the start value is a static text, and re-reads are rare. */
    app->VXSys.proxyIP = apr_pstrdup(app->control_pool, value);
}

void apply_conf_line(VXProxyInstance_t* app, ConfPass& pass, char* line)
{
    VXBCISetting_t& s = app->VXBCISetting;
    const bool proxyProcess = vx_in_proxy_process();
    for (const ConfKeyDef& def : kConfKeys) {
        if (def.agentOnly && proxyProcess) continue;
        char* value = search_keyword(line, const_cast<char*>(def.name));
        if (!value) continue;
        if (def.key != ConfKey::EndPointPrefix && !proxyProcess && !s.endPointPrefix)
            setEndPointPrefix(kCollectorPrefix);
        switch (def.key) {
            case ConfKey::EndPointPrefix:
                setEndPointPrefix(value);
                break;
            case ConfKey::InstanceAsTier:
                apply_instance_as_tier(app, value, pass.tier);
                break;
            case ConfKey::Tier:
                vx::copy_text(pass.tier, sizeof pass.tier, value);
                if (!s.KLV_INSTANCE_AS_TIER) setTierName(value, nullptr, 0);
                break;
            case ConfKey::Server:
                setAppServerName(value, nullptr, 0);
                break;
            case ConfKey::Instance:
                apply_instance(app, value);
                break;
            case ConfKey::Tags:
            case ConfKey::Attributes:
                /* Lists set from the environment (or an earlier read) are kept. */
                if (!list_filled(def.key == ConfKey::Tags ? s.taglist : s.attributelist))
                    vx::agent_tags_configure(def.key == ConfKey::Attributes, value);
                break;
            case ConfKey::LogRetention:
                setPastLogTime(atoi(value));
                break;
            case ConfKey::VxcHost:
                apply_vxc_host(app, value);
                break;
            case ConfKey::VxcPort:
                setVXCPort(atoi(value));
                if (vxc_servers_t* e = vx_collector_entry(0))
                    e->vxc_port = static_cast<unsigned int>(s.vxcPort);
                pass.portSeen = true;
                break;
            case ConfKey::StackSize:
                setStackSize(atoi(value));
                break;
            case ConfKey::CommProtocol:
                if (app->VXSys.proxyMode) break; /* a proxy-mode agent talks to its proxy only */
                apply_protocol_list(app, value);
                pass.protocolSeen = true;
                break;
            case ConfKey::BackupHost:
                if (app->Server.isClusterMode) break;
                s.num_vxc_config++;
                set_entry_host(vx_collector_entry(pass.idx), value);
                pass.backupHostSet = true;
                break;
            case ConfKey::BackupPort:
                if (app->Server.isClusterMode) break;
                if (vxc_servers_t* e = vx_collector_entry(pass.idx))
                    e->vxc_port = static_cast<unsigned int>(atoi(value));
                break;
            case ConfKey::AutoScalingMode:
                setAutoScalingMode(atoi(value));
                break;
            case ConfKey::AgentTraceLevel:
                app->VXSys.agentTraceLevel = atoi(value);
                break;
            case ConfKey::AgentPCTraceLevel:
                app->VXSys.agentPCTraceLevel = atoi(value);
                break;
            case ConfKey::InstrumentSleep:
                app->instrumentSleep = atoi(value);
                break;
            case ConfKey::ProxyMode:
                app->VXSys.proxyMode = app->vxProxyMode = atoi(value);
                break;
            case ConfKey::ProxyConType:
                /* Only connection type 0 exists: any other value is put back to 0. */
                app->VXSys.proxyConType = 0;
                break;
            case ConfKey::ProxyIP:
                set_proxy_ip(app, value);
                break;
            case ConfKey::ProxyPort:
                app->VXSys.proxyPort = atoi(value);
                break;
            case ConfKey::DebugLogging:
                app->sendLogsToProxy = atoi(value);
                break;
            case ConfKey::ProjectKey:
                setProjKey(value);
                s.saasMode = 1;
                set_hosted_entry(app);
                s.num_vxc_config++;
                break;
            case ConfKey::SaasURL:
                if (!s.saasMode) break;
                setSaasHostPort(value);
                set_hosted_entry(app);
                if (!pass.protocolSeen) updateANYAgentSupportedProtocolData(3);
                break;
        }
        return; /* the first key found ends the line */
    }
}

/* The instance name when no setting gave one, by autoScalingMode. */
void name_instance(VXProxyInstance_t* app)
{
    VXBCISetting_t& s = app->VXBCISetting;
    if (s.appName || vx_in_proxy_process()) return;
    char name[vx::kNameSize + 32];
    if (!pool_name) {
        if (proc_name) setAppName(proc_name, nullptr, 0);
        return;
    }
    switch (s.autoScalingMode) {
        case 3:
            setAppName(pool_name, nullptr, 0);
            break;
        case 0:
            snprintf(name, sizeof name, "%s*", pool_name);
            setAppName(name, nullptr, 0);
            break;
        case 1:
            snprintf(name, sizeof name, "%s_%lld", pool_name, getPID());
            setAppName(name, nullptr, 0);
            break;
        default:
            break; /* 2: the collector names the instance */
    }
}

const char* getenv_set(const char* name)
{
    return getenv(name);
}

char kOsRelease[] = "/etc/os-release";

}  // namespace

extern "C" const char* vx_settings_home_path(void)
{
    if (vx_in_proxy_process() && VXProxy.vxHomePath) return VXProxy.vxHomePath;
    VXProxyInstance_t* app = vx_app();
    return app && app->VXSys.vxHomePath ? app->VXSys.vxHomePath : "";
}

extern "C" char* search_keyword(char* buf, char* keyword)
{
    if (!buf || !keyword) return nullptr;
    if (strncasecmp(buf, keyword, strlen(keyword)) != 0) return nullptr;
    char* value = split(buf);
    return value && *value ? value : nullptr;
}

extern "C" int check_file_size_of_vxsetting_files(int flag)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return 1;
    VXBCISetting_t& s = app->VXBCISetting;
    snprintf(conf_file, sizeof conf_file, "%s/config/vxsettings.conf", vx_settings_home_path());
    struct stat st;
    const bool present = stat(conf_file, &st) == 0;
    const long long mtime = present ? static_cast<long long>(st.st_mtime) : 0;
    const long long size = present ? static_cast<long long>(st.st_size) : 0;
    if (flag == 1) return (mtime != s.lastModifiedDate || size != s.prevFileSize) ? 1 : 0;
    s.lastModifiedDate = mtime;
    s.prevFileSize = size;
    if (!present) {
        VX_TRACE(app->VXSys.agentTraceLevel, 1, "CONTROL_THREAD", "%s is not present, so returning",
                 conf_file);
        return 1;
    }
    if (size == 0) {
        VX_TRACE(app->VXSys.agentTraceLevel, 1, "CONTROL_THREAD", "%s was of 0 size", conf_file);
        return 1;
    }
    return 0;
}

extern "C" int read_env_var(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return 1;
    VXBCISetting_t& s = app->VXBCISetting;
    const char* v;

    if ((v = getenv_set("KLV_INSTANCE_AS_TIER"))) apply_instance_as_tier(app, v, nullptr);
    if ((v = getenv_set("KLV_APP_AGENT_TIER"))) {
        if (!s.KLV_INSTANCE_AS_TIER) setTierName(const_cast<char*>(v), nullptr, 0);
    } else if (!s.tierName) {
        setTierName(kDefaultTier, nullptr, 0);
    }
    if ((v = getenv_set("VX_LOG_RETENTION_DAYS"))) setPastLogTime(atoi(v));
    if ((v = getenv_set("KLV_APP_AGENT_SERVER"))) {
        setAppServerName(const_cast<char*>(v), nullptr, 0);
    } else if (!s.appServerName) {
        char host[APRMAXHOSTLEN + 1] = "";
        if (apr_gethostname(host, sizeof host, app->control_pool) == APR_SUCCESS)
            setAppServerName(host, nullptr, 0);
    }
    if ((v = getenv_set("KLV_APP_AGENT_INSTANCE"))) apply_instance(app, const_cast<char*>(v));
    if ((v = getenv_set("KLV_APP_AGENT_STACK_SIZE"))) setStackSize(atoi(v));

    if (!(v = getenv_set("KLV_APP_AGENT_VXCHOST"))) return 1;
    const int before = s.num_vxc_config;
    apply_vxc_host(app, const_cast<char*>(v));
    const bool accepted = s.num_vxc_config > before;

    v = getenv_set("KLV_APP_AGENT_VXCPORT");
    setVXCPort(v ? atoi(v) : vx::kDefaultVXCPort);
    if (accepted) {
        if (vxc_servers_t* e = vx_collector_entry(0))
            e->vxc_port = static_cast<unsigned int>(s.vxcPort);
        s.isEnableEnvVar = 1;
    }
    if ((v = getenv_set("KLV_APP_AGENT_PROXYMODE")))
        app->VXSys.proxyMode = app->vxProxyMode = atoi(v);
    if (getenv_set("KLV_APP_AGENT_PROXYCONTYPE")) app->VXSys.proxyConType = 0; /* as the file key */
    if ((v = getenv_set("KLV_APP_AGENT_PROXYIP"))) set_proxy_ip(app, v);
    if ((v = getenv_set("KLV_APP_AGENT_PROXYPORT"))) app->VXSys.proxyPort = atoi(v);
    bool protocolSeen = false;
    if ((v = getenv_set("KLV_APP_AGENT_VXC_COMM_PROTOCOL")) && !app->VXSys.proxyMode) {
        apply_protocol_list(app, const_cast<char*>(v));
        protocolSeen = true;
    }
    if ((v = getenv_set("KLV_APP_AGENT_TAGS"))) vx::agent_tags_configure(0, v);
    if ((v = getenv_set("KLV_APP_AGENT_ATTRIBUTES"))) vx::agent_tags_configure(1, v);
    if ((v = getenv_set("KLV_APP_AGENT_TIERATTRIBUTES")))
        setTierAttr(const_cast<char*>(v), nullptr, 0);
    if ((v = getenv_set("KLV_APP_AGENT_APPNAME"))) setAgentAppName(const_cast<char*>(v));
    v = getenv_set("KLV_APP_AGENT_ENDPOINTPREFIX");
    setEndPointPrefix(v ? const_cast<char*>(v) : kCollectorPrefix);
    if ((v = getenv_set("KLV_APP_AGENT_VXSAASURL"))) {
        setSaasHostPort(const_cast<char*>(v));
        if (vxc_servers_t* e = vx_collector_entry(0))
            e->vxc_port = static_cast<unsigned int>(s.saasPort);
    }
    if ((v = getenv_set("KLV_APP_AGENT_VXPROJECTKEY"))) {
        setProjKey(const_cast<char*>(v));
        s.saasMode = 1;
    }
    if (protocolSeen)
        activate_first_protocol(app);
    else
        updateANYAgentSupportedProtocolData(3);
    return accepted ? 0 : 1;
}

extern "C" int read_conf_file(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return 1;
    VXBCISetting_t& s = app->VXBCISetting;
    if (app->Server.isClusterMode || s.isEnableEnvVar) return 0;
    if (check_file_size_of_vxsetting_files(0) == 1) return 1;
    FILE* fp = fopen(conf_file, "r");
    if (!fp) {
        VX_ERROR("CONTROL_THREAD", "Could not open file '%s' in read mode.", conf_file);
        return -1;
    }

    ConfPass pass;
    char line[vx::kConfLineSize];
    while (read_line(line, sizeof line, fp)) {
        vxc_servers_t* e = vx_collector_entry(pass.idx);
        if (e && pass.backupHostSet && e->vxc_port && e->vxc_host) {
            pass.idx++;
            pass.backupHostSet = false;
            vx_collector_entry(pass.idx);
        }
        if (skipped_line(line)) continue;
        cut_line_end(line);
        apply_conf_line(app, pass, line);
    }
    fclose(fp);

    vxc_servers_t* primary = vx_collector_entry(0);
    if (s.saasMode && primary && primary->saasServer == 1) return 0;
    if (!pass.portSeen) {
        setVXCPort(vx::kDefaultVXCPort);
        if (primary) primary->vxc_port = static_cast<unsigned int>(s.vxcPort);
    }
    if (pass.protocolSeen)
        activate_first_protocol(app);
    else
        updateANYAgentSupportedProtocolData(3);
    if (vx_in_proxy_process() && app->vxProxyMode && !s.vxcHost) {
        VX_ERROR("CONTROL_THREAD",
                 "Error in content of file %s.\n vxchost field is mandatory.Please check...",
                 conf_file);
        return 1;
    }
    /* Failover is on exactly when a backup (entry 1, host and port) is
     * configured; the collector may turn it off again. */
    if (app->controlLink.server_arr_size > 1 && app->controlLink.vxc_server_arr[1].vxc_host &&
        app->controlLink.vxc_server_arr[1].vxc_port)
        app->controlLink.vx_dr_state = 1;
    name_instance(app);
    if (vx_in_proxy_process() && app->vxProxyMode && !s.saasMode && !s.vxcHost) {
        VX_ERROR("CONTROL_THREAD",
                 "Error in content of file %s.\nEither vxchost or vxSaasURL field is "
                 "mandatory.Please check...",
                 conf_file);
        return 1;
    }
    return 0;
}

extern "C" int readVXProxyConfig(void)
{
    VXProxyInstance_t* app = vx_app();
    char path[vx::kPathSize];
    snprintf(path, sizeof path, "%s/config/proxysetting.conf", text_or(VXProxy.vxHomePath, ""));
    FILE* fp = fopen(path, "r");
    if (!fp) {
        VX_ERROR("CONTROL_THREAD", "Could not open file '%s' in read mode.", path);
        return -1;
    }
    char line[vx::kProxyConfLineSize];
    auto replace = [](char** slot, const char* value) {
        if (char* copy = strdup(value)) {
            free(*slot);
            *slot = copy;
        }
    };
    while (read_line(line, sizeof line, fp)) {
        if (skipped_line(line)) continue;
        cut_line_end(line);
        char* v;
        if (search_keyword(line, const_cast<char*>("proxyConType"))) {
            /* ignored */
        } else if ((v = search_keyword(line, const_cast<char*>("proxyPort")))) {
            VXProxy.proxyPort = static_cast<unsigned int>(atoi(v));
            if (VXProxy.proxyHost)
                strcpy(VXProxy.proxyHost, "127.0.0.1");
            else
                VXProxy.proxyHost = strdup("127.0.0.1");
        } else if ((v = search_keyword(line, const_cast<char*>("proxyudpPort")))) {
            VXProxy.udpPort = static_cast<unsigned int>(atoi(v));
        } else if ((v = search_keyword(line, const_cast<char*>("proxyudpTimeout")))) {
            VXProxy.udpTimeout = atoi(v);
        } else if ((v = search_keyword(line, const_cast<char*>("vxcHost")))) {
            replace(&VXProxy.vxcHost, v);
            if (vxc_servers_t* e = vx_collector_entry(0)) {
                set_entry_host(e, v);
                e->state = 1;
            }
            if (app) app->VXBCISetting.num_vxc_config++;
        } else if ((v = search_keyword(line, const_cast<char*>("vxcPort")))) {
            VXProxy.vxcPort = static_cast<unsigned int>(atoi(v));
            /* Entry 0 takes the agent's configured port, not this one: the
             * proxy's own port is for its side of the link. */
            if (vxc_servers_t* e = vx_collector_entry(0))
                e->vxc_port = static_cast<unsigned int>(app->VXBCISetting.vxcPort);
        } else if ((v = search_keyword(line, const_cast<char*>("tier")))) {
            replace(&VXProxy.tierName, v);
        } else if ((v = search_keyword(line, const_cast<char*>("server")))) {
            replace(&VXProxy.serverName, v);
        } else if ((v = search_keyword(line, const_cast<char*>("instance")))) {
            replace(&VXProxy.appName, v);
        } else {
            VX_ERROR("CONTROL_THREAD", "Found unknown keyword<%s>. Ignored :D :P", line);
        }
    }
    fclose(fp);
    return 0;
}

extern "C" void readProcessConfFile(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    char path[vx::kPathSize];
    snprintf(path, sizeof path, "%s/config/processes.conf", vx_settings_home_path());
    FILE* fp = fopen(path, "r");
    if (!fp) {
        VX_TRACE(app->VXSys.agentTraceLevel, 1, "CONTROL_THREAD",
                 "Could not open file '%s' in read mode.", path);
        return;
    }
    for (int i = 0; i < total_process_entries; ++i) free(processInfoStruct[i].process_name);
    total_process_entries = 0;

    char line[vx::kConfLineSize];
    while (read_line(line, sizeof line, fp)) {
        if (skipped_line(line)) continue;
        cut_line_end(line);
        char* bar = strchr(line, '|');
        if (!bar) continue;
        *bar = '\0';
        if (char* dot = strchr(line, '.')) *dot = '\0';
        if (total_process_entries == process_table_size) {
            const int want = process_table_size ? process_table_size + vx::kProcessTableStep
                                                : vx::kProcessTableInitial;
            auto* grown = static_cast<processInfo_t*>(
                realloc(processInfoStruct, sizeof(processInfo_t) * want));
            if (!grown) break;
            processInfoStruct = grown;
            process_table_size = want;
        }
        char* name = strdup(line);
        if (!name) break;
        processInfoStruct[total_process_entries].process_name = name;
        processInfoStruct[total_process_entries].proxy_enabled = atoi(bar + 1);
        ++total_process_entries;
    }
    fclose(fp);
}

extern "C" int checkProcessNameInfo(char* pool_name_local)
{
    if (!pool_name_local) return 0;
    const size_t n = strlen(pool_name_local);
    for (int i = 0; i < total_process_entries; ++i)
        if (strncasecmp(processInfoStruct[i].process_name, pool_name_local, n) == 0)
            return processInfoStruct[i].proxy_enabled;
    return 0;
}

extern "C" void getMachineType(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    char* machine = app->VXBCISetting.machineType;
    FILE* fp = fopen(kOsRelease, "r");
    if (!fp) {
        vx::copy_text(machine, vx::kMachineTypeSize, "LinuxEx");
        VX_ERROR("CONTROL_THREAD",
                 "Could not open file '%s' in read mode.So Default LinuxEx is set", kOsRelease);
        return;
    }
    char line[vx::kProxyConfLineSize];
    while (read_line(line, sizeof line, fp)) {
        for (const char* os : {"Solaris", "Darwin", "AIX", "HP-UX"}) {
            if (strcasestr(line, os)) {
                vx::copy_text(machine, vx::kMachineTypeSize, "UNIX");
                break;
            }
        }
    }
    fclose(fp);
}
