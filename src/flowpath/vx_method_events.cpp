#include "flowpath/vx_method_events.h"

#include <apr_hash.h>
#include <strings.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "agent/vx_instance.h"
#include "core/vx_atomic.h"
#include "core/vx_encode.h"
#include "core/vx_hashmap.h"
#include "core/vx_platform.h"
#include "core/vx_record_door.h"
#include "core/vx_text.h"
#include "core/vx_text_writer.h"
#include "core/vx_thread.h"
#include "core/vx_trace_log.h"
#include "diag/vx_sql_processor.h"
#include "flowpath/vx_backend_naming.h"
#include "flowpath/vx_flowpath.h"
#include "flowpath/vx_method_table.h"
#include "flowpath/vx_td_key_map.h"
#include "http/vx_header_ids.h"
#include "monitor/vx_backend_monitor.h"
#include "proxy/vx_frame_encoder.h"

namespace {

/* Writes one token at the end of the blob as snprintf bounded by the rest of
 * the buffer would: cut at the end, terminated, the full length counted
 * (and the count clamped to the buffer). */
class TokenWriter : public vx::TextWriter {
public:
    explicit TokenWriter(VXPerThreadData_t* td)
        : vx::TextWriter(td->sequenceBlob + td->sequenceBlobLen,
                         static_cast<size_t>(vx::kSeqBlobSize - td->sequenceBlobLen)),
          td_(td)
    {
    }
    void finish()
    {
        long long total = static_cast<long long>(td_->sequenceBlobLen) + static_cast<long long>(TextWriter::finish());
        td_->sequenceBlobLen = static_cast<int>(total > vx::kSeqBlobSize ? vx::kSeqBlobSize : total);
    }

private:
    VXPerThreadData_t* td_;
};


/* The method of this event: the host's handle while it belongs to the
 * generation the flowpath runs on and that generation is current; otherwise
 * a lookup by name in the current generation, which the flowpath moves to.
 * `create` makes an unknown name a new method. */
methodPropProperties* resolve(VXProxyInstance_t* app, void* methodPtr, VXPerThreadData_t* vxTD,
                              char* mName, bool create)
{
    VXMethodTable_t& t = app->methodTable;
    node_t* current = vx::load_acquire(t.methodHashMapNode);
    auto* m = static_cast<methodPropProperties*>(methodPtr);
    if (m && vxTD->hasMapNodePtr == current && m->generation == current &&
        app->VXAgentSetting.enableProxyServer == 0)
        return m;
    /* The lookup stays under the lock that chose the generation, so that a
     * new name is never created in a generation just replaced. */
    vx::VXLockGuard guard(t.methodEntryLock);
    current = t.methodHashMapNode;
    if (vxTD->hasMapNodePtr != current) {
        /* The flowpath's reference moves with it to the current table. */
        vxDecrementMethodRefCount(static_cast<node_t*>(vxTD->hasMapNodePtr));
        vxTD->hasMapNodePtr = current;
        if (current) __atomic_add_fetch(&current->ref_count, 1, __ATOMIC_RELAXED);
    }
    if (!current) return nullptr;
    return create ? searchAndUpdateMethodHashMap(mName, current, 0, 0, 0)
                  : getMethodPropFromMethodName(mName, current);
}

/* A host that names transactions by its own key. */
VXPerThreadData_t* working_record(VXProxyInstance_t* app, VXPerThreadData_t* vxTD, char* TLS)
{
    if (app->VXAgentSetting.enableProxyServer != 1) return vxTD;
    return searchvxTDfromHashMap(TLS);
}

/* PHP hosts may have de-instrumented or blacklisted a plain method: it is
 * skipped entirely. The auto-instrumentation list that sets the flags is
 * consulted here once auto-instrumentation exists. */
bool skipped_by_host(const VXProxyInstance_t* app, const methodPropProperties* m)
{
    return app->VXBCISetting.agentIsPhp && m->isEntryPoint == 0 &&
           (m->autoDeInstrFlg == 1 || m->isInBlackListFlg == 1);
}

/* The sequence number a callout token of an HTTP-like row carries. */
long long callout_seq(const VXPerThreadData_t* vxTD)
{
    return vxTD->tierCallOutSeqNum ? vxTD->tierCallOutSeqNum : vxTD->seqNum;
}

}  // namespace

