#include "agent/vx_agent.h"

#include <apr_atomic.h>
#include <apr_general.h>
#include <apr_signal.h>
#include <apr_strings.h>
#include <apr_time.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>

#include "agent/vx_bci_setting.h"
#include "agent/vx_instance.h"
#include "agent/vx_settings.h"
#include "agent/vx_sys.h"
#include "bt/vx_bt_object.h"
#include "core/vx_atomic.h"
#include "core/vx_hashmap.h"
#include "core/vx_text.h"
#include "core/vx_thread.h"
#include "core/vx_trace_log.h"
#include "diag/vx_autosensor_thread.h"
#include "diag/vx_exception_capture.h"
#include "diag/vx_thread_reports.h"
#include "agent/vx_trace_setup.h"
#include "flowpath/vx_method_table.h"
#include "flowpath/vx_per_thread_data.h"
#include "flowpath/vx_thread_id_map.h"
#include "link/vx_control_thread.h"
#include "link/vx_discovery.h"
#include "monitor/vx_bt_monitor.h"
#include "session/vx_session_data.h"

int startedWithExc = 0;

namespace {

void copy_name(char* dst, const char* src, const char* fallback)
{
    vx::copy_text(dst, vx::kNameSize, src ? src : fallback);
}

/* The launcher's proxy process runs the proxy loop here once it is built;
 * until then the proxy process only configures. */
void run_proxy_process() {}

void start_control_thread(VXProxyInstance_t* app)
{
    char err[256] = "";
    vx::store_relaxed(app->controlLink.control_thread_running, 1);
    if (vxlb_thread_create(&app->controlLink.control_thread_id, control_thread_entry_fun, app, err, sizeof err,
                           app->control_pool) == 0) {
        VX_TRACE(app->VXSys.controlTraceLevel, 1, "CONTROL_THREAD",
                 "Control thread created successfully... '%lld'",
                 static_cast<long long>(reinterpret_cast<intptr_t>(app->controlLink.control_thread_id)));
    } else {
        app->controlLink.control_thread_id = nullptr;
        vx::store_relaxed(app->controlLink.control_thread_running, 0);
        VX_ERROR("CONTROL_THREAD", "Error in creating control thread... '%s'", err);
    }
}

}  // namespace

extern "C" void initializeVXApplicationGlobal(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    app->VXSys.proxyMode = 0;
    app->VXSys.proxyConType = 0;
    app->asChannel.maxBuffersAS = 8;
    app->asChannel.dataBufferSizeAS = 262144;
    app->methodTable.methodIDGlobal = 1;
    app->httpid = 1;
    app->controlLink.vx_dr_state = 0;
    app->controlLink.is_switch_over = 0;
    app->controlLink.isMasterVxc = 0;
    app->enable_DD_AI = 0;
    app->resourceMetaID = 1;
    app->instrumentSleep = 0;
    app->allSlow = 3000;
    app->allVerySlow = 5000;
    app->maxStates = 128;
    app->skipCount = 0;
    app->dumpHeartBeatforLog = 0;
    app->lastLogSentTime = 0;
    app->init_flag = 1;
    app->InstrFileData_flag = 1;
    app->isRunTime = 0;
    app->isModifiedHashmap = 0;
    app->TimeOut = 60000000;
    app->reqCount = 0;
    app->xPathCount = 0;
    app->tlsPool.g_tlsidx = 0;
}

