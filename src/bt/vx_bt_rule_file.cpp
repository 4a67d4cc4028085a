#include "bt/vx_bt_rule_file.h"

#include <apr_file_io.h>
#include <apr_strings.h>
#include <strings.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "agent/vx_instance.h"
#include "bt/vx_bt_data_rules.h"
#include "bt/vx_bt_lexicon.h"
#include "bt/vx_bt_object.h"
#include "bt/vx_bt_tags.h"
#include "core/vx_atomic.h"
#include "core/vx_retire_list.h"
#include "core/vx_text.h"
#include "core/vx_thread.h"
#include "core/vx_trace_log.h"
#include "monitor/vx_bt_monitor.h"
#include "proxy/vx_proxy_state.h"
#include "vx_sdk.h"

namespace {

constexpr int kThresholdFields = 3;

VXProxyInstance_t* app()
{
    return vx_app();
}

int trace_level()
{
    return app() ? app()->VXSys.btMonitorTraceLevel : 0;
}

/* '|'-separated fields; empty fields do not count. */
int split_fields(char* line, char** fields, int max)
{
    return vxlb_get_tokens_with_multi_delimiter(line, fields, const_cast<char*>("|"), max);
}

bool is_dash(const char* s)
{
    return strcmp(s, "-") == 0;
}

void release_machines(void* p)
{
    auto* m = static_cast<VXBTPatternMachines*>(p);
    vxlb_state_machine_free(&m->stateMachine);
    vxlb_state_machine_free_for_header(&m->stateMachineHeader);
    free(m);
}

/* Publishes `fresh` in `slot` and retires what it replaces. */
template <typename T>
void publish(T*& slot, T* fresh, vx::ReleaseFn release)
{
    VXProxyInstance_t* a = app();
    vx::VXLockGuard guard(a->manager.bt_obj_map_lock);
    T* old = slot;
    vx::store_release(slot, fresh);
    if (old) vx::retire(a->btRetired, old, release);
}

void clear_custom_rule()
{
    VXBTCustomRule& c = app()->custom_rule;
    vx::store_relaxed(c.rule_mode, 0);
    dealloc_lexicon(&c);
    for (unsigned i = 0; i < c.match_only_param_count && i < vx::kBTCustomParamObjects; ++i)
        free(c.matchingURIParamObj[i]);
    memset(&c, 0, sizeof c);
}

/* "<kind>|<number>": the number behind the first '|'. */
int number_behind_bar(const char* line)
{
    const char* bar = line ? strchr(line, '|') : nullptr;
    return bar ? atoi(bar + 1) : 0;
}

/* Kinds 8, 9 and 11 also carry a tag list in their last field. */
void data_rule_tags(char** f, int n)
{
    if (n < 3 || is_dash(f[n - 1]) || vx_agent_behind_proxy(app())) return;
    const int id = atoi(f[2]) ? atoi(f[2]) : 1;
    vx::bt_tags_clear(id);
    parse_tags(f[n - 1], id);
}

void parse_data_rule(int kind, const char* line)
{
    char copy[vx::kBTRuleLineSize];
    vx::copy_text(copy, sizeof copy, line);
    char* f[vx::kBTPatternFieldsMax];
    const int n = split_fields(copy, f, vx::kBTPatternFieldsMax);
    int rc = -1;
    switch (kind) {
        case 8:
            rc = parseMethodDataBtRule(f, n);
            break;
        case 9:
            rc = parseRespHeaderDataBtRule(f, n);
            break;
        case 10:
            rc = parseReqHeaderDataBtRule(f, n);
            break;
        case 11:
            rc = parseHttpBodyBtName(f, n);
            break;
        default:
            break;
    }
    if (rc == 0 && kind != 10) data_rule_tags(f, n);
}

/* One pass over the lines of `text`; fn(line) for each. */
template <typename Fn>
void each_line(const char* text, Fn&& fn)
{
    std::string copy = text;
    char* cursor = copy.data();
    char line[vx::kBTRuleLineSize];
    while (getNextLine(line, sizeof line, &cursor)) {
        if (!fn(line)) return;
    }
}

int read_file(const char* path, char** out)
{
    *out = nullptr;
    apr_pool_t* pool = nullptr;
    if (apr_pool_create(&pool, nullptr) != APR_SUCCESS) return -1;
    apr_file_t* f = nullptr;
    apr_finfo_t info;
    int rc = -1;
    if (apr_file_open(&f, path, APR_FOPEN_READ | APR_FOPEN_BINARY, APR_OS_DEFAULT, pool) !=
        APR_SUCCESS) {
        /* Absent home-directory files are the usual case: traced, not an error. */
        VX_TRACE(trace_level(), 1, "BT_MON", "Error in opening file %s\n", path);
    } else if (apr_file_info_get(&info, APR_FINFO_SIZE, f) == APR_SUCCESS && info.size >= 0 &&
               info.size <= vx::kFileSizeMax) {
        const auto size = static_cast<apr_size_t>(info.size);
        char* buf = static_cast<char*>(malloc(size + 1));
        apr_size_t got = size;
        if (buf) {
            const apr_status_t st = size ? apr_file_read_full(f, buf, size, &got) : APR_SUCCESS;
            if (st != APR_SUCCESS && st != APR_EOF)
                VX_ERROR("BT_MON", "Error in writing, Bytes read = %d", static_cast<int>(got));
            buf[got] = '\0';
            *out = buf;
            rc = 0;
        }
    } else {
        VX_ERROR("BT_MON", "File %s is larger than %lld bytes; not read", path, vx::kFileSizeMax);
    }
    apr_pool_destroy(pool);
    return rc;
}

}  // namespace