extern "C" void* vxMethodEntry(void* methodPtr, VXPerThreadData_t* vxTD, char* mName, char* url,
                               char* urlParameter, long long threadID, char* pName, char* TLS,
                               long long startTime, char* DBQueryParam) VX_NOEXCEPT
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !vxTD || !vx::load_relaxed(app->Server.testRunRunning)) return nullptr;
    vx::VXRecordUse use(vxTD);
    if (!use) return nullptr;
    if (vx_agent_behind_proxy(app)) {
        /* Only what the host needs stays here; the proxy does the rest. */
        methodPropProperties* m =
            mName ? getMethodPropFromMethodName(
                        mName, vx::load_acquire(app->methodTable.methodHashMapNode))
                  : nullptr;
        if (m) {
            CreateMdata(m->methodId, startTime ? startTime : my_gettimeofday(), getThreadCpuTimeNs(), vxTD);
        } else {
            MethodEntryEncode(0, vxTD->flowpathInstance, threadID, mName, url, urlParameter, startTime,
                              DBQueryParam);
            send_meta_data(mName);
            return nullptr;
        }
        MethodEntryEncode(m->methodId, vxTD->flowpathInstance, threadID, mName, url, urlParameter,
                          startTime, DBQueryParam);
        return nullptr;
    }
    return vxMethodEntryEx(methodPtr, vxTD, mName, url, urlParameter, threadID, pName, 0, TLS,
                           startTime, DBQueryParam);
}

extern "C" void* vxMethodEntryEx(void* methodPtr, VXPerThreadData_t* vxTD, char* mName, char* url,
                                 char* urlParameter, long long threadID, char* pName, char forceDump,
                                 char* TLS, long long startTime, char* DBQueryParam)
{
    (void)pName;
    VXProxyInstance_t* app = vx_app();
    if (!app || !vxTD || !vx::load_relaxed(app->Server.testRunRunning)) return nullptr;
    if (!mName || !*mName) {
        VX_TRACE(app->VXSys.fpTraceLevel, 1, "FLOWPATH", "Method Name for %lld is : '%s'.",
                 vxTD->flowpathInstance, mName ? mName : "");
        return nullptr;
    }
    const long long cpu = getThreadCpuTimeNs();
    vxTD = working_record(app, vxTD, TLS);
    if (!vxTD) return nullptr;
    if (startTime == 0) startTime = my_gettimeofday();
    const long long offset =
        startTime - vx::load_relaxed(app->Server.klvEpochDiffTime) - vxTD->tlFlowPathTimeStampInMS;

    methodPropProperties* m = resolve(app, methodPtr, vxTD, mName, true);
    if (!m) return nullptr;
    /* Written only when it changes: every thread's entries of a method read
     * this line, and a store on each would bounce it between cores. */
    if (!vx::load_relaxed(m->usedFlag)) vx::store_relaxed(m->usedFlag, 1);
    if (skipped_by_host(app, m)) return nullptr;

    if (!(m->isEntryPoint & kEntryPointService)) ++vxTD->tlNonServiceMethodCount;
    if (urlParameter) vx::copy_text(vxTD->tlURLParameters, sizeof vxTD->tlURLParameters, urlParameter);
    if (threadID != 0) vxTD->agentThreadID = threadID;

    if (!vxTD->tlIsBTExcluded && (m->isEntryPoint & kEntryPointCallout)) {
        /* STAND-IN(spans): callout spans are started here. */
        if (app->VXSys.enableOTELStandard &&
            (m->type_ == kMethodTypeHttp || m->type_ == kMethodTypeDatabase))
            /* The span id of this call, sent on in the X-B3 and B3 headers. */
            vx::put_hex(vxTD->callout_span_id,
                        static_cast<unsigned long long>(generate_flowpath_instance()));
        if (m->type_ == kMethodTypeDatabase) {
            char* encoded = nullptr;
            if (DBQueryParam && *DBQueryParam) {
                size_t cap = strlen(DBQueryParam) * 6 + 1;
                if ((encoded = static_cast<char*>(malloc(cap))) != nullptr)
                    DBQueryParamEncoding(encoded, static_cast<int>(cap), DBQueryParam);
            }
            dbMethodEntry(vxTD, offset, url, const_cast<char*>("QuortDB"), encoded);
            free(encoded);
        } else {
            ++vxTD->httpCallOutDepth;
        }
    }

    const bool forced = m->callOutValue == kCallOutHttpEntry;
    const bool token = vxTD->tlNonServiceMethodCount <= app->VXSys.bciMaxNonServiceMethodsPerFP &&
                       !vxTD->tlIsBTExcluded && (vxTD->tlIsFPCaptured || forceDump == 1 || forced);
    /* One hold of the record's lock for the token and the open call. */
    vx::VXLockGuard guard(vxTD->sequenceBlobLock);
    if (token) {
        ++vxTD->seqNum;
        updateFPSeqBlob(vxTD, m->methodId, offset, 0, -1, -1, m->isAsyncCall, threadID, url, 0);
        if (app->VXSys.dumpDebugData) updateDebugModeData(vxTD, m->methodId, 0);
    }
    /* Ids beyond the counters have no open-method record: their exits are
     * never refused and keep the host's wall time. */
    if (m->methodId < vx::kMethodCounterSize) {
        ++vxTD->methodEntryExitCounter[m->methodId];
        if (m->methodId > vxTD->maxCountedMethodId) vxTD->maxCountedMethodId = m->methodId;
        CreateMdata(m->methodId, startTime, cpu, vxTD);
    }
    return m;
}

