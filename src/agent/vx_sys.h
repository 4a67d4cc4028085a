/*
 * VXSys: the agent's system-wide tunables and trace levels, and
 * VXAgentSetting. Values come from VXSysInit, then from the settings file and
 * the collector's keywords.
 */
#ifndef VX_SYS_H
#define VX_SYS_H

#include "core/vx_limits.h"

struct VXMessage_t;

struct VXSys_t {
    char* vxBuild;
    char* vxHomePath;
    char* latestBuild;
    char captureChildFPCPUTime;
    char* KPCookieName;
    char* supportedProtocolsString;
    int fpTraceLevel;
    int btMonitorTraceLevel;
    int bciInstrSessionPct;
    int backendMonTraceLevel;
    int methodMonTraceLevel;
    int threadMonTraceLevel;
    int exceptionTraceLevel;
    int controlTraceLevel;
    int agentTraceLevel;
    int agentHSTraceLevel;
    int agentADTraceLevel;
    int agentPCTraceLevel;
    int agentEXTraceLevel;
    int rSeq; /* atomic sequence of flowpath instances */
    int enableForcedFlowpathChainMode;
    int enableCpuTime;
    int bciDataBufferMaxSize;
    int dataBuffMaxCount;
    int bciASDataBufferMaxSize;
    int ASDataBuffMaxCount;
    int ASDataBuffMinCount;
    int discardCount;
    int vxcBciDataConnectionHeartBeat;
    long long bciStartUpTime;
    long long flowPathInstanceInitialID;
    long long timeStampMask;
    long long seqNoDigits;
    long long seqNumMask;
    long long traceMaxSize;
    long long bciMaxNonServiceMethodsPerFP;
    long long vxcHeartBeatThreshold;
    int enableIPResourceURL;
    short retryFlag;
    short closeCtrlConFlag;
    int methodEntryDepth2SetCookie;
    int methodExitDepth2SetCookie;
    int cookieOnResponseCommit;
    int headerInResponse;
    long long vxSessionIdleTimeOutSecs;
    int maxFPCountInSession;
    char xSessionCookieName[vx::kCookieNameSize];  /* "X-" and the cookie's name */
    char vxSessionCookieName[vx::kCookieNameSize];
    char cookieDomainName[vx::kCookieNameSize];    /* "" for none */
    int enableFPHdrInRep;
    int enableVXSession;
    char captureCorrelationEnabled;
    char correlationIdHeader[vx::kCorrelationHeaderNameSize];
    int hashMapClearTime;
    int vxEnableTxHotspot;
    int vxHelperDepth;
    int vxHotspotThreadLimit;
    int enableOTELStandard;
    int enableGoroutineMonitor;
    int enableGCMonitor;
    short captureMethodForAllFP;
    int maxHttpBodySize;
    int btRuleOverriedPolicy;
    int backendErrorDetectionMode;
    char enableExceptionInSeqBlob;
    int proxyMode;
    int proxyServerFlag;
    int proxyConType;
    char* proxyIP;
    int proxyPort;
    int enableDBBackendName;
    int dataConnState;
    int autosensorConnState;
    int enableProcessNotificationPhase;
    int enableUpdateLogMsgForLQ;
    int enableCallBackException;
    int enableDBQueryParamValues;
    char* AgentprocessName;
    char enableCaptureDataOutsideTxn;
    char dumpCaptureDataOutsideTxn;
    char dumpDebugData;
    int enableExceptionMonitor;
    long long memoryProfilingStartTime;
    int mtxlockSessionRunning;
    int enableTagsSupport;
    int arTagEncode[256]; /* character map for tag keys and values */
    VXMessage_t* vxMSG;
};

struct VXAgentSetting_t {
    int proxyPort;
    int enableProxyServer; /* hosts name transactions by their own key */
};

extern "C" {

/* Fill VXSys with its start values and run the sub-initialisers. */
void VXSysInit(char* agent_type);

void InitializeTagEncodeArray(void);
void setBCIStartUpTime(void);
long long getBCIStartUpTime(void);

/* Home directory: $VXHOME, else "/opt/kelvane/vexlane/", plus "/<type>". */
void setVXHome(char* agent_type);
void setProxyVXHome(char* agent_type);
char* getVXHome(void);
void setAgentPath(char* agent_path, char* path, char* agnt_type);

/* Read "<home>/version" into *value (a heap copy, kept while the text is
 * unchanged; a replaced copy is not freed, as other threads may hold it).
 * 0, or 1 without the file. Thread: the control thread; readers load
 * *value with vx::load_acquire. */
int setVxBuild(char** value);
char* getVxBuild(void);
long long getPID(void);

void VXAgentSettingInit(void);

int getEnableTxHotspot(void);
int getHelperDepth(void);
int getHotspotThreadLimit(void);
int getEnableDBBackendName(void);
char* getCorrelationIdHeader(void);
int isCpuAtFlowpathLevel(void);
}

#endif
