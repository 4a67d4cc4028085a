#include "link/vx_collector_failover.h"

#include <strings.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "agent/vx_bci_setting.h"
#include "agent/vx_collector_servers.h"
#include "agent/vx_instance.h"
#include "agent/vx_settings.h"
#include "core/vx_atomic.h"
#include "core/vx_text.h"
#include "core/vx_trace_log.h"

namespace {

constexpr int kPolicyFields = 5;
constexpr int kRetryPolicyItems = 4;

bool key_is(const char* key, const char* name) { return strncmp(key, name, strlen(name)) == 0; }

/* One number of the retry policy: false when it is absent (an empty item)
 * or out of its range, and the old value stays. */
bool policy_item(const char* what, const char* text, long long hi, long long* out)
{
    if (!text || !*text) return false;
    return vx::number_in(what, text, 0, hi, out);
}

/* "count%interval%misses%heartbeat". Each number present and within its
 * range is applied; one missing (a shorter list, an empty item) or refused
 * keeps its old value. False when any of the four was not applied. */
bool apply_retry_policy(VXProxyInstance_t* app, char* value)
{
    char* items[kRetryPolicyItems] = {};
    /* tokenize keeps empty items, so a number never moves to another's place. */
    const int n = *value ? tokenize(value, items, const_cast<char*>("%"), kRetryPolicyItems) : 0;
    retryPolicy_t& p = app->controlLink.retry_policy;
    long long v = 0;
    int applied = 0;
    if (n > 0 && policy_item("retryPolicy retry count", items[0], vx::kRetryCountMax, &v)) {
        p.num_retry = static_cast<signed char>(v);
        ++applied;
    }
    if (n > 1 &&
        policy_item("retryPolicy retry interval", items[1], vx::kRetryIntervalMaxSeconds, &v)) {
        p.time_interval = apr_time_from_sec(v);
        ++applied;
    }
    if (n > 2 && policy_item("retryPolicy heartbeat misses", items[2], vx::kHeartBeatMissMax, &v)) {
        p.reply_unsuccessful_count = static_cast<int>(v);
        ++applied;
    }
    if (n > 3 && policy_item("retryPolicy heartbeat interval", items[3],
                             vx::kHeartBeatIntervalMaxSeconds, &v)) {
        p.heartbeat_reply_timeout_check = static_cast<int>(v / 10);
        ++applied;
    }
    if (applied > 0)
        VX_TRACE(
            app->VXSys.controlTraceLevel, 1, "CONTROL_THREAD",
            "[VX DR Feature]; Retry policy from VXC: [Retry Count | Retry Interval | HeartBeat "
            "Miss Count] = [ %d | %lld | %d]",
            p.num_retry, static_cast<long long>(p.time_interval), p.reply_unsuccessful_count);
    return applied == kRetryPolicyItems;
}

}  // namespace

extern "C" void init_vxc_server_config(void)
{
    VXProxyInstance_t* app = vx_app();
    retryPolicy_t& p = app->controlLink.retry_policy;
    p.num_retry = 3;
    p.count = 0;
    p.reply_unsuccessful_count = 10;
    p.heartbeat_reply_timeout_check = 6;
    p.time_interval = apr_time_from_sec(60);
}

extern "C" void clear_vxc_server_setting(void)
{
    VXProxyInstance_t* app = vx_app();
    for (int i = 0; app->controlLink.vxc_server_arr && i < app->controlLink.server_arr_size; ++i) {
        free(app->controlLink.vxc_server_arr[i].vxc_host);
        memset(&app->controlLink.vxc_server_arr[i], 0, sizeof app->controlLink.vxc_server_arr[i]);
    }
    app->controlLink.vx_dr_state = 0;
    app->VXBCISetting.num_vxc_config = 0;
}

extern "C" vxc_servers_t* get_active_vxc(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app->controlLink.vxc_server_arr || active_vxc_idx >= app->controlLink.server_arr_size) return nullptr;
    return &app->controlLink.vxc_server_arr[active_vxc_idx];
}

