#include "link/vx_discovery.h"

/* STAND-IN(discovery). */
extern "C" void handleMessageForDiscovery(char* discover_list) VX_NOEXCEPT
{
    (void)discover_list;
}
