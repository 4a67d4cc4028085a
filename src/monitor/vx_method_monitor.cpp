#include "monitor/vx_method_monitor.h"

/* STAND-IN(method-monitor): call sites of the method monitor. */
extern "C" void checkAndIncrementAggrMethodDataArray(methodPropProperties*) {}

extern "C" void updateCounterAndDurationForMethod(VXPerThreadData_t*, methodPropProperties*,
                                                  long long)
{
}
