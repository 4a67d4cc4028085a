#include "diag/vx_autosensor_thread.h"

#include <apr_strings.h>
#include <apr_time.h>

#include <cstdlib>

#include "agent/vx_instance.h"
#include "core/vx_atomic.h"
#include "core/vx_platform.h"
#include "core/vx_thread.h"
#include "core/vx_trace_log.h"
#include "diag/vx_thread_reports.h"
#include "link/vx_as_buffers.h"
#include "link/vx_as_link.h"
#include "link/vx_control_link.h"
#include "monitor/vx_backend_monitor.h"
#include "monitor/vx_backend_percentiles.h"
#include "monitor/vx_bt_monitor.h"
#include "monitor/vx_bt_percentiles.h"

namespace {

struct Pacing {
    int tickMs;
    int retryMs;
};

Pacing read_pacing()
{
    return {vx::env_ms("VX_AS_TICK_MS", vx::kASTickMs, vx::kASTickMinMs, vx::kASTickMs),
            vx::env_ms("VX_AS_RETRY_MS", vx::kASRetryMs, vx::kASTickMinMs, vx::kASRetryMs)};
}

/* Reasons to end the thread: a stop asked for, the session over, the
 * control side gone. */
bool stop_due(const VXProxyInstance_t* app)
{
    return vx::load_relaxed(app->toStopASThread) || !vx::load_acquire(app->Server.testRunRunning) ||
           !vx::load_relaxed(app->Server.retryForAutoSensorConn) ||
           vx::load_relaxed(app->VXSys.retryFlag) ||
           vx::load_relaxed(app->VXSys.closeCtrlConFlag) || vx::control_closing(app);
}

/* Reasons to leave the connection: a broken send, or the collector's
 * heartbeat said so. */
bool leave_due(const VXProxyInstance_t* app)
{
    return vx::load_relaxed(app->asLink.retryFlagAS) ||
           vx::load_relaxed(app->VXSys.autosensorConnState) == 0;
}

/* Sleep `ms` in short steps; cut short when a stop is due, or (on a
 * connection) when it is to be left. */
void nap(const VXProxyInstance_t* app, int ms, bool connected)
{
    for (int slept = 0; slept < ms; slept += vx::kASSleepStepMs) {
        if (stop_due(app) || (connected && leave_due(app))) return;
        const int step = ms - slept < vx::kASSleepStepMs ? ms - slept : vx::kASSleepStepMs;
        apr_sleep(apr_time_from_msec(step));
    }
}

bool control_lost(const VXProxyInstance_t* app)
{
    return vx::load_relaxed(app->VXSys.retryFlag) || vx::load_relaxed(app->VXSys.closeCtrlConFlag);
}

/* The monitors' rows of one report, each handed to the channel as it is
 * made. An agent behind a proxy never comes here: its proxy writes them. */
void dump_monitors(VXProxyInstance_t* app, char* buf)
{
    int len = 0;
    if (vx::load_relaxed(app->VXBTMonitor.isBTMonitorOn)) {
        generateAndDumpBTMonitoringRecord(buf, &len, vx::kASWorkBufferSize);
        dumpASData(buf, len);
        len = 0;
    }
    if (vx::load_relaxed(app->VXBackendMonitor.isBackendMonitorOn)) {
        generateAndDumpBackendMonitoringRecord(buf, &len, vx::kASWorkBufferSize);
        dumpASData(buf, len);
        len = 0;
    }
    if (vx::load_relaxed(app->VXMethodMonitor.isMethodMonitorOn)) {
        generateAndDumpMethodMonitoringRecord(buf, &len, vx::kASWorkBufferSize);
        dumpASData(buf, len);
        len = 0;
    }
    if (vx::load_relaxed(app->vxExceptionMonitor.isExceptionMonitorOn)) {
        generateAndDumpExceptionMonitoringRecord(buf, &len, vx::kASWorkBufferSize);
        dumpASData(buf, len);
        len = 0;
    }
    sendASReport();
}

/* Serve one connection, a pass per tick, until it is to be left. Ends the
 * thread on a stop. */
void report_loop(VXProxyInstance_t* app, const Pacing& pacing)
{
    const VXASSettings_t& s = app->vxAutoSensorUsingStackTrace;
    long long curTimeStamp = vx_agent_now(app);
    long long nextLoggingBufferTime = curTimeStamp;
    vx::ip_percentiles_schedule(curTimeStamp);
    vx::bt_percentiles_schedule(curTimeStamp);
    for (;;) {
        checkAndStopASThread();
        if (leave_due(app)) return;
        if (control_lost(app)) cleanAutoSensorThread();
        if (vx_agent_behind_proxy(app)) {
            /* The proxy writes the monitors from the frames it receives;
             * here only the host's hand-ins travel. */
            send_AS_data();
            nap(app, pacing.tickMs, true);
            send_AS_data();
            continue;
        }
        const int sample = vx::load_relaxed(s.threadSampleInterval);
        const long long interval = vx::load_relaxed(s.threadReportInterval);
        if (sample > 0 && interval > 0 && nextLoggingBufferTime <= curTimeStamp)
            nextLoggingBufferTime +=
                ((curTimeStamp - nextLoggingBufferTime) / interval + 1) * interval;
        /* The sends around the sleep drain what other threads queued. */
        send_AS_data();
        nap(app, pacing.tickMs, true);
        send_AS_data();

        curTimeStamp = vx_agent_now(app);
        char* buf = app->asReports.workBuffer;
        if (!buf)
            VX_ERROR("AUTO_SENSOR",
                     "No memory for the monitors' rows (%d bytes); this pass skips them",
                     vx::kASWorkBufferSize);
        else {
            if (curTimeStamp >= nextLoggingBufferTime && sample > 0) dump_monitors(app, buf);
            vx::ip_percentiles_dump_due(buf, vx::kASWorkBufferSize, curTimeStamp);
            vx::bt_percentiles_dump_due(buf, vx::kASWorkBufferSize, curTimeStamp);
        }
        if (control_lost(app)) cleanAutoSensorThread();
    }
}

}  // namespace

