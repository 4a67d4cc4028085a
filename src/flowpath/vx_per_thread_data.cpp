#include "flowpath/vx_per_thread_data.h"

#include <apr_random.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "agent/vx_instance.h"
#include "core/vx_atomic.h"
#include "core/vx_hashmap.h"
#include "core/vx_platform.h"
#include "core/vx_record_door.h"
#include "core/vx_text.h"
#include "core/vx_thread.h"
#include "core/vx_trace_log.h"
#include "flowpath/vx_flowpath.h"
#include "flowpath/vx_method_events.h"
#include "monitor/vx_bt_monitor.h"

namespace {

/* Hot-spot tables replaced by larger ones. They are kept, not freed: the
 * sampler may be reading one at this moment, and the pool only ever grows, so
 * what is kept is bounded by the final size. Caller holds tlsMutex. */
std::vector<TLSDataStruct*>* g_retired_hotspot_tables = new std::vector<TLSDataStruct*>();

void grow_hotspot_table(VXTLSPool_t& pool, int entries)
{
    if (entries <= pool.tlsdatastructCap) return;
    auto* table = static_cast<TLSDataStruct*>(calloc(static_cast<size_t>(entries), sizeof(TLSDataStruct)));
    if (!table) return;
    if (pool.tlsdatastruct) {
        try {
            g_retired_hotspot_tables->push_back(pool.tlsdatastruct);
        } catch (...) {
            free(table);
            return;
        }
    }
    /* Owners write their entries without the pool's lock: copy field by
     * field, atomically. A write that lands in the old table after its
     * entry was copied is lost; entries are hints for the sampler. */
    for (int i = 0; pool.tlsdatastruct && i < pool.tlsdatastructCap; ++i) {
        const TLSDataStruct& from = pool.tlsdatastruct[i];
        table[i] = TLSDataStruct{vx::load_relaxed(from.Tlsdata), vx::load_relaxed(from.threadId),
                                 vx::load_relaxed(from.timestamp)};
    }
    __atomic_store_n(&pool.tlsdatastruct, table, __ATOMIC_RELEASE);
    pool.tlsdatastructCap = entries;
}

}  // namespace

extern "C" VXPerThreadData_t* create_tls_pool(int loc_BusyTLSCnt)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return nullptr;
    VXTLSPool_t& pool = app->tlsPool;
    if (!pool.pool && apr_pool_create(&pool.pool, app->control_pool) != APR_SUCCESS) return nullptr;
    if (!pool.tlsMutex) pool.tlsMutex = vx::mutex_create(pool.pool);
    if (!pool.tlsdatastruct && app->VXSys.vxEnableTxHotspot == 1)
        grow_hotspot_table(pool, vx::kTLSBlockSize);

    auto* block = static_cast<VXPerThreadData_t*>(
        calloc(vx::kTLSBlockSize, sizeof(VXPerThreadData_t)));
    if (!block) {
        VX_ERROR("FLOWPATH", "Error in allocating block of %d records", vx::kTLSBlockSize);
        return nullptr;
    }
    const bool light = vx_agent_behind_proxy(app);
    for (int i = 0; i < vx::kTLSBlockSize; ++i) {
        VXPerThreadData_t* rec = &block[i];
        rec->tlsIdx = pool.g_tlsidx++;
        if (!light) {
            rec->sequenceBlobLock = vx::mutex_create(pool.pool);
            rec->updateBTLock = vx::mutex_create(pool.pool);
            rec->sdkAgentHash = vx::open_calls_create();
        }
        rec->free_next = (i + 1 < vx::kTLSBlockSize) ? &block[i + 1] : nullptr;
        rec->free_prev = i > 0 ? &block[i - 1] : nullptr;
        rec->tlThreadId = loc_BusyTLSCnt + i + 1;
        rec->tlStatusCode = 200;
        rec->qTimeInMS = -1;
        /* The proxy process makes its models on first use (they go at a
         * session's end); an agent behind a proxy counts nothing. */
        if (!light && !vx_in_proxy_process()) initVXMonitorDataModel(rec);
        rec->busy_next = rec->busy_prev = nullptr;
    }
    pool.gFreeTLSTail = &block[vx::kTLSBlockSize - 1];
    pool.gFreeTLSCnt += vx::kTLSBlockSize;
    return block;
}