extern "C" int lookup_for_next_vxc(void)
{
    VXProxyInstance_t* app = vx_app();
    const int next = active_vxc_idx + 1;
    const bool configured = next < app->VXBCISetting.num_vxc_config && next < app->controlLink.server_arr_size &&
                            app->controlLink.vxc_server_arr[next].vxc_host;
    active_vxc_idx = configured ? next : 0;
    return 0;
}

extern "C" void connection_retry_failed(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app->controlLink.vxc_server_arr) return;
    if (app->controlLink.vx_dr_state) {
        VX_TRACE(app->VXSys.controlTraceLevel, 1, "CONTROL_THREAD",
                 "[VX DR Feature]; Retry for connection attempt failed DR is enabled, looking for "
                 "backup");
        app->controlLink.vxc_server_arr[active_vxc_idx].state = 0;
        lookup_for_next_vxc();
        const vxc_servers_t& e = app->controlLink.vxc_server_arr[active_vxc_idx];
        VX_TRACE(app->VXSys.controlTraceLevel, 1, "CONTROL_THREAD",
                 "[VX DR Feature]; Got next VXC info: [host | port] = [%s | %d]",
                 e.vxc_host ? e.vxc_host : "", static_cast<int>(e.vxc_port));
    } else {
        active_vxc_idx = 0;
    }
    app->controlLink.vxc_server_arr[active_vxc_idx].state = 1;
}

extern "C" int parse_policy_from_clientMsg(char* msg)
{
    VXProxyInstance_t* app = vx_app();
    if (!msg || !*msg) {
        VX_ERROR("CONTROL_THREAD", " Invalid argument passed ");
        return 1;
    }
    char copy[vx::kReplyCopySize];
    vx::copy_text(copy, sizeof copy, msg);
    char* fields[kPolicyFields];
    const int n =
        vxlb_get_tokens_with_multi_delimiter(copy, fields, const_cast<char*>(";"), kPolicyFields);
    if (n <= 0) {
        VX_ERROR("CONTROL_THREAD", "Error is tokenising client message, num_token = %d", n);
        return 1;
    }
    int flags = 0;
    for (int i = 0; i < n; ++i) {
        char key[1024];
        char* value = split_key_value(fields[i], key);
        if (!value) {
            VX_TRACE(app->VXSys.controlTraceLevel, 1, "CONTROL_THREAD", " unknown keyword = %s ",
                     fields[i]);
            flags = 0;
            continue;
        }
        if (key_is(key, "state")) {
            const int state = atoi(value);
            if (app->controlLink.vxc_server_arr && active_vxc_idx < app->controlLink.server_arr_size)
                app->controlLink.vxc_server_arr[active_vxc_idx].state = static_cast<char>(state);
            if (state == 0) {
                VX_TRACE(app->VXSys.controlTraceLevel, 1, "CONTROL_THREAD",
                         " VXC state is zero, setting vx_dr_state is set false");
                app->controlLink.is_switch_over = 1;
                return 1;
            }
            flags |= 1;
        } else if (key_is(key, "retryPolicy")) {
            if (!apply_retry_policy(app, value))
                VX_ERROR("CONTROL_THREAD", "[VX DR Feature]; Error in parsing VX DR retry policy");
            flags |= 2;
        } else if (key_is(key, "ProtoVersion")) {
            flags |= 4;
        }
    }
    if (flags == 7) {
        VX_TRACE(app->VXSys.controlTraceLevel, 1, "CONTROL_THREAD",
                 "[VX DR Feature]; DR feature is enable");
    } else {
        app->controlLink.vx_dr_state = 0;
        VX_TRACE(app->VXSys.controlTraceLevel, 1, "CONTROL_THREAD",
                 "[VX DR Feature]; DR feature is disable");
    }
    return 0;
}

