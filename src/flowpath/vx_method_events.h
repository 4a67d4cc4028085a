/*
 * Method entry and exit: the tokens of the sequence blob.
 *
 * Between startFP and endFP the host reports each instrumented method. Each
 * event appends a token to the flowpath's sequence blob, naming the method by
 * its id in the method table; callouts to databases, HTTP peers and custom
 * backends add their own tokens. A blob that reaches maxCharactersInSeqBlob
 * leaves as record 3.
 *
 * Grammar (mid method id, tid host thread id, offset entry ms from the
 * flowpath's start, wall ms, cpu ns, seq the flowpath's event number):
 *   entry                  "<mid>:<tid>_0_<offset>__"
 *   async entry            "<mid>:<tid>:1:<url>_0_<offset>__"
 *   exit                   "<mid>:<tid>_1_<wall>_<cpu>___"   ("____" without cpu)
 *   exit with argument     "<mid>:<tid>_1:<seq>_<wall>_<cpu>___"
 *   exception exit         as exit, with event 3 or 4
 *   exception marker       "e<seq>_";  thread callout "t<seq>_"
 *   callouts               "T..."/"E..." by kind, see updateFPSeqBlobWithTierCallOutRecord
 *
 * The public vxMethodEntry/vxMethodExit/vxMethodExitException are declared in
 * vx_sdk.h. Lock order: sequenceBlobLock outside the data buffer lock.
 */
#ifndef VX_METHOD_EVENTS_H
#define VX_METHOD_EVENTS_H

#include "vx_sdk.h"

struct methodPropProperties;

/* One open method call: method id and its open count after the entry
 * (nested calls of one method differ there), entry time and CPU clock. */
struct SDKAgentTimeDetails_t {
    int methodId;
    int openCount;
    long long startTime; /* ms, wall clock */
    long long mCPUTime;  /* thread CPU clock, ns */
};

/* The open calls of a flowpath (the record's sdkAgentHash): a stack, since
 * calls close in the reverse order of opening, so an exit finds its call at
 * the top without hashing or allocating. Guarded by sequenceBlobLock. */
struct VXOpenCalls {
    SDKAgentTimeDetails_t* calls;
    int count;
    int cap;
};

inline constexpr int kDefaultMaxCharactersInSeqBlob = 13312;

extern "C" {

void* vxMethodEntryEx(void* methodPtr, VXPerThreadData_t* vxTD, char* mName, char* url,
                      char* urlParameter, long long threadID, char* pName, char forceDump,
                      char* TLS, long long startTime, char* DBQueryParam);

void* vxMethodExitEx(void* methodPtr, VXPerThreadData_t* vxTD, char* mName, long long fpCPUTime,
                     int statusCode, char* backendName, long long methodWallTime, char forceDump,
                     long long threadId, int isCalOutDone, char* TLS, char* argValue,
                     long long endTime, char** strSpan);

/* Append one entry (eventID 0), exit (1) or exception exit (3, 4) token.
 * Caller holds sequenceBlobLock. Flushes to record 3 at the threshold. */
void updateFPSeqBlob(VXPerThreadData_t* vxTD, int mid, long long startTime, int eventID,
                     int pageID, long long cpuTime, int isAsyncCall, long long threadID,
                     char* urlStr, int captureArgument);

/* The callout token of `mPP` ("T" when the status is 2xx, else "E"). Caller
 * holds sequenceBlobLock. */
void updateFPSeqBlobWithTierCallOutRecord(VXPerThreadData_t* vxTD, long long methodStartTime,
                                          long long duration, methodPropProperties* mPP,
                                          long long resourceID);
/* The callout token of a callout left by an exception; takes the lock. */
void updateFPSeqBlobWithTierCallOutExceptionRecord(VXPerThreadData_t* vxTD, long long methodStartTime,
                                                   long long duration, methodPropProperties* mPP,
                                                   long long resourceID, int statusCode);

void checkToDumpFPSeqBlob(VXPerThreadData_t* vxTD);
/* "e<seq>_": an exception was captured here. Caller holds sequenceBlobLock. */
void appendExceptionRecordInSeqBlob(VXPerThreadData_t* vxTD);

/* Debug data (record 100). */
void updateDebugModeData(VXPerThreadData_t* vxTD, int mid, int eventID);
void dumpDataForDebug(VXPerThreadData_t* vxTD);
void dumpStackTraceData(char* stacktrace);

/* Record 19: a method argument's value. */
void dump19RecordForSpecificMethodArg(VXPerThreadData_t* vxTD, int mid, char* value);

void CreateMdata(int methodid, long long startTime, long long start_mCPUTime,
                 VXPerThreadData_t* vxTD);
void UpdateMData(long long endtime, int methodid, VXPerThreadData_t* vxTD, long long* fpCPUTime,
                 long long* methodWallTime);
void FreeMData(VXPerThreadData_t* vxTD);

int getDBCallDepth(VXPerThreadData_t* vxTD);
int getMaxCharactersInSeqBlob(void);
void setMaxCharactersInSeqBlob(int value);
}

namespace vx {
/* An empty stack of open calls; null when out of memory. */
VXOpenCalls* open_calls_create();
}  // namespace vx

#endif
