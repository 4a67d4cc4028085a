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

/* The BT header rule: a host that names its transactions by a request header
 * gives the rule as "<anything>|<header name>" (0, or -1 without a '|'), and
 * asks which header to pass to startFP (NULL when no rule is set). */
VX_API int parse_header_rule(char* data) VX_NOEXCEPT;
VX_API char* getBTHeaderName(void) VX_NOEXCEPT;

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

/*
 * Correlation, for hosts with an instrumentation layer of their own.
 *
 * getTierCallOut gives the correlation header to put on an outgoing call of
 * transaction `vxTD`; `backendName` is the call's pipe-separated description
 * (NULL for none). Call it before the callout's exit: it marks the call as
 * really made. The text belongs to the transaction and holds until its next
 * callout or its end. The called tier passes the header's value to startFP as
 * `flowpathinstance`.
 *
 * getVXSessionCookie gives the session cookie value to set on the response,
 * getCustomHeader the response header value that names the transaction
 * (NULL when sessions or the header are off); release both with freePtr.
 */
VX_API char* getTierCallOut(VXPerThreadData_t* vxTD, char* backendName) VX_NOEXCEPT;
VX_API char* getVXSessionCookie(VXPerThreadData_t* vxTD) VX_NOEXCEPT;
VX_API char* getCustomHeader(VXPerThreadData_t* vxTD) VX_NOEXCEPT;
VX_API void freePtr(char* ptr) VX_NOEXCEPT;

/* Session cookie settings, as the collector set them. Names are the agent's,
 * not to be freed; the domain is NULL when none is set. The position tells
 * when to set the cookie: 1 at exit of the method at
 * getMethodExitDepth2SetCookie's depth, 2 at entry of the method at
 * getMethodEntryDepth2SetCookie's depth, 3 at response commit, 0 otherwise.
 * setCookieOnResponseCommit and setHeaderInResponse return their flag. */
VX_API char* getVXSessionCookieName(void) VX_NOEXCEPT;
VX_API char* getXSessionCookieName(void) VX_NOEXCEPT;
VX_API char* getCookieDomainName(void) VX_NOEXCEPT;
VX_API char* getKPSessionCookieName(void) VX_NOEXCEPT;
VX_API int getMethodEntryDepth2SetCookie(void) VX_NOEXCEPT;
VX_API int getMethodExitDepth2SetCookie(void) VX_NOEXCEPT;
VX_API int setCookieOnResponseCommit(void) VX_NOEXCEPT;
VX_API int setHeaderInResponse(void) VX_NOEXCEPT;
VX_API int getCookieMethodPosition(void) VX_NOEXCEPT;
/* Whether sessions are on; whether log lines carry transaction tags. */
VX_API int enableKPVXSession(void) VX_NOEXCEPT;
VX_API int enableLQVXSession(void) VX_NOEXCEPT;

/*
 * Thread callouts: transaction `vxTD` hands work to the host's thread
 * `threadId`. vxThreadCallOut marks the place in the transaction and gives
 * the child thread a placeholder record holding the chain (the first
 * transaction of the chain and `vxTD` itself). The child reads it with
 * getThreadIdToThreadLocal and gives it back with cleanThreadIdToThreadLocal;
 * the agent frees none by itself. Thread ids are told apart by their first
 * seven decimal digits. setObjForThreadCallOut is vxThreadCallOut returning
 * `vxTD`; updateChildThreadPrevFPI only stores the chain;
 * setFirstPrevFlowpath stores a chain into any record.
 */
VX_API void vxThreadCallOut(VXPerThreadData_t* vxTD, long long threadId) VX_NOEXCEPT;
VX_API VXPerThreadData_t* setObjForThreadCallOut(VXPerThreadData_t* vxTD,
                                                 long long threadId) VX_NOEXCEPT;
VX_API void updateChildThreadPrevFPI(VXPerThreadData_t* vxTD, long long threadId) VX_NOEXCEPT;
VX_API void setFirstPrevFlowpath(VXPerThreadData_t* vxTD, long long firstFlowpathInstance,
                                 long long prevFlowpathInstance) VX_NOEXCEPT;
VX_API void* setThreadIdToThreadLocal(long long threadId) VX_NOEXCEPT;
VX_API void* getThreadIdToThreadLocal(long long threadId) VX_NOEXCEPT;
VX_API void cleanThreadIdToThreadLocal(long long threadId) VX_NOEXCEPT;