extern "C" char* getNextLine(char* line, int size, char** buffer)
{
    if (!line || size < 1 || !buffer || !*buffer || !**buffer) return nullptr;
    char* start = *buffer;
    char* nl = strchr(start, '\n');
    const size_t len = nl ? static_cast<size_t>(nl - start) : strlen(start);
    size_t keep = len < static_cast<size_t>(size - 1) ? len : static_cast<size_t>(size - 1);
    memcpy(line, start, keep);
    /* A file written with CR LF ends its lines the same. */
    if (keep == len && keep > 0 && line[keep - 1] == '\r') --keep;
    line[keep] = '\0';
    *buffer = nl ? nl + 1 : start + len;
    return line;
}

extern "C" int getLineFromFile(char* filedata, char** file_buf)
{
    if (!filedata || !file_buf) return -1;
    return read_file(filedata, file_buf);
}

extern "C" int getOperationType(char* text)
{
    static constexpr struct {
        const char* name;
        int value;
    } kOps[] = {{"EQUALS", 4},        {"startswith", 1}, {"endswith", 2}, {"contains", 3},
                {"matchesRegExp", 5}, {"notEmpty", 6},   {"inList", 7}};
    if (!text) return 255;
    for (const auto& op : kOps)
        if (strncasecmp(text, op.name, strlen(op.name)) == 0) return op.value;
    return 255;
}

extern "C" int getHTTPMethodValue(char* method)
{
    static constexpr const char* kMethods[] = {"GET", "POST", "PUT", "DELETE"};
    for (int i = 0; method && i < 4; ++i)
        if (strcasecmp(method, kMethods[i]) == 0) return i;
    VX_ERROR("BT_MON", "Invalid method name is passed");
    return 255;
}

/* ---- global rule ---- */

