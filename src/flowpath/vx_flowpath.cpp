#include "flowpath/vx_flowpath.h"

#include <apr_time.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "agent/vx_instance.h"
#include "bt/vx_bt_object.h"
#include "bt/vx_bt_rule_exec.h"
#include "bt/vx_bt_tags.h"
#include "core/vx_atomic.h"
#include "core/vx_encode.h"
#include "core/vx_hashmap.h"
#include "core/vx_platform.h"
#include "core/vx_record_door.h"
#include "core/vx_text.h"
#include "core/vx_text_writer.h"
#include "core/vx_thread.h"
#include "core/vx_trace_log.h"
#include "flowpath/vx_callout.h"
#include "flowpath/vx_method_events.h"
#include "flowpath/vx_method_table.h"
#include "flowpath/vx_session_cookie.h"
#include "flowpath/vx_td_key_map.h"
#include "http/vx_trace_context.h"
#include "http/vx_transaction_tags.h"
#include "monitor/vx_bt_monitor.h"
#include "proxy/vx_frame_encoder.h"

namespace {

constexpr char kUnknownUrl[] = "UnknownUrl";

using RecordBuffer = vx::RecordBuffer<vx::kFlowpathRecordSize>;

/* The instance as it stands in records: "%lld", with "F" when forced. */
void add_instance(RecordBuffer& r, long long value, bool forced)
{
    r.put(value);
    if (forced) r.put('F');
}

/* The category of a finished flowpath as the record carries it. */
int category_of(VXPerThreadData_t* vxTD)
{
    if (vxTD->tlIsBTExcluded) return kCategoryExcluded;
    /* Other threads running the same BT may refresh its thresholds. */
    return findCategoryOfBT(vx::bt_threshold_of(vxTD->tlBTObj), vxTD->tlDuration, vxTD->tlStatusCode, vxTD);
}

/* Drop the flowpath's entry in fpiToTLS, if it is still this record's. */
void forget_instance(VXProxyInstance_t* app, VXPerThreadData_t* vxTD)
{
    vx::remove_hashmap_if(vxTD->flowpathInstanceStr, vxTD, app->fpiToTLS);
}

/* The release steps of a closing flowpath: method-table reference, instance
 * map entry and open-method records. */
void release_flowpath(VXProxyInstance_t* app, VXPerThreadData_t* vxTD)
{
    if (vxTD->hasMapNodePtr) {
        vxDecrementMethodRefCount(static_cast<node_t*>(vxTD->hasMapNodePtr));
        vxTD->hasMapNodePtr = nullptr;
    }
    forget_instance(app, vxTD);
    FreeMData(vxTD);
}

}  // namespace

extern "C" void setFPCaptured(VXPerThreadData_t* vxTD, long long fpi)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !vxTD) return;
    const int pct = vx::load_relaxed(app->VXSys.bciInstrSessionPct);
    const int level = app->VXSys.fpTraceLevel;
    if ((pct > 0 && (pct > 99 || randomNum() % 100 < pct)) || vxTD->tlIsForceDump) {
        vxTD->tlIsFPCaptured = 1;
        VX_TRACE(level, 3, "FLOWPATH", "FP '%lld' will be captured.", fpi);
    } else {
        vxTD->tlIsFPCaptured = 0;
        VX_TRACE(level, 3, "FLOWPATH", "FP '%lld' will not be captured", fpi);
    }
    if (app->VXSys.captureMethodForAllFP != 0 && pct >= 0) {
        vxTD->tlIsFPCaptured = 1;
        VX_TRACE(level, 3, "FLOWPATH", "FP '%lld' will be captured.Because captureMethodForAllFP = %d",
                 fpi, app->VXSys.captureMethodForAllFP);
    }
}