/* 1 when a session runs and `mName` (or its class, the text before the first
 * ".") is in the method table; 0 otherwise. */
VX_API int isMethodInHashMap(char* mName) VX_NOEXCEPT;

/* The argument index logged for a CUSTOM_LOG method; -1 when unknown, 0 with
 * no method table. */
VX_API int getArgValueForCustomLog(char* methodName) VX_NOEXCEPT;

#ifdef __cplusplus
}
#endif

/*
 * SDK calls, for hosts without an instrumentation layer of their own (native
 * programs, Go, and language extensions that wrap these calls).
 *
 * Each call checks its arguments, writes to the SDK log and hands over to the
 * engine above. Argument errors are logged and answered with the call's
 * neutral result; nothing that happens inside the engine is reported back,
 * apart from a null handle from vx_bt_begin. Before vx_init2 has run every
 * call is inert. All calls may be made from any host thread for different
 * handles; the threads of one transaction share its handle.
 */
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define VX_PRINTF(fmt, first) __attribute__((format(printf, fmt, first)))
#else
#define VX_PRINTF(fmt, first)
#endif

/* A running transaction: its VXPerThreadData_t record, opaque to the host,
 * valid from vx_bt_begin to vx_bt_end. The record is pooled: after
 * vx_bt_end it may serve another transaction, so the handle must not be used
 * again. */
typedef void* vxBTHandle;

/* Callbacks a host may register. All are optional; each is called only while
 * registered, on whichever library thread has something to tell. */
typedef int (*callback_func)(char* keywordName, long long keywordValue, char* keywordValueString,
                             char* fileData, char* fField1, char* fField2);
typedef void (*test_status)(int running);
typedef void (*Goroutine_status)(int enabled);
typedef void (*GC_status)(int enabled);
typedef void (*ad_callback)(char** a, char** b, int c, int d);
typedef void (*ad_callback_php)(char** a, char** b, int c, int d);
typedef void (*ai_start_func)(int a, long long b, long long c, char* d);
typedef void (*ai_end_func)(char* name);
typedef char* (*thread_dump_func)(void);
typedef void (*vx_cookie_func)(char* cookieName, char* domain, int headerInResponse,
                               int methodPosition, long long idleTimeoutSecs);
typedef void (*kp_cookie_func)(char* cookieName);
typedef int (*mtx_lock_func)(char* a, char* b, int duration);
typedef int (*heap_dump_func)(char* fileName);

/*
 * Start the agent for an SDK host. Does nothing at all, not even logging,
 * unless the environment variable VXHOME names an existing path. Otherwise it
 * opens the SDK log under "<VXHOME>/<agent_type>/logs/" (once per process),
 * calls agent_init with `agent_name` as the pool (NULL: the program's short
 * name, else "cppAgent") and `logfile_name` as the process name, prepares the
 * handle map, and then waits 30 seconds in the calling thread so that the
 * collector can start a session before the first transaction. Call it once,
 * from one thread. The strings are copied.
 */
VX_API void vx_init2(char* agent_type, char* logfile_name, char* agent_Version,
                     char* agent_name) VX_NOEXCEPT;
/* vx_init2("cppAgent", "klvgolib", NULL, NULL). */
VX_API void vx_init(void) VX_NOEXCEPT;
/* vx_init2("cppAgent", logfile_name, NULL, NULL). */
VX_API void vx_init_sdk(char* logfile_name) VX_NOEXCEPT;
/* Release the handle map and close the SDK log; later calls log nothing.
 * Nothing guards it: stop every transaction first. The agent keeps running. */
VX_API void vx_free(void) VX_NOEXCEPT;

/*
 * Begin a transaction named `bt_name` (the request URL, "path?query|METHOD").
 * `vxcookie` and `kpcookie` are the session and user-experience cookies as
 * received, `btHeaderValue` the request headers, `fpinstance` the correlation
 * text of a calling tier (NULL for none). `correlation_header` is not used:
 * the header name comes from the agent's settings. Returns the handle, or
 * NULL when no session runs or `bt_name` is NULL or empty; the host then
 * skips the transaction's other calls.
 */
VX_API vxBTHandle vx_bt_begin(char* bt_name, char* correlation_header, char* vxcookie,
                              char* kpcookie, char* btHeaderValue, char* fpinstance) VX_NOEXCEPT;
