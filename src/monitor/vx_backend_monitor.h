/*
 * The backend and method monitors: per-interval counters of called backends
 * and monitored methods.
 *
 * STAND-IN(monitors): the counters and interval records are not built
 * yet. What the method table and the method events read and call is here:
 * the backend cap (maxIPCount, backendIDCounter) is real.
 */
#ifndef VX_BACKEND_MONITOR_H
#define VX_BACKEND_MONITOR_H

struct VXPerThreadData_t;
struct methodPropProperties;

struct VXBackendMonitor_t {
    int vxBackendMonTraceLevel;
    int maxIPCount;       /* most distinct backends before "Others" */
    int backendIDCounter; /* distinct backends so far */
};

inline constexpr int kDefaultMaxIPCount = 32;

extern "C" {
void checkAndIncrementAggrBackendDataArray(methodPropProperties* mPP);
void checkAndIncrementAggrMethodDataArray(methodPropProperties* mPP);
void updateCounterAndDurationForBackend(VXPerThreadData_t* vxTD, methodPropProperties* mPP,
                                        long long duration, int isError);
void updateCounterAndDurationForMethod(VXPerThreadData_t* vxTD, methodPropProperties* mPP,
                                       long long duration);
}

namespace vx {
/* The keyword tDigestPercentileIP: the backends' digest settings.
 * STAND-IN(monitors): backends have no digests yet, so nothing is dumped at
 * once and no periodic dump is due. Control thread. */
void ip_percentiles_keyword(const char* keyword, char* value);
}

#endif
