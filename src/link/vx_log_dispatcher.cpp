#include "link/vx_log_dispatcher.h"

/* STAND-IN (issue: application log forwarder). */
extern "C" void dumpLogMessage(VXPerThreadData_t* tlsData, char* logmsg) VX_NOEXCEPT
{
    (void)tlsData;
    (void)logmsg;
}