namespace {

/* Split "path?query|METHOD" into the record's URL fields; the HTTP method goes
 * to `method`. False when the URL is already set and may not change. */
bool split_url(VXPerThreadData_t* vxTD, const char* httpMethod, char* method, size_t method_cap)
{
    const char* url = httpMethod ? httpMethod : "";
    if (vxTD->tlURL[0]) {
        /* A late hook may correct a flowpath that began without a URL, once. */
        if (vxTD->tlIsFPHeaderDumped || strcmp(vxTD->tlURL, kUnknownUrl) != 0 ||
            strcmp(url, kUnknownUrl) == 0)
            return false;
    }
    char work[vx::kHeaderBufferSize];
    vx::copy_text(work, sizeof work, url);
    method[0] = '\0';
    if (char* bar = strchr(work, '|')) {
        *bar = '\0';
        vx::copy_text(method, method_cap, bar + 1);
    }
    vxTD->tlURLParameters[0] = '\0';
    if (char* q = strchr(work, '?')) {
        *q = '\0';
        vx::copy_text(vxTD->tlURLParameters, sizeof vxTD->tlURLParameters, q + 1);
    }
    vx::copy_text(vxTD->tlURL, sizeof vxTD->tlURL, work);
    return true;
}

}  // namespace

extern "C" void setURLInThreadLocal(VXPerThreadData_t* vxTD, char* httpMethod)
{
    if (!vxTD) return;
    char method[vx::kHttpMethodSize];
    split_url(vxTD, httpMethod, method, sizeof method);
}

extern "C" void setBTObjInThreadLocal(VXPerThreadData_t* vxTD, char* httpMethod, char* btHeaderValue)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !vxTD) return;
    char method[vx::kHttpMethodSize];
    if (!split_url(vxTD, httpMethod, method, sizeof method)) return;
    vxTD->tlBTObj = get_obj_from_bt_name(vxTD->tlURL, vxTD->tlURLParameters, btHeaderValue,
                                         vxTD->updateBTLock, method);
    if (vxTD->tlBTObj) {
        vxTD->tlIsBTExcluded = 0;
        /* Within a run every BT is judged by the instance-wide thresholds. */
        if (vx::load_relaxed(app->Server.testRunRunning) == 1 &&
            vx::load_relaxed(app->VXBCISetting.data_thread_running) == 1) {
            /* A BT is shared by every thread that runs it: each writes the
             * same values, atomically, and only when they differ. */
            Threshold& t = vxTD->tlBTObj->bt_threshold;
            const int slow = vx::load_relaxed(app->allSlow), verySlow = vx::load_relaxed(app->allVerySlow);
            if (vx::load_relaxed(t.slow) != slow) vx::store_relaxed(t.slow, slow);
            if (vx::load_relaxed(t.very_slow) != verySlow) vx::store_relaxed(t.very_slow, verySlow);
        }
        return;
    }
    vxTD->tlIsBTExcluded = 1;
    VX_TRACE(app->VXSys.fpTraceLevel, 2, "FLOWPATH",
             "FP (%lld) will be excluded as per BT rule, httpMethod = %s, uRLParameters = %s",
             vxTD->flowpathInstance, method, vxTD->tlURLParameters);
}

extern "C" void setFPHeaderValues(VXPerThreadData_t* vxTD, char* httpMethod, char* requestLength,
                                  char* BTHeader, char* btHeaderValue)
{
    (void)requestLength;
    (void)BTHeader;
    /* STAND-IN(bt-data-rules): request-header BT rules (kind 10) are tried
     * first here once their matching exists; until then the URL decides. */
    setBTObjInThreadLocal(vxTD, httpMethod, btHeaderValue);
}

/* Whether the caller's text forces this flowpath: an "F" in an instance
 * number, or in the first two fields of a chain header (where a forced
 * caller puts it). The header's later fields are names and times, whose
 * letters say nothing about forcing. */
static bool forced_by_caller(const char* incoming)
{
    const char* end = strchr(incoming, '_');
    if (end) end = strchr(end + 1, '_');
    const size_t n = end ? static_cast<size_t>(end - incoming) : strlen(incoming);
    return std::string_view(incoming, n).find_first_of("Ff") != std::string_view::npos;
}