extern "C" void* vxMethodExit(void* methodPtr, VXPerThreadData_t* vxTD, char* mName,
                              long long fpCPUTime, int statusCode, char* backendName,
                              long long methodWallTime, long long threadID, int isCalloutDone,
                              char* TLS, int event_type, char* argValue, long long endTime,
                              char** strSpan) VX_NOEXCEPT
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !vxTD || !vx::load_relaxed(app->Server.testRunRunning)) {
        VX_TRACE(VX_LEVEL(fpTraceLevel), 4, "FLOWPATH", "vxTD is null, returning");
        return nullptr;
    }
    vx::VXRecordUse use(vxTD);
    if (!use) return nullptr;
    if (vx_agent_behind_proxy(app)) {
        /* The host's end time is kept: the frame carries what the host saw. */
        if (endTime < 1)
            endTime =
                vx::load_relaxed(app->Server.klvEpochDiffTime) + vxTD->tlFlowPathTimeStampInMS;
        methodPropProperties* m =
            mName ? getMethodPropFromMethodName(
                        mName, vx::load_acquire(app->methodTable.methodHashMapNode))
                  : nullptr;
        if (m) {
            UpdateMData(endTime, m->methodId, vxTD, &fpCPUTime, &methodWallTime);
        } else {
            MethodExitEncode(0, statusCode, event_type, isCalloutDone, threadID, methodWallTime,
                             vxTD->flowpathInstance, fpCPUTime, mName, backendName, vxTD->tierCallOutSeqNum,
                             endTime, argValue);
            send_meta_data(mName);
            return nullptr;
        }
        MethodExitEncode(m->methodId, statusCode, event_type, isCalloutDone, threadID, methodWallTime,
                         vxTD->flowpathInstance, fpCPUTime, mName, backendName, vxTD->tierCallOutSeqNum,
                         endTime, argValue);
        return nullptr;
    }
    return vxMethodExitEx(methodPtr, vxTD, mName, fpCPUTime, statusCode, backendName, methodWallTime, 0,
                          threadID, isCalloutDone, TLS, argValue, endTime, strSpan);
}

