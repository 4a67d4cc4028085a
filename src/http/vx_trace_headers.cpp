#include "http/vx_trace_headers.h"

/* STAND-IN(trace-context). */

extern "C" char* get_otl_traceparent_header(VXPerThreadData_t* vxTD) VX_NOEXCEPT
{
    (void)vxTD;
    return nullptr;
}

extern "C" char* get_otl_tracestate_header(VXPerThreadData_t* vxTD) VX_NOEXCEPT
{
    (void)vxTD;
    return nullptr;
}

extern "C" void get_propagation_header(VXPerThreadData_t* vxTD, char* str) VX_NOEXCEPT
{
    (void)vxTD;
    (void)str;
}