extern "C" int getToStopThread(void)
{
    VXProxyInstance_t* app = vx_app();
    return app ? vx::load_relaxed(app->toStopASThread) : 0;
}

extern "C" void setToStopThread(int value)
{
    if (VXProxyInstance_t* app = vx_app()) vx::store_relaxed(app->toStopASThread, value);
}

extern "C" int checkAndStopASThread(void)
{
    if (!getToStopThread()) return 0;
    stopNIO();
    return 1;
}

extern "C" void VXAutoSensorUsingStackTraceInit(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    ASNioInit();
    apr_pool_t* pool = app->asChannel.autoSensor_pool;
    if (!pool) return;
    VXThreadReports_t& r = app->asReports;
    if (!r.counterLock) r.counterLock = vx::mutex_create(pool);
    if (!r.reportBuffer)
        r.reportBuffer = static_cast<char*>(apr_pcalloc(pool, vx::kASReportBufferSize));
    if (!r.workBuffer) r.workBuffer = static_cast<char*>(apr_pcalloc(pool, vx::kASWorkBufferSize));
}

extern "C" void VXAutoSensorUsingStackTraceSetup(void)
{
    VXProxyInstance_t* app = vx_app();
    const VXASSettings_t& s = app->vxAutoSensorUsingStackTrace;
    if (vx::load_relaxed(s.onlyAPICall)) return;
    asGraphDataInit();
    if (vx::load_relaxed(s.threadReportInterval) > 0) startASVXCollectorCommunication();
}

extern "C" void* APR_THREAD_FUNC start_autoSensor_thread(apr_thread_t*, void* data)
{
    auto* app = static_cast<VXProxyInstance_t*>(data);
    const Pacing pacing = read_pacing();
    createVectorPrefixForHotSpot();
    for (;;) {
        vx::store_relaxed(app->VXSys.autosensorConnState, 0);
        VXAutoSensorUsingStackTraceSetup();
        if (vx::control_closing(app)) cleanAutoSensorThread();
        report_loop(app, pacing);
        /* The connection is left; its unsent bytes stay for the next one. */
        closeAutoSensorConnection();
        checkAndStopASThread();
        VX_ERROR("AUTO_SENSOR", "Going to retry for auto sensor connection after 60 sec.");
        nap(app, pacing.retryMs, false);
        checkAndStopASThread();
        checkAndStopThreadAS();
    }
    return nullptr;
}
