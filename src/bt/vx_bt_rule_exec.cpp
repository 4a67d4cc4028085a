#include "bt/vx_bt_rule_exec.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "agent/vx_instance.h"
#include "bt/vx_bt_lexicon.h"
#include "bt/vx_bt_object.h"
#include "bt/vx_bt_rule_file.h"
#include "core/vx_atomic.h"
#include "core/vx_encode.h"
#include "core/vx_text.h"
#include "core/vx_thread.h"
#include "core/vx_trace_log.h"
#include "monitor/vx_bt_monitor.h"
#include "vx_sdk.h"

namespace {

constexpr char kCustomOthers[] = "others"; /* a BT of its own, not "Others" */

int trace_level()
{
    return vx_app()->VXSys.btMonitorTraceLevel;
}

/* The value of the rule's parameter in `query` into out (kBTParamValueSize
 * bytes); false when the parameter is absent. */
bool param_value(const VXBTGlobalRule& rule, const char* query, char* out)
{
    if (!query || !rule.parameter_at_start_len) return false;
    const char* at = nullptr;
    if (strncmp(query, rule.parameter_at_start, rule.parameter_at_start_len) == 0)
        at = query;
    else
        at = strstr(query, rule.parameter_at_end);
    if (!at) return false;
    const char* eq = strchr(at, '=');
    if (!eq) return false;
    const char* value = eq + 1;
    const char* amp = strchr(value, '&');
    size_t n = amp ? static_cast<size_t>(amp - value) : strlen(value);
    if (n > vx::kBTParamValueSize - 1) n = vx::kBTParamValueSize - 1;
    memcpy(out, value, n);
    out[n] = '\0';
    return true;
}

/* "<base>.<part>", or base alone without a part. */
void join_dot(char* out, int size, const char* base, const char* part)
{
    if (part && *part)
        snprintf(out, static_cast<size_t>(size), "%s.%s", base, part);
    else
        snprintf(out, static_cast<size_t>(size), "%s", base);
}

/* Segments followed by "/<part n>" for each chosen number, the URL split
 * on a copy: the flowpath's URL stays whole. */
void append_chosen_segments(const VXBTGlobalRule& rule, const char* uri, char* name, int size)
{
    char copy[vx::kURLSize];
    vx::copy_text(copy, sizeof copy, uri);
    char* parts[vx::kBTUriSegMax];
    const int n =
        vxlb_get_tokens_with_multi_delimiter(copy, parts, const_cast<char*>("/"), vx::kBTUriSegMax);
    for (int i = 0; i < rule.uri_seg_no_list_length; ++i) {
        const int k = rule.uri_seg_no_list[i];
        if (n < k) break;
        if (k < 1) continue;
        const size_t used = strlen(name);
        if (used + 1 >= static_cast<size_t>(size)) break;
        snprintf(name + used, static_cast<size_t>(size) - used, "/%s", parts[k - 1]);
    }
}

/* getBTHeader's decoding of the header text into `out`. */
void decode_header(const char* in, char* out, size_t cap)
{
    size_t o = 0;
    for (size_t i = 0; in[i] && o + 1 < cap;) {
        if (in[i] == '%' && in[i + 1] && in[i + 2]) {
            if (const char c =
                    escapeURLDecoding(const_cast<char*>(in), nullptr, static_cast<int>(i + 1))) {
                out[o++] = c;
                i += c == '|' ? 4 : 3;
                continue;
            }
        }
        out[o++] = in[i++];
    }
    out[o] = '\0';
}

BTObject* by_pattern(VXProxyInstance_t* app, char* url, char* parameters, char* btHeaderValue,
                     char* httpMethod)
{
    const VXBTPatternMachines* m = vx::bt_pattern_machines();
    int id = 1; /* machines not set up: "Others" */
    if (m && url && *url) {
        id = vxlb_state_machine_get(
            &m->stateMachine, url, static_cast<int>(strlen(url)), parameters,
            parameters ? static_cast<int>(strlen(parameters)) : 0, httpMethod,
            httpMethod ? static_cast<int>(strlen(httpMethod)) : 0,
            vx::load_relaxed(app->skipCount));
        if (id > 1)
            id = getBTHeader(&m->stateMachineHeader, btHeaderValue,
                             btHeaderValue ? static_cast<int>(strlen(btHeaderValue)) : 0, id);
    }
    if (id == -2) {
        VX_TRACE(trace_level(), 3, "BT_MON",
                 "Pattern rule : Got id = '%d', excluding for complete_url = '%s'", id,
                 url ? url : "");
        return nullptr;
    }
    if (id < 1) {
        VX_TRACE(trace_level(), 3, "BT_MON",
                 "Pattern rule : Got id = '%d', setting to 1 for complete_url = '%s'", id,
                 url ? url : "");
        id = 1;
    }
    int size = 0;
    BTObject* bt = vx::bt_bound_to(id, &size);
    if (id >= size)
        VX_TRACE(trace_level(), 1, "BT_MON", "aggDataArraySize(%d) <= id(%d), hence no btobj found",
                 size, id);
    return bt;
}

}  // namespace