extern "C" int parse_global_rule(char* data)
{
    VXProxyInstance_t* a = app();
    if (!a || !data) return 0;
    char copy[vx::kBTRuleLineSize];
    vx::copy_text(copy, sizeof copy, data);
    char* f[vx::kBTGlobalFieldsMax];
    int n = split_fields(copy, f, vx::kBTGlobalFieldsMax);
    auto* rule = static_cast<VXBTGlobalRule*>(calloc(1, sizeof(VXBTGlobalRule)));
    if (!rule) {
        VX_ERROR("BT_MON", "Could not allocate the global rule; the previous one stays");
        return 0;
    }
    if (!vx_agent_behind_proxy(app())) {
        vx::bt_tags_clear(-1);
        if (n > 0 && !is_dash(f[n - 1])) parse_global_tags(f[n - 1]);
    }
    if (n < 9) {
        VX_ERROR("BT_MON",
                 "Number of fields in BTRule File for Global rule is less than 8, Hence applying "
                 "Default rule");
        vx::copy_text(copy, sizeof copy, kDefaultGlobalRule);
        n = split_fields(copy, f, vx::kBTGlobalFieldsMax);
    }
    rule->rule_mode = atoi(f[1]);
    if (strstr(f[4], "FromFirst"))
        rule->include_uri_in_name_order = 1;
    else if (strstr(f[4], "FromLast"))
        rule->include_uri_in_name_order = 2;
    rule->include_uri_in_name_segment = is_dash(f[5]) ? 0 : atoi(f[5]);
    const char* kind = f[6];
    const char* key = f[7];
    if (*kind && !is_dash(kind)) rule->rule_mode = rule->rule_mode == 1 ? 3 : 4;
    if (strcmp(kind, "Request-Method") == 0) {
        rule->seg_type = kSegTypeMethod;
    } else if (strcmp(kind, "Request-Parameter-Value") == 0) {
        rule->seg_type = kSegTypeParameter;
        vx::copy_text(rule->parameter, sizeof rule->parameter, key);
        snprintf(rule->parameter_at_start, sizeof rule->parameter_at_start, "%s=", rule->parameter);
        snprintf(rule->parameter_at_end, sizeof rule->parameter_at_end, "&%s=", rule->parameter);
        rule->parameter_at_start_len = static_cast<int>(strlen(rule->parameter_at_start));
        rule->parameter_at_end_len = static_cast<int>(strlen(rule->parameter_at_end));
    } else if (strcmp(kind, "Request-Header") == 0) {
        rule->seg_type = kSegTypeHeader;
        snprintf(rule->header, sizeof rule->header, "%.255s=", key);
    } else if (strcmp(kind, "Request-URI-Segments-Numbers") == 0) {
        rule->seg_type = kSegTypeSegments;
        std::string list = is_dash(key) ? "1%2C2" : key;
        char* nums[vx::kBTUriSegMax];
        rule->uri_seg_no_list_length =
            tokenize(list.data(), nums, const_cast<char*>("%2C"), vx::kBTUriSegMax);
        for (int i = 0; i < rule->uri_seg_no_list_length; ++i)
            rule->uri_seg_no_list[i] = atoi(nums[i]);
    }
    publish(a->global_rule, rule, nullptr);
    return 0;
}

/* ---- pattern rule ---- */

namespace {

/* The header field names a header when it is there, not empty, not "-..."
 * and not "NA". */
bool names_header(const char* s)
{
    return *s && s[0] != '-' && strcmp(s, "NA") != 0;
}

int field_id(char** f, int n, int i)
{
    if (i >= n) return 0;
    return is_dash(f[i]) ? -1 : atoi(f[i]);
}

/* The first accepted line of a read: fresh machines aside, and "Others". */
bool start_machines(const VXBTPatternBasedRule& r)
{
    VXProxyInstance_t* a = app();
    if (a->btPendingMachines) release_machines(a->btPendingMachines);
    a->btPendingMachines =
        static_cast<VXBTPatternMachines*>(calloc(1, sizeof(VXBTPatternMachines)));
    if (!a->btPendingMachines ||
        vxlb_state_machine_init(&a->btPendingMachines->stateMachine, a->maxStates) != 0) {
        VX_ERROR("BT_MON", "Could not set up the URL state machine of %d states", a->maxStates);
        free(a->btPendingMachines);
        a->btPendingMachines = nullptr;
        return false;
    }
    if (names_header(r.BTHeaderName))
        vxlb_state_machine_init_for_header(&a->btPendingMachines->stateMachineHeader, a->maxStates);
    char others[vx::kBTNameSize];
    vx::copy_text(others, sizeof others, kOthersBTName);
    vx::VXLockGuard guard(a->manager.bt_obj_map_lock);
    checkAndIncrementAggrBTDataArray(
        find_bt_obj_in_config_map(others, kOthersBTId, a->allSlow, a->allVerySlow, -1, -1));
    return true;
}

}  // namespace

