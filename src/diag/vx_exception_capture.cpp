#include "diag/vx_exception_capture.h"

/* STAND-IN(exceptions). */
extern "C" int getExceptionCaptureMode(void) VX_NOEXCEPT
{
    return 0;
}
