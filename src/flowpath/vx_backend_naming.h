/*
 * Backend names. A callout's backend comes to the agent as a description,
 * "|"-separated items by position (protocol, host, port, URL or query,
 * database product or query parameter, database name, product version,
 * driver name and version, user name, service name). A naming rule per kind
 * of backend (HTTP, DB, MQ) picks the items that make its name: rule
 * "Host_Port" names "http|db1|5432|/x" "db1_5432". The rules come in a file
 * the collector serves, lines "type|item,item,..."; without one the rule of
 * every kind is "Host".
 *
 * Threads: the rules are published whole with one atomic pointer and read
 * without a lock on the host's callout path; a file replaces them under the
 * method lock on the control thread, and the replaced set is released a grace
 * time later.
 */
#ifndef VX_BACKEND_NAMING_H
#define VX_BACKEND_NAMING_H

#include "core/vx_retire_list.h"

inline constexpr int kBackendRuleSize = 1025;  /* rule text, terminator included */
inline constexpr int kBackendNameSize = 1025;  /* generated name, terminator included */

/* The naming rule of each kind of backend ("" when the file gave none). */
struct VXBackendRules_t {
    char http[kBackendRuleSize];
    char db[kBackendRuleSize];
    char mq[kBackendRuleSize];
};

struct VXBackendNaming_t {
    VXBackendRules_t* backendNameHashMap; /* published; replaced whole; null: "Host" */
    vx::RetireList retired;               /* under the method lock */
    int version;                          /* rises at each publish; atomic */
};

extern "C" {
/* Read a naming rule file: each valid line replaces its kind's rule; kinds the
 * file does not name fall back to "Host". Control thread. */
void parseBackendRuleFile(char* buffer);
/* Drop every rule (each kind falls back to "Host"). */
void free_backendNameHashMap(void);

/* The backend's name from `buffer` (the description) by `backendValue` (the
 * rule) into `backendName` of `backend_len` bytes. A description without "|"
 * is the name as it stands. Returns `backendName`, or null for a null
 * `buffer`. */
char* settingBackendName(char* buffer, char* backendValue, char* backendName, int backend_len);
}

namespace vx {
/* The rule for a callout of method type `type` ("DB" for database calls, "MQ"
 * for message queues, "HTTP" otherwise), or "Host". Any thread. */
const char* backend_rule(int type);
}

#endif
