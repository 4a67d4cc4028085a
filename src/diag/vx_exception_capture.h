/*
 * Exception capture: exceptions the host reports in a flowpath, their
 * dictionaries and record 38.
 *
 * STAND-IN(exceptions): nothing is captured yet, so the mode
 * reads 0 (off) and hosts are not asked to report exceptions.
 */
#ifndef VX_EXCEPTION_CAPTURE_H
#define VX_EXCEPTION_CAPTURE_H

#include "vx_sdk.h"

extern "C" {
/* exceptionCaptureMode: 0 off, 1 or 2 on. */
int getExceptionCaptureMode(void) VX_NOEXCEPT;
}

#endif
