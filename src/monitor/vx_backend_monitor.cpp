#include "monitor/vx_backend_monitor.h"

#include "agent/vx_instance.h"
#include "core/vx_thread.h"
#include "monitor/vx_percentiles.h"

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

void vx::ip_percentiles_keyword(const char* keyword, char* value)
{
    VXPercentiles_t& p = vx_app()->percentiles;
    vx::VXLockGuard guard(p.lock);
    percentile_settings_parse(p.TDigestPercentileIP, keyword, value);
}
