#include "http/vx_http_capture.h"

/* STAND-IN(http-capture). */
extern "C" void httpReqRespWrapper(VXPerThreadData_t* vxTD, char* buffer, char* type,
                                   int statusCode) VX_NOEXCEPT
{
    (void)vxTD;
    (void)buffer;
    (void)type;
    (void)statusCode;
}
