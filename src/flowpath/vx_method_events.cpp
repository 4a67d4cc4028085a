#include "flowpath/vx_method_events.h"

#include <apr_hash.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/vx_hashmap.h"
#include "core/vx_instance.h"
#include "core/vx_text.h"
#include "core/vx_platform.h"
#include "core/vx_thread.h"
#include "core/vx_trace_log.h"
#include "flowpath/vx_flowpath.h"
#include "flowpath/vx_method_table.h"

namespace {

methodPropProperties* resolve(void* methodPtr, VXPerThreadData_t* vxTD, const char* mName)
{
    VXProxyInstance_t* app = vx_app();
    VXMethodTable_t& t = app->methodTable;
    if (methodPtr && vxTD->hasMapNodePtr == t.methodHashMapNode)
        return static_cast<methodPropProperties*>(methodPtr);
    vx::VXLockGuard guard(t.methodEntryLock);
    vxTD->hasMapNodePtr = t.methodHashMapNode;
    if (!t.methodHashMapNode) return nullptr;
    return static_cast<methodPropProperties*>(
        search_hashmap(const_cast<char*>(mName), t.methodHashMapNode->ptr));
}

}  // namespace

extern "C" void* vxMethodEntryEx(void* methodPtr, VXPerThreadData_t* vxTD, char* mName,
                                 char* url, char* urlParameter, long long threadID, char* pName,
                                 char forceDump, char* TLS, long long startTime,
                                 char* DBQueryParam)
{
    (void)pName;
    (void)TLS;
    (void)DBQueryParam;
    VXProxyInstance_t* app = vx_app();
    if (!app || !vxTD || !app->Server.testRunRunning) return nullptr;
    if (!mName || !*mName) {
        VX_TRACE(app->VXSys.fpTraceLevel, 1, "FLOWPATH", "Method Name for %lld is : '%s'.",
                 vxTD->flowpathInstance, mName ? mName : "");
        return nullptr;
    }
    long long cpu = getThreadCpuTimeNs();
    if (startTime == 0) startTime = my_gettimeofday();
    long long offset = startTime - app->Server.klvEpochDiffTime - vxTD->tlFlowPathTimeStampInMS;
    methodPropProperties* m = resolve(methodPtr, vxTD, mName);
    if (!m) return nullptr;
    m->usedFlag = 1;
    if (!(m->isEntryPoint & 1)) ++vxTD->tlNonServiceMethodCount;
    if (urlParameter) vx::copy_text(vxTD->tlURLParameters, sizeof vxTD->tlURLParameters, urlParameter);
    if (threadID != 0) vxTD->agentThreadID = threadID;
    const bool forced = m->callOutValue == 1;
    if (vxTD->tlNonServiceMethodCount <= app->VXSys.bciMaxNonServiceMethodsPerFP &&
        !vxTD->tlIsBTExcluded && (vxTD->tlIsFPCaptured || forceDump == 1 || forced)) {
        ++vxTD->seqNum;
        vx::VXLockGuard guard(vxTD->sequenceBlobLock);
        updateFPSeqBlob(vxTD, m->methodId, offset, 0, -1, -1, m->isAsyncCall, threadID, url, 0);
    }
    if (m->methodId < vx::kMethodCounterSize) {
        ++vxTD->methodEntryExitCounter[m->methodId];
        CreateMdata(m->methodId, startTime, cpu, vxTD);
    }
    return m;
}

