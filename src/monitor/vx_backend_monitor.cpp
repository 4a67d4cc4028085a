#include "monitor/vx_backend_monitor.h"

/* STAND-IN(monitors): call sites of the backend and method monitors. */
extern "C" void checkAndIncrementAggrBackendDataArray(methodPropProperties*) {}

extern "C" void checkAndIncrementAggrMethodDataArray(methodPropProperties*) {}

extern "C" void updateCounterAndDurationForBackend(VXPerThreadData_t*, methodPropProperties*,
                                                   long long, int)
{
}

extern "C" void updateCounterAndDurationForMethod(VXPerThreadData_t*, methodPropProperties*, long long)
{
}