extern "C" void* startFP(char* flowpathinstance, char* url, char* btHeaderValue, char* TLS,
                         char* VXCookieStr, char* KPCookieStr, char* correlationIdHeader,
                         long long qTimeInMS, long long startTimeFP) VX_NOEXCEPT
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !vx::load_relaxed(app->Server.testRunRunning) ||
        vx::load_relaxed(app->Server.gettingstopInstrumenatation))
        return nullptr;
    const VXSys_t& sys = app->VXSys;

    VXPerThreadData_t* vxTD = get_free_tls_slot();
    if (!vxTD) {
        VX_ERROR("FLOWPATH", "No free record for a new flowpath, url = %s", url ? url : "");
        return nullptr;
    }
    vx::VXRecordUse use(vxTD);
    if (!use) return nullptr; /* a stop took it; the stop gives it back */
    resetAllThreadLocals(vxTD, vx::load_acquire(app->tlsPool.tlsdatastruct));
    vxTD->tlFpCPUTime = getThreadCpuTimeNs();

    if (startTimeFP < 1) startTimeFP = my_gettimeofday();
    vxTD->fpStartTimeforReset = apr_time_now();
    vxTD->tlFlowPathTimeStampInMS = startTimeFP - vx::load_relaxed(app->Server.klvEpochDiffTime);

    /* The caller's correlation text: a chain header, an instance number made
     * by an agent, or nothing. Never written into: it is the host's. */
    char incoming[vx::kIncomingFPISize] = "";
    if (!flowpathinstance || strlen(flowpathinstance) <= 1) {
        vxTD->flowpathInstance = generate_flowpath_instance();
    } else {
        vx::copy_text(incoming, sizeof incoming, flowpathinstance);
        if (forced_by_caller(incoming)) vxTD->tlIsForceDump = 1;
        if (strchr(incoming, '_')) {
            char chain[vx::kIncomingFPISize];
            vx::copy_text(chain, sizeof chain, incoming);
            setTierCallOut(vxTD, chain);
            vxTD->flowpathInstance = generate_flowpath_instance();
        } else {
            vxTD->flowpathInstance = atoll(incoming);
        }
    }

    if (TLS && app->VXAgentSetting.enableProxyServer == 1) set_value(TLS, vxTD);
    parseKPCookieStr(KPCookieStr, vxTD);

    char header[vx::kHeaderBufferSize];
    escapeURLEncodingForHttp(header, sizeof header, btHeaderValue);

    char* correlation = correlationIdHeader;
    char headerCopy[vx::kHeaderBufferSize];
    if (vx::load_relaxed(sys.captureCorrelationEnabled) && btHeaderValue) {
        vx::copy_text(headerCopy, sizeof headerCopy, btHeaderValue);
        correlation = getBtBaseOnHeader1(headerCopy, correlationIdHeader);
    }
    vxTD->qTimeInMS = qTimeInMS;
    if (correlation)
        escapeURLEncoding(vxTD->tlCorrelationIdHeader, sizeof vxTD->tlCorrelationIdHeader, correlation);

    snprintf(vxTD->flowpathInstanceStr, sizeof vxTD->flowpathInstanceStr, "%lld",
             vxTD->flowpathInstance);

    /* Session: a live session cookie carries the capture decision. */
    bool session_goes_on = false;
    if (VXCookieStr && *VXCookieStr) {
        parseVXCookieStr(VXCookieStr, vxTD);
        long long duration = (vxTD->tlFlowPathTimeStampInMS - vxTD->last_fptimestamp_from_cookie) / 1000;
        if (vxTD->instrumented || vxTD->tlIsForceDump) vxTD->tlIsFPCaptured = 1;
        const bool count_ok = sys.maxFPCountInSession == 0 || vxTD->totalFpcount <= sys.maxFPCountInSession;
        const bool idle_ok = sys.vxSessionIdleTimeOutSecs == 0 || duration < sys.vxSessionIdleTimeOutSecs;
        session_goes_on = count_ok && idle_ok;
        if (!session_goes_on)
            VX_TRACE(sys.fpTraceLevel, 2, "FLOWPATH",
                     "Going to expire session and reset values, vxTD->totalFpcount = %d, duration = %lld",
                     vxTD->totalFpcount, duration);
    }
    if (!session_goes_on) {
        setFPCaptured(vxTD, vxTD->flowpathInstance);
        setValue(VXCookieStr, vxTD);
    }

    if (!vx_agent_behind_proxy(app)) {
        setFPHeaderValues(vxTD, url, nullptr, nullptr, header);
        /* The entry borrows the record's own instance text as its key, so
         * a second flowpath with the same number (more than the layout can
         * tell apart in one millisecond) does not take it over. */
        if (app->fpiToTLS && !vx::insert_hashmap_if_absent(vxTD->flowpathInstanceStr, vxTD, app->fpiToTLS))
            VX_TRACE(sys.fpTraceLevel, 2, "FLOWPATH", "Flowpath instance '%s' is already running",
                     vxTD->flowpathInstanceStr);
        saveNodeAndIncrementMethodRefCount(vxTD);
        if (vxTD->tlBTObj && vxTD->tlURLParameters[0]) {
            const int btId = vx::load_relaxed(vxTD->tlBTObj->bt_id);
            if (btId > 0 && is_tag_applied_per_bt_or_globally(btId, namespace_http_url_query_param))
                resolveTransactionTag(vxTD, vxTD->tlURLParameters, nullptr, btId,
                                      namespace_http_url_query_param);
        }
        vxMethodEntryEx(vx::load_acquire(app->methodTable.DefaultMethod), vxTD,
                        const_cast<char*>(kRootMethodName), url, nullptr, 0, nullptr, 1, TLS,
                        startTimeFP, nullptr);
    } else {
        char plain[vx::kURLSize];
        vx::copy_text(plain, sizeof plain, url);
        if (char* bar = strchr(plain, '|')) *bar = '\0';
        vx::copy_text(vxTD->tlURL, sizeof vxTD->tlURL, plain);
        transactionStartEncode(qTimeInMS, vxTD->flowpathInstance, incoming, url, header, VXCookieStr,
                               KPCookieStr, correlationIdHeader, startTimeFP);
    }
    return vxTD;
}

