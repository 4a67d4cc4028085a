#include "flowpath/vx_callout_header.h"

/* STAND-IN(callouts). */
extern "C" char* getTierCallOut(VXPerThreadData_t* vxTD, char* backendName) VX_NOEXCEPT
{
    (void)vxTD;
    (void)backendName;
    return nullptr;
}
