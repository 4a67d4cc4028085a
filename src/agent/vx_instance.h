/*
 * VXProxyInstance_t: all state of one application, and the one way code
 * reaches it.
 *
 * An agent has one instance; the proxy process has one per connected
 * application. The instance is a flat structure that composes each
 * subsystem's state block by value; it is zeroed when allocated, so zero is
 * the start value of every member no init routine names. It lives until the
 * process ends.
 *
 * vx_app() gives the instance the calling thread works for: the one stored by
 * a thread the library started (or by the proxy's loop before it serves an
 * instance), else the process-wide tlvxApplication that agent_init stored.
 * Host threads never set it. A null result means the library is not
 * initialised.
 */
#ifndef VX_INSTANCE_H
#define VX_INSTANCE_H

#include <apr_hash.h>
#include <apr_pools.h>
#include <apr_thread_mutex.h>
#include <apr_thread_proc.h>

#include "agent/vx_bci_setting.h"
#include "agent/vx_feature_settings.h"
#include "agent/vx_sys.h"
#include "http/vx_http_capture_settings.h"
#include "bt/vx_bt_data_rules.h"
#include "bt/vx_bt_object.h"
#include "bt/vx_bt_rule_file.h"
#include "core/vx_atomic.h"
#include "core/vx_limits.h"
#include "core/vx_platform.h"
#include "core/vx_retire_list.h"
#include "diag/vx_exception_capture.h"
#include "diag/vx_thread_reports.h"
#include "flowpath/vx_backend_naming.h"
#include "flowpath/vx_callout.h"
#include "flowpath/vx_method_table.h"
#include "flowpath/vx_per_thread_data.h"
#include "flowpath/vx_resource_ids.h"
#include "link/vx_as_buffers.h"
#include "link/vx_as_link.h"
#include "link/vx_collector_list.h"
#include "link/vx_control_link.h"
#include "link/vx_data_buffers.h"
#include "link/vx_discovery.h"
#include "link/vx_socket.h"
#include "monitor/vx_backend_monitor.h"
#include "monitor/vx_bt_monitor.h"
#include "monitor/vx_exception_monitor.h"
#include "monitor/vx_method_monitor.h"
#include "monitor/vx_monitor_model.h"
#include "monitor/vx_percentiles.h"
#include "proxy/vx_proxy_state.h"
#include "session/vx_file_keywords.h"
#include "session/vx_metadata_replay.h"
#include "session/vx_server.h"

struct VXFlowpathGenerator_t {
    int maxCharactersInSeqBlob; /* flush threshold of the sequence blob */
};

struct VXProxyInstance_t {
    /* Identity of a registered application (proxy registry). agentName also
     * serves an agent: the pool or process name sent to the collector. */
    char* agentName;
    char* tierName;
    char* appServerName;
    char* appName;
    char* agentType;
    char* startInstMsg;
    char* tierAttr;
    char* tags;
    char* attributes;
    char* funcName;
    int tierID;
    int serverID;
    int appID;
    int processCount;
    int activeProcessCount;
    void* processInfo;
    int close_udp_thread;
    long long resetTimeInterval;
    long long totalElapsedTime;

    Server_t Server;               /* session with the collector */
    VXControlLink_t controlLink;   /* control connection, collector list, failover */
    VXDataChannel_t dataChannel;   /* data connection and its buffer lists */
    VXAutoSensorChannel_t asChannel; /* auto-sensor buffer lists */
    VXAutoSensorLink_t asLink;       /* auto-sensor connection and thread */
    VXDiscovery_t discovery;         /* loaded-class discovery: connection and worker */
    VXBCISetting_t VXBCISetting;   /* identity, collector address, request lines */
    VXSys_t VXSys;                 /* tunables and trace levels */

    apr_hash_t* fpi_tls_map;       /* proxy: decoded frame's instance -> record */


    VXBTMonitor_t VXBTMonitor;
    VXBackendMonitor_t VXBackendMonitor;
    VXMethodMonitor_t VXMethodMonitor;
    _VXExceptionMonitor_t vxExceptionMonitor;
    VXMonitorModels_t monitorModels; /* per-record counter models */
    VXMonitorSettings_t monitorSettings;
    VXPercentiles_t percentiles;     /* digest settings of BTs and backends */

    int processID;

    /* The auto-sensor thread: asked to stop (atomic), and its reports. */
    int toStopASThread;
    VXASSettings_t vxAutoSensorUsingStackTrace;
    VXThreadReports_t asReports;

    VXMethodTable_t methodTable;   /* method table and its lock */

    /* Business transactions: objects, maps, rules. */
    int bt_rule;                            /* 0 none read, 1 global, 7 pattern; atomic */
    VXBTManager manager;
    VXBTConfigModel config;
    VXBTTagManager tagManager;
    VXBTObjectStore btStore;
    VXBTGlobalRule* global_rule;            /* published; replaced whole */
    VXBTHeaderBasedRule* header_rule;       /* published; set by hosts */
    VXBTCustomRule custom_rule;
    VXBTPatternMachines* patternMachines;   /* stateMachine and stateMachineHeader, published */
    VXBTPatternMachines* btPendingMachines; /* being built by a rule file read */
    int btPatternReadAtRunTime;             /* pattern lines of a run-time read are being applied */
    void* vx_trie_node;                     /* custom rules' automaton */
    VXBTDataRules_t btDataRules;
    apr_thread_mutex_t* btMapLock;          /* one branch of the global rule */
    vx::RetireList btRetired;               /* under bt_obj_map_lock */