extern "C" int parse_pattern_rule(char* line, int* init_state_machine)
{
    VXProxyInstance_t* a = app();
    if (!a || !line || !init_state_machine) return -1;
    if (line[0] == '#') {
        VX_TRACE(trace_level(), 2, "BT_MON", "Returning found commented line = [%s]", line);
        return -1;
    }
    char copy[vx::kBTRuleLineSize];
    vx::copy_text(copy, sizeof copy, line);
    char* f[vx::kBTPatternFieldsMax];
    const int n = split_fields(copy, f, vx::kBTPatternFieldsMax);
    if (n < 6) {
        VX_ERROR(
            "BT_MON",
            "Number of fields in BTRule File for pattern based is  < 6, hence BTname = others");
        return -1;
    }
    if (!vx_agent_behind_proxy(app())) {
        const int tagId = atoi(f[2]) ? atoi(f[2]) : 1;
        vx::bt_tags_clear(tagId);
        if (!is_dash(f[n - 1])) parse_tags(f[n - 1], tagId);
    }

    VXBTPatternBasedRule r{};
    vx::copy_text(r.transactionName, sizeof r.transactionName, f[1]);
    r.transactionId = atoi(f[2]);
    r.matchType = atoi(f[3]) == 1 ? 1 : 0;
    r.excludeMode = atoi(f[5]) != 0 ? 1 : 0;
    if (r.excludeMode) r.transactionId = -2;
    vx::copy_text(r.pattern, sizeof r.pattern, f[4]);
    if (n > 7) {
        r.patternMode = static_cast<char>(atoi(f[6]));
        vx::copy_text(r.parameter, sizeof r.parameter, f[7]);
        if (n > 8) vx::copy_text(r.httpMethod, sizeof r.httpMethod, f[8]);
        if (n > 9 && names_header(f[9])) vx::copy_text(r.BTHeaderName, sizeof r.BTHeaderName, f[9]);
        switch (r.patternMode) {
            case 1:
                snprintf(r.pattern, sizeof r.pattern, "%s*%s*", f[4], f[7]);
                break;
            case 2:
                snprintf(r.pattern, sizeof r.pattern, "%s*", f[4]);
                break;
            case 3:
                if (n < 9) {
                    VX_ERROR("BT_MON", "num_fields = %d is equal to 8 but less than 9", n);
                    return -1;
                }
                snprintf(r.pattern, sizeof r.pattern, "%s*%s*", f[4], f[7]);
                break;
            default:
                break;
        }
        if (r.patternMode != 2 && r.patternMode != 3) r.httpMethod[0] = '\0';
    }
    r.selfRuleId = field_id(f, n, 12);
    r.parentRuleId = field_id(f, n, 13);

    if (*init_state_machine) {
        if (!start_machines(r)) return -1;
        *init_state_machine = 0;
    }
    if (!a->btPendingMachines) return -1;
    vxlb_state_machine_add(&a->btPendingMachines->stateMachine, r.pattern,
                           static_cast<int>(strlen(r.pattern)), r.httpMethod,
                           static_cast<int>(strlen(r.httpMethod)), r.transactionId, r.matchType,
                           r.patternMode, a->skipCount);
    if (*r.BTHeaderName) {
        vxlbStateMachineforHeader& h = a->btPendingMachines->stateMachineHeader;
        if (h.max_state == 0) vxlb_state_machine_init_for_header(&h, a->maxStates);
        vxlb_state_machine_add_for_header(&h, r.BTHeaderName,
                                          static_cast<int>(strlen(r.BTHeaderName)), r.transactionId,
                                          r.matchType, a->skipCount);
    }
    vx::VXLockGuard guard(a->manager.bt_obj_map_lock);
    BTObject* bt = find_bt_obj_in_config_map(r.transactionName, r.transactionId, a->allSlow,
                                             a->allVerySlow, r.selfRuleId, r.parentRuleId);
    if (bt && vx::load_relaxed(bt->bt_id) >= 1) checkAndIncrementAggrBTDataArray(bt);
    return 0;
}

/* ---- custom rule ---- */