extern "C" char* get_param_value(char* param)
{
    const VXBTGlobalRule* rule = vx::bt_global_rule();
    char value[vx::kBTParamValueSize];
    if (!rule || !param_value(*rule, param, value)) return nullptr;
    return strdup(value);
}

extern "C" void get_bt_name_from_url(char* url, char* btName, int len)
{
    if (!btName || len < 1) return;
    btName[0] = '\0';
    const VXBTGlobalRule* rule = vx::bt_global_rule();
    if (!url) {
        VX_TRACE(trace_level(), 2, "BT_MON", "URL is empty");
        return;
    }
    char copy[vx::kBTNameSize - 1];
    vx::copy_text(copy, sizeof copy, url);
    const int n = static_cast<int>(strlen(copy));
    const int order = rule ? rule->include_uri_in_name_order : 0;
    const int count = order == 0 || !rule ? n : rule->include_uri_in_name_segment;
    if (order == 2) {
        int seen = 0;
        for (int i = n - 1; i >= 1; --i) {
            if (copy[i] == '/' && ++seen == count) {
                vx::copy_text(btName, static_cast<size_t>(len), copy + i);
                return;
            }
        }
    } else {
        int seen = 0;
        for (int i = 0; i < n; ++i) {
            if (copy[i] == '/' && ++seen > count) {
                copy[i] = '\0';
                break;
            }
        }
    }
    vx::copy_text(btName, static_cast<size_t>(len), copy);
}

extern "C" char* vxbt_execute_global_rule(char* uri, char* param, char* method, char* header,
                                          char* btName, int size)
{
    if (!btName || size < 1) return nullptr;
    btName[0] = '\0';
    const VXBTGlobalRule* rule = vx::bt_global_rule();
    if (!rule) {
        VX_TRACE(trace_level(), 2, "BT_MON", "global_rule is NULL.");
        vx::copy_text(btName, static_cast<size_t>(size), kOthersBTName);
        return btName;
    }
    const char* url = uri ? uri : "";
    char base[vx::kBTNameSize];
    char value[vx::kBTParamValueSize];
    int mode = rule->rule_mode;
    if (mode == 3 && rule->seg_type != kSegTypeMethod && rule->seg_type != kSegTypeParameter &&
        rule->seg_type != kSegTypeHeader)
        mode = 4;
    switch (mode) {
        case 1:
            vx::copy_text(btName, static_cast<size_t>(size), url);
            return btName;
        case 2:
            get_bt_name_from_url(uri, btName, size);
            return btName;
        case 3:
            vx::copy_text(base, sizeof base, url);
            break;
        case 4:
            get_bt_name_from_url(uri, base, sizeof base);
            break;
        default:
            return nullptr;
    }
    switch (rule->seg_type) {
        case kSegTypeMethod:
            join_dot(btName, size, base, method);
            break;
        case kSegTypeParameter: {
            vx::VXLockGuard guard(mode == 4 ? vx_app()->btMapLock : nullptr);
            join_dot(btName, size, base, param_value(*rule, param, value) ? value : nullptr);
            break;
        }
        case kSegTypeHeader:
            join_dot(btName, size, base, header);
            break;
        case kSegTypeSegments:
            vx::copy_text(btName, static_cast<size_t>(size), base);
            append_chosen_segments(*rule, url, btName, size);
            break;
        default:
            return nullptr;
    }
    return btName;
}