/* End the transaction with HTTP status `status_code` (0 means 200) and give
 * its record back; the handle is invalid afterwards. `strSpan`, when not
 * NULL, may receive a span text to release with sdk_free_memory. 0, or -1
 * for a NULL handle. */
VX_API int vx_bt_end(vxBTHandle bt_handle, int status_code, int tracerequest,
                     char** strSpan) VX_NOEXCEPT;
/* Remember `bt_handle` under the host's text `unique_bt_id`. The map keeps
 * the pointer, not a copy: the text must outlive the entry, and entries are
 * never removed. An id already present keeps its first handle. */
VX_API void vx_bt_store(vxBTHandle bt_handle, char* unique_bt_id) VX_NOEXCEPT;
/* The handle stored under `unique_bt_id`; NULL when unknown. */
VX_API vxBTHandle vx_bt_get(char* unique_bt_id) VX_NOEXCEPT;
/* Accepted and ignored; returns 0. */
VX_API int vx_bt_add_error(vxBTHandle bt_handle, int err_level, char* message,
                           int mark_bt_as_error) VX_NOEXCEPT;
/* The handle as an integer, for hosts whose language cannot hold a pointer,
 * and back. */
VX_API uintptr_t bt_handle_to_int(vxBTHandle bt_handle) VX_NOEXCEPT;
VX_API vxBTHandle bt_int_to_handle(uintptr_t bt_int) VX_NOEXCEPT;

/* Entry and exit of an instrumented method `method` of the transaction. The
 * exit reports status 200 and may fill `strSpan` as vx_bt_end does. */
VX_API void vx_method_entry(vxBTHandle bt_handle, char* method) VX_NOEXCEPT;
VX_API void vx_method_exit(vxBTHandle bt_handle, char* method, char** strSpan) VX_NOEXCEPT;

/*
 * Callouts. A begin call opens the call `mName` of the transaction (a
 * database query `db_query` with its bound values `DBQueryParam`, or an HTTP
 * call to `url`); the end call closes it, naming the backend with its
 * pipe-separated description `backendName`. All four return 0 at once while
 * no session runs or a session is stopping. Otherwise: begin returns 0; end
 * returns 0, or -1 for a NULL handle or an empty backend name.
 */
VX_API int vx_ip_db_callout_begin(char* mName, vxBTHandle bt_handle, char* db_query,
                                  char* DBQueryParam) VX_NOEXCEPT;
VX_API int vx_ip_db_callout_end(char* mName, char* backendName, vxBTHandle bt_handle,
                                char** strSpan) VX_NOEXCEPT;
VX_API int vx_ip_http_callout_begin(char* mName, vxBTHandle bt_handle, char* url) VX_NOEXCEPT;
VX_API int vx_ip_http_callout_end(char* mName, char* backendName, vxBTHandle bt_handle,
                                  char** strSpan) VX_NOEXCEPT;

/*
 * Helpers. A string these return is the host's, to release with
 * sdk_free_memory, unless said otherwise. All return NULL (or do nothing)
 * before vx_init2 or for a NULL handle.
 */
/* The program's short invocation name; owned by the process. */
VX_API char* sdk_getAppName(void) VX_NOEXCEPT;
/* The agent's build text; owned by the agent. */
VX_API char* sdk_getVxBuild(void) VX_NOEXCEPT;
/* The topology and flowpath tag for a log line of this transaction, while a
 * session runs; NULL when such tags are switched off. */
VX_API char* sdk_getTopoFpStr(vxBTHandle bt_handle) VX_NOEXCEPT;
/* Forward one application log line of this transaction, while a session
 * runs. */
VX_API void sdk_dumpLogMessage(vxBTHandle bt_handle, char* logmsg) VX_NOEXCEPT;
/* Hand over the request (`type` "req") or response (anything else) headers,
 * with the response's status, while a session runs. */
VX_API void sdk_httpReqRespWrapper(vxBTHandle bt_handle, char* buffer, char* type,
                                   int statusCode) VX_NOEXCEPT;
/* Items "name=value" separated by "&": the value of each header marked
 * for values as ids gets its id now. `buffer` stays the caller's. */
VX_API void parseBufferAndGenerateHttpHeaderValueid(VXPerThreadData_t* vxTD, char* buffer) VX_NOEXCEPT;
/* The session cookie value to set on the response; NULL when sessions are
 * off. */
