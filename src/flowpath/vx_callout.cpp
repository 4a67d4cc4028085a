#include "flowpath/vx_callout.h"

#include <cstdlib>
#include <cstring>

#include "agent/vx_instance.h"
#include "core/vx_encode.h"
#include "core/vx_hashmap.h"
#include "core/vx_record_door.h"
#include "core/vx_text.h"
#include "core/vx_text_writer.h"
#include "core/vx_trace_log.h"

namespace {

constexpr int kHeaderFieldsMax = 1024;
constexpr int kMinFields = 4;
constexpr int kBackendField = 3;
constexpr int kTierField = 6;
constexpr int kServerField = 7;
constexpr int kInstanceField = 8;

/* An instance field: digits, then an "F" when the caller was forced. */
bool is_instance(const char* f)
{
    const char* p = f;
    while (*p >= '0' && *p <= '9') ++p;
    if (p == f || p - f > 19) return false;
    if (*p == 'F' || *p == 'f') ++p;
    return *p == '\0';
}

/* The caller's sequence: numbers joined by ".", as record 2 carries it. */
bool is_sequence(const char* f)
{
    if (!*f || strlen(f) > vx::kTierSeqMax) return false;
    for (const char* p = f; *p; ++p)
        if (!((*p >= '0' && *p <= '9') || *p == '.' || *p == '-')) return false;
    return true;
}

/* The text for the log: control characters shown as '?'. */
void printable_copy(char* out, size_t cap, const char* in)
{
    vx::copy_text(out, cap, in);
    for (char* p = out; *p; ++p)
        if (static_cast<unsigned char>(*p) < 0x20) *p = '?';
}

const char* field_or_empty(char** f, int n, int i)
{
    return i < n ? f[i] : "";
}

/* Remember a caller not seen before; true when it is new and kept. */
bool remember_caller(VXProxyInstance_t* app, apr_hash_t* map, const char* key, char** f, int n)
{
    if (search_hashmap(const_cast<char*>(key), map)) return false;
    if (vx::load_relaxed(app->tierCallers.count) >= vx::kATDMax) {
        VX_TRACE(app->VXSys.fpTraceLevel, 1, "FLOWPATH",
                 "Caller '%s' not kept: %d callers are known already", key, vx::kATDMax);
        return false;
    }
    auto* atd = static_cast<ATD_Struct*>(calloc(1, sizeof(ATD_Struct)));
    if (!atd) {
        VX_ERROR("FLOWPATH", "Out of memory for caller '%s'", key);
        return false;
    }
    vx::copy_text(atd->uniqueKey, sizeof atd->uniqueKey, key);
    decodeUnderscore(atd->backendname, sizeof atd->backendname, f[kBackendField]);
    decodeUnderscore(atd->tier, sizeof atd->tier, field_or_empty(f, n, kTierField));
    decodeUnderscore(atd->server, sizeof atd->server, field_or_empty(f, n, kServerField));
    decodeUnderscore(atd->instance, sizeof atd->instance, field_or_empty(f, n, kInstanceField));
    /* Two threads may bring the same new caller: one entry wins, the other
     * copy is dropped, and only the winner announces it. */
    if (!vx::insert_hashmap_if_absent(atd->uniqueKey, atd, map)) {
        free(atd);
        return false;
    }
    vx::fetch_add_relaxed(app->tierCallers.count, 1);
    if (strcmp(f[kBackendField], "NA") != 0) dumpRecord91(atd);
    return true;
}

}  // namespace

extern "C" int setTierCallOut(VXPerThreadData_t* vxTD, char* str)
{
    VXProxyInstance_t* app = vx_app();
    if (!vxTD || !str || !app) return -1;
    char* f[kHeaderFieldsMax];
    char shown[vx::kIncomingFPISize];
    printable_copy(shown, sizeof shown, str);
    const int n = tokenize(str, f, const_cast<char*>("_"), kHeaderFieldsMax);
    if (n < kMinFields) {
        VX_ERROR("FLOWPATH", "Error in received string '%s'", shown);
        return -1;
    }
    /* The chain fields go into record 2 as they stand: a header from the
     * wire whose fields are not what a caller writes is refused whole. */
    if (!is_instance(f[0]) || !is_instance(f[1]) || !is_sequence(f[2])) {
        VX_ERROR("FLOWPATH", "Error in received string '%s': not a caller's chain, ignored", shown);
        return -1;
    }
    vxTD->firstFlowpathInstance = atoll(f[0]);
    vxTD->prevFlowpathInstance = atoll(f[1]);
    free(vxTD->prevTierSeq);
    vxTD->prevTierSeq = strdup(f[2]);

    char key[kATDKeySize];
    vx::TextWriter w(key, sizeof key);
    for (int i : {kBackendField, kTierField, kServerField, kInstanceField}) w.put(field_or_empty(f, n, i));
    w.finish();
    if (!*key) return 0;
    apr_hash_t* map = app->tierCallers.mapATD;
    if (!map) {
        VX_ERROR("FLOWPATH", "Error in creating map for ATD...");
        return -1;
    }
    remember_caller(app, map, key, f, n);
    return 0;
}

extern "C" void initTierCallers(void)
{
    VXProxyInstance_t* app = vx_app();
    if (app && !app->tierCallers.mapATD) app->tierCallers.mapATD = create_hashmap(app->control_pool);
}

extern "C" void dumpRecord91(ATD_Struct* temp)
{
    VXProxyInstance_t* app = vx_app();
    if (!temp || !app) return;
    const VXBCISetting_t& s = app->VXBCISetting;
    char buf[vx::kRecord91Size];
    vx::dump_record(buf, sizeof buf, "%d,%s,%s,%s,%s,%s,%s,%s,NA\n", 91, temp->backendname, temp->tier,
                    s.tierName ? s.tierName : "", temp->server, temp->instance,
                    s.appServerName ? s.appServerName : "", s.appName ? s.appName : "");
}