namespace {

bool value_is_all(const char* v)
{
    return strcasecmp(v, "ALL") == 0;
}

/* A tier, server or instance name of a reroute; over-long ones would not
 * fit a settings line or a request line. */
bool reroute_name(const char* key, const char* value)
{
    const size_t len = strnlen(value, vx::kRerouteNameSize);
    if (len < static_cast<size_t>(vx::kRerouteNameSize)) return true;
    VX_ERROR("CONTROL_THREAD", "Reroute value of '%s' is too long; ignored", key);
    return false;
}

/* The host text an entry last gave up. The data and auto-sensor threads
 * read the active entry's host when they connect, without a lock, so a
 * replaced text lives on until the next replacement, a reconnect cycle
 * later. Control thread only. */
char* g_retired_host = nullptr;

bool set_entry_host(vxc_servers_t* e, const char* host)
{
    char* copy = strdup(host);
    if (!copy) return false;
    free(g_retired_host);
    g_retired_host = e->vxc_host;
    vx::store_release(e->vxc_host, copy);
    return true;
}

/* The new text of a settings line that names one of the rerouted values,
 * or false to keep the line as it is. */
bool settings_line(const VXBCISetting_t& s, const char* line, std::string* out)
{
    auto begins = [line](const char* word) { return strncasecmp(line, word, strlen(word)) == 0; };
    char buf[64];
    if (begins("tier")) {
        if (!s.tierName) return false;
        *out = std::string("tier=") + s.tierName + "\n";
    } else if (begins("server")) {
        if (!s.appServerName) return false;
        *out = std::string("server=") + s.appServerName + "\n";
    } else if (begins("vxcHost")) {
        if (!s.vxcHost) return false;
        *out = std::string("vxcHost=") + s.vxcHost + "\n";
    } else if (begins("vxcPort")) {
        if (!s.vxcHost) return false;
        snprintf(buf, sizeof buf, "vxcPort=%d\n", s.vxcPort);
        *out = buf;
    } else {
        return false;
    }
    return true;
}

}  // namespace

extern "C" int parseReRouteMessageAndUpdateClientInfo(char* msg)
{
    VXProxyInstance_t* app = vx_app();
    char* fields[vx::kRerouteFields];
    const int n = msg ? vxlb_get_tokens_with_multi_delimiter(msg, fields, const_cast<char*>(";"),
                                                             vx::kRerouteFields)
                      : 0;
    if (n < 2) {
        VX_ERROR("CONTROL_THREAD", "Message not sent properly fron VXC. numFields = %d", n);
        return -1;
    }
    bool port_refused = false;
    for (int i = 0; i < n; ++i) {
        char key[1024];
        char* value = split_key_value(fields[i], key);
        if (!value || !*value) continue;
        long long number = 0;
        if (strcmp(key, "clusterMode") == 0) {
            /* Here "ALL" is no wildcard: read as a number it is 0. */
            if (vx::number_in("reroute clusterMode", value, 0, 1, &number))
                app->Server.isClusterMode = static_cast<int>(number);
            continue;
        }
        if (value_is_all(value)) continue;
        if (strcmp(key, "vxcHost") == 0) {
            setVXCHost(value);
        } else if (strcmp(key, "vxcPort") == 0) {
            if (!vx::number_in("reroute vxcPort", value, 1, 65535, &number) ||
                setVXCPort(static_cast<int>(number)) != 0)
                port_refused = true;
        } else if (strcmp(key, "tier") == 0) {
            if (reroute_name(key, value)) setTierName(value, nullptr, 0);
        } else if (strcmp(key, "server") == 0) {
            if (reroute_name(key, value)) setAppServerName(value, nullptr, 0);
        } else if (strcmp(key, "instance") == 0) {
            if (reroute_name(key, value)) setAppName(value, nullptr, 0);
        }
    }
    if (port_refused && getVXHost()) {
        /* A host without its port is no target: the agent stays where it is. */
        VX_ERROR("CONTROL_THREAD", "Reroute to %s refused: its port is invalid", getVXHost());
        resetVXCHostAndPort();
    }
    return getVXHost() ? 0 : 1;
}