namespace {

/* "[k=v&&k=v]" -> pairs, blanks stripped; false on an empty key or value. */
bool split_pairs(const char* item, std::string* keys, std::string* values, int max, int* count)
{
    const char* open = strchr(item, '[');
    const char* close = open ? strchr(open, ']') : nullptr;
    std::string inner = open && close ? std::string(open + 1, close) : std::string(item);
    char* pairs[vx::kBTCustomPairsMax];
    const int n = vxlb_get_tokens_with_multi_delimiter(
        inner.data(), pairs, const_cast<char*>("&"),
        max < vx::kBTCustomPairsMax ? max : vx::kBTCustomPairsMax);
    *count = 0;
    for (int i = 0; i < n; ++i) {
        std::string p;
        for (const char* c = pairs[i]; *c; ++c)
            if (!isspace(static_cast<unsigned char>(*c))) p += *c;
        const size_t eq = p.find('=');
        if (eq == std::string::npos || eq == 0 || eq + 1 == p.size()) return false;
        keys[*count] = p.substr(0, eq);
        values[*count] = p.substr(eq + 1);
        ++*count;
    }
    return true;
}

int custom_by_uri(VXBTCustomRule& c, const char* criteria)
{
    ++c.match_only_uri_count;
    std::string keys[vx::kBTCustomItemsMax], values[vx::kBTCustomItemsMax];
    int n = 0;
    if (!split_pairs(criteria, keys, values, vx::kBTCustomItemsMax, &n) || n == 0) return -1;
    for (int i = 0; i < n; ++i) {
        if (keys[i] == "input1")
            c.UriOperationType = static_cast<char>(getOperationType(values[i].data()));
        else if (keys[i] == "input2")
            vx::copy_text(c.MatchUriValue, sizeof c.MatchUriValue, values[i].c_str());
        else if (keys[i] == "input3")
            c.activateReversCondition = values[i] == "ActivateReverseCondition" ? 1 : 0;
        else
            return -1;
    }
    return add_to_lexicon(&c, c.MatchUriValue, c.priority, c.setRuleName, c.UriOperationType);
}

int custom_by_parameters(VXBTCustomRule& c, const char* criteria)
{
    std::string copy = criteria;
    char* items[vx::kBTCustomItemsMax];
    const int n = vxlb_get_tokens_with_multi_delimiter(copy.data(), items, const_cast<char*>(","),
                                                       vx::kBTCustomItemsMax);
    URIParamObject o{};
    for (int i = 0; i < n; ++i) {
        std::string keys[vx::kBTCustomPairsMax], values[vx::kBTCustomPairsMax];
        int k = 0;
        if (!split_pairs(items[i], keys, values, vx::kBTCustomPairsMax, &k)) return -1;
        bool done = false;
        for (int j = 0; j < k && !done; ++j) {
            if (keys[j] == "input1" && values[j].rfind("checkForExistance", 0) == 0) {
                o.checkExistence = 1;
                o.parameterValue[0] = '\0';
                o.parameterOperation = 0;
                done = true;
            } else if (keys[j] == "input2") {
                vx::copy_text(o.parameterName, sizeof o.parameterName, values[j].c_str());
            } else if (keys[j] == "input3") {
                o.parameterOperation = static_cast<char>(getOperationType(values[j].data()));
            } else if (keys[j] == "input4") {
                vx::copy_text(o.parameterValue, sizeof o.parameterValue, values[j].c_str());
            }
        }
        if (done) break;
    }
    if (c.match_only_param_count >= vx::kBTCustomParamObjects) return -1;
    auto* obj = static_cast<URIParamObject*>(malloc(sizeof(URIParamObject)));
    if (!obj) return -1;
    *obj = o;
    c.matchingURIParamObj[c.match_only_param_count++] = obj;
    add_to_lexicon(&c, obj->parameterName, c.priority, c.setRuleName,
                   obj->checkExistence ? 0 : obj->parameterOperation);
    if (!obj->checkExistence)
        add_to_lexicon(&c, obj->parameterValue, c.priority, c.setRuleName, obj->parameterOperation);
    return 0;
}

}  // namespace