namespace {

/* The backend description with the separators of records turned into
 * numeric entities (the pipe stays), into `out` of kBackendDescSize bytes.
 * Null for no description. */
constexpr size_t kBackendDescSize = 4096;

char* encode_backend_name(const char* backendName, char* out)
{
    if (!backendName) return nullptr;
    constexpr size_t cap = kBackendDescSize;
    size_t o = 0;
    for (const char* p = backendName; *p && o + 5 < cap; ++p) {
        const char* rep = nullptr;
        switch (*p) {
        case '\n': rep = "&#010;"; break;
        case '\r': rep = "&#013;"; break;
        case '"': rep = "&#034;"; break;
        case '&': rep = "&#038;"; break;
        case '\'': rep = "&#039;"; break;
        case ',': rep = "&#044;"; break;
        case '.': rep = "&#46;"; break;
        case ':': rep = "&#58;"; break;
        case '\\': rep = "&#092;"; break;
        case '^': rep = "&#094;"; break;
        default: break;
        }
        if (!rep) {
            out[o++] = *p;
            continue;
        }
        size_t rl = strlen(rep);
        if (o + rl >= cap) break;
        memcpy(out + o, rep, rl);
        o += rl;
    }
    out[o] = '\0';
    return out;
}

/* The backend `description` named for callout method `m` when this record
 * saw it last in the current table and rules; null otherwise. */
methodPropProperties* cached_backend(VXPerThreadData_t* vxTD, const methodPropProperties* m,
                                     const char* description, const void* generation, int rules)
{
    for (const VXBackendCacheEntry& e : vxTD->backendCache)
        if (e.method == m && e.generation == generation && e.rules == rules &&
            strcmp(e.description, description) == 0)
            return e.backend;
    return nullptr;
}

void remember_backend(VXPerThreadData_t* vxTD, const methodPropProperties* m, const char* description,
                      methodPropProperties* backend, const void* generation, int rules)
{
    if (strlen(description) >= sizeof vxTD->backendCache[0].description) return;
    VXBackendCacheEntry& e = vxTD->backendCache[vxTD->backendCacheNext];
    vxTD->backendCacheNext = (vxTD->backendCacheNext + 1) % vx::kBackendCacheSize;
    e.method = m;
    e.backend = backend;
    e.generation = generation;
    e.rules = rules;
    strcpy(e.description, description);
}

/* Backend of a callout exit (steps shared by the normal and the exception
 * exit): the method itself, or the entry named by the backend description.
 * A record that called the same backend before finds it in its own cache
 * without the method lock: the table and the rules it was named by must
 * still be the current ones. Resource ids are not cached (they are given
 * under their own lock). */
methodPropProperties* callout_backend(VXProxyInstance_t* app, VXPerThreadData_t* vxTD,
                                      methodPropProperties* m, const char* backendName,
                                      long long* resourceID, bool exception_path)
{
    const bool wants_resource = m->type_ == kMethodTypeHttp && app->VXSys.enableIPResourceURL && !exception_path;
    const bool cacheable = backendName && *backendName && !wants_resource;
    const void* generation = vx::load_acquire(app->methodTable.methodHashMapNode);
    const int rules = vx::load_acquire(app->backendNaming.version);
    if (cacheable)
        if (methodPropProperties* b = cached_backend(vxTD, m, backendName, generation, rules)) return b;
    /* The cache holds descriptions as the host gave them: a hit skips the
     * encoding too. */
    char encodedBuf[kBackendDescSize];
    char* encodedBackend = encode_backend_name(backendName, encodedBuf);

    /* Backends are made in the current generation, under the lock that
     * chose it (the lock is nested: the lookup takes it again). */
    vx::VXLockGuard guard(app->methodTable.methodEntryLock);
    node_t* node = app->methodTable.methodHashMapNode;
    if (!node) return m;
    if (!encodedBackend || !*encodedBackend) {
        if (m->type_ != kMethodTypeDatabase) return m;
        return searchAndUpdateMethodHashMap(encodedBackend, node, 0, m->type_, m->callOutValue);
    }
    if (wants_resource) *resourceID = getIDForIPResourceURL(encodedBackend);
    char rule[kBackendRuleSize];
    vx::copy_text(rule, sizeof rule, vx::backend_rule(m->type_));
    char name[kBackendNameSize];
    settingBackendName(encodedBackend, rule, name, sizeof name);
    methodPropProperties* b = searchAndUpdateMethodHashMap(name, node, 1, m->type_, m->callOutValue);
    if (!b) return m;
    if (cacheable && node == generation) remember_backend(vxTD, m, backendName, b, generation, rules);
    return b;
}


}  // namespace

