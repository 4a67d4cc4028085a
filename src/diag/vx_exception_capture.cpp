#include "diag/vx_exception_capture.h"

/* STAND-IN (issue: exception capture). */
extern "C" int getExceptionCaptureMode(void) VX_NOEXCEPT
{
    return 0;
}
