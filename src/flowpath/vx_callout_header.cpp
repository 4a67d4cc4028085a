#include "flowpath/vx_callout_header.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "agent/vx_bci_setting.h"
#include "agent/vx_instance.h"
#include "core/vx_encode.h"
#include "core/vx_limits.h"
#include "core/vx_text.h"
#include "core/vx_trace_log.h"
#include "flowpath/vx_backend_naming.h"
#include "flowpath/vx_method_table.h"
#include "flowpath/vx_per_thread_data.h"

namespace {

const char* or_empty(const char* s)
{
    return s ? s : "";
}

/* The record's header buffer, at least `need` bytes. Null out of memory. */
char* header_buffer(VXPerThreadData_t* vxTD, int need)
{
    if (vxTD->tierCallOutHeader && vxTD->tierCallOutHeaderLen >= need) return vxTD->tierCallOutHeader;
    auto* grown = static_cast<char*>(realloc(vxTD->tierCallOutHeader, static_cast<size_t>(need)));
    if (!grown) return nullptr;
    vxTD->tierCallOutHeader = grown;
    vxTD->tierCallOutHeaderLen = need;
    return grown;
}

}  // namespace

extern "C" char* getTierCallOut(VXPerThreadData_t* vxTD, char* backendName) VX_NOEXCEPT
{
    VXProxyInstance_t* app = vx_app();
    if (!vxTD || !app) return nullptr;
    ++vxTD->seqNum;

    char backend[vx::kCalloutHeaderSize] = "NA";
    if (backendName) {
        char rule[kBackendRuleSize];
        vx::copy_text(rule, sizeof rule, vx::backend_rule(kMethodTypeHttp));
        char name[kBackendNameSize];
        settingBackendName(backendName, rule, name, sizeof name);
        char prefixed[kBackendNameSize + 5];
        snprintf(prefixed, sizeof prefixed, "HTTP_%s", name);
        encoded_with_underscore(backend, sizeof backend, prefixed);
    }

    const long long first = vxTD->firstFlowpathInstance ? vxTD->firstFlowpathInstance : vxTD->flowpathInstance;
    const char* mark = vxTD->tlIsForceDump ? "F" : "";
    char seq[vx::kCalloutHeaderSize];
    if (vxTD->prevTierSeq)
        snprintf(seq, sizeof seq, "%s.%lld", vxTD->prevTierSeq, vxTD->seqNum);
    else
        snprintf(seq, sizeof seq, "%lld.%lld", vxTD->tlThreadId, vxTD->seqNum);
    char text[vx::kCalloutHeaderSize];
    const int n = snprintf(text, sizeof text, "%lld%s_%lld%s_%s_%s_%lld_NA_%s_%s_%s", first, mark,
                           vxTD->flowpathInstance, mark, seq, backend, vx_agent_now(app),
                           or_empty(getencodedTierName()), or_empty(getencodedAppServerName()),
                           or_empty(getencodedAppName()));
    const int len = n < static_cast<int>(sizeof text) ? n : static_cast<int>(sizeof text) - 1;
    char* out = header_buffer(vxTD, len + 1);
    if (!out) {
        VX_ERROR("FLOWPATH", "Out of memory for the correlation header of '%lld'", vxTD->flowpathInstance);
        return nullptr;
    }
    memcpy(out, text, static_cast<size_t>(len) + 1);
    vxTD->tierCallOutSeqNum = vxTD->seqNum;
    return out;
}