    VXFlowpathGenerator_t VXFlowpathGenerator;

    /* Callouts: backend naming rules, callers of other tiers, resources. */
    VXBackendNaming_t backendNaming;
    VXTierCallers_t tierCallers;
    VXResources_t resources;

    /* Settings of features built later, filled by the collector's keywords. */
    VXAutoInstrumentation_t vxAutoInstrumentation;
    VXInterfaceProcessor_t VXInterfaceProcessor;
    VXDynamicSettings_t vxDynamicSettings;
    VXSQLProcessor_t VXSQLProcessor;
    /* Exception capture: settings, next ids, dictionaries (made on first
     * use, read with acquire). */
    VXException_t vxException;
    VXExceptionIDS_t vxExceptionIDS;
    vx::ExceptionDictionaries* exceptionDicts;
    VXHttpSettings_t httpSettings;

    /* Metadata replay: the request's and the data thread's managers. */
    VXMetadataReplay_t metadataReplay;

    /* Files the collector served, by keyword index. */
    keywordInfo kywdInfo[vx::kFileKeywordSlots];

    apr_hash_t* fpiToTLS;          /* flowpathInstanceStr -> running record */

    int instrumentSleep;
    int vxProxyMode;

    /* Global classification thresholds and state-machine sizes. */
    int allSlow;
    int allVerySlow;
    int maxStates;
    int skipCount;

    int dumpHeartBeatforLog;
    long long lastLogSentTime;

    VXAgentSetting_t VXAgentSetting;

    int init_flag;
    int InstrFileData_flag;
    int isRunTime;
    int isModifiedHashmap;

    long long TimeOut;
    void* httpHashMapNode;         /* apr_hash_t: header name -> httpHeaderInfo */
    apr_thread_mutex_t* httpEntryLock;
    int httpid;
    int resourceMetaID;
    int enable_DD_AI;
    int reqCount;
    int xPathCount;

    apr_pool_t* control_pool;      /* nearly everything long-lived comes from here */
    int hash_count;

    /* Trace-log routing to the local proxy. */
    char* agentLogBuffer;
    int sendLogsToProxy;           /* 0 off, 1 file, 2 to the proxy */
    apr_thread_mutex_t* agentLogBufferLock;

    int lws_active;
    int proxy_lws_active;

    VXTLSPool_t tlsPool;           /* per-transaction records */

    apr_hash_t* threadIdToThreadLocal; /* thread callouts' placeholders */

    void* vxTDHashMap;             /* host key -> record, with enableProxyServer */
    apr_thread_mutex_t* vxTDHashMapLock;

};

extern "C" {

extern VXProxyInstance_t* VXProxyInstance;    /* base of the instance array */
extern VXProxyInstance_t* VXProxyUdpInstance; /* the proxy's UDP instances */
extern VXProxyInstance_t* tlvxApplication;    /* the instance agent_init made */
extern char gPool[vx::kNameSize];
extern char gProcessName[vx::kNameSize];
extern char* pool_name;
extern char* proc_name;
extern apr_pool_t* proxy_pool;
extern char conf_file[vx::kPathSize];

/* Set to ask the control thread to stop; it clears it as it goes. */
extern int closeCtrlThread;
/* The position in vxc_server_arr that get_active_vxc returns. */
extern int active_vxc_idx;
}

namespace vx {
extern thread_local VXProxyInstance_t* tl_instance;
}

/* The instance the calling thread works for; null before agent_init. */
inline VXProxyInstance_t* vx_app()
{
    VXProxyInstance_t* t = vx::tl_instance;
    return t ? t : tlvxApplication;
}

/* Bind the calling (library) thread to `app`. */
inline void vx_set_thread_instance(VXProxyInstance_t* app) { vx::tl_instance = app; }

/* The process's role. "Proxy mode" has two senses: an agent that talks to
 * a local proxy rather than to the collector (it leaves monitors, tags and
 * most flowpath work to the proxy), and the proxy process itself, whose
 * thread records stand for remote flowpaths. Every role test goes through
 * one of these two. */
inline bool vx_in_proxy_process() { return VXProxy.proxyServerFlag != 0; }

inline bool vx_agent_behind_proxy(const VXProxyInstance_t* app)
{
    return app->VXSys.proxyMode == 1 && !vx_in_proxy_process();
}

/* Now on the agent's clock, the one records and reports carry: ms since
 * the collector's epoch (klvEpochDiffTime). */
inline long long vx_agent_now(const VXProxyInstance_t* app)
{
    return my_gettimeofday() - vx::load_relaxed(app->Server.klvEpochDiffTime);
}

/* A VXSys trace level of the current instance, 0 without one. */
#define VX_LEVEL(field) (vx_app() ? vx_app()->VXSys.field : 0)

#endif
