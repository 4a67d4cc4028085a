#include "http/vx_trace_context.h"

#include <cstring>

int arrPropagationHeaders[3] = {0, 0, 0};
int arSpanType[5] = {0, 0, 0, 0, 0};

/* STAND-IN(trace-context). */

extern "C" void init_propagation_header(Propheaderdata* pdata)
{
    if (pdata) memset(pdata, 0, sizeof *pdata);
}

extern "C" int store_propagation_header(Propheaderdata*, const char*, char*) { return 0; }

extern "C" void Validate_propheader(VXPerThreadData_t*, Propheaderdata*, int) {}

extern "C" void OTL_headers(VXPerThreadData_t*, char*) VX_NOEXCEPT {}