extern "C" void* vxMethodExitEx(void* methodPtr, VXPerThreadData_t* vxTD, char* mName,
                                long long fpCPUTime, int statusCode, char* backendName,
                                long long methodWallTime, char forceDump, long long threadId,
                                int isCalOutDone, char* TLS, char* argValue, long long endTime,
                                char** strSpan)
{
    (void)strSpan; /* STAND-IN(spans): callout spans are returned here */
    VXProxyInstance_t* app = vx_app();
    if (!app || !vxTD || !vx::load_relaxed(app->Server.testRunRunning)) return nullptr;
    if (!mName || !*mName) {
        VX_TRACE(app->VXSys.fpTraceLevel, 1, "FLOWPATH", "Method name for '%lld' is : '%s'.",
                 vxTD->flowpathInstance, mName ? mName : "");
        return nullptr;
    }
    vxTD = working_record(app, vxTD, TLS);
    if (!vxTD) return nullptr;
    if (endTime < 1)
        endTime = vx::load_relaxed(app->Server.klvEpochDiffTime) + vxTD->tlFlowPathTimeStampInMS;
    const long long entryTimeStamp =
        (endTime - vx::load_relaxed(app->Server.klvEpochDiffTime) - vxTD->tlFlowPathTimeStampInMS) /
        1000;
    if (statusCode >= 0) vxTD->tlStatusCode = statusCode;
    const int isError = (vxTD->tlStatusCode >= 200 && vxTD->tlStatusCode <= 299) ? 0 : 1;

    methodPropProperties* m = resolve(app, methodPtr, vxTD, mName, false);
    if (!m) return nullptr;
    if ((!methodPtr || m != methodPtr) && !vx::load_relaxed(m->usedFlag))
        vx::store_relaxed(m->usedFlag, 1);
    const int mid = m->methodId;
    if (mid < vx::kMethodCounterSize) {
        if (vxTD->methodEntryExitCounter[mid] < 1) {
            VX_TRACE(app->VXSys.controlTraceLevel, 4, "FLOWPATH",
                     "FPI = %lld Method Exit = '%s,%d,%d' Entry Not Found", vxTD->flowpathInstance, mName,
                     mid, vxTD->methodEntryExitCounter[mid]);
            return nullptr;
        }
        {
            vx::VXLockGuard guard(vxTD->sequenceBlobLock);
            UpdateMData(endTime, mid, vxTD, &fpCPUTime, &methodWallTime);
        }
        if (app->VXSys.enableCpuTime < 3 && app->VXBCISetting.agentIsGo) fpCPUTime = 0;
        --vxTD->methodEntryExitCounter[mid];
    }
    if (skipped_by_host(app, m)) return nullptr;

    const bool callout = (m->isEntryPoint & kEntryPointCallout) && !vxTD->tlIsBTExcluded;
    methodPropProperties* backend = m;
    long long resourceID = 0;
    if (callout) {
        backend = callout_backend(app, vxTD, m, backendName, &resourceID, false);
        if (m->type_ != kMethodTypeDatabase) {
            ++vxTD->seqNum;
            --vxTD->httpCallOutDepth;
            if (vxTD->tierCallOutSeqNum && isCalOutDone)
                updateCounterAndDurationForBackend(vxTD, backend, methodWallTime, isError);
        } else {
            ++vxTD->seqNum;
            --vxTD->tlSQLObj.DBCallDepth;
            if (vxTD->tlSQLObj.DBCallDepth <= 0 || app->VXSys.enableCaptureDataOutsideTxn)
                updateCounterAndDurationForBackend(vxTD, backend, methodWallTime, isError);
        }
    }
    if (m->isEntryPoint & kEntryPointCustomCallout) {
        methodPropProperties* target = m->customCalloutptr ? m->customCalloutptr : m;
        ++vxTD->seqNum;
        vx::VXLockGuard guard(vxTD->sequenceBlobLock);
        updateFPSeqBlobWithTierCallOutRecord(vxTD, entryTimeStamp, methodWallTime, target, resourceID);
        updateCounterAndDurationForBackend(vxTD, target, methodWallTime, 0);
    }
    if (m->isEntryPoint & kEntryPointMonitor) updateCounterAndDurationForMethod(vxTD, m, methodWallTime);

    const bool forced = m->callOutValue == kCallOutTxExit;
    {
        vx::VXLockGuard guard(vxTD->sequenceBlobLock);
        if (vxTD->tlNonServiceMethodCount <= app->VXSys.bciMaxNonServiceMethodsPerFP) {
            ++vxTD->seqNum;
            int captureArgument = 0;
            if (argValue && app->VXSys.enableProcessNotificationPhase == 1) {
                dump19RecordForSpecificMethodArg(vxTD, mid, argValue);
                captureArgument = 1;
            }
            if (!vxTD->tlIsBTExcluded && (vxTD->tlIsFPCaptured || forceDump == 1 || forced)) {
                updateFPSeqBlob(vxTD, mid, methodWallTime, 1, -1, fpCPUTime, m->isAsyncCall, threadId, nullptr,
                                captureArgument);
                if (app->VXSys.dumpDebugData) updateDebugModeData(vxTD, mid, 1);
            }
        } else {
            --vxTD->tlNonServiceMethodCount;
        }
        /* Callouts are collected whether or not the flowpath is captured;
         * of nested database calls only the outermost appears. */
        if (callout) {
            const bool db_outermost = m->type_ == kMethodTypeDatabase && vxTD->tlSQLObj.DBCallDepth < 1;
            const bool remote_done = (m->type_ == kMethodTypeHttp || m->type_ == kMethodTypeMessageQueue) &&
                                     vxTD->tierCallOutSeqNum && isCalOutDone;
            if (db_outermost || remote_done)
                updateFPSeqBlobWithTierCallOutRecord(vxTD, entryTimeStamp, methodWallTime, backend, resourceID);
        }
    }
    return m;
}

