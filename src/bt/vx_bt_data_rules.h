/*
 * Rule kinds that name a BT from data the host hands in during a request:
 * method arguments (8), response headers (9), request headers (10) and the
 * request body (11). The rule file's reader stores their lines here.
 *
 * STAND-IN(bt-data-rules): the lines are parsed and kept; the matching that
 * overrides a request's BT from them is not built yet, so they classify
 * nothing.
 *
 * Threads: written by the control thread while reading a rule file; a
 * re-read replaces a kind's list whole.
 */
#ifndef VX_BT_DATA_RULES_H
#define VX_BT_DATA_RULES_H

#include "core/vx_limits.h"

/* One condition: a value compared by an operation, naming a BT. */
struct VXBTDataCondition {
    char value[vx::kBTRuleTextSize];
    char operation[64];
    char bt_name[vx::kBTRuleTextSize];
};

inline constexpr int kBTDataConditionsMax = 32;

struct VXBTDataRule {
    int kind;                       /* 8, 9, 10 or 11 */
    char name[vx::kBTRuleTextSize]; /* method, header name, or body type */
    int tagId;                      /* id whose tag list the line fills */
    int argIndex;                   /* kind 8 */
    char type[64];
    char xPath[vx::kBTRuleTextSize]; /* kind 11 */
    int opcode_type;                 /* kind 11 */
    int enableBodyCapture;           /* kind 11 */
    int maxBodySize;                 /* kind 11 */
    int selfRuleId;                  /* kind 8 */
    int parentRuleId;
    int conditionCount;
    VXBTDataCondition conditions[kBTDataConditionsMax];
    VXBTDataRule* next;
};

struct VXBTDataRules_t {
    VXBTDataRule* methodDataRules; /* 8 */
    VXBTDataRule* httpRespBtRule;  /* 9 */
    VXBTDataRule* httpReqBtRule;   /* 10 */
    VXBTDataRule* httpBodyBtRule;  /* 11 */
};

extern "C" {
/* Each takes the fields of one line (fields[0] is the kind) and returns 0,
 * or -1 for a line with too few fields. */
int parseMethodDataBtRule(char** fields, int count);
int parseRespHeaderDataBtRule(char** fields, int count);
int parseReqHeaderDataBtRule(char** fields, int count);
int parseHttpBodyBtName(char** fields, int count);
}

namespace vx {
/* Drops every stored line: a rule file read anew starts its lists afresh. */
void bt_data_rules_clear();
}  // namespace vx

#endif
