/*
 * Frames from a proxy-mode agent to the local proxy.
 *
 * STAND-IN(proxy-link): a proxy-mode agent's
 * transaction events are not encoded yet; these keep the engine's call sites.
 */
#ifndef VX_FRAME_ENCODER_H
#define VX_FRAME_ENCODER_H

extern "C" {
void transactionStartEncode(long long qTimeInMS, long long flowpathInstance, char* fpHeader,
                            char* url, char* btHeaderValue, char* VXCookieStr, char* KPCookieStr,
                            char* correlationIdHeader, long long startTimeFP);
void transactionEndEncode(int statusCode, long long flowpathInstance, long long endTime,
                          long long cpuTime, int tracerequest);
void transactionResetEncode(long long flowpathInstance);
void MethodEntryEncode(int mid, long long flowpathInstance, long long threadID, char* mName, char* url,
                       char* urlParameter, long long startTime, char* DBQueryParam);
void MethodExitEncode(int mid, int statusCode, int event_type, int isCalloutDone, long long threadID,
                      long long methodWallTime, long long flowpathInstance, long long fpCPUTime,
                      char* mName, char* backendName, long long tierCallOutSeqNum, long long endTime,
                      char* argValue);
void vxMethodExitExceptionEncode(long long flowPathInstance, char* ExceptionMethodName,
                                 char* ExceptionBackendName, long long threadId, int ExceptionExitType);
/* Ask the proxy for the metadata of a method the agent does not know. */
void send_meta_data(char* mName);
}

#endif
