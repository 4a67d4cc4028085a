#include "link/vx_log_dispatcher.h"

/* STAND-IN(log-forwarder). */
extern "C" void dumpLogMessage(VXPerThreadData_t* tlsData, char* logmsg) VX_NOEXCEPT
{
    (void)tlsData;
    (void)logmsg;
}
