#include "flowpath/vx_backend_naming.h"

#include <strings.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "agent/vx_instance.h"
#include "core/vx_atomic.h"
#include "core/vx_text.h"
#include "core/vx_text_writer.h"
#include "core/vx_thread.h"
#include "core/vx_trace_log.h"
#include "flowpath/vx_method_table.h"

namespace {

constexpr int kCopySize = 1025;     /* description and rule are read up to 1024 bytes */
constexpr int kPositions = 11;      /* items a description can hold */
constexpr int kRuleRetireGraceSeconds = 60;
constexpr char kDefaultRule[] = "Host";

/* The words a rule item may abbreviate, by the description position each
 * names. An item names a position when it is a prefix of one of its words
 * (case ignored); "Query" alone names the URL-or-query position, since
 * "QueryParameter" names the next one. */
struct PositionWord {
    const char* word;
    int position;
};
constexpr PositionWord kPositionWords[] = {
    {"Protocol", 0},    {"Host", 1},           {"Port", 2},
    {"URL", 3},         {"DataBaseProductName", 4}, {"QueryParameter", 4},
    {"DataBaseName", 5}, {"DataBaseProductVersion", 6}, {"DriverName", 7},
    {"DriverVersion", 8}, {"UserName", 9},     {"ServiceName", 10},
};
constexpr int kHostPosition = 1;
constexpr int kPortPosition = 2;
constexpr int kQueryPosition = 3;

/* The positions `item` names, as a bit mask. */
unsigned positions_named(const char* item)
{
    const size_t n = strlen(item);
    if (n == 0) return 0;
    if (strcasecmp(item, "Query") == 0) return 1u << kQueryPosition;
    unsigned mask = 0;
    for (const PositionWord& w : kPositionWords)
        if (strncasecmp(item, w.word, n) == 0) mask |= 1u << w.position;
    return mask;
}

char* name_is_description(char* buffer, char* out, int len)
{
    vx::copy_text(out, static_cast<size_t>(len), buffer);
    return out;
}

VXBackendRules_t* published_rules()
{
    VXProxyInstance_t* app = vx_app();
    return app ? vx::load_acquire(app->backendNaming.backendNameHashMap) : nullptr;
}

/* Publish `fresh` (may be null) and retire what it replaces. Method lock. */
void publish_rules(VXProxyInstance_t* app, VXBackendRules_t* fresh)
{
    VXBackendNaming_t& n = app->backendNaming;
    VXBackendRules_t* old = vx::load_relaxed(n.backendNameHashMap);
    /* Readers that see the new version see the new rules. */
    vx::store_release(n.backendNameHashMap, fresh);
    vx::store_release(n.version, vx::load_relaxed(n.version) + 1);
    const apr_time_t now = apr_time_now();
    vx::retire_collect(n.retired, now, apr_time_from_sec(kRuleRetireGraceSeconds));
    if (old) vx::retire(n.retired, old, nullptr);
}

bool is_void_value(const char* v)
{
    return !*v || strcmp(v, " ") == 0 || strcmp(v, "NA") == 0 || strcmp(v, "   ") == 0;
}

/* One line "type|item,item,..." into its kind's rule; false when void. */
bool read_rule_line(char* line, VXBackendRules_t* rules)
{
    char* bar = strchr(line, '|');
    if (!bar) return false;
    *bar = '\0';
    const char* type = line;
    char* values = bar + 1;
    if (is_void_value(values)) return false;
    char* slot = nullptr;
    if (strcmp(type, "HTTP") == 0) slot = rules->http;
    else if (strcmp(type, "DB") == 0) slot = rules->db;
    else if (strcmp(type, "MQ") == 0) slot = rules->mq;
    if (!slot) return false;
    vx::TextWriter w(slot, kBackendRuleSize);
    char* state = nullptr;
    bool first = true;
    for (char* item = strtok_r(values, ",", &state); item; item = strtok_r(nullptr, ",", &state)) {
        if (!first) w.put('_');
        w.put(item);
        first = false;
    }
    w.finish();
    return !first;
}

}  // namespace

extern "C" char* settingBackendName(char* buffer, char* backendValue, char* backendName, int backend_len)
{
    if (!buffer) return nullptr;
    if (!backendName || backend_len <= 0) return backendName;
    char desc[kCopySize];
    char rule[kCopySize];
    vx::copy_text(desc, sizeof desc, buffer);
    vx::copy_text(rule, sizeof rule, backendValue ? backendValue : kDefaultRule);
    char* fields[kPositions + 1];
    const int nf = tokenize(desc, fields, const_cast<char*>("|"), kPositions + 1);
    if (nf <= 1 && !strchr(buffer, '|')) return name_is_description(buffer, backendName, backend_len);
    char* items[kPositions * 4];
    const int ni = tokenize(rule, items, const_cast<char*>("_"), kPositions * 4);

    VXProxyInstance_t* app = vx_app();
    const char* server = app && app->VXBCISetting.appServerName ? app->VXBCISetting.appServerName : "";
    char name[kCopySize];
    vx::TextWriter w(name, sizeof name);
    const int positions = nf < kPositions ? nf : kPositions;
    for (int i = 0; i < ni; ++i) {
        const unsigned mask = positions_named(items[i]);
        for (int p = 0; p < positions && mask >> p; ++p) {
            if (!(mask & (1u << p))) continue;
            const char* field = fields[p];
            if (strcmp(field, "NA") == 0 && p == kHostPosition) field = server;
            else if (strcmp(field, "NA") == 0 && p == kPortPosition) field = "Default";
            w.put(field);
            w.put('_');
        }
    }
    w.finish();
    size_t len = strlen(name);
    if (len == 0) return name_is_description(buffer, backendName, backend_len);
    if (name[len - 1] == '_') name[--len] = '\0';
    vx::copy_text(backendName, static_cast<size_t>(backend_len), name);
    return backendName;
}

extern "C" void parseBackendRuleFile(char* buffer)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    auto* rules = static_cast<VXBackendRules_t*>(calloc(1, sizeof(VXBackendRules_t)));
    if (!rules) {
        VX_ERROR("CONTROL_THREAD", "Out of memory for the backend naming rules; the old ones stay");
        return;
    }
    /* The file stays as served: lines are cut in a copy. */
    std::string text = buffer ? buffer : "";
    int valid = 0;
    char* state = nullptr;
    for (char* line = strtok_r(text.data(), "\r\n", &state); line;
         line = strtok_r(nullptr, "\r\n", &state)) {
        if (*line == '#') continue;
        char copy[kCopySize];
        vx::copy_text(copy, sizeof copy, line);
        if (read_rule_line(copy, rules))
            ++valid;
        else
            VX_TRACE(app->VXSys.controlTraceLevel, 1, "CONTROL_THREAD",
                     "Backend naming rule '%s' is not valid; it is skipped", line);
    }
    VX_TRACE(app->VXSys.controlTraceLevel, 1, "CONTROL_THREAD",
             "Backend naming rules read: %d valid line(s)", valid);
    vx::VXLockGuard guard(app->methodTable.methodEntryLock);
    publish_rules(app, rules);
}

extern "C" void free_backendNameHashMap(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    vx::VXLockGuard guard(app->methodTable.methodEntryLock);
    publish_rules(app, nullptr);
}

const char* vx::backend_rule(int type)
{
    const VXBackendRules_t* r = published_rules();
    if (!r) return kDefaultRule;
    const char* rule = type == kMethodTypeDatabase       ? r->db
                       : type == kMethodTypeMessageQueue ? r->mq
                                                         : r->http;
    return *rule ? rule : kDefaultRule;
}