extern "C" VXPerThreadData_t* get_free_tls_slot(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return nullptr;
    VXTLSPool_t& pool = app->tlsPool;
    VXPerThreadData_t* rec;
    {
        vx::VXLockGuard guard(pool.tlsMutex);
        if (!pool.gFreeTLSHead) {
            VX_TRACE(app->VXSys.fpTraceLevel, 2, "FLOWPATH",
                     "TLS pool found to NULL allocating pool again; gBusyTLSCnt=%d",
                     pool.gBusyTLSCnt);
            int before = pool.g_tlsidx;
            pool.gFreeTLSHead = create_tls_pool(pool.gBusyTLSCnt);
            if (app->VXSys.vxEnableTxHotspot == 1) grow_hotspot_table(pool, before + vx::kTLSBlockSize);
        }
        rec = pool.gFreeTLSHead;
        if (!rec) return nullptr;
        pool.gFreeTLSHead = rec->free_next;
        if (pool.gFreeTLSHead)
            pool.gFreeTLSHead->free_prev = nullptr;
        else
            pool.gFreeTLSTail = nullptr;
        rec->free_next = rec->free_prev = nullptr;
        rec->vxInUse = 1;
        /* A stop's claim ends with the record's return; late calls of the
         * last transaction may still be leaving, so only the bit goes. */
        std::atomic_ref<int>(rec->hostCalls).fetch_and(~vx::kRecordClaimed, std::memory_order_relaxed);
        --pool.gFreeTLSCnt;

        rec->busy_next = nullptr;
        rec->busy_prev = pool.gBusyTLSTail;
        if (pool.gBusyTLSTail)
            pool.gBusyTLSTail->busy_next = rec;
        else
            pool.gBusyTLSHead = rec;
        pool.gBusyTLSTail = rec;
        ++pool.gBusyTLSCnt;
        /* Under the lock: another host thread may be growing the pool. */
        pool.size_array = pool.g_tlsidx;
    }
    return rec;
}

extern "C" void free_tls_slot(VXPerThreadData_t* tls)
{
    if (!tls) {
        VX_ERROR("FLOWPATH", "Null argument is passed, hence returning");
        return;
    }
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    VXTLSPool_t& pool = app->tlsPool;
    vx::VXLockGuard guard(pool.tlsMutex);
    if (!tls->vxInUse) {
        VX_ERROR("FLOWPATH", "Record '%lld' is already free, hence returning", tls->tlThreadId);
        return;
    }
    tls->vxInUse = 0;
    ++pool.gFreeTLSCnt;
    --pool.gBusyTLSCnt;

    tls->free_next = nullptr;
    tls->free_prev = pool.gFreeTLSTail;
    if (pool.gFreeTLSTail)
        pool.gFreeTLSTail->free_next = tls;
    else
        pool.gFreeTLSHead = tls;
    pool.gFreeTLSTail = tls;

    if (tls->busy_prev)
        tls->busy_prev->busy_next = tls->busy_next;
    else if (pool.gBusyTLSHead == tls)
        pool.gBusyTLSHead = tls->busy_next;
    if (tls->busy_next)
        tls->busy_next->busy_prev = tls->busy_prev;
    else if (pool.gBusyTLSTail == tls)
        pool.gBusyTLSTail = tls->busy_prev;
    tls->busy_prev = tls->busy_next = nullptr;
}

