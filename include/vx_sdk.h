/*
 * vx_sdk.h - the C interface of libvxagent.
 *
 * A host process (a language module or a native program) loads the library,
 * calls agent_init() once, and then reports its transactions: startFP() when
 * one begins, endFP() when it ends and reset() to give its record back.
 * Nothing is captured until the collector starts a session; until then every
 * transaction call returns at once.
 *
 * Every function here may be called from any host thread. None of them ever
 * ends, blocks or throws into the host.
 */
#ifndef VX_SDK_H
#define VX_SDK_H

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define VX_API __attribute__((visibility("default")))
#else
#define VX_API
#endif

/* No exception ever leaves the library. */
#ifdef __cplusplus
#define VX_NOEXCEPT noexcept
#else
#define VX_NOEXCEPT
#endif

/* The working record of one transaction. Opaque to hosts: they keep the
 * pointer startFP() returns and hand it back to endFP() and reset(). */
typedef struct VXPerThreadData_t VXPerThreadData_t;

/* Set by the launcher of the proxy process before it calls agent_init();
 * nothing inside the library writes it. */
VX_API extern int startedWithExc;

/*
 * Start the agent. `pool` names the application pool or instance and
 * `process_name` the process; either may be NULL. `connect_vxc` > 0 starts
 * the control side in the background; 0 or less only configures. `agentType`
 * is the host technology ("PHP", "Python", "go", "DotNet", "cppAgent", ...;
 * NULL means "PHP") and `agentVersion` the host's version text (NULL means
 * "v1.0.0"). Returns without waiting for any connection.
 */
VX_API void agent_init(char* pool, int connect_vxc, char* process_name, char* agentType,
                       char* agentVersion) VX_NOEXCEPT;

/* Ask all agent threads to stop; returns within six seconds. Frees nothing. */
VX_API void agent_shutdown(void) VX_NOEXCEPT;

/* Read VX_ENABLE_PROXY_SERVER: non-zero lets hosts name transactions by a key
 * of their own (the TLS argument) instead of the record pointer. */
VX_API void checkEnableProxyAgent(void) VX_NOEXCEPT;

/*
 * Open a transaction. `flowpathinstance` is the correlation text received from
 * a calling tier (NULL for none), `url` the request as "path?query|METHOD",
 * `btHeaderValue` the request's BT header text, `TLS` the host's key (see
 * checkEnableProxyAgent), the two cookies as received, `correlationIdHeader`
 * the correlation header value or name, `qTimeInMS` the queue time (-1 for
 * none) and `startTimeFP` the start in ms since the epoch (0 for now).
 * Returns the transaction's record, or NULL when no session runs or no record
 * could be had. The library never writes into the strings it is given.
 */
VX_API void* startFP(char* flowpathinstance, char* url, char* btHeaderValue, char* TLS,
                     char* VXCookieStr, char* KPCookieStr, char* correlationIdHeader,
                     long long qTimeInMS, long long startTimeFP) VX_NOEXCEPT;

/* startFP() for hosts that pass handles as text: the record's address is
 * printed in decimal into `buf` (at least 32 bytes). */
VX_API void startFPTemp(char* flowpathinstance, char* url, char* buf) VX_NOEXCEPT;

/*
 * Close a transaction: writes its completion record. `statusCode` is the HTTP
 * status (or -1 to keep what the methods reported), `endTime` the end in ms
 * since the epoch (0 for now). `strSpan`, when not NULL, may receive a span
 * text the host frees. The record stays readable until reset().
 */
VX_API void endFP(VXPerThreadData_t* vxTD, int statusCode, char* TLS, long long endTime,
                  long long fpCPUTime, int tracerequest, char** strSpan) VX_NOEXCEPT;

/* Give the transaction's record back to the pool. */
VX_API void reset(VXPerThreadData_t* vxTD) VX_NOEXCEPT;

/*
 * Method events, for hosts with an instrumentation layer of their own.
 *
 * vxMethodEntry reports that `mName` was entered in transaction `vxTD`.
 * `methodPtr` is what an earlier call for the same method returned (NULL the
 * first time): handing it back skips the method lookup. `url` is the query
 * text of a database call or the target of an HTTP call, `threadID` the
 * host's thread id (0 for none), `startTime` the entry in ms since the epoch
 * (0 for now), `DBQueryParam` the query's bound values. Returns the method's
 * handle to give back at exit, or NULL when the method is unknown or no
 * session runs.
 *
 * vxMethodExit reports the matching exit. `statusCode` >= 0 becomes the
 * transaction's status; `backendName` is the pipe-separated description of
 * the called backend; `methodWallTime`/`fpCPUTime` are used when the entry
 * was not seen; `isCalloutDone` non-zero when a callout really went out;
 * `endTime` the exit in ms since the epoch (0 for the transaction's start).
 * vxMethodExitException is the exit of a method left by an exception
 * (`event_type` 3 or 4).
 */
VX_API void* vxMethodEntry(void* methodPtr, VXPerThreadData_t* vxTD, char* mName, char* url,
                           char* urlParameter, long long threadID, char* pName, char* TLS,
                           long long startTime, char* DBQueryParam) VX_NOEXCEPT;
VX_API void* vxMethodExit(void* methodPtr, VXPerThreadData_t* vxTD, char* mName,
                          long long fpCPUTime, int statusCode, char* backendName,
                          long long methodWallTime, long long threadID, int isCalloutDone,
                          char* TLS, int event_type, char* argValue, long long endTime,
                          char** strSpan) VX_NOEXCEPT;
VX_API void* vxMethodExitException(void* methodPtr, VXPerThreadData_t* vxTD, char* mName,
                                   long long fpCPUTime, int statusCode, char* backendName,
                                   long long methodWallTime, char forceDump, long long threadId,
                                   int isCalOutDone, char* TLS, int event_type) VX_NOEXCEPT;

/* 1 when a session runs and `mName` (or its class, the text before the first
 * ".") is in the method table; 0 otherwise. */
VX_API int isMethodInHashMap(char* mName) VX_NOEXCEPT;

/* The argument index logged for a CUSTOM_LOG method; -1 when unknown, 0 with
 * no method table. */
VX_API int getArgValueForCustomLog(char* methodName) VX_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif /* VX_SDK_H */