extern "C" char* vxbt_execute_custom_rule(char* uri, char* parameter, char* httpMethod,
                                          char* btName, int size)
{
    if (!uri && !parameter && !httpMethod) {
        VX_TRACE(trace_level(), 1, "BT_MON", "All argument passed is NULL");
        return nullptr;
    }
    VXProxyInstance_t* app = vx_app();
    const char* hit = search_match_machine(uri, app->vx_trie_node, &app->custom_rule);
    vx::copy_text(btName, static_cast<size_t>(size), hit ? hit : kCustomOthers);
    return btName;
}

extern "C" void vxbt_execute_header_rule(char* url, char* bt_name, int len)
{
    (void)url;
    const VXBTHeaderBasedRule* rule = vx::bt_header_rule();
    if (!rule || !rule->headerValue[0] || !bt_name) return;
    VX_TRACE(trace_level(), 3, "BT_MON", "Applying header rule, header value = '%s'",
             rule->headerValue);
    vx::copy_text(bt_name, static_cast<size_t>(len), rule->headerValue);
}

extern "C" char* getBTHeaderName(void) VX_NOEXCEPT
{
    const VXBTHeaderBasedRule* rule = vx_app() ? vx::bt_header_rule() : nullptr;
    return rule ? const_cast<char*>(rule->headerName) : nullptr;
}

extern "C" int getBTHeader(const vxlbStateMachineforHeader* state_machine, char* header, int len,
                           int BT_id)
{
    (void)len;
    if (!state_machine || state_machine->max_state == 0) return BT_id;
    if (!header || !*header) return -1;
    char work[vx::kHeaderBufferSize];
    decode_header(header, work, sizeof work);
    char* tokens[vx::kBTHeaderTokensMax];
    const int n = vxlb_get_tokens_with_multi_delimiter(work, tokens, const_cast<char*>("&"),
                                                       vx::kBTHeaderTokensMax);
    for (int i = 0; i < n; ++i) {
        const int id = vxlb_state_machine_get_for_header(
            state_machine, tokens[i], static_cast<int>(strlen(tokens[i])), 0, BT_id);
        if (id > 0) return id;
    }
    return 0;
}

extern "C" BTObject* get_obj_from_bt_name(char* url, char* parameters, char* btHeaderValue,
                                          apr_thread_mutex_t* updateBTLock, char* httpMethod)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return nullptr;
    char* headerValue = getBtBaseOnHeader(btHeaderValue);
    if (vx::load_acquire(app->bt_rule) == kBTRulePattern)
        return by_pattern(app, url, parameters, btHeaderValue, httpMethod);

    char name[vx::kBTNameSize];
    name[0] = '\0';
    const VXBTHeaderBasedRule* header = vx::bt_header_rule();
    if (header && header->headerValue[0])
        vx::copy_text(name, sizeof name, header->headerValue);
    else if (vx::load_relaxed(app->custom_rule.rule_mode) != 0)
        vxbt_execute_custom_rule(url, nullptr, nullptr, name, sizeof name);
    else
        vxbt_execute_global_rule(url, parameters, httpMethod, headerValue, name, sizeof name);
    vx::VXLockGuard guard(updateBTLock);
    return updateBTObject(name);
}