extern "C" void* vxMethodExitException(void* methodPtr, VXPerThreadData_t* vxTD, char* mName,
                                       long long fpCPUTime, int statusCode, char* backendName,
                                       long long methodWallTime, char forceDump, long long threadId,
                                       int isCalOutDone, char* TLS, int event_type) VX_NOEXCEPT
{
    (void)isCalOutDone;
    VXProxyInstance_t* app = vx_app();
    if (!app || !vxTD || !vx::load_relaxed(app->Server.testRunRunning)) return nullptr;
    vx::VXRecordUse use(vxTD);
    if (!use) return nullptr;
    vxTD = working_record(app, vxTD, TLS);
    if (!vxTD) return nullptr;
    if (vx_agent_behind_proxy(app)) {
        vxMethodExitExceptionEncode(vxTD->flowpathInstance, mName, backendName, threadId, event_type);
        return nullptr;
    }
    const long long entryTimeStamp = my_gettimeofday() -
                                     vx::load_relaxed(app->Server.klvEpochDiffTime) -
                                     vxTD->tlFlowPathTimeStampInMS;
    /* The status only rises on the way out of an exception. */
    if (statusCode >= 0 && statusCode > vxTD->tlStatusCode) vxTD->tlStatusCode = statusCode;
    const int isError = (vxTD->tlStatusCode >= 200 && vxTD->tlStatusCode <= 299) ? 0 : 1;
    methodPropProperties* m = resolve(app, methodPtr, vxTD, mName, false);
    if (!m) return nullptr;
    const int mid = m->methodId;

    if ((m->isEntryPoint & kEntryPointCallout) && !vxTD->tlIsBTExcluded) {
        long long resourceID = 0;
        methodPropProperties* backend = callout_backend(app, vxTD, m, backendName, &resourceID, true);
        bool token = true;
        if (m->type_ != kMethodTypeDatabase) {
            --vxTD->httpCallOutDepth;
        } else {
            ++vxTD->seqNum;
            --vxTD->tlSQLObj.DBCallDepth;
            token = !(vxTD->tlSQLObj.DBCallDepth > 0 && !app->VXSys.enableCaptureDataOutsideTxn);
        }
        if (token) {
            updateFPSeqBlobWithTierCallOutExceptionRecord(vxTD, entryTimeStamp, methodWallTime, backend,
                                                          resourceID, vxTD->tlStatusCode);
            updateCounterAndDurationForBackend(vxTD, backend, methodWallTime, isError);
        }
    }
    if (m->isEntryPoint & kEntryPointCustomCallout) {
        methodPropProperties* target = m->customCalloutptr ? m->customCalloutptr : m;
        updateFPSeqBlobWithTierCallOutExceptionRecord(vxTD, entryTimeStamp, methodWallTime, target, 0,
                                                      vxTD->tlStatusCode);
        updateCounterAndDurationForBackend(vxTD, target, methodWallTime, isError);
    }
    if (m->isEntryPoint & kEntryPointMonitor) updateCounterAndDurationForMethod(vxTD, m, methodWallTime);

    vx::VXLockGuard guard(vxTD->sequenceBlobLock);
    if (vxTD->tlNonServiceMethodCount <= app->VXSys.bciMaxNonServiceMethodsPerFP) {
        if (!vxTD->tlIsBTExcluded &&
            (vxTD->tlIsFPCaptured || forceDump == 1 || m->callOutValue == kCallOutTxExit)) {
            ++vxTD->seqNum;
            updateFPSeqBlob(vxTD, mid, methodWallTime, event_type, -1, fpCPUTime, m->isAsyncCall, threadId,
                            nullptr, 0);
        }
    } else {
        --vxTD->tlNonServiceMethodCount;
    }
    return m;
}

extern "C" void updateFPSeqBlob(VXPerThreadData_t* vxTD, int mid, long long startTime, int eventID,
                                int pageID, long long cpuTime, int isAsyncCall, long long threadID,
                                char* urlStr, int captureArgument)
{
    (void)pageID;
    VXProxyInstance_t* app = vx_app();
    if (!vxTD || !app) return;
    TokenWriter w(vxTD);
    if (eventID == 0) {
        if (isAsyncCall)
            w.write(mid, ':', threadID, ":1:", urlStr ? urlStr : "", "_0_", startTime, "__");
        else
            w.write(mid, ':', threadID, "_0_", startTime, "__");
    } else {
        w.write(mid, ':', threadID, '_', eventID);
        if (captureArgument && app->VXSys.enableProcessNotificationPhase == 1) w.write(':', vxTD->seqNum);
        w.write('_', startTime);
        if (cpuTime >= 0)
            w.write('_', cpuTime, "___");
        else
            w.write("____");
    }
    w.finish();
    checkToDumpFPSeqBlob(vxTD);
}