extern "C" void* vxMethodExitEx(void* methodPtr, VXPerThreadData_t* vxTD, char* mName,
                                long long fpCPUTime, int statusCode, char* backendName,
                                long long methodWallTime, char forceDump, long long threadId,
                                int isCalOutDone, char* TLS, char* argValue, long long endTime,
                                char** strSpan)
{
    (void)backendName;
    (void)isCalOutDone;
    (void)TLS;
    (void)argValue;
    (void)strSpan;
    VXProxyInstance_t* app = vx_app();
    if (!app || !vxTD || !app->Server.testRunRunning) return nullptr;
    if (!mName || !*mName) {
        VX_TRACE(app->VXSys.fpTraceLevel, 1, "FLOWPATH", "Method name for '%lld' is : '%s'.",
                 vxTD->flowpathInstance, mName ? mName : "");
        return nullptr;
    }
    if (endTime < 1) endTime = app->Server.klvEpochDiffTime + vxTD->tlFlowPathTimeStampInMS;
    if (statusCode >= 0) vxTD->tlStatusCode = statusCode;
    methodPropProperties* m = resolve(methodPtr, vxTD, mName);
    if (!m) return nullptr;
    const int mid = m->methodId;
    if (mid < vx::kMethodCounterSize) {
        if (vxTD->methodEntryExitCounter[mid] < 1) {
            VX_TRACE(app->VXSys.controlTraceLevel, 4, "FLOWPATH",
                     "FPI = %lld Method Exit = '%s,%d,%d' Entry Not Found", vxTD->flowpathInstance,
                     mName, mid, vxTD->methodEntryExitCounter[mid]);
            return nullptr;
        }
        UpdateMData(endTime, mid, vxTD, &fpCPUTime, &methodWallTime);
        --vxTD->methodEntryExitCounter[mid];
    }
    const bool forced = m->callOutValue == 4;
    vx::VXLockGuard guard(vxTD->sequenceBlobLock);
    if (vxTD->tlNonServiceMethodCount <= app->VXSys.bciMaxNonServiceMethodsPerFP) {
        ++vxTD->seqNum;
        if (!vxTD->tlIsBTExcluded && (vxTD->tlIsFPCaptured || forceDump == 1 || forced))
            updateFPSeqBlob(vxTD, mid, methodWallTime, 1, -1, fpCPUTime, m->isAsyncCall, threadId,
                            nullptr, 0);
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
    (void)captureArgument;
    if (!vxTD) return;
    char* at = vxTD->sequenceBlob + vxTD->sequenceBlobLen;
    const size_t room = static_cast<size_t>(vx::kSeqBlobSize - vxTD->sequenceBlobLen);
    int n;
    if (eventID == 0) {
        if (isAsyncCall)
            n = snprintf(at, room, "%d:%lld:1:%s_%d_%lld__", mid, threadID, urlStr ? urlStr : "", 0,
                         startTime);
        else
            n = snprintf(at, room, "%d:%lld_%d_%lld__", mid, threadID, 0, startTime);
    } else if (cpuTime < 0) {
        n = snprintf(at, room, "%d:%lld_%d_%lld____", mid, threadID, eventID, startTime);
    } else {
        n = snprintf(at, room, "%d:%lld_%d_%lld_%lld___", mid, threadID, eventID, startTime, cpuTime);
    }
    if (n > 0) vxTD->sequenceBlobLen += n;
    if (vxTD->sequenceBlobLen > vx::kSeqBlobSize) vxTD->sequenceBlobLen = vx::kSeqBlobSize;
    checkToDumpFPSeqBlob(vxTD);
}

extern "C" void checkToDumpFPSeqBlob(VXPerThreadData_t* vxTD)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !vxTD) return;
    if (vxTD->sequenceBlobLen >= app->VXFlowpathGenerator.maxCharactersInSeqBlob)
        dumpIncompleteFlowpathSeqBlock(vxTD);
}

extern "C" void CreateMdata(int methodid, long long startTime, long long start_mCPUTime,
                            VXPerThreadData_t* vxTD)
{
    /* A record without a map (proxy-mode agent) keeps no memory. */
    if (!vxTD || !vxTD->sdkAgentHash || methodid < 0 || methodid >= vx::kMethodCounterSize) return;
    auto* d = static_cast<SDKAgentTimeDetails_t*>(malloc(sizeof(SDKAgentTimeDetails_t)));
    if (!d) return;
    snprintf(d->key, sizeof d->key, "%d_%d", methodid, vxTD->methodEntryExitCounter[methodid]);
    d->startTime = startTime;
    d->mCPUTime = start_mCPUTime;
    modify_hashmap(d->key, d, vxTD->sdkAgentHash);
}

