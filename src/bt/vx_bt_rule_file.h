/*
 * The BT rule file and the BT threshold file: their grammar, and the rule
 * structures that classification executes.
 *
 * A rule file is read in three passes: kinds 2, 3, 4, 5, 8, 9, 10 and 11 act
 * where they stand; pattern lines (7) are then compiled into new state
 * machines, so that kinds 4 and 5 count wherever they stand; a global line
 * (1) is taken only when no pattern line was. Precedence at execution:
 * pattern over custom over global.
 *
 * The reader takes content; vxbt_read_*_path load a file first. Request
 * threads read the rule set without a lock, so nothing they can reach is
 * changed in place: new machines, a new global rule and a new header rule
 * are built aside and published with one atomic pointer store each, and
 * what they replace is retired (freed no earlier than a grace after, at a
 * session's clean-up).
 *
 * Threads: the readers run on one thread at a time (the control thread, or
 * the agent's start); bt_rule and the published pointers are atomic.
 */
#ifndef VX_BT_RULE_FILE_H
#define VX_BT_RULE_FILE_H

#include "bt/vx_url_state_machine.h"
#include "core/vx_limits.h"

struct VXLBKeywordLexicon;

/* bt_rule: which kind of rule classifies requests. */
inline constexpr int kBTRuleNone = 0;
inline constexpr int kBTRuleGlobal = 1;
inline constexpr int kBTRulePattern = 7;

/* Dynamic part of a global rule's name. */
inline constexpr int kSegTypeSegments = 3;
inline constexpr int kSegTypeMethod = 4;
inline constexpr int kSegTypeParameter = 5;
inline constexpr int kSegTypeHeader = 6;

inline constexpr char kDefaultGlobalRule[] =
    "1|2|Default|Segments-Of-URI-With-Dynamic-Part-Of-Request|FromFirst|2|Request-Header|"
    "CustomeHeader|-";

struct VXBTGlobalRule {
    int rule_mode; /* 1 URL, 2 segments, 3 URL + dynamic part, 4 segments + dynamic part */
    char parameter[vx::kBTGlobalParamSize];
    char parameter_at_start[vx::kBTGlobalParamKeySize]; /* "name=" */
    int parameter_at_start_len;
    char parameter_at_end[vx::kBTGlobalParamKeySize]; /* "&name=" */
    int parameter_at_end_len;
    char header[vx::kBTGlobalParamSize]; /* "name=" */
    int include_uri_in_name_order;       /* 0 whole URL, 1 from the first, 2 from the last */
    int include_uri_in_name_segment;
    int seg_type;
    int uri_seg_no_list[vx::kBTUriSegMax];
    int uri_seg_no_list_length;
};

struct VXBTPatternBasedRule {
    char transactionName[vx::kBTRuleTextSize];
    int transactionId;
    char matchType;
    char pattern[vx::kBTRuleTextSize];
    char excludeMode;
    char patternMode;
    char parameter[vx::kBTRuleTextSize];
    char httpMethod[vx::kBTRuleTextSize];
    char BTHeaderName[vx::kBTRuleTextSize];
    char BTHeaderValue[vx::kBTRuleTextSize];
    int selfRuleId;
    int parentRuleId;
};

struct URIParamObject {
    char parameterName[256];
    char checkExistence;
    char parameterValue[256];
    char parameterOperation;
};

struct VXBTCustomRule {
    char chkExistence;
    char activateReversCondition;
    char setEnabled;
    char UriOperationType;
    char matchHttpMethod;
    char HTTPMethod[64];
    char rule_name[128];
    char setRuleName[256];
    char MatchUriValue[256];
    int rule_mode; /* read by request threads: atomic */
    int match_only_uri_count;
    unsigned match_only_param_count;
    unsigned priority;
    unsigned keyword_count;
    VXLBKeywordLexicon* dictionary;
    URIParamObject* matchingURIParamObj[vx::kBTCustomParamObjects];
};

/* A header-named BT, set by a host through parse_header_rule. */
struct VXBTHeaderBasedRule {
    char headerName[vx::kBTRuleTextSize];
    char headerValue[vx::kBTRuleTextSize];
};

/* The two pattern machines, published together. */
struct VXBTPatternMachines {
    vxlbStateMachine stateMachine;
    vxlbStateMachineforHeader stateMachineHeader;
};

extern "C" {
/* Reads a rule file's content; sets bt_rule. 0. */
int vxbt_read_rule_file(char* filedata);
/* Reads a threshold file's content; -1 when null or empty. */
int vxbt_read_threshold_file(char* filedata);

/* `data` must be a writable buffer of kBTRuleLineSize bytes. 0. */
int parse_global_rule(char* data);
/* 0, or -1 for a refused line. */
int parse_pattern_rule(char* line, int* init_state_machine);
int parse_custom_rule(char* data);
int parse_exclusion_rule(char* data);
int parse_skip_character(char* line);
int parse_max_state(char* line);

/* Takes the next line (cut to kBTRuleLineSize - 1 characters, the rest of
 * it skipped) out of *buffer and advances it; null when it has run out. */
char* getNextLine(char* line, int size, char** buffer);
/* Loads a file whole into *file_buf (malloc'd, terminated); 0 or -1. */
int getLineFromFile(char* filedata, char** file_buf);

int getOperationType(char* text);
int getHTTPMethodValue(char* method);
}

namespace vx {

/* The file readers by path (the home directory's files at set-up). */
int bt_read_rule_path(const char* path);
int bt_read_threshold_path(const char* path);

/* The published rule set, for request threads. */
const VXBTPatternMachines* bt_pattern_machines();
const VXBTGlobalRule* bt_global_rule();
const VXBTHeaderBasedRule* bt_header_rule();

/* Drops the rule set at model set-up: machines, global and header rules
 * retired, custom rule and data rules cleared, bt_rule 0. */
void bt_rules_reset();

}  // namespace vx

#endif
