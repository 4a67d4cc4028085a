#include "session/vx_keywords.h"

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "agent/vx_bci_setting.h"
#include "agent/vx_feature_settings.h"
#include "agent/vx_instance.h"
#include "core/vx_atomic.h"
#include "core/vx_text.h"
#include "core/vx_trace_log.h"
#include "diag/vx_exception_capture.h"
#include "diag/vx_sql_processor.h"
#include "diag/vx_thread_reports.h"
#include "flowpath/vx_method_table.h"
#include "flowpath/vx_resource_ids.h"
#include "http/vx_http_capture_settings.h"
#include "session/vx_control_dispatch.h"
#include "session/vx_file_keywords.h"
#include "session/vx_keyword_parsers.h"

namespace {

constexpr int kMaxMessageFields = 1024;

/* Rows, by kind. */
constexpr keywordsInfo parser_row(const char* name, KeywordParser parser)
{
    keywordsInfo row{};
    for (int i = 0; name[i] && i < 31; ++i) row.name[i] = name[i];
    row.offset = -1;
    row.parser = parser;
    return row;
}

constexpr keywordsInfo direct_row(const char* name, size_t offset, size_t length,
                                  KeywordSetter setter, KeywordFill fill)
{
    keywordsInfo row{};
    for (int i = 0; name[i] && i < 31; ++i) row.name[i] = name[i];
    row.offset = static_cast<int>(offset);
    row.length = static_cast<int>(length);
    row.setter = setter;
    row.fill_data = fill;
    row.min = LLONG_MIN;
    row.max = LLONG_MAX;
    return row;
}

/* A number row that sizes memory, a count or a time: only [lo, hi]. */
constexpr keywordsInfo in(keywordsInfo row, long long lo, long long hi)
{
    row.min = lo;
    row.max = hi;
    return row;
}

#define FILE_KW(n) parser_row(#n, setFileBasedKeywd)
#define PARSED(n, fn) parser_row(#n, fn)
/* A member filled by number (int, long long or double by its width) or as
 * text (at most its size less one byte, so it stays terminated). */
#define SYS(n, m, fill) direct_row(#n, offsetof(VXSys_t, m), sizeof(VXSys_t::m), fill_VXSys_info, fill)
#define SRV(n, m, fill) direct_row(#n, offsetof(Server_t, m), sizeof(Server_t::m), fill_server_info, fill)
#define SRV_TEXT(n, m) \
    direct_row(#n, offsetof(Server_t, m), sizeof(Server_t::m) - 1, fill_server_info, fill_char_data)
#define BCI(n, m, fill) \
    direct_row(#n, offsetof(VXBCISetting_t, m), sizeof(VXBCISetting_t::m), fill_VXBCISetting_info, fill)
#define AUTO(n, m, fill)                                                                       \
    direct_row(#n, offsetof(VXAutoInstrumentation_t, m), sizeof(VXAutoInstrumentation_t::m), \
               fill_VXAutoInstrumentation_info, fill)

}  // namespace

extern "C" const keywordsInfo keywordsMap[_MAX_KW] = {
    FILE_KW(BTRuleConfig), FILE_KW(BTTConfig), FILE_KW(BTErrorRules), FILE_KW(HTTPStatsCondCfg),
    FILE_KW(VXHTTPRepHdrCfgListFullFp), FILE_KW(VXHTTPReqHdrCfgListL1Fp),
    FILE_KW(vxExceptionMonFile), FILE_KW(vxMethodMonFile), FILE_KW(VXAppLogFile),
    FILE_KW(vxBackendMonFile), FILE_KW(vxBackendNamingRulesFile),
    FILE_KW(generateExceptionConfFile), FILE_KW(klvKPURLFile), FILE_KW(VXEntryPointsFile),
    FILE_KW(VXInterfaceFile), FILE_KW(saveConfigFiles), FILE_KW(vxHttpHdrCaptureFileList),
    FILE_KW(vxILRewritterFile), FILE_KW(vxModuleFile), FILE_KW(vxProcessesFile),
    FILE_KW(vxPoolFile), FILE_KW(vxCriticalFileList), FILE_KW(blackListForDebugSession),
    FILE_KW(vxDynamicDiagnosticsConfFile),

    SRV_TEXT(status, statusValue), SRV_TEXT(fpVersionID, fpgVID),
    in(SRV(TimeStampDiff, diffTimeFromVXC, fill_long_long_data), -vx::kTimeStampDiffMaxMs,
       vx::kTimeStampDiffMaxMs),
    in(SRV(numInstrProfile, numInstrProfile, fill_int_data), 0, vx::kInstrProfileCountMax),
    in(SRV(setthresholdTime, dumpremainingtstime, fill_int_data), 0, vx::kStopWaitMinutesMax),
    BCI(appID, appID, fill_int_data), BCI(vxAppServerID, serverID, fill_int_data),
    BCI(tierID, tierID, fill_int_data),
    SYS(enableForcedFPChain, enableForcedFlowpathChainMode, fill_int_data),
    in(SYS(bciDataBufferMaxCount, dataBuffMaxCount, fill_int_data), 1, vx::kDataBufferCountMax),
    in(SYS(bciDataBufferMaxSize, bciDataBufferMaxSize, fill_int_data), vx::kDataBufferSizeMin,
       vx::kDataBufferSizeMax),
    in(SYS(ASDataBufferSize, bciASDataBufferMaxSize, fill_int_data), vx::kDataBufferSizeMin,
       vx::kDataBufferSizeMax),
    in(SYS(ASDataBufferMaxCount, ASDataBuffMaxCount, fill_int_data), 1, vx::kDataBufferCountMax),
    in(SYS(ASDataBufferMinCount, ASDataBuffMinCount, fill_int_data), 0, vx::kDataBufferCountMax),
    in(SYS(BCITraceMaxSize, traceMaxSize, fill_long_long_data), vx::kTraceRollSizeMin,
       vx::kTraceRollSizeMax),
    SYS(BTRuleOverridePolicy, btRuleOverriedPolicy, fill_int_data),
    SYS(vxEnableDebugMode, dumpDebugData, fill_int_data),
    SYS(enableFPTrace, fpTraceLevel, fill_int_data),
    SYS(enableBTMonitorTrace, btMonitorTraceLevel, fill_int_data),
    SYS(enableBackendMonTrace, backendMonTraceLevel, fill_int_data),
    SYS(vxMethodMonTraceLevel, methodMonTraceLevel, fill_int_data),
    SYS(enableThreadMonTraceLevel, threadMonTraceLevel, fill_int_data),
    SYS(captureExceptionTraceLevel, exceptionTraceLevel, fill_int_data),
    SYS(ControlThreadTraceLevel, controlTraceLevel, fill_int_data),
    SYS(AgentTraceLevel, agentTraceLevel, fill_int_data),
    SYS(AgentHSTraceLevel, agentHSTraceLevel, fill_int_data),
    SYS(AgentADTraceLevel, agentADTraceLevel, fill_int_data),
    SYS(AgentPCTraceLevel, agentPCTraceLevel, fill_int_data),
    SYS(AgentEXTraceLevel, agentEXTraceLevel, fill_int_data),
    direct_row("interfaceTraceLevel", offsetof(VXInterfaceProcessor_t, interfaceTraceLevel),
               sizeof(int), fill_VXInterfaceProcessor_info, fill_int_data),
    in(direct_row("maxCharInSeqBlob", offsetof(VXFlowpathGenerator_t, maxCharactersInSeqBlob),
                  sizeof(int), fill_VXFlowpathGenerator_info, fill_int_data),
       0, vx::kMaxCharInSeqBlobMax),

    PARSED(instrProfile, setInstProfile), PARSED(lmd, setInstProfile),
    PARSED(size, setInstProfile),

    SYS(enableIPResourceURL, enableIPResourceURL, fill_int_data),
    in(SYS(hashMapClearTime, hashMapClearTime, fill_int_data), 0, vx::kDayMs / 1000),
    SYS(vxEnableTxHotspot, vxEnableTxHotspot, fill_int_data),
    in(SYS(vxHelperDepth, vxHelperDepth, fill_int_data), 0, vx::kStackDepthMax),
    in(SYS(vxHotspotThreadLimit, vxHotspotThreadLimit, fill_int_data), 0, vx::kThreadCountMax),
    SYS(captureMethodForAllFP, captureMethodForAllFP, fill_int_data),
    in(SYS(maxHttpBodySize, maxHttpBodySize, fill_int_data), 0, vx::kHttpBodySizeMax),
    in(SYS(bciMaxNonServiceMethodsPerFP, bciMaxNonServiceMethodsPerFP, fill_long_long_data), 0,
       INT_MAX),
    in(SYS(bciInstrSessionPct, bciInstrSessionPct, fill_int_data), 0, 100),
    in(SYS(vxcHeartBeatThreshold, vxcHeartBeatThreshold, fill_long_long_data),
       vx::kHeartBeatThresholdMinMs, vx::kDayMs),
    SYS(enableDBBackendName, enableDBBackendName, fill_int_data),
    SYS(enableProcessNotificationPhase, enableProcessNotificationPhase, fill_int_data),
    SYS(enableUpdateLogMsgForLQ, enableUpdateLogMsgForLQ, fill_int_data),
    SYS(enableCallBackException, enableCallBackException, fill_int_data),
    SYS(enableDBQueryParamValues, enableDBQueryParamValues, fill_int_data),
    in(AUTO(autoInstrMapSize, autoInstrMapSize, fill_int_data), 0, vx::kAutoInstrMapSizeMax),
    AUTO(autoInstrTraceLevel, autoInstrTraceLevel, fill_int_data),
    in(AUTO(autoInstrSampleInterval, autoInstrSampleThreshold, fill_int_data), 0, INT_MAX),
    in(AUTO(autoInstrSampleThreshold, autoInstrSampleThreshold, fill_int_data), 0, INT_MAX),
    in(AUTO(autoInstrMaxAvgDuration, autoInstrDurationThreshold, fill_int_data), 0, INT_MAX),
    AUTO(autoInstrPct, autoInstrPct, fill_double_data),
    AUTO(autoDeInstrPct, autoUnInstrPct, fill_double_data),
    in(direct_row("VXLQFlushInterval", offsetof(vxAppLogStruct_t, flushInterval),
                  sizeof(long long), fill_vxAppLogStruct_info, fill_long_long_data),
       0, vx::kDayMs),
    BCI(fileBasedKeywordMode, fileBasedKeywordMode, fill_char_data),
    SRV(InstrTraceLevel, setInstrumentTraceLevel, fill_char_data),

    PARSED(vxFlowpathMasks, setvxFlowpathMasks), PARSED(testIdx, setCurrentTR),
    PARSED(klvEpochDiff, setKlvEpochDiff), PARSED(enableCpuTime, parseEnableCPUTime),
    PARSED(hbWDir, sethbWDir), PARSED(appName, setAppName), PARSED(tierName, setTierName),
    PARSED(vxAppServerHost, setAppServerName), PARSED(DBIPName, setDBIPName),
    PARSED(ASSampleInterval, setThreadSampleInterval),
    PARSED(ASReportInterval, setThreadReportInterval),
    PARSED(ASThresholdMatchCount, setThresholdMatchCount),
    PARSED(ASStackComparingDepth, setThreadStackCompareDepth),
    PARSED(ASReportDumpMode, setThreadReportDumpMode),
    PARSED(ASEnableHotspotRecord, setASEnableHotspotRecord),
    PARSED(vxMonitorInterval, setVXMonitorInterval),
    PARSED(enableBTMonitor, parseBTMonitorKeyword), PARSED(maxBTCount, parseMaxBTCount),
    PARSED(doNotDiscardFlowPaths, parseDoNotDiscardVal),
    PARSED(enableBTMonitorError, parseBTMonitorErrorLevel),
    PARSED(BTAggDataArraySize, parseBTAggDataArraySize), PARSED(maxIPCount, parseMaxIPCount),
    PARSED(enableBackendMonitor, setBackendMonitorEnabled), PARSED(collectASData, setASData),
    PARSED(vxVectorSeparator, setVXVectorSeperator),
    PARSED(genNewMonRecord, setMonitorEnabledForID),
    PARSED(hdrListForValueAsId, sethdrListForValueAsId),
    PARSED(enableVXSession, setEnableVXSession), PARSED(KPCookie, setKPCookie),
    PARSED(correlationIDHeader, setCorrelationID),
    PARSED(captureHTTPReqFullFp, setHttpReqRespCaptureSettings),
    PARSED(captureHTTPRespFullFp, setHttpReqRespCaptureSettings),
    PARSED(autoInstrClassWeight, setClassWeight),
    PARSED(autoInstrSessionDuration, setAutoInstrSessionInterval),
    PARSED(autoInstrRetainChanges, setRetainAutoInstrMethods),
    PARSED(enableAutoInstrSession, setDebugSessionMode),
    PARSED(MinStackDepthDebugSession, setMinStackDepthForDebugSession),
    PARSED(backendErrorDetectionMode, setBackendErrorDetectionMode),
    PARSED(instrExceptions, setExceptionCaptureSettings),
    PARSED(vxExceptionFilterList, parseExceptionFilteringList),
    PARSED(enableExceptionInSeqBlob, setEnableExceptionInSeqBlob),
    PARSED(enableDDAI, setEnableDDKeywd),
    PARSED(enableVXLQDataTransfer, setenableVXLQDataTransfer),
    PARSED(bciVXLQDataBufferSetting, setbciVXLQDataBufferSetting),
    PARSED(VXLQLogPath, setVXLQLogPath), PARSED(formatIPResourceURL, parseFormatIPResourceURL),
    PARSED(tDigestPercentileBT, setDigestPercentileBT),
    PARSED(tDigestPercentileIP, setDigestPercentileIP),
    PARSED(vxAgentDebugLogging, setvxAgentDebugLogging),
    PARSED(enableCaptureDataOutsideTxn, setEnableCaptureDataOutsideTxn),
    PARSED(enableOTELStandard, setpropheadcheck), PARSED(enableGCMonitor, checkgcmonitor),
    PARSED(enableGoroutineMonitor, checkgoroutinemonitor),
};

static_assert(kw::Count == _MAX_KW, "one row per keyword");
static_assert(kw::instrProfile == 55 && kw::lmd == 56 && kw::size == 57, "profile rows");
static_assert(kw::vxDynamicDiagnosticsConfFile < kFileKeywordSlots, "file keywords fit the file table");

namespace {

/* The table's order is the enumeration's: checked once at start-up. */
bool table_matches_enum()
{
    static const bool ok = [] {
        const char* names[] = {"BTRuleConfig", "status", "instrProfile", "enableIPResourceURL",
                               "vxFlowpathMasks", "enableGoroutineMonitor"};
        const int rows[] = {kw::BTRuleConfig, kw::status, kw::instrProfile,
                            kw::enableIPResourceURL, kw::vxFlowpathMasks,
                            kw::enableGoroutineMonitor};
        for (size_t i = 0; i < sizeof rows / sizeof rows[0]; ++i)
            if (strcmp(keywordsMap[rows[i]].name, names[i]) != 0) return false;
        return true;
    }();
    return ok;
}

void fill_at(char* base, int index, char* value)
{
    if (!value || index < 0 || index >= _MAX_KW) return;
    const keywordsInfo& row = keywordsMap[index];
    long long checked = 0;
    if ((row.min != LLONG_MIN || row.max != LLONG_MAX) &&
        !vx::number_in(row.name, value, row.min, row.max, &checked))
        return;
    if (row.fill_data) row.fill_data(base + row.offset, value, row.length);
}

}  // namespace

extern "C" void fill_server_info(int index, char* value)
{
    fill_at(reinterpret_cast<char*>(&vx_app()->Server), index, value);
}
extern "C" void fill_VXSys_info(int index, char* value)
{
    fill_at(reinterpret_cast<char*>(&vx_app()->VXSys), index, value);
}
extern "C" void fill_VXBCISetting_info(int index, char* value)
{
    fill_at(reinterpret_cast<char*>(&vx_app()->VXBCISetting), index, value);
}
extern "C" void fill_VXAutoInstrumentation_info(int index, char* value)
{
    fill_at(reinterpret_cast<char*>(&vx_app()->vxAutoInstrumentation), index, value);
}
extern "C" void fill_VXFlowpathGenerator_info(int index, char* value)
{
    fill_at(reinterpret_cast<char*>(&vx_app()->VXFlowpathGenerator), index, value);
}
extern "C" void fill_VXInterfaceProcessor_info(int index, char* value)
{
    fill_at(reinterpret_cast<char*>(&vx_app()->VXInterfaceProcessor), index, value);
}
extern "C" void fill_vxAppLogStruct_info(int index, char* value)
{
    fill_at(reinterpret_cast<char*>(&vxAppLogStruct), index, value);
}

/* Numbers keep the low `length` bytes of their value (little-endian), so a
 * one- or two-byte member takes the low bits. */
extern "C" void fill_int_data(char* target, char* value, int length)
{
    const int v = atoi(value);
    /* A whole int field is stored atomically: host threads read settings
     * such as bciInstrSessionPct while a start or modify writes them. */
    if (length >= 4 && reinterpret_cast<uintptr_t>(target) % alignof(int) == 0)
        vx::store_relaxed(*reinterpret_cast<int*>(target), v);
    else
        memcpy(target, &v, static_cast<size_t>(length < 4 ? length : 4));
}

extern "C" void fill_long_long_data(char* target, char* value, int length)
{
    const long long v = atoll(value);
    memcpy(target, &v, static_cast<size_t>(length < 8 ? length : 8));
}

extern "C" void fill_double_data(char* target, char* value, int length)
{
    double v = 0.0;
    if (sscanf(value, "%lf", &v) != 1) v = 0.0;
    memcpy(target, &v, static_cast<size_t>(length < 8 ? length : 8));
}

/* The bytes as they are: a one-byte member holds the character ("1" is
 * 0x31); a text member stays terminated. */
extern "C" void fill_char_data(char* target, char* value, int length)
{
    size_t n = strlen(value);
    if (n > static_cast<size_t>(length)) n = static_cast<size_t>(length);
    memcpy(target, value, n);
    if (n < static_cast<size_t>(length)) target[n] = '\0';
}

extern "C" int NameToIndex(char* name)
{
    if (!name) return -1;
    for (int i = 0; i < _MAX_KW; ++i)
        if (strcmp(keywordsMap[i].name, name) == 0) return i;
    return -1;
}

extern "C" void findStatusFromClientMsg(char* clientMsg)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !clientMsg || !table_matches_enum()) return;
    const bool applies =
        (vx::starts_with(clientMsg, "vx_control_req:action=start_instrumentation") &&
         vx::load_relaxed(app->Server.controlCommunicationBusyFlag) == 0) ||
        vx::starts_with(clientMsg, "vx_control_req:action=modify");
    thread_local char* fields[kMaxMessageFields]; /* one control thread per instance */
    const int n = vxlb_get_tokens_with_multi_delimiter(clientMsg, fields, const_cast<char*>(";"),
                                                       kMaxMessageFields);
    for (int i = 0; i < n; ++i) {
        char* field = fields[i];
        if (vx::starts_with(field, "status")) {
            char* value = split(field);
            if (!value) return;
            vx::copy_text(app->Server.statusValue, sizeof app->Server.statusValue, value);
            continue;
        }
        if (!applies) continue;
        char key[1024];
        char* value = split_key_value(field, key);
        if (!value) return;
        if (vx::load_relaxed(app->VXSys.closeCtrlConFlag)) return;
        const int index = NameToIndex(key);
        if (index < 0) continue;
        const keywordsInfo& row = keywordsMap[index];
        VX_TRACE(app->VXSys.controlTraceLevel, 2, "CONTROL_THREAD", "keyword %s=%.200s", key, value);
        if (row.parser)
            row.parser(value, key, index);
        else if (row.setter)
            row.setter(index, value);
    }
}