extern "C" void startFPTemp(char* flowpathinstance, char* url, char* buf) VX_NOEXCEPT
{
    void* handle = startFP(flowpathinstance, url, nullptr, nullptr, nullptr, nullptr, nullptr, -1, 0);
    if (buf) snprintf(buf, vx::kFPInstanceStrSize, "%llu",
                      static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(handle)));
}

extern "C" void dumpFPHeaderRecord(VXPerThreadData_t* vxTD)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !vxTD) return;
    if (!vxTD->tlBTObj) {
        VX_TRACE(app->VXSys.fpTraceLevel, 1, "FLOWPATH", "BTObject not found for fp - '%lld'. Returning",
                 vxTD->flowpathInstance);
        return;
    }
    vxTD->tlIsFPHeaderDumped = 1;
    const bool forced = vxTD->tlIsForceDump != 0;
    RecordBuffer r;
    r.put("2,");
    add_instance(r, vxTD->flowpathInstance, forced);
    if (vxTD->firstFlowpathInstance != 0) {
        r.put(':');
        add_instance(r, vxTD->firstFlowpathInstance, forced);
        r.put(':');
        add_instance(r, vxTD->prevFlowpathInstance, forced);
    }
    r.write(',', vxTD->tlFlowPathTimeStampInMS / 1000, ',', vxTD->tlThreadId, ',');
    if (vxTD->firstFlowpathInstance != 0 && vxTD->prevTierSeq)
        r.put(vxTD->prevTierSeq);
    else
        r.put(vxTD->tlThreadId);
    r.write(".1,", vx::load_relaxed(vxTD->tlBTObj->bt_id), ',', vxTD->tlURL);
    if (vxTD->tlURLParameters[0]) r.write('?', vxTD->tlURLParameters);
    r.write(
        ',',
        vx::load_relaxed(app->VXSys.captureCorrelationEnabled) ? vxTD->tlCorrelationIdHeader : "",
        ',', vxTD->vxSessionId, ',');
    if (vxTD->klvSID > 0)
        r.put_zero_padded(vxTD->klvSID, 21);
    else
        r.put(vxTD->klvSID);
    r.write(',', vxTD->VXPageID, ",,", vxTD->tlFlowpathType, ',', vxTD->qTimeInMS, ',');
    if (app->VXSys.enableOTELStandard && arrPropagationHeaders[0] == 1) {
        r.write(vxTD->OTL_traceID ? vxTD->OTL_traceID : "", ',', vxTD->OTL_parentID ? vxTD->OTL_parentID : "", ',');
        r.put_min_digits(vxTD->OTL_traceflag, 2);
    } else {
        r.put(",,");
    }
    r.send();
}

