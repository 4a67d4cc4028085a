/*
 * VXPerThreadData_t: the working record of one transaction, and the pool the
 * records come from.
 *
 * In spite of its name a record belongs to a transaction, not a thread: it is
 * taken from the pool at startFP, handed to the host as the handle, and given
 * back at reset. Records are large and never freed; they are made in blocks
 * of 64 so that starting a transaction is a list operation, not an
 * allocation.
 *
 * Locks: the pool's tlsMutex guards the free and busy lists and their counts
 * and is always taken alone. A busy record's sequenceBlobLock orders the
 * threads of its transaction. hostCalls keeps the session stop, which closes
 * the records still busy, apart from the host calls inside them: see
 * VXRecordUse.
 */
#ifndef VX_PER_THREAD_DATA_H
#define VX_PER_THREAD_DATA_H

#include <apr_hash.h>
#include <apr_thread_mutex.h>

#include <atomic>

#include "core/vx_limits.h"
#include "vx_sdk.h"

struct BTObject;
struct VXMonitorDataModel;
struct VXOpenCalls;
struct methodPropProperties;

struct sqlProp {
    int DBCallDepth;
    long long sqlId;
    long long startTime;
    long long backendId;
    char* DBQueryParam;
};

/* A callout's description and the backend it named. */
struct VXBackendCacheEntry {
    const methodPropProperties* method; /* the callout method */
    methodPropProperties* backend;
    const void* generation;             /* the method table it was found in */
    int rules;                          /* the version of the naming rules */
    char description[vx::kBackendCacheDescSize];
};

struct VXPerThreadData_t {
    /* Capture flags. */
    char tlIsFPCaptured;
    char tlIsBTExcluded;
    char tlIsForceDump;
    /* Correlation in. */
    char* prevTierSeq;
    char tlCorrelationIdHeader[vx::kCorrelationSize];
    /* Method events not yet sent. */
    char sequenceBlob[vx::kSeqBlobSize];
    /* Header state. */
    char tlIsFPHeaderDumped;
    char tlCategory; /* final category; -99 (byte 157) when excluded */
    char tlURL[vx::kURLSize];
    char tlURLParameters[vx::kURLSize];
    /* Counters. */
    int tlStatusCode;
    int tlServiceMethodDepth;
    int tlServiceMethodCount;
    int sequenceBlobLen;
    int tlNonServiceMethodCount;
    int httpCallOutDepth;
    /* Identity. */
    char flowpathInstanceStr[vx::kFPInstanceStrSize];
    long long flowpathInstance;
    long long tlsIdx;
    long long seqNum;
    long long tlTestRunNumber;
    long long tlFlowPathTimeStampInMS; /* start, ms relative to klvEpochDiffTime */
    long long tlThreadId;              /* number of this record */
    long long tlFpCPUTime;             /* CPU clock at start, then CPU time used */
    long long tlDuration;
    long long firstFlowpathInstance;
    long long prevFlowpathInstance;
    /* Callout out. */
    char* tierCallOutHeader;
    int tierCallOutHeaderLen;
    long long tierCallOutSeqNum;
    /* The backends this record's callouts named last, so that a repeated
     * call finds its backend without the method lock (see callout_backend).
     * Kept across transactions: each entry checks its table and rules. */
    VXBackendCacheEntry backendCache[vx::kBackendCacheSize];
    int backendCacheNext;
    /* Links. */
    BTObject* tlBTObj;
    sqlProp tlSQLObj;
    VXMonitorDataModel* tlMonitorDataModel;
    void* hasMapNodePtr; /* method-table generation in use */
    /* Pool links. */
    VXPerThreadData_t* free_next;
    VXPerThreadData_t* free_prev;
    VXPerThreadData_t* busy_next;
    VXPerThreadData_t* busy_prev;
    char setEndFPFlag;
    /* Session (cookie) fields: set by startFP, untouched by resets. */
    long long vxSessionId;
    long long prev_fp_start_time;
    int instrumented;
    int btCategory;
    int exceptionCount;
    int totalFpcount;
    int tierID;
    int vxAppServerID;
    int appID;
    int tlFlowpathType; /* 0, or 7 when closed at session stop */
    long long klvSID;
    long long VXPageID;
    long long last_fptimestamp_from_cookie;
    /* Host values. */
    long long agentThreadID;
    long long syncTime;
    long long waitTime;
    long long qTimeInMS; /* -1 when the host gave none */
    /* Debug. */
    int debugModeLen;
    char debugModeBuf[vx::kDebugModeBufSize];
    int bitFlags;
    /* Locks. */
    apr_thread_mutex_t* sequenceBlobLock;
    apr_thread_mutex_t* updateBTLock;
    /* Exception. */
    char* excepMessage;
    int dumpERecordFlag;
    unsigned long long unwindfID;
    int exceptionFlagForEventType;
    char* excepClassName;
    char* throwingCName;
    char* throwingMName;
    char* exceptionBackendName;
    char* exceptionStackTrace;
    /* Wall clock of the start, microseconds. */
    long long fpStartTimeforReset;
    /* Rule state. */
    int prevPID;
    int isBTOverride;
    /* Open calls per method id. */
    int methodEntryExitCounter[vx::kMethodCounterSize];
    /* Trace context. */
    int OTL_version;
    int OTL_traceflag;
    char* OTL_traceID;
    char* OTL_parentID;
    char trans_span_id[vx::kSpanIdSize];
    char callout_span_id[vx::kSpanIdSize];
    char* OTL_tracestate;
    /* Where the three strings above live when set: one block made on the
     * record's first trace context and kept across its flowpaths, so that
     * reading a context allocates nothing. Set them only through the trace
     * context unit (OTL_storeData and its kin); reset nulls the pointers. */
    char* otlStore;
    /* End. */
    int tracerequest;
    VXOpenCalls* sdkAgentHash; /* open-method records */
    /* Busy (handed out) or free; guards the lists against a double return. */
    char vxInUse;
    /* Host calls inside the record, plus kRecordClaimed once the session
     * stop has taken it. Atomic; see VXRecordUse. */
    int hostCalls;
    /* Highest method id counted since the last reset: only that much of
     * methodEntryExitCounter needs clearing. */
    int maxCountedMethodId;
};