extern "C" void updateFPSeqBlobWithTierCallOutRecord(VXPerThreadData_t* vxTD, long long methodStartTime,
                                                     long long duration, methodPropProperties* mPP,
                                                     long long resourceID)
{
    VXProxyInstance_t* app = vx_app();
    if (!vxTD || !mPP || !app) return;
    const int status = vxTD->tlStatusCode;
    const bool ok = status >= 200 && status <= 299;
    const char letter = ok ? 'T' : 'E';
    const long long start = methodStartTime;
    const int kind = static_cast<signed char>(mPP->callOutValue);
    const int mid = mPP->methodId;
    TokenWriter w(vxTD);
    switch (mPP->type_) {
    case kMethodTypeDatabase:
        w.write(letter, vxTD->seqNum, ':', mid, ':', duration, ':', kind, ':', vxTD->tlSQLObj.sqlId, ':', start,
                "::::", status, ':', vxTD->tlSQLObj.DBQueryParam ? vxTD->tlSQLObj.DBQueryParam : "", '_');
        break;
    case kMethodTypeCustom:
        w.write(letter, vxTD->seqNum, ':', mid, ':', duration, ':', 8, ":-:", start);
        if (!ok) w.write(':', status);
        w.put('_');
        break;
    case kMethodTypeMessageQueue:
        w.write(letter, vxTD->seqNum, ':', mid, ':', duration, ':', kind, ':', vxTD->tlSQLObj.sqlId, ':', start);
        if (!ok) w.write(':', status);
        w.put('_');
        break;
    default:
        w.write(letter, callout_seq(vxTD), ':', mid, ':', duration, ':', 1, ":-:", start);
        if (!ok) w.write(':', status);
        if (app->VXSys.enableIPResourceURL) w.write(':', resourceID);
        w.put('_');
        vxTD->tierCallOutSeqNum = 0;
        break;
    }
    w.finish();
    free(vxTD->tlSQLObj.DBQueryParam);
    vxTD->tlSQLObj.DBQueryParam = nullptr;
    checkToDumpFPSeqBlob(vxTD);
}

extern "C" void updateFPSeqBlobWithTierCallOutExceptionRecord(VXPerThreadData_t* vxTD,
                                                              long long methodStartTime, long long duration,
                                                              methodPropProperties* mPP, long long resourceID,
                                                              int statusCode)
{
    VXProxyInstance_t* app = vx_app();
    if (!vxTD || !mPP || !app) return;
    vx::VXLockGuard guard(vxTD->sequenceBlobLock);
    TokenWriter w(vxTD);
    const int mid = mPP->methodId;
    if (mPP->type_ == kMethodTypeDatabase) {
        w.write('E', vxTD->seqNum, ':', mid, ':', duration, ':', 10, ':', vxTD->tlSQLObj.sqlId, ':',
                methodStartTime, ':', statusCode, '_');
    } else if (app->VXSys.enableIPResourceURL) {
        w.write('E', callout_seq(vxTD), ':', mid, ':', duration, ':', 1, ':', 0, ':', methodStartTime, ':',
                statusCode, ':', resourceID, '_');
        vxTD->tierCallOutSeqNum = 0;
    } else if (mPP->type_ == kMethodTypeHttp) {
        w.write('E', callout_seq(vxTD), ':', mid, ':', duration, ':', 1, ':', 0, ':', methodStartTime, ':',
                statusCode, '_');
        vxTD->tierCallOutSeqNum = 0;
    } else {
        VX_TRACE(app->VXSys.fpTraceLevel, 2, "FLOWPATH",
                 "During Exception Callout, No CallOut Detected for method: [%s]", mPP->methodName);
        return;
    }
    w.finish();
    checkToDumpFPSeqBlob(vxTD);
}

extern "C" void appendExceptionRecordInSeqBlob(VXPerThreadData_t* vxTD)
{
    if (!vxTD) return;
    TokenWriter w(vxTD);
    w.write('e', vxTD->seqNum, '_');
    w.finish();
    checkToDumpFPSeqBlob(vxTD);
}

extern "C" void checkToDumpFPSeqBlob(VXPerThreadData_t* vxTD)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !vxTD) return;
    if (vxTD->sequenceBlobLen >= app->VXFlowpathGenerator.maxCharactersInSeqBlob)
        dumpIncompleteFlowpathSeqBlock(vxTD);
}

extern "C" void dump19RecordForSpecificMethodArg(VXPerThreadData_t* vxTD, int mid, char* value)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !vxTD || !app->httpHashMapNode) return;
    httpHeaderInfo* header =
        searchAndUpdatehttpHashMapNode(const_cast<char*>("Custom_Header"), app->httpHashMapNode, 1);
    if (!header) return;
    ++vxTD->seqNum;
    char buf[vx::kMetaRecordSize];
    vx::dump_record(buf, sizeof buf, "19,%lld,2:%d:%lld:%d:1:<%s>|\n", vxTD->flowpathInstance, mid,
                    vxTD->seqNum, header->id, value ? value : "");
}

extern "C" void updateDebugModeData(VXPerThreadData_t* vxTD, int mid, int eventID)
{
    if (!vxTD) return;
    const size_t used = static_cast<size_t>(vxTD->debugModeLen);
    if (used >= sizeof vxTD->debugModeBuf - 1) return;
    int n = snprintf(vxTD->debugModeBuf + used, sizeof vxTD->debugModeBuf - used,
                     used == 0 ? "%d:%lld_%d_%lld_%p" : "|%d:%lld_%d_%lld_%p", mid, vxTD->tlThreadId, eventID,
                     vxTD->seqNum, static_cast<void*>(vxTD));
    if (n < 0) return;
    /* As far as it fits: an entry that did not fit whole is taken back. */
    if (used + static_cast<size_t>(n) >= sizeof vxTD->debugModeBuf)
        vxTD->debugModeBuf[used] = '\0';
    else
        vxTD->debugModeLen += n;
}

