#include "flowpath/vx_callout_header.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "agent/vx_bci_setting.h"
#include "agent/vx_instance.h"
#include "core/vx_encode.h"
#include "core/vx_limits.h"
#include "core/vx_text.h"
#include "core/vx_text_writer.h"
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

    char backend[vx::kCalloutHeaderSize];
    strcpy(backend, "NA");
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
    char text[vx::kCalloutHeaderSize];
    vx::TextWriter w(text, sizeof text);
    w.write(first, mark, '_', vxTD->flowpathInstance, mark, '_');
    if (vxTD->prevTierSeq)
        w.put(vxTD->prevTierSeq);
    else
        w.put(vxTD->tlThreadId);
    w.write('.', vxTD->seqNum, '_', backend, '_', vx_agent_now(app), "_NA_", or_empty(getencodedTierName()),
            '_', or_empty(getencodedAppServerName()), '_', or_empty(getencodedAppName()));
    w.finish();
    const int len = static_cast<int>(w.stored());
    char* out = header_buffer(vxTD, len + 1);
    if (!out) {
        VX_ERROR("FLOWPATH", "Out of memory for the correlation header of '%lld'", vxTD->flowpathInstance);
        return nullptr;
    }
    memcpy(out, text, static_cast<size_t>(len) + 1);
    vxTD->tierCallOutSeqNum = vxTD->seqNum;
    return out;
}