/* One entry of the hot-spot table, indexed by tlsIdx. */
struct TLSDataStruct {
    VXPerThreadData_t* Tlsdata;
    long long threadId;
    unsigned long long timestamp;
};

/* The pool of records of one instance. */
struct VXTLSPool_t {
    int gFreeTLSCnt;
    int gBusyTLSCnt;
    VXPerThreadData_t* gFreeTLSHead;
    VXPerThreadData_t* gFreeTLSTail;
    VXPerThreadData_t* gBusyTLSHead;
    VXPerThreadData_t* gBusyTLSTail;
    int g_tlsidx;   /* records created so far */
    int size_array; /* copy of g_tlsidx for the hot-spot reader */
    TLSDataStruct* tlsdatastruct;
    int tlsdatastructCap; /* entries allocated in tlsdatastruct */
    apr_thread_mutex_t* tlsMutex;
    /* The records' locks come from here, under tlsMutex: host threads grow
     * the pool, and the instance's own pool is not theirs to allocate from. */
    apr_pool_t* pool;
};

extern "C" {

/* Make a block of 64 records; returns its first (the caller stores it as the
 * free list's head). Null when out of memory. */
VXPerThreadData_t* create_tls_pool(int loc_BusyTLSCnt);

/* Take a record from the free list onto the busy list, growing the pool by a
 * block when it is empty. Null when no record can be had. Any thread. */
VXPerThreadData_t* get_free_tls_slot(void);

/* Give a busy record back. Any thread. */
void free_tls_slot(VXPerThreadData_t* tls);

/* Clear the record's per-transaction state (not its session fields). */
void resetAllThreadLocals(VXPerThreadData_t* vxTD, TLSDataStruct* tlsdatastruct);

/* Close every open flowpath: run at session stop from the data thread. */
void dumpFpFromBusyList(void);

void resetMonitorDataModelFromTLS(void);
void resetMonitorDataModel(VXPerThreadData_t* vxTD);

/* A new flowpath instance number. Any thread; lock-free. */
long long generate_flowpath_instance(void);

/* Keyword vxFlowpathMasks: "initial%20tsMask%20seqDigits%20seqMask". */
void parse_flowpath_mask(char* vxflowpathMask);

/* A random value 0..255. */
int randomNum(void);

char* getFPInstanceFromTL(VXPerThreadData_t* vxTD);
VXPerThreadData_t* getTLFromFPInstance(char* fpi);
}

namespace vx {

inline constexpr int kRecordClaimed = 1 << 30;

/* A host call's hold on a record. The session stop closes the flowpaths
 * still open on a thread of its own while host threads may be inside them;
 * it claims each record first and waits for the calls inside to leave, and a
 * call that comes after the claim does nothing. Host threads never wait:
 * entering is one atomic add. Calls nest (endFP closes the root method), and
 * several host threads may share a record. */
class VXRecordUse {
public:
    explicit VXRecordUse(VXPerThreadData_t* rec) noexcept : rec_(rec)
    {
        if (rec_ && (std::atomic_ref<int>(rec_->hostCalls).fetch_add(1, std::memory_order_acquire) &
                     kRecordClaimed)) {
            leave();
            rec_ = nullptr;
        }
    }
    ~VXRecordUse() { leave(); }
    VXRecordUse(const VXRecordUse&) = delete;
    VXRecordUse& operator=(const VXRecordUse&) = delete;
    /* False when there is no record or the stop has it. */
    explicit operator bool() const noexcept { return rec_ != nullptr; }

private:
    void leave() noexcept
    {
        if (rec_) std::atomic_ref<int>(rec_->hostCalls).fetch_sub(1, std::memory_order_release);
    }
    VXPerThreadData_t* rec_;
};

}  // namespace vx

#endif