VX_API char* sdk_getVXSessionCookie(vxBTHandle bt_handle) VX_NOEXCEPT;
/* The correlation header value to put on an outgoing call; owned by the
 * transaction, valid until its next callout or its end. */
VX_API char* get_custom_vx_header(vxBTHandle bt_handle) VX_NOEXCEPT;
/* The W3C traceparent value for an outgoing call; NULL without a trace
 * context. */
VX_API char* sdk_get_otl_traceparent(vxBTHandle bt_handle) VX_NOEXCEPT;
/* The tracestate value; owned by the transaction, not to be freed. */
VX_API char* sdk_get_otl_tracestate(vxBTHandle bt_handle) VX_NOEXCEPT;
/* All trace-context headers to put on an outgoing call, "name:value" lines;
 * empty when trace context is off. */
VX_API char* sdk_get_propagation_header(vxBTHandle bt_handle) VX_NOEXCEPT;
/* Release a string returned above. NULL is ignored. */
VX_API void sdk_free_memory(char* str) VX_NOEXCEPT;
/*
 * An exception seen in the flowpath of `vxTD`, raised in an instrumented
 * method (throwingClassName.throwingmethodName): its class, message (only
 * the first 50 bytes count), cause, line and stack trace text. Any text but
 * the stack trace may be NULL; fileName is not used. Texts are copied.
 */
VX_API void getstacktracearray(VXPerThreadData_t* vxTD, char* stacktracearray, char* fileName,
                               char* className, char* throwingClassName, char* message,
                               char* throwingmethodName, int lineNumber,
                               char* ExceptionCause) VX_NOEXCEPT;
/* 1 when the host should report exceptions from its logger, else 0. */
VX_API int enableLOGGERFromPH(void) VX_NOEXCEPT;
/* The capture settings in force, for the host's own instrumentation:
 * exceptionCaptureMode 0 off, 1 or 2 on; cause and stack trace modes 0 or
 * 1; exception type 0, 1 or 3; the deepest stack to hand over; 1 when a
 * filter list of classes is in force. */
VX_API int getExceptionCaptureMode(void) VX_NOEXCEPT;
VX_API int getExceptionCauseCaptureMode(void) VX_NOEXCEPT;
VX_API int getStackTraceCaptureMode(void) VX_NOEXCEPT;
VX_API int getExceptionType(void) VX_NOEXCEPT;
VX_API int getStackTraceMaxDepth(void) VX_NOEXCEPT;
VX_API int getExceptionCaptureTraceLevel(void) VX_NOEXCEPT;
VX_API int checkIfFilteringIsEnabled(void) VX_NOEXCEPT;
/* Method monitor settings in the keyword form (value, keyword, index; only
 * the value is read): on when at least 1, trace and error levels, the most
 * methods counted (at least 1), and the do-not-discard value. */
VX_API void parseMethodMonitorKeyword(char* value, char* keyword, int index) VX_NOEXCEPT;
VX_API void parseMethodMonitorTraceLevel(char* value, char* keyword, int index) VX_NOEXCEPT;
VX_API void parseMethodMonitorErrorLevel(char* value, char* keyword, int index) VX_NOEXCEPT;
VX_API void parseMaxMethodCount(char* value, char* keyword, int index) VX_NOEXCEPT;
VX_API void parsemmDoNotDiscardVal(char* value, char* keyword, int index) VX_NOEXCEPT;
/* Hand over a garbage-collection report; `id` is the host's report number. */
VX_API void sdk_sendGCReport(int id, char* GC_report) VX_NOEXCEPT;
/*
 * The host's thread sampler reports what it found. sendHotSpotRecord hands
 * over one hot spot: the thread's id (its name is not used), when the hot
 * spot began and how long it lasted (ms), whether it is new, the thread's
 * state, priority and stack depth, the sample's time, the flowpath and the
 * stack text (lines and commas are rewritten in a copy). setHotSpotDuration
 * counts one hot spot of `time` ms into the interval's summary and gives the
 * process's thread count (a time of 0 gives the count only). Both do nothing
 * while no session runs; any text may be NULL.
 */
VX_API void sendHotSpotRecord(long long ThreadID, char* ThreadName, long long hotSpotStartTime,
                              long long hotSpotDuration, char isNewHotspot, char* ThreadState,
                              int ThreadPriority, int ThreadStackDepth, long long timeStamp,
                              char* fpi, char* stackTrace, long long flowpathId) VX_NOEXCEPT;