extern "C" void dumpIncompleteFlowpathSeqBlock(VXPerThreadData_t* vxTD)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !vxTD) return;
    if (!vxTD->tlBTObj) {
        VX_TRACE(app->VXSys.fpTraceLevel, 1, "FLOWPATH",
                 "BTObject not found for fp - '%lld'. Setting vxTD->sequenceBlobLen '%d' to 0. Returning",
                 vxTD->flowpathInstance, vxTD->sequenceBlobLen);
        vxTD->sequenceBlobLen = 0;
        vxTD->sequenceBlob[0] = '\0';
        return;
    }
    if (!vxTD->tlIsFPHeaderDumped) dumpFPHeaderRecord(vxTD);
    RecordBuffer r;
    r.put("3,");
    add_instance(r, vxTD->flowpathInstance, vxTD->tlIsForceDump != 0);
    r.write(',', vxTD->sequenceBlob);
    r.send();
    vxTD->sequenceBlobLen = 0;
    vxTD->sequenceBlob[0] = '\0';
}

extern "C" void dumpCompleteFlowpathSeqBlock(VXPerThreadData_t* vxTD, int category,
                                             long long fpCPUTime, long long respTime,
                                             int tracerequest)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !vxTD) return;
    const int level = app->VXSys.fpTraceLevel;
    const long long fpi = vxTD->flowpathInstance;
    if (!vxTD->tlBTObj) {
        VX_TRACE(level, 1, "FLOWPATH", "BTObject not found for fp - '%lld'. Returning", fpi);
        return;
    }
    if (vxTD->tlIsBTExcluded) {
        if (!vxTD->tlIsFPHeaderDumped) {
            VX_TRACE(level, 2, "FLOWPATH",
                     "FP (%lld) was excluded as per BT and 3 record was not dumped, ignoring ...", fpi);
            return;
        }
        VX_TRACE(level, 2, "FLOWPATH",
                 "FP (%lld) was excluded as per BT, some data has already dumped. Marking -99", fpi);
        vxTD->tlStatusCode = -99;
    } else if (!vxTD->tlIsFPCaptured &&
               !vx::load_relaxed(app->VXBTMonitor.doNotDisacrdAnyTransaction)) {
        if (category == kCategoryNormal && !vxTD->tlIsFPHeaderDumped) {
            VX_TRACE(level, 3, "FLOWPATH", "FP '%lld' was not captured, neither it is slow, ignoring...", fpi);
            return;
        }
        if (category == kCategoryNormal) {
            VX_TRACE(level, 2, "FLOWPATH",
                     "FP (%lld) was not captured, some data has already dumped. Marking -99", fpi);
            vxTD->tlStatusCode = -99;
        } else {
            VX_TRACE(level, 2, "FLOWPATH", "FP '%lld' was not captured, but it is slow, capturing...", fpi);
        }
    }
    if (!vxTD->tlIsFPHeaderDumped) dumpFPHeaderRecord(vxTD);

    RecordBuffer r;
    r.put("4,");
    add_instance(r, fpi, vxTD->tlIsForceDump != 0);
    r.write(',', vxTD->tlStatusCode, ',', category, ',', fpCPUTime, ',', respTime, ',', vx::load_relaxed(vxTD->tlBTObj->bt_id), ',',
            vxTD->tlFlowpathType, ",,", tracerequest, ',');
    if (app->VXSys.enableTagsSupport) r.write(getTagIdPerThread(vxTD), ',');
    r.put(vxTD->sequenceBlob);
    r.send();
    vxTD->sequenceBlobLen = 0;
    vxTD->sequenceBlob[0] = '\0';
}

extern "C" int getTagIdPerThread(VXPerThreadData_t* vxTD)
{
    if (!vxTD || !vxTD->tlBTObj) {
        VX_TRACE(VX_LEVEL(fpTraceLevel), 1, "FLOWPATH", "BTObject not found, tag id is -1");
        return -1;
    }
    return vx::bt_monitor_tag_id(vxTD);
}

