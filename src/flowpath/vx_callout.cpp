#include "flowpath/vx_callout.h"

#include <cstdlib>
#include <cstring>

#include "agent/vx_instance.h"
#include "core/vx_text.h"
#include "core/vx_trace_log.h"

extern "C" int setTierCallOut(VXPerThreadData_t* vxTD, char* str)
{
    if (!vxTD || !str) return -1;
    int separators = 0;
    for (const char* p = str; *p; ++p) separators += (*p == '_');
    if (separators < 3) {
        VX_ERROR("FLOWPATH", "Error in received string '%s'", str);
        return -1;
    }
    char* f[1024];
    tokenize(str, f, const_cast<char*>("_"), 1024);
    vxTD->firstFlowpathInstance = atoll(f[0]);
    vxTD->prevFlowpathInstance = atoll(f[1]);
    free(vxTD->prevTierSeq);
    vxTD->prevTierSeq = strdup(f[2]);
    return 0;
}

/* STAND-IN(callouts): backend naming rules. */
extern "C" void settingBackendName(char* buffer, char* rule, char* out, int len)
{
    (void)rule;
    if (out && len > 0) vx::copy_text(out, static_cast<size_t>(len), buffer);
}

/* STAND-IN(callouts): resource ids of callout URLs. */
extern "C" long long getIDForIPResourceURL(char* buffer)
{
    (void)buffer;
    return 0;
}