VX_API void setHotSpotDuration(long long time, char isNewHotspot,
                               int totalNumOfThreads) VX_NOEXCEPT;
/* Hand over one result line of a loaded-class discovery. */
VX_API void wraphandleMessageForDiscovery(char* data) VX_NOEXCEPT;
/* Write `str` to the agent's trace log at error severity. */
VX_API void dumpLog(char* str) VX_NOEXCEPT;

/*
 * Registration of host callbacks: each stores the pointer (NULL unregisters)
 * for the agent to call later. The int results carry no meaning; hosts ignore
 * them. register_test_status_for_agent also creates "<home>/.cache/", so call
 * it after agent_init or vx_init2. register_thread_dump_callback also tells
 * the already registered cookie and session callbacks the current state:
 * session cookie settings, then the user-experience cookie name, then whether
 * a session runs.
 */
VX_API int register_callback_for_agent(callback_func cb) VX_NOEXCEPT;
VX_API int register_test_status_for_agent(test_status cb) VX_NOEXCEPT;
VX_API void register_AD_callback(ad_callback cb) VX_NOEXCEPT;
VX_API void register_AD_callback_php(ad_callback_php cb) VX_NOEXCEPT;
VX_API int register_Goroutines_status_for_agent(Goroutine_status cb) VX_NOEXCEPT;
VX_API void register_AI_start_callback(ai_start_func cb) VX_NOEXCEPT;
VX_API void register_AI_end_callback(ai_end_func cb) VX_NOEXCEPT;
VX_API void register_thread_dump_callback(thread_dump_func cb) VX_NOEXCEPT;
VX_API void register_vx_cookie_callback(vx_cookie_func cb) VX_NOEXCEPT;
VX_API void register_kp_cookie_callback(kp_cookie_func cb) VX_NOEXCEPT;
VX_API void register_mutex_lock_callback(mtx_lock_func cb) VX_NOEXCEPT;
VX_API void register_heap_dump_callback(heap_dump_func cb) VX_NOEXCEPT;
VX_API int register_GC_status_for_agent(GC_status cb) VX_NOEXCEPT;

/*
 * The agent's trace log for hosts: one line at `severity` from `module`,
 * written when `level` does not exceed the agent's trace level for hosts
 * (_win), for hot spots (_hs), for class discovery (_ad), for process
 * notification (_pc) or for exceptions (_ex); _mem writes while memory
 * tracing is on. `thread_name` NULL means the calling thread's name.
 */
VX_API void vxlb_mt_trace_log_win(int level, const char* thread_name, long long thread_id,
                                  const char* module, const char* severity, const char* file,
                                  int line, const char* fname, const char* format, ...)
    VX_NOEXCEPT VX_PRINTF(9, 10);
VX_API void vxlb_mt_trace_log_win_hs(int level, const char* thread_name, long long thread_id,
                                     const char* module, const char* severity, const char* file,
                                     int line, const char* fname, const char* format, ...)
    VX_NOEXCEPT VX_PRINTF(9, 10);
VX_API void vxlb_mt_trace_log_win_ad(int level, const char* thread_name, long long thread_id,
                                     const char* module, const char* severity, const char* file,
                                     int line, const char* fname, const char* format, ...)
    VX_NOEXCEPT VX_PRINTF(9, 10);
VX_API void vxlb_mt_trace_log_win_pc(int level, const char* thread_name, long long thread_id,
                                     const char* module, const char* severity, const char* file,
                                     int line, const char* fname, const char* format, ...)
    VX_NOEXCEPT VX_PRINTF(9, 10);
VX_API void vxlb_mt_trace_log_win_ex(int level, const char* thread_name, long long thread_id,
                                     const char* module, const char* severity, const char* file,
                                     int line, const char* fname, const char* format, ...)
    VX_NOEXCEPT VX_PRINTF(9, 10);
VX_API void vxlb_mt_trace_log_mem(int level, const char* thread_name, long long thread_id,
                                  const char* module, const char* severity, const char* file,
                                  int line, const char* fname, const char* format, ...)
    VX_NOEXCEPT VX_PRINTF(9, 10);

#ifdef __cplusplus
}
#endif

#endif /* VX_SDK_H */