extern "C" int vx_collector_take_reroute_target(void)
{
    VXProxyInstance_t* app = vx_app();
    const VXBCISetting_t& s = app->VXBCISetting;
    if (!s.vxcHost) {
        VX_TRACE(app->VXSys.controlTraceLevel, 1, "CONTROL_THREAD",
                 "Reroute without a collector address: the collector list stays as it is");
        return -1;
    }
    vxc_servers_t* e = app->Server.isClusterMode ? vx_collector_entry(1) : get_active_vxc();
    if (!e || !set_entry_host(e, s.vxcHost)) return -1;
    e->vxc_port = static_cast<unsigned int>(s.vxcPort);
    e->saasServer = 0;
    return 0;
}

extern "C" int updateVXSettingFile(void)
{
    VXProxyInstance_t* app = vx_app();
    char path[vx::kPathSize];
    snprintf(path, sizeof path, "%s/config/vxsettings.conf",
             app->VXSys.vxHomePath ? app->VXSys.vxHomePath : "");
    FILE* fp = fopen(path, "r+");
    if (!fp) {
        VX_ERROR("CONTROL_THREAD", "Error in opening file '%s'. Hence can't update vxsetting file.",
                 path);
        return -1;
    }
    std::string content;
    char* line = nullptr;
    size_t cap = 0;
    while (getline(&line, &cap, fp) >= 0) {
        std::string replaced;
        content += settings_line(app->VXBCISetting, line, &replaced) ? replaced : line;
    }
    free(line);
    rewind(fp);
    const bool written = fwrite(content.data(), 1, content.size(), fp) == content.size() &&
                         fflush(fp) == 0 &&
                         ftruncate(fileno(fp), static_cast<off_t>(content.size())) == 0;
    fclose(fp);
    if (!written) {
        VX_ERROR("CONTROL_THREAD", "Error in writing file '%s'. Hence can't update vxsetting file.",
                 path);
        return -1;
    }
    return 0;
}

extern "C" int parseSAASClientMsg(char* msg)
{
    VXProxyInstance_t* app = vx_app();
    std::vector<char*> fields(vx::kHostedReplyFields);
    const int n = msg ? vxlb_get_tokens_with_multi_delimiter(
                            msg, fields.data(), const_cast<char*>(";"), vx::kHostedReplyFields)
                      : 0;
    if (n <= 0) {
        VX_ERROR("CONTROL_THREAD", "Error is tokenising client message, num_token = %d", n);
        return 1;
    }
    vxc_servers_t* primary = vx_collector_entry(0);
    if (!primary) return 1;
    bool host = false;
    for (int i = 0; i < n; ++i) {
        char* v;
        long long number = 0;
        if ((v = search_keyword(fields[i], const_cast<char*>("host")))) {
            if (setVXCHost(v) != 0) return 1;
            ++app->VXBCISetting.num_vxc_config;
            if (!set_entry_host(primary, app->VXBCISetting.vxcHost)) return 1;
            primary->saasServer = 0;
            host = true;
        } else if ((v = search_keyword(fields[i], const_cast<char*>("port")))) {
            if (!vx::number_in("hosted reply port", v, 1, 65535, &number)) return 1;
            setVXCPort(static_cast<int>(number));
            primary->vxc_port = static_cast<unsigned int>(number);
        } else if ((v = search_keyword(fields[i], const_cast<char*>("authtoken")))) {
            setAuthtoken(v);
        } else if ((v = search_keyword(fields[i], const_cast<char*>("protoVer")))) {
            if (!vx::number_in("hosted reply protoVer", v, 0, 1, &number)) return 1;
            setProtoVer(static_cast<int>(number));
        }
    }
    if (!host) {
        VX_ERROR("CONTROL_THREAD", "Hosted reply names no collector host");
        return 1;
    }
    socketInfo_t& c = app->controlLink.control;
    vx::copy_text(c.dstIp, sizeof c.dstIp, app->VXBCISetting.vxcHost);
    c.dstPort = app->VXBCISetting.vxcPort;
    return 0;
}
