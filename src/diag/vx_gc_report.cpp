#include "diag/vx_gc_report.h"

#include <cstdio>

#include "agent/vx_instance.h"
#include "core/vx_atomic.h"
#include "core/vx_limits.h"
#include "core/vx_thread.h"
#include "link/vx_as_link.h"

extern "C" void sendGCReport(int id, char* GC_report) VX_NOEXCEPT
{
    VXProxyInstance_t* app = vx_app();
    /* Acquire: the channel and counterLock were made before the flag rose. */
    if (!app || !GC_report || !vx::load_acquire(app->VXBCISetting.autoSensor_thread_running))
        return;
    /* On the caller's stack: host threads may report at the same moment. */
    char buf[vx::kASReportBufferSize];
    const char* head = vx_agent_behind_proxy(app) ? "auto_sensor_GCDump:" : "";
    int n;
    {
        vx::VXLockGuard guard(app->asReports.counterLock); /* the prefixes */
        n = snprintf(buf, sizeof buf, "%s%d,%s0:%s|%s\n", head, id, app->asReports.vectorPrefix_ID,
                     app->asReports.vectorPrefixHtsp, GC_report);
    }
    if (n < 0) return;
    dumpAndSendDataToVXC(buf, n < vx::kASReportBufferSize ? n : vx::kASReportBufferSize - 1, 1);
}