extern "C" void endFP(VXPerThreadData_t* vxTD, int statusCode, char* TLS, long long endTime,
                      long long fpCPUTime, int tracerequest, char** strSpan) VX_NOEXCEPT
{
    (void)fpCPUTime;
    VXProxyInstance_t* app = vx_app();
    if (!app || !vxTD || !vx::load_relaxed(app->Server.testRunRunning)) return;
    vx::VXRecordUse use(vxTD);
    if (!use) return;

    vxTD->tlFpCPUTime = getThreadCpuTimeNs() - vxTD->tlFpCPUTime;
    long long cpu = vxTD->tlFpCPUTime;
    if (cpu < 0 || app->VXSys.enableCpuTime == 0) cpu = 0;
    if (endTime < 1)
        endTime = vx::load_relaxed(app->Server.klvEpochDiffTime) + vxTD->tlFlowPathTimeStampInMS;
    vxTD->setEndFPFlag = 1;

    if (vx_agent_behind_proxy(app)) {
        /* STAND-IN(spans): transaction spans are produced here. */
        FreeMData(vxTD);
        transactionEndEncode(statusCode, vxTD->flowpathInstance, endTime, cpu, tracerequest);
        return;
    }
    if (app->VXAgentSetting.enableProxyServer == 1) {
        vxTD = searchvxTDfromHashMap(TLS);
        if (!vxTD) return;
    }
    vxTD->tlDuration = my_gettimeofday() - vx::load_relaxed(app->Server.klvEpochDiffTime) -
                       vxTD->tlFlowPathTimeStampInMS;
    vxMethodExitEx(vx::load_acquire(app->methodTable.DefaultMethod), vxTD,
                   const_cast<char*>(kRootMethodName), cpu, statusCode, nullptr, vxTD->tlDuration,
                   1, 0, 0, TLS, nullptr, endTime, nullptr);
    if (!vxTD->tlBTObj) {
        /* Nothing to report; release what the flowpath holds so that the
         * record is clean for reuse. */
        release_flowpath(app, vxTD);
        return;
    }
    const int category = category_of(vxTD);
    vxTD->tlCategory = static_cast<char>(category);
    vxTD->btCategory = category;
    if (!vxTD->tlIsBTExcluded) updateCounterAndDurationForBT(vxTD);
    {
        vx::VXLockGuard guard(vxTD->sequenceBlobLock);
        dumpCompleteFlowpathSeqBlock(vxTD, category, cpu, vxTD->tlDuration, tracerequest);
    }
    dumpDataForDebug(vxTD);
    release_flowpath(app, vxTD);
    (void)strSpan; /* STAND-IN(spans): transaction spans are returned here */
}

extern "C" void reset(VXPerThreadData_t* vxTD) VX_NOEXCEPT
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !vxTD || !vx::load_relaxed(app->Server.testRunRunning)) return;
    vx::VXRecordUse use(vxTD);
    if (!use) return; /* the stop closed it and gives it back */
    if (vx_agent_behind_proxy(app)) transactionResetEncode(vxTD->flowpathInstance);
    if (app->VXAgentSetting.enableProxyServer == 1) vx::td_key_map_forget(vxTD);
    /* A host may reset without ending: what the flowpath still holds goes
     * back (its method-table reference, its open-method records, and its map
     * entry, whose key is the instance text about to be cleared). */
    release_flowpath(app, vxTD);
    resetAllThreadLocals(vxTD, vx::load_acquire(app->tlsPool.tlsdatastruct));
    free_tls_slot(vxTD);
}

extern "C" void dumpIncompleteFPAtTestStop(VXPerThreadData_t* vxTD)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    if (!vxTD) {
        VX_TRACE(app->VXSys.fpTraceLevel, 1, "FLOWPATH", "vxTD is NULL.");
        return;
    }
    /* A flowpath that endFP already closed is waiting only for its reset:
     * its record 4 is out. */
    if (vxTD->setEndFPFlag) return;
    vxTD->tlDuration = my_gettimeofday() - vx::load_relaxed(app->Server.klvEpochDiffTime) -
                       vxTD->tlFlowPathTimeStampInMS;
    vxTD->setEndFPFlag = 1;
    /* The flowpath did not end: its CPU clock still holds the start, and
     * record 4 and the monitor count no CPU time for it. */
    vxTD->tlFpCPUTime = 0;
    if (!vxTD->tlBTObj) {
        release_flowpath(app, vxTD);
        return;
    }
    const int category = category_of(vxTD);
    vxTD->tlCategory = static_cast<char>(category);
    vxTD->tlFlowpathType = 7;
    {
        vx::VXLockGuard guard(vxTD->sequenceBlobLock);
        dumpCompleteFlowpathSeqBlock(vxTD, category, 0, vxTD->tlDuration, vxTD->tracerequest);
    }
    dumpDataForDebug(vxTD);
    if (!vxTD->tlIsBTExcluded) updateCounterAndDurationForBT(vxTD);
    release_flowpath(app, vxTD);
}
