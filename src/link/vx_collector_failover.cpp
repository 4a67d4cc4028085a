#include "link/vx_collector_failover.h"

#include <cstdlib>
#include <cstring>

#include "agent/vx_instance.h"
#include "core/vx_text.h"
#include "core/vx_trace_log.h"

namespace {

constexpr int kPolicyFields = 5;
constexpr int kRetryPolicyItems = 4;

bool key_is(const char* key, const char* name) { return strncmp(key, name, strlen(name)) == 0; }

/* "count%interval%misses%heartbeat". All four numbers or nothing: a shorter
 * list, or one with a number out of its range, leaves the policy as it was. */
bool apply_retry_policy(VXProxyInstance_t* app, char* value)
{
    char* items[kRetryPolicyItems];
    if (vxlb_get_tokens_with_multi_delimiter(value, items, const_cast<char*>("%"),
                                             kRetryPolicyItems) != kRetryPolicyItems)
        return false;
    long long count = 0, seconds = 0, misses = 0, heartbeat = 0;
    if (!vx::number_in("retryPolicy retry count", items[0], 0, vx::kRetryCountMax, &count) ||
        !vx::number_in("retryPolicy retry interval", items[1], 0, vx::kRetryIntervalMaxSeconds,
                       &seconds) ||
        !vx::number_in("retryPolicy heartbeat misses", items[2], 0, vx::kHeartBeatMissMax,
                       &misses) ||
        !vx::number_in("retryPolicy heartbeat interval", items[3], 0,
                       vx::kHeartBeatIntervalMaxSeconds, &heartbeat))
        return false;
    retryPolicy_t& p = app->controlLink.retry_policy;
    p.num_retry = static_cast<signed char>(count);
    p.time_interval = apr_time_from_sec(seconds);
    p.reply_unsuccessful_count = static_cast<int>(misses);
    p.heartbeat_reply_timeout_check = static_cast<int>(heartbeat / 10);
    VX_TRACE(app->VXSys.controlTraceLevel, 1, "CONTROL_THREAD",
             "[VX DR Feature]; Retry policy from VXC: [Retry Count | Retry Interval | HeartBeat "
             "Miss Count] = [ %d | %lld | %d]",
             p.num_retry, static_cast<long long>(p.time_interval), p.reply_unsuccessful_count);
    return true;
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