extern "C" void resetAllThreadLocals(VXPerThreadData_t* vxTD, TLSDataStruct* tlsdatastruct)
{
    if (!vxTD) return;
    vxTD->flowpathInstance = vxTD->firstFlowpathInstance = vxTD->prevFlowpathInstance = 0;
    vxTD->fpStartTimeforReset = 0;
    vxTD->httpCallOutDepth = 0;
    vxTD->tlBTObj = nullptr;
    vxTD->tlSQLObj.DBCallDepth = 0;
    vxTD->seqNum = 0;
    vxTD->tierCallOutHeaderLen = 0;
    vxTD->tlTestRunNumber = 0;
    vxTD->tlServiceMethodCount = vxTD->tlNonServiceMethodCount = 0;
    vxTD->sequenceBlobLen = 0;
    vxTD->tlIsFPHeaderDumped = 0;
    vxTD->tlFlowPathTimeStampInMS = vxTD->tlFpCPUTime = vxTD->tlDuration = 0;
    vxTD->tlCategory = 0;
    vxTD->tlIsFPCaptured = vxTD->tlIsBTExcluded = vxTD->tlIsForceDump = 0;
    vxTD->setEndFPFlag = 0;
    vxTD->agentThreadID = vxTD->syncTime = vxTD->waitTime = 0;
    vxTD->bitFlags = 0;
    vxTD->tlFlowpathType = 0;
    vxTD->OTL_version = vxTD->OTL_traceflag = 0;

    char** owned[] = {&vxTD->prevTierSeq,        &vxTD->tierCallOutHeader, &vxTD->excepMessage,
                      &vxTD->excepClassName,     &vxTD->throwingCName,     &vxTD->throwingMName,
                      &vxTD->exceptionBackendName, &vxTD->exceptionStackTrace,
                      &vxTD->tlSQLObj.DBQueryParam};
    for (char** p : owned) {
        free(*p);
        *p = nullptr;
    }
    /* The trace context's strings live in otlStore, which the record keeps
     * for its next flowpath: dropping them is nulling them. */
    vxTD->OTL_tracestate = vxTD->OTL_traceID = vxTD->OTL_parentID = nullptr;
    vxTD->trans_span_id[0] = vxTD->callout_span_id[0] = '\0';
    vxTD->tlCorrelationIdHeader[0] = '\0';
    vxTD->sequenceBlob[0] = '\0';
    vxTD->tlURLParameters[0] = '\0';
    vxTD->tlURL[0] = '\0';
    vxTD->flowpathInstanceStr[0] = '\0';
    vxTD->tlStatusCode = 200;
    vxTD->qTimeInMS = -1;
    if (tlsdatastruct && vxTD->tlsIdx >= 0) {
        TLSDataStruct& e = tlsdatastruct[vxTD->tlsIdx];
        vx::store_relaxed(e.Tlsdata, static_cast<VXPerThreadData_t*>(nullptr));
        vx::store_relaxed(e.threadId, 0);
        vx::store_relaxed(e.timestamp, 0);
    }
    /* Counters above the highest id used are still zero. */
    const int used = vxTD->maxCountedMethodId + 1;
    memset(vxTD->methodEntryExitCounter, 0,
           sizeof vxTD->methodEntryExitCounter[0] * static_cast<size_t>(used < vx::kMethodCounterSize ? used : vx::kMethodCounterSize));
    vxTD->maxCountedMethodId = 0;
}

namespace {

constexpr int kClaimWaitMs = 2000;

/* Take the record from the host: no call enters after this, and the ones
 * inside leave within microseconds. Bounded: a host thread stopped inside a
 * call (by a debugger, say) keeps its record. */
bool claim_record(VXPerThreadData_t* rec)
{
    std::atomic_ref<int> calls(rec->hostCalls);
    calls.fetch_or(vx::kRecordClaimed, std::memory_order_acq_rel);
    for (int waited_us = 0; (calls.load(std::memory_order_acquire) & ~vx::kRecordClaimed) != 0;
         waited_us += 100) {
        if (waited_us >= kClaimWaitMs * 1000) return false;
        apr_sleep(100);
    }
    return true;
}

}  // namespace

extern "C" void dumpFpFromBusyList(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    VXTLSPool_t& pool = app->tlsPool;
    bool empty;
    {
        vx::VXLockGuard guard(pool.tlsMutex); /* host threads take and free slots */
        empty = !pool.gBusyTLSHead;
    }
    if (empty) {
        VX_TRACE(app->VXSys.fpTraceLevel, 2, "FLOWPATH", "gBusyTLSHead is null. Hence returning.");
        return;
    }
    while (true) {
        VXPerThreadData_t* rec;
        {
            vx::VXLockGuard guard(pool.tlsMutex);
            rec = pool.gBusyTLSHead;
            if (!rec) break;
            pool.gBusyTLSHead = rec->busy_next;
        }
        if (!claim_record(rec)) {
            VX_ERROR("FLOWPATH", "Record '%lld' still in a host call after %d ms; left open",
                     rec->tlThreadId, kClaimWaitMs);
            continue;
        }
        bool inUse;
        {
            vx::VXLockGuard guard(pool.tlsMutex); /* the host may have reset it meanwhile */
            inUse = rec->vxInUse;
        }
        if (!inUse) continue;
        dumpIncompleteFPAtTestStop(rec);
        resetAllThreadLocals(rec, pool.tlsdatastruct);
        free_tls_slot(rec);
    }
    flushCommonData();
}

