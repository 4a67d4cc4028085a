/*
 * Method entry and exit: the tokens of the sequence blob.
 *
 * STAND-IN (issue #3): this is the engine's root-method path only: the entry
 * and exit tokens of a known method, the open-method records, and the flush
 * to record 3. Callouts, arguments, debug data and the public per-method
 * calls come with the method-events work.
 *
 * Lock order: sequenceBlobLock outside the data buffer lock.
 */
#ifndef VX_METHOD_EVENTS_H
#define VX_METHOD_EVENTS_H

#include "vx_sdk.h"

struct VXPerThreadData_t;

/* One open method call, in the record's sdkAgentHash. */
struct SDKAgentTimeDetails_t {
    char key[20]; /* "<mid>_<open count>" */
    long long startTime; /* ms, wall clock */
    long long mCPUTime;  /* thread CPU clock, ns */
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

/* Append one entry (eventID 0) or exit (1) token; caller holds
 * sequenceBlobLock. Flushes to record 3 at maxCharactersInSeqBlob. */
void updateFPSeqBlob(VXPerThreadData_t* vxTD, int mid, long long startTime, int eventID,
                     int pageID, long long cpuTime, int isAsyncCall, long long threadID,
                     char* urlStr, int captureArgument);
void checkToDumpFPSeqBlob(VXPerThreadData_t* vxTD);

void CreateMdata(int methodid, long long startTime, long long start_mCPUTime,
                 VXPerThreadData_t* vxTD);
void UpdateMData(long long endtime, int methodid, VXPerThreadData_t* vxTD, long long* fpCPUTime,
                 long long* methodWallTime);
void FreeMData(VXPerThreadData_t* vxTD);

void dumpDataForDebug(VXPerThreadData_t* vxTD);

int getMaxCharactersInSeqBlob(void);
void setMaxCharactersInSeqBlob(int value);
}

#endif
