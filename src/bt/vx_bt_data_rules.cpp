#include "bt/vx_bt_data_rules.h"

#include <cstdlib>
#include <cstring>
#include <string>

#include "agent/vx_instance.h"
#include "core/vx_text.h"
#include "core/vx_trace_log.h"

namespace {

void free_list(VXBTDataRule* r)
{
    while (r) {
        VXBTDataRule* next = r->next;
        free(r);
        r = next;
    }
}

/* Conditions "a<sep>b<sep>c<end>a<sep>b<sep>c<end>", each part copied into
 * value, operation, BT name in the order `order` gives. */
void parse_conditions(VXBTDataRule* r, const char* text, const char* end, const char* sep,
                      const int order[3])
{
    std::string copy = text;
    char* items[kBTDataConditionsMax];
    const int n = tokenize(copy.data(), items, const_cast<char*>(end), kBTDataConditionsMax);
    for (int i = 0; i < n && r->conditionCount < kBTDataConditionsMax; ++i) {
        if (!*items[i]) continue;
        char* parts[3] = {};
        if (tokenize(items[i], parts, const_cast<char*>(sep), 3) != 3) continue;
        VXBTDataCondition& c = r->conditions[r->conditionCount++];
        vx::copy_text(c.value, sizeof c.value, parts[order[0]]);
        vx::copy_text(c.operation, sizeof c.operation, parts[order[1]]);
        vx::copy_text(c.bt_name, sizeof c.bt_name, parts[order[2]]);
    }
}

/* A new rule of `kind` at the tail of its list; null when refused. */
VXBTDataRule* add_rule(VXBTDataRule** list, int kind, char** f, int count, int least)
{
    if (count < least) {
        VX_ERROR("BT_MON", "Rule %d line has %d fields, needs at least %d; ignored", kind, count,
                 least);
        return nullptr;
    }
    auto* r = static_cast<VXBTDataRule*>(calloc(1, sizeof(VXBTDataRule)));
    if (!r) return nullptr;
    r->kind = kind;
    r->selfRuleId = r->parentRuleId = -1;
    vx::copy_text(r->name, sizeof r->name, f[1]);
    while (*list) list = &(*list)->next;
    *list = r;
    return r;
}

VXBTDataRules_t& rules()
{
    return vx_app()->btDataRules;
}

constexpr int kValueOpName[3] = {0, 1, 2}; /* kinds 8 and 11: value, operation, BT name */
constexpr int kOpNameValue[3] = {2, 0, 1}; /* kinds 9 and 10: operation, BT name, value */

}  // namespace

extern "C" int parseMethodDataBtRule(char** f, int count)
{
    VXBTDataRule* r = add_rule(&rules().methodDataRules, 8, f, count, 6);
    if (!r) return -1;
    r->tagId = atoi(f[2]);
    r->argIndex = atoi(f[3]);
    vx::copy_text(r->type, sizeof r->type, f[4]);
    parse_conditions(r, f[5], "%3B", "%3A", kValueOpName);
    if (count > 6) r->selfRuleId = strcmp(f[6], "-") == 0 ? -1 : atoi(f[6]);
    if (count > 7) r->parentRuleId = strcmp(f[7], "-") == 0 ? -1 : atoi(f[7]);
    return 0;
}

extern "C" int parseRespHeaderDataBtRule(char** f, int count)
{
    VXBTDataRule* r = add_rule(&rules().httpRespBtRule, 9, f, count, 6);
    if (!r) return -1;
    r->tagId = atoi(f[2]);
    vx::copy_text(r->type, sizeof r->type, f[4]);
    parse_conditions(r, f[5], ";", ":", kOpNameValue);
    return 0;
}

extern "C" int parseReqHeaderDataBtRule(char** f, int count)
{
    VXBTDataRule* r = add_rule(&rules().httpReqBtRule, 10, f, count, 6);
    if (!r) return -1;
    vx::copy_text(r->type, sizeof r->type, f[4]);
    parse_conditions(r, f[5], ";", ":", kOpNameValue);
    return 0;
}

extern "C" int parseHttpBodyBtName(char** f, int count)
{
    VXBTDataRule* r = add_rule(&rules().httpBodyBtRule, 11, f, count, 5);
    if (!r) return -1;
    vx::copy_text(r->xPath, sizeof r->xPath, f[2]);
    r->opcode_type = atoi(f[3]);
    parse_conditions(r, f[4], "%3B", "%3A", kValueOpName);
    if (count > 5) r->enableBodyCapture = atoi(f[5]);
    if (count > 6) r->maxBodySize = atoi(f[6]);
    return 0;
}

void vx::bt_data_rules_clear()
{
    VXBTDataRules_t& r = rules();
    for (VXBTDataRule** list :
         {&r.methodDataRules, &r.httpRespBtRule, &r.httpReqBtRule, &r.httpBodyBtRule}) {
        free_list(*list);
        *list = nullptr;
    }
}
