/*
 * The keyword table: how the collector configures a session by name.
 *
 * A start or modify message is a list of "key=value" fields. keywordsMap has
 * one row per keyword: either a parser that interprets the value, or a
 * setter (which structure) with a fill function (which value type), an
 * offset and a length (where and how many bytes). Adding a setting means
 * adding a row. The row number is the keyword's index (kw::Index); the file
 * keywords stay among the first 127 rows (the fetched-file table) and the
 * profile triple sits at rows 55, 56 and 57.
 *
 * Everything here runs on the control thread.
 */
#ifndef VX_KEYWORDS_H
#define VX_KEYWORDS_H

#include <cstddef>

#include "core/vx_limits.h"

using KeywordParser = void (*)(char* value, char* keyword, int index);
using KeywordSetter = void (*)(int index, char* value);
using KeywordFill = void (*)(char* target, char* value, int length);

struct keywordsInfo {
    char name[32];
    int offset; /* -1 for a parser row */
    int length; /* bytes to store; 0 for a parser row */
    KeywordParser parser;
    KeywordSetter setter;
    KeywordFill fill_data;
    /* A number row's accepted values; a value outside is refused and the
     * member keeps its value. LLONG_MIN..LLONG_MAX: any. */
    long long min;
    long long max;
};

inline constexpr int _MAX_KW = 136;
inline constexpr int kFileKeywordSlots = vx::kFileKeywordSlots;

namespace kw {
/* One enumerator per keyword, in table order. */
enum Index : int {
    /* File keywords. */
    BTRuleConfig, BTTConfig, BTErrorRules, HTTPStatsCondCfg, VXHTTPRepHdrCfgListFullFp,
    VXHTTPReqHdrCfgListL1Fp, vxExceptionMonFile, vxMethodMonFile, VXAppLogFile, vxBackendMonFile,
    vxBackendNamingRulesFile, generateExceptionConfFile, klvKPURLFile, VXEntryPointsFile,
    VXInterfaceFile, saveConfigFiles, vxHttpHdrCaptureFileList, vxILRewritterFile, vxModuleFile,
    vxProcessesFile, vxPoolFile, vxCriticalFileList, blackListForDebugSession,
    vxDynamicDiagnosticsConfFile,
    /* Direct rows. */
    status, fpVersionID, TimeStampDiff, numInstrProfile, setthresholdTime, appID, vxAppServerID,
    tierID, enableForcedFPChain, bciDataBufferMaxCount, bciDataBufferMaxSize, ASDataBufferSize,
    ASDataBufferMaxCount, ASDataBufferMinCount, BCITraceMaxSize, BTRuleOverridePolicy,
    vxEnableDebugMode, enableFPTrace, enableBTMonitorTrace, enableBackendMonTrace,
    vxMethodMonTraceLevel, enableThreadMonTraceLevel, captureExceptionTraceLevel,
    ControlThreadTraceLevel, AgentTraceLevel, AgentHSTraceLevel, AgentADTraceLevel,
    AgentPCTraceLevel, AgentEXTraceLevel, interfaceTraceLevel, maxCharInSeqBlob,
    /* The profile triple: rows 55, 56, 57. */
    instrProfile, lmd, size,
    /* More direct rows. */
    enableIPResourceURL, hashMapClearTime, vxEnableTxHotspot, vxHelperDepth, vxHotspotThreadLimit,
    captureMethodForAllFP, maxHttpBodySize, bciMaxNonServiceMethodsPerFP, bciInstrSessionPct,
    vxcHeartBeatThreshold, enableDBBackendName, enableProcessNotificationPhase,
    enableUpdateLogMsgForLQ, enableCallBackException, enableDBQueryParamValues, autoInstrMapSize,
    autoInstrTraceLevel, autoInstrSampleInterval, autoInstrSampleThreshold,
    autoInstrMaxAvgDuration, autoInstrPct, autoDeInstrPct, VXLQFlushInterval,
    fileBasedKeywordMode, InstrTraceLevel,
    /* Rows with a parser. */
    vxFlowpathMasks, testIdx, klvEpochDiff, enableCpuTime, hbWDir, appName, tierName,
    vxAppServerHost, DBIPName, ASSampleInterval, ASReportInterval, ASThresholdMatchCount,
    ASStackComparingDepth, ASReportDumpMode, ASEnableHotspotRecord, vxMonitorInterval,
    enableBTMonitor, maxBTCount, doNotDiscardFlowPaths, enableBTMonitorError, BTAggDataArraySize,
    maxIPCount, enableBackendMonitor, collectASData, vxVectorSeparator, genNewMonRecord,
    hdrListForValueAsId, enableVXSession, KPCookie, correlationIDHeader, captureHTTPReqFullFp,
    captureHTTPRespFullFp, autoInstrClassWeight, autoInstrSessionDuration, autoInstrRetainChanges,
    enableAutoInstrSession, MinStackDepthDebugSession, backendErrorDetectionMode, instrExceptions,
    vxExceptionFilterList, enableExceptionInSeqBlob, enableDDAI, enableVXLQDataTransfer,
    bciVXLQDataBufferSetting, VXLQLogPath, formatIPResourceURL, tDigestPercentileBT,
    tDigestPercentileIP, vxAgentDebugLogging, enableCaptureDataOutsideTxn, enableOTELStandard,
    enableGCMonitor, enableGoroutineMonitor,
    Count
};
}  // namespace kw

extern "C" {

extern const keywordsInfo keywordsMap[_MAX_KW];

/* The row of `name` (exact, case-sensitive), or -1. */
int NameToIndex(char* name);

/* Apply a start or modify message field by field; the message is cut in
 * place. A stop (or a start while a data thread runs) only takes status. */
void findStatusFromClientMsg(char* clientMsg);

/* Keyword defaults, restored at each session start. */
void vxlb_init_all_keywords(void);

/* The modify command: apply the message, rebuild the method table when a
 * profile changed, and answer Ok. */
void handleRunTimeChangeCase(char* clientMsg);
void sendResponseRunTimeChange(void);

/* Setters (the structure of a row) and fill functions (its value type). */
void fill_server_info(int index, char* value);
void fill_VXSys_info(int index, char* value);
void fill_VXBCISetting_info(int index, char* value);
void fill_VXAutoInstrumentation_info(int index, char* value);
void fill_VXFlowpathGenerator_info(int index, char* value);
void fill_VXInterfaceProcessor_info(int index, char* value);
void fill_vxAppLogStruct_info(int index, char* value);
void fill_int_data(char* target, char* value, int length);
void fill_long_long_data(char* target, char* value, int length);
void fill_double_data(char* target, char* value, int length);
void fill_char_data(char* target, char* value, int length);
}

#endif