extern "C" void agent_init(char* pool, int connect_vxc, char* process_name, char* agentType,
                           char* agentVersion) VX_NOEXCEPT
{
    /* One instance per process: a second call would orphan the first. */
    if (tlvxApplication) {
        VX_ERROR("CONTROL_THREAD", "agent_init called again; the agent is already initialised");
        return;
    }
    if (apr_initialize() != APR_SUCCESS) return;
    /* apr_terminate is deliberately not registered with atexit: the host's
     * other threads may still be inside the agent while the process exits,
     * and the pools they use must outlive them. The process's end frees all. */

    const int count = startedWithExc ? vx::kProxyInstanceCount : 1;
    auto* instances = static_cast<VXProxyInstance_t*>(calloc(count, sizeof(VXProxyInstance_t)));
    if (!instances) return;
    VXProxyInstance = instances;
    tlvxApplication = instances;
    VXProxyInstance_t* app = instances;

    app->agentLogBuffer = static_cast<char*>(calloc(1, vx::kAgentLogBufferSize));
    app->sendLogsToProxy = 1;

    if (apr_pool_create(&app->control_pool, nullptr) != APR_SUCCESS ||
        apr_pool_create(&proxy_pool, nullptr) != APR_SUCCESS) {
        tlvxApplication = nullptr;
        return;
    }
    app->agentLogBufferLock = vx::mutex_create(app->control_pool);

    copy_name(gPool, pool, "DefaultPool");
    copy_name(gProcessName, process_name, "DefaultProcess");

    VXSysInit(agentType);
    VXTraceInit(gProcessName, gPool);
    VXDigestPercentileInit();
    VXBCISettingInit();
    VXASSettingInit();
    setdefaultValuesForException();

    if (!startedWithExc) {
        initializeVXApplicationGlobal();
    } else {
        initializeProxyStruct();
        VXProxy.proxyServerFlag = 1;
        setProxyVXHome(agentType);
        /* The proxy's own settings file is read here once the proxy exists. */
    }

    if (pool) {
        pool_name = strdup(pool);
        app->agentName = strdup(pool);
        setAppName(pool_name, 0, -1);
    }
    if (process_name) {
        proc_name = strdup(process_name);
        if (!pool) {
            app->agentName = strdup(process_name);
            setAppName(process_name, 0, -1);
        }
    }
    setAgentType(agentType ? agentType : const_cast<char*>("PHP"));
    setAgentVersion(agentVersion ? agentVersion : const_cast<char*>("v1.0.0"));

    /* The environment first; the file only when the environment did not
     * configure the collector. */
    if (read_env_var() != 0) read_conf_file();

    vx_check_log_file();
    app->VXSys.proxyServerFlag = vx_in_proxy_process();

    /* The pool lock exists in every role, so that a pool grown on demand by
     * the first transactions is never created twice. */
    if (apr_pool_create(&app->tlsPool.pool, app->control_pool) == APR_SUCCESS)
        app->tlsPool.tlsMutex = vx::mutex_create(app->tlsPool.pool);
    VXBTConfigModelInit();
    VXBackendMonitorInit();
    VXMethodMonitorInit();
    VXExceptionMonitorInit();
    /* The link runs what the session layer registered: command lines, and
     * the data connection's opening and end. */
    vx::session_register_hooks();

    if (connect_vxc <= 0) return;

    apr_signal_init(app->control_pool);
    apr_signal(SIGPIPE, SIG_IGN);
    if (!app->controlLink.controlThreadTmpLock) app->controlLink.controlThreadTmpLock = vx::mutex_create(app->control_pool);
    if (app->VXSys.proxyMode == 0) {
        VX_TRACE(app->VXSys.controlTraceLevel, 2, "CONTROL_THREAD",
                 "Going to create hashMap of flowpath instance to TLS");
        app->fpiToTLS = create_hashmap(app->control_pool);
        initThreadBasedModelMap();
    }
    if (!vx_in_proxy_process()) app->tlsPool.gFreeTLSHead = create_tls_pool(app->tlsPool.gBusyTLSCnt);
    app->controlLink.control_thread_id = nullptr;
    if (app->VXSys.proxyMode == 0) initVXManageTIdToTLocal();
    initTierCallers();
    initResourceIds();
    apr_atomic_init(app->control_pool);
    __atomic_store_n(&app->VXSys.rSeq, 0, __ATOMIC_RELAXED);
    app->processID = static_cast<int>(getpid());
    if (!app->methodTable.methodEntryLock) app->methodTable.methodEntryLock = vx::mutex_create(app->control_pool);
    if (app->VXSys.proxyMode == 0 && !app->vxTDHashMapLock && app->VXAgentSetting.enableProxyServer)
        app->vxTDHashMapLock = vx::mutex_create(app->control_pool);
    app->lws_active = 0;
    app->proxy_lws_active = 0;

    if (vx_in_proxy_process())
        run_proxy_process();
    else
        start_control_thread(app);
}

extern "C" void checkAllConnectionsReadyToClose(void)
{
    VXProxyInstance_t* app = vx_app();
    /* Without a control thread nobody would clear the flag. */
    vx::store_relaxed(closeCtrlThread,
                      (app && vx::load_relaxed(app->controlLink.control_thread_running)) ? 1 : 0);
    /* Polled every 50 ms rather than every second: the bound stays six
     * seconds, and a clean stop returns at once. */
    constexpr int kStepMs = 50;
    for (int waited = 0; waited < vx::kShutdownWaitSeconds * 1000; waited += kStepMs) {
        if (app && vx::load_acquire(app->VXBCISetting.autoSensor_thread_running) == 0)
            vx::store_relaxed(app->toStopASThread, 0);
        /* Acquire: once the thread cleared the flag, all it did before
         * ending is seen by the caller of agent_shutdown. */
        /* A discovery worker is inside the host's callback: its connection
         * is closed at once, and it ends when the callback returns. */
        const bool discovering = vx::discovery_closing();
        if (vx::load_acquire(closeCtrlThread) == 0 &&
            (!app || vx::load_relaxed(app->toStopASThread) == 0) && !discovering)
            break;
        apr_sleep(apr_time_from_msec(kStepMs));
    }
}

extern "C" void agent_shutdown(void) VX_NOEXCEPT
{
    VXProxyInstance_t* app = tlvxApplication;
    if (!app) return;
    VX_TRACE(app->VXSys.controlTraceLevel, 1, "CONTROL_THREAD", "closing all connections");
    setToStopThread(1);
    vx::store_relaxed(app->VXSys.closeCtrlConFlag, 1);
    checkAllConnectionsReadyToClose();
    VX_TRACE(app->VXSys.controlTraceLevel, 1, "CONTROL_THREAD", "closing all connections done");
}

extern "C" void checkEnableProxyAgent(void) VX_NOEXCEPT
{
    VXProxyInstance_t* app = tlvxApplication;
    if (!app) return;
    const char* v = getenv("VX_ENABLE_PROXY_SERVER");
    app->VXAgentSetting.enableProxyServer = v ? atoi(v) : 0;
}