extern "C" int parse_custom_rule(char* data)
{
    VXProxyInstance_t* a = app();
    if (!a || !data) return -1;
    char copy[vx::kBTRuleLineSize];
    vx::copy_text(copy, sizeof copy, data);
    char* f[10];
    if (split_fields(copy, f, 10) != 9) {
        VX_ERROR(
            "BT_MON",
            "Number of fields in BTRule File for custom rule is != 9, Hence applying Default rule");
        return -1;
    }
    if (!*f[7] || is_dash(f[7])) return -1;
    VXBTCustomRule& c = a->custom_rule;
    const int mode = atoi(f[1]);
    vx::copy_text(c.rule_name, sizeof c.rule_name, f[2]);
    vx::copy_text(c.setRuleName, sizeof c.setRuleName, f[3]);
    c.setEnabled = strcmp(f[5], "1") == 0 ? 1 : 0;
    c.priority = static_cast<unsigned>(strtoul(f[6], nullptr, 10));
    int rc = -1;
    switch (mode) {
        case 1:
            vx::copy_text(c.HTTPMethod, sizeof c.HTTPMethod, f[7]);
            c.matchHttpMethod = static_cast<char>(getHTTPMethodValue(f[7]));
            if (static_cast<unsigned char>(c.matchHttpMethod) != 255)
                rc = add_to_lexicon(&c, c.HTTPMethod, c.priority, c.setRuleName, 0);
            break;
        case 2:
            rc = custom_by_uri(c, f[7]);
            break;
        case 3:
            rc = custom_by_parameters(c, f[7]);
            break;
        default:
            VX_ERROR("BT_MON", "Invalid rule mode given in field 1 = %d", mode);
            return -1;
    }
    if (rc == 0) vx::store_relaxed(c.rule_mode, mode);
    return rc;
}

extern "C" int parse_exclusion_rule(char* data)
{
    (void)data; /* accepted and ignored */
    return 0;
}

extern "C" int parse_skip_character(char* line)
{
    return number_behind_bar(line);
}

extern "C" int parse_max_state(char* line)
{
    return number_behind_bar(line);
}

extern "C" int parse_header_rule(char* data) VX_NOEXCEPT
{
    VXProxyInstance_t* a = app();
    const char* bar = data ? strchr(data, '|') : nullptr;
    if (!a || !bar) {
        VX_ERROR("BT_MON", "Header Rule in BTRule File is not valid, Hence applying Default rule");
        return -1;
    }
    auto* rule = static_cast<VXBTHeaderBasedRule*>(calloc(1, sizeof(VXBTHeaderBasedRule)));
    if (!rule) return -1;
    vx::copy_text(rule->headerName, sizeof rule->headerName, bar + 1);
    VX_TRACE(trace_level(), 1, "BT_MON", "Header rules has been parsed and header name = %s",
             rule->headerName);
    publish(a->header_rule, rule, nullptr);
    return 0;
}

/* ---- the files ---- */

extern "C" int vxbt_read_rule_file(char* filedata)
{
    VXProxyInstance_t* a = app();
    if (!a || !filedata) return 0;
    bool globalSeen = false, patternSeen = false, customSeen = false;
    vx::bt_data_rules_clear();
    each_line(filedata, [&](char* line) {
        switch (atoi(line)) {
            case 1:
                globalSeen = true;
                break;
            case 2:
                customSeen = true;
                parse_custom_rule(line);
                break;
            case 3:
                parse_exclusion_rule(line);
                break;
            case 4:
                vx::store_relaxed(a->skipCount, parse_skip_character(line));
                break;
            case 5: {
                const int states = parse_max_state(line);
                a->maxStates = states > 0 && states <= vx::kBTCountMax ? states : a->maxStates;
                break;
            }
            case 7:
                patternSeen = true;
                break;
            case 8:
            case 9:
            case 10:
            case 11:
                parse_data_rule(atoi(line), line);
                break;
            default:
                break;
        }
        return true;
    });

    bool patternApplied = false;
    if (patternSeen) {
        VX_TRACE(trace_level(), 1, "BT_MON", "Rule 7 found, now parsing it.");
        int init = 1;
        vx::store_relaxed(a->btPatternReadAtRunTime, a->isRunTime ? 1 : 0);
        each_line(filedata, [&](char* line) {
            if (vx::starts_with(line, "7|") && parse_pattern_rule(line, &init) == 0)
                patternApplied = true;
            return true;
        });
        if (patternApplied && a->btPendingMachines) {
            publish(a->patternMachines, a->btPendingMachines, release_machines);
        } else if (a->btPendingMachines) {
            release_machines(a->btPendingMachines);
        }
        a->btPendingMachines = nullptr;
    }
    if (customSeen && !patternApplied) vxlb_init_automaton(a->vx_trie_node, &a->custom_rule);
    bool globalApplied = false;
    if (globalSeen && !patternApplied) {
        VX_TRACE(trace_level(), 1, "BT_MON",
                 "Rule 7 and rule 9 was not found, but rule 1 found, now parsing it.");
        each_line(filedata, [&](char* line) {
            if (!vx::starts_with(line, "1|")) return true;
            char buf[vx::kBTRuleLineSize];
            vx::copy_text(buf, sizeof buf, line);
            parse_global_rule(buf);
            globalApplied = true;
            return false;
        });
    }
    const int rule = patternApplied ? kBTRulePattern : globalApplied ? kBTRuleGlobal : kBTRuleNone;
    vx::store_release(a->bt_rule, rule);
    vx::store_relaxed(a->btPatternReadAtRunTime, 0);
    VX_TRACE(trace_level(), 1, "BT_MON", "After btrule file parsing, applicable bt rule = %d.",
             rule);
    return 0;
}