extern "C" void dumpDataForDebug(VXPerThreadData_t* vxTD)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !vxTD || vxTD->debugModeLen == 0) return;
    if (app->VXSys.dumpDebugData) {
        char buf[vx::kMetaRecordSize];
        vx::dump_record(buf, sizeof buf, "%d,%lld,%s\n", 100, vxTD->flowpathInstance, vxTD->debugModeBuf);
    }
    /* The buffer belongs to one flowpath: it is emptied once reported. */
    vxTD->debugModeLen = 0;
    vxTD->debugModeBuf[0] = '\0';
}

extern "C" void dumpStackTraceData(char* stacktrace)
{
    if (!stacktrace) return;
    char buf[vx::kFlowpathRecordSize];
    vx::dump_record(buf, sizeof buf, "%d:%s\n", 100, stacktrace);
}

extern "C" void CreateMdata(int methodid, long long startTime, long long start_mCPUTime,
                            VXPerThreadData_t* vxTD)
{
    /* A record without open calls (proxy-mode agent) keeps no memory. */
    if (!vxTD || !vxTD->sdkAgentHash || methodid < 0 || methodid >= vx::kMethodCounterSize) return;
    VXOpenCalls* open = vxTD->sdkAgentHash;
    if (open->count == open->cap) {
        int cap = open->cap ? open->cap * 2 : 16;
        auto* grown = static_cast<SDKAgentTimeDetails_t*>(
            realloc(open->calls, sizeof(SDKAgentTimeDetails_t) * static_cast<size_t>(cap)));
        if (!grown) return; /* the exit then keeps the host's values */
        open->calls = grown;
        open->cap = cap;
    }
    open->calls[open->count++] = {methodid, vxTD->methodEntryExitCounter[methodid], startTime, start_mCPUTime};
}

extern "C" void UpdateMData(long long endtime, int methodid, VXPerThreadData_t* vxTD, long long* fpCPUTime,
                            long long* methodWallTime)
{
    if (!vxTD || !vxTD->sdkAgentHash || methodid < 0 || methodid >= vx::kMethodCounterSize) return;
    VXOpenCalls* open = vxTD->sdkAgentHash;
    const int depth = vxTD->methodEntryExitCounter[methodid];
    for (int i = open->count - 1; i >= 0; --i) {
        SDKAgentTimeDetails_t& c = open->calls[i];
        if (c.methodId != methodid || c.openCount != depth) continue;
        long long wall = endtime - c.startTime;
        long long cpu = getThreadCpuTimeNs() - c.mCPUTime;
        *methodWallTime = wall > 0 ? wall : 0;
        *fpCPUTime = cpu > 0 ? cpu : 0;
        /* Usually the top: nothing moves. */
        memmove(&open->calls[i], &open->calls[i + 1],
                sizeof(SDKAgentTimeDetails_t) * static_cast<size_t>(open->count - i - 1));
        --open->count;
        return;
    }
}

extern "C" void FreeMData(VXPerThreadData_t* vxTD)
{
    if (vxTD && vxTD->sdkAgentHash) vxTD->sdkAgentHash->count = 0;
}

namespace vx {

VXOpenCalls* open_calls_create()
{
    auto* open = static_cast<VXOpenCalls*>(calloc(1, sizeof(VXOpenCalls)));
    if (!open) return nullptr;
    open->cap = 16;
    open->calls = static_cast<SDKAgentTimeDetails_t*>(calloc(16, sizeof(SDKAgentTimeDetails_t)));
    if (!open->calls) open->cap = 0;
    return open;
}

}  // namespace vx

extern "C" int getDBCallDepth(VXPerThreadData_t* vxTD) { return vxTD ? vxTD->tlSQLObj.DBCallDepth : 0; }

extern "C" int getMaxCharactersInSeqBlob(void)
{
    VXProxyInstance_t* app = vx_app();
    return app ? app->VXFlowpathGenerator.maxCharactersInSeqBlob : kDefaultMaxCharactersInSeqBlob;
}

extern "C" void setMaxCharactersInSeqBlob(int value)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    if (value < 1 || value > vx::kMaxCharInSeqBlobMax) {
        VX_ERROR("FLOWPATH", "Invalid maxCharInSeqBlob '%d', keeping '%d'", value,
                 app->VXFlowpathGenerator.maxCharactersInSeqBlob);
        return;
    }
    app->VXFlowpathGenerator.maxCharactersInSeqBlob = value;
}