extern "C" void UpdateMData(long long endtime, int methodid, VXPerThreadData_t* vxTD,
                            long long* fpCPUTime, long long* methodWallTime)
{
    if (!vxTD || !vxTD->sdkAgentHash || methodid < 0 || methodid >= vx::kMethodCounterSize) return;
    char key[20];
    snprintf(key, sizeof key, "%d_%d", methodid, vxTD->methodEntryExitCounter[methodid]);
    auto* d = static_cast<SDKAgentTimeDetails_t*>(search_hashmap(key, vxTD->sdkAgentHash));
    if (!d) return;
    modify_hashmap(d->key, nullptr, vxTD->sdkAgentHash);
    long long wall = endtime - d->startTime;
    long long cpu = getThreadCpuTimeNs() - d->mCPUTime;
    *methodWallTime = wall > 0 ? wall : 0;
    *fpCPUTime = cpu > 0 ? cpu : 0;
    free(d);
}

extern "C" void FreeMData(VXPerThreadData_t* vxTD)
{
    if (!vxTD || !vxTD->sdkAgentHash) return;
    /* Collect first: entries cannot be freed while the iterator walks them. */
    void* open[64];
    while (true) {
        int n = 0;
        for (apr_hash_index_t* hi = apr_hash_first(nullptr, vxTD->sdkAgentHash); hi && n < 64;
             hi = apr_hash_next(hi))
            open[n++] = apr_hash_this_val(hi);
        if (n == 0) break;
        for (int i = 0; i < n; ++i) {
            auto* d = static_cast<SDKAgentTimeDetails_t*>(open[i]);
            modify_hashmap(d->key, nullptr, vxTD->sdkAgentHash);
            free(d);
        }
    }
}

/* STAND-IN (issue #3): debug data (record 100) is not collected yet. */
extern "C" void dumpDataForDebug(VXPerThreadData_t* vxTD) { (void)vxTD; }

extern "C" int getMaxCharactersInSeqBlob(void)
{
    VXProxyInstance_t* app = vx_app();
    return app ? app->VXFlowpathGenerator.maxCharactersInSeqBlob : kDefaultMaxCharactersInSeqBlob;
}

extern "C" void setMaxCharactersInSeqBlob(int value)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    if (value < 1 || value > vx::kSeqBlobSize) {
        VX_ERROR("FLOWPATH", "Invalid maxCharInSeqBlob '%d', keeping '%d'", value,
                 app->VXFlowpathGenerator.maxCharactersInSeqBlob);
        return;
    }
    app->VXFlowpathGenerator.maxCharactersInSeqBlob = value;
}

/* STAND-IN (issue #3): the public calls hand over to the engine directly. */
extern "C" void* vxMethodEntry(void* methodPtr, VXPerThreadData_t* vxTD, char* mName, char* url,
                               char* urlParameter, long long threadID, char* pName, char* TLS,
                               long long startTime, char* DBQueryParam) VX_NOEXCEPT
{
    return vxMethodEntryEx(methodPtr, vxTD, mName, url, urlParameter, threadID, pName, 0, TLS,
                           startTime, DBQueryParam);
}

extern "C" void* vxMethodExit(void* methodPtr, VXPerThreadData_t* vxTD, char* mName,
                              long long fpCPUTime, int statusCode, char* backendName,
                              long long methodWallTime, long long threadID, int isCalloutDone,
                              char* TLS, int event_type, char* argValue, long long endTime,
                              char** strSpan) VX_NOEXCEPT
{
    (void)event_type;
    return vxMethodExitEx(methodPtr, vxTD, mName, fpCPUTime, statusCode, backendName,
                          methodWallTime, 0, threadID, isCalloutDone, TLS, argValue, endTime, strSpan);
}

extern "C" void* vxMethodExitException(void*, VXPerThreadData_t*, char*, long long, int, char*,
                                       long long, char, long long, int, char*, int) VX_NOEXCEPT
{
    return nullptr;
}

extern "C" int isMethodInHashMap(char*) VX_NOEXCEPT { return 0; }

extern "C" int getArgValueForCustomLog(char*) VX_NOEXCEPT { return 0; }