extern "C" int vxbt_read_threshold_file(char* filedata)
{
    VXProxyInstance_t* a = app();
    if (!a) return -1;
    if (!filedata || !*filedata) {
        VX_ERROR("BT_MON", "File name is null or empty");
        return -1;
    }
    each_line(filedata, [&](char* line) {
        if (line[0] == '#' || !line[0]) return true;
        char copy[vx::kBTRuleLineSize];
        vx::copy_text(copy, sizeof copy, line);
        char* f[kThresholdFields + 1];
        const int n = split_fields(copy, f, kThresholdFields + 1);
        if (n != kThresholdFields) {
            VX_ERROR("BT_MON", "Invalid threshold line = '%s', num_fields = %d", line, n);
            return true;
        }
        const int slow = atoi(f[1]), verySlow = atoi(f[2]);
        if (slow <= 0 || verySlow <= 0) {
            VX_ERROR("BT_MON", "Invalid value(s): slow '%d', very slow '%d'", slow, verySlow);
            return true;
        }
        if (slow >= verySlow) {
            VX_ERROR("BT_MON", "Invalid values: slow '%d' >= very slow '%d'", slow, verySlow);
            return true;
        }
        if (strcasecmp(f[0], "ALL") == 0) {
            VX_TRACE(trace_level(), 1, "BT_MON",
                     "Overwriting default values for all: slow '%d', very slow '%d'", slow,
                     verySlow);
            vx::store_relaxed(a->allSlow, slow);
            vx::store_relaxed(a->allVerySlow, verySlow);
            return true;
        }
        char name[vx::kBTNameSize];
        vx::copy_text(name, sizeof name, f[0]);
        vx::VXLockGuard guard(a->manager.bt_obj_map_lock);
        if (BTObject* bt = find_bt_obj_in_config_map(name, -1, slow, verySlow, -1, -1)) {
            vx::store_relaxed(bt->bt_threshold.slow, slow);
            vx::store_relaxed(bt->bt_threshold.very_slow, verySlow);
        }
        return true;
    });
    return 0;
}

int vx::bt_read_rule_path(const char* path)
{
    char* text = nullptr;
    if (read_file(path, &text) != 0) return -1;
    vxbt_read_rule_file(text);
    free(text);
    return 0;
}

int vx::bt_read_threshold_path(const char* path)
{
    char* text = nullptr;
    if (read_file(path, &text) != 0) return -1;
    const int rc = vxbt_read_threshold_file(text);
    free(text);
    return rc;
}

const VXBTPatternMachines* vx::bt_pattern_machines()
{
    return vx::load_acquire(app()->patternMachines);
}

const VXBTGlobalRule* vx::bt_global_rule()
{
    return vx::load_acquire(app()->global_rule);
}

const VXBTHeaderBasedRule* vx::bt_header_rule()
{
    return vx::load_acquire(app()->header_rule);
}

void vx::bt_rules_reset()
{
    VXProxyInstance_t* a = app();
    vx::store_release(a->bt_rule, kBTRuleNone);
    publish(a->patternMachines, static_cast<VXBTPatternMachines*>(nullptr), release_machines);
    publish(a->global_rule, static_cast<VXBTGlobalRule*>(nullptr), nullptr);
    publish(a->header_rule, static_cast<VXBTHeaderBasedRule*>(nullptr), nullptr);
    clear_custom_rule();
    vx::bt_data_rules_clear();
}
