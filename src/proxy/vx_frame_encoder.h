/*
 * Frames from a proxy-mode agent to the local proxy.
 *
 * STAND-IN (issue: agent side of the proxy link): a proxy-mode agent's
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
}

#endif
