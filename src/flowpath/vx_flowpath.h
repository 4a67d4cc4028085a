/*
 * The flowpath life cycle: a transaction from startFP to reset, the capture
 * decision, the binding to a business transaction, and records 2 (header),
 * 3 (partial sequence blob) and 4 (completion).
 *
 * The engine is inert unless a session runs (Server.testRunRunning). The
 * public calls startFP, endFP, reset and startFPTemp are declared in vx_sdk.h.
 */
#ifndef VX_FLOWPATH_H
#define VX_FLOWPATH_H

#include "flowpath/vx_per_thread_data.h"

extern "C" {

/* Close a flowpath still open when the session stops (type 7). */
void dumpIncompleteFPAtTestStop(VXPerThreadData_t* vxTD);

/* Decide by bciInstrSessionPct (and forcing) whether the flowpath is captured. */
void setFPCaptured(VXPerThreadData_t* vxTD, long long fpi);

void setBTObjInThreadLocal(VXPerThreadData_t* vxTD, char* httpMethod, char* btHeaderValue);
void setURLInThreadLocal(VXPerThreadData_t* vxTD, char* httpMethod);
void setFPHeaderValues(VXPerThreadData_t* vxTD, char* httpMethod, char* requestLength,
                       char* BTHeader, char* btHeaderValue);

/* Record 2. */
void dumpFPHeaderRecord(VXPerThreadData_t* vxTD);
/* Record 2 if due, then record 3 with the blob, which is emptied. Caller
 * holds sequenceBlobLock. */
void dumpIncompleteFlowpathSeqBlock(VXPerThreadData_t* vxTD);
/* Record 2 if due, then record 4. Caller holds sequenceBlobLock. */
void dumpCompleteFlowpathSeqBlock(VXPerThreadData_t* vxTD, int category, long long fpCPUTime,
                                  long long respTime, int tracerequest);

/* The flowpath's tag id, -1 when none. */
int getTagIdPerThread(VXPerThreadData_t* vxTD);
}

#endif