extern "C" void resetMonitorDataModel(VXPerThreadData_t* vxTD)
{
    VXProxyInstance_t* app = vx_app();
    /* The proxy process frees its models at a session's end; an agent behind
     * a proxy has none. */
    if (app && vxTD && (vx_in_proxy_process() || vx_agent_behind_proxy(app)))
        vxTD->tlMonitorDataModel = nullptr;
}

extern "C" void resetMonitorDataModelFromTLS(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    VXTLSPool_t& pool = app->tlsPool;
    vx::VXLockGuard guard(pool.tlsMutex);
    if (!pool.gFreeTLSHead) VX_TRACE(app->VXSys.fpTraceLevel, 2, "FLOWPATH", "Free TLS link list is empty.");
    for (VXPerThreadData_t* r = pool.gFreeTLSHead; r; r = r->free_next) resetMonitorDataModel(r);
    if (!pool.gBusyTLSHead) VX_TRACE(app->VXSys.fpTraceLevel, 2, "FLOWPATH", "Busy TLS link list is empty.");
    for (VXPerThreadData_t* r = pool.gBusyTLSHead; r; r = r->busy_next) resetMonitorDataModel(r);
}

extern "C" long long generate_flowpath_instance(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return 0;
    const VXSys_t& sys = app->VXSys;
    long long ts =
        (my_gettimeofday() - vx::load_relaxed(app->Server.klvEpochDiffTime)) & sys.timeStampMask;
    /* The counter advances by 2 per instance and the instance takes the odd
     * value between: 1, 3, 5, ... One atomic step gives the same values as
     * two increments. */
    long long seq = __atomic_fetch_add(&app->VXSys.rSeq, 2, __ATOMIC_RELAXED) + 1;
    return sys.flowPathInstanceInitialID + (ts << (sys.seqNoDigits & 63)) + (seq & sys.seqNumMask);
}

extern "C" void parse_flowpath_mask(char* vxflowpathMask)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !vxflowpathMask) return;
    char copy[256];
    vx::copy_text(copy, sizeof copy, vxflowpathMask);
    char* fields[6];
    int n = tokenize(copy, fields, const_cast<char*>("%20"), 6);
    if (n < 4) {
        /* A short value would leave the masks half set: it is ignored. */
        VX_TRACE(app->VXSys.fpTraceLevel, 4, "FLOWPATH",
                 "total fields of vxflowpathmask are less than 3");
        return;
    }
    /* Field 0 is not applied: the initial id always keeps its value. */
    app->VXSys.timeStampMask = strtoll(fields[1], nullptr, 16);
    app->VXSys.seqNoDigits = strtoll(fields[2], nullptr, 10);
    app->VXSys.seqNumMask = strtoll(fields[3], nullptr, 16);
}

extern "C" int randomNum(void)
{
    /* Random bytes are drawn in batches: one system call per 64 flowpaths
     * instead of one per flowpath. */
    static thread_local unsigned char batch[64];
    static thread_local int left = 0;
    if (left == 0) {
        if (apr_generate_random_bytes(batch, sizeof batch) != APR_SUCCESS) return 0;
        left = static_cast<int>(sizeof batch);
    }
    return batch[--left];
}

extern "C" char* getFPInstanceFromTL(VXPerThreadData_t* vxTD)
{
    return vxTD ? vxTD->flowpathInstanceStr : nullptr;
}

extern "C" VXPerThreadData_t* getTLFromFPInstance(char* fpi)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !fpi) return nullptr;
    return static_cast<VXPerThreadData_t*>(search_hashmap(fpi, app->fpiToTLS));
}