extern "C" void vxlb_init_all_keywords(void)
{
    VXProxyInstance_t* app = vx_app();
    VXSys_t& sys = app->VXSys;
    Server_t& srv = app->Server;
    sys.enableForcedFlowpathChainMode = 1;
    sys.enableCpuTime = 0;
    vx::store_relaxed(sys.bciInstrSessionPct, 0);
    sys.captureChildFPCPUTime = 0;
    vx::store_relaxed(srv.klvEpochDiffTime, 0);
    srv.originalKlvEpochDiffTime = 1388534400000LL;
    vx::store_release(srv.testRunRunning, 0);
    srv.noInstrumentProfileMode = 0;
    vx::copy_text(srv.fpgVID, sizeof srv.fpgVID, "1.0");
    app->VXBackendMonitor.vxBackendMonTraceLevel = 0;
    app->VXBackendMonitor.maxIPCount = kDefaultMaxIPCount;
    app->VXBackendMonitor.backendIDCounter = 0;
    app->VXBTMonitor.doNotDisacrdAnyTransaction = 0;
    app->monitorSettings.isNewMonitorRecordEnabled = 0;
    vx::store_relaxed(sys.retryFlag, 0);
    vx::store_relaxed(sys.closeCtrlConFlag, 0);
    sys.enableIPResourceURL = 0;
    sys.correlationIdHeader[0] = '\0';
    vx::store_relaxed(sys.captureCorrelationEnabled, 0);
    srv.instrProfBytesWritten = 0;
    vx::store_relaxed(srv.gettingstopInstrumenatation, 0);
    srv.dumpremainingtstime = 0;
    /* numcriticalFile: setDefaultCriticalFile below frees the list and starts it anew */
    srv.startInstrRespBuffer[0] = '\0';
    srv.startInstrRespBufferCnt = 0;
    vx::store_relaxed(sys.dataConnState, 1);
    vx::store_relaxed(sys.autosensorConnState, 1);
    vx::store_relaxed(srv.isTenRecordDump, 0);
    setdefaultValuesForException();
    VXSQLProcessorInit();
    app->monitorSettings.vxVectorSeperator = '>';
    VXASSettingInit();
    initVXHttpReqRespCaptureSettings(&app->httpSettings.vxHttpReqCaptureSettings);
    initVXHttpReqRespCaptureSettings(&app->httpSettings.vxHttpRespCaptureSettings);
    setDefaultCriticalFile();
}

extern "C" void sendResponseRunTimeChange(void)
{
    char answer[] = "vx_control_rep:action=modify;result=Ok;\n";
    controlConnectionSendBuffer(answer, static_cast<int>(sizeof answer - 1));
}

extern "C" void handleRunTimeChangeCase(char* clientMsg)
{
    VXProxyInstance_t* app = vx_app();
    app->Server.isRuntimeApplied = 1;
    app->isModifiedHashmap = 0;
    findStatusFromClientMsg(clientMsg);
    if (app->isModifiedHashmap) {
        hashMapForAgent();
        app->isModifiedHashmap = 0;
    }
    sendResponseRunTimeChange();
}
