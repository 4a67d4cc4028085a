/*
 * The method monitor: per-interval counters of monitored methods.
 *
 * STAND-IN(method-monitor): the counters and their records are not built
 * yet. What the method table and the method exits call is here, and does
 * nothing.
 */
#ifndef VX_METHOD_MONITOR_H
#define VX_METHOD_MONITOR_H

struct VXPerThreadData_t;
struct methodPropProperties;

extern "C" {
/* Binds a monitored method to its aggregate slot. Caller holds
 * methodEntryLock. */
void checkAndIncrementAggrMethodDataArray(methodPropProperties* mPP);

/* At a monitored method's exit: counts it on the record's model. The
 * record's thread. */
void updateCounterAndDurationForMethod(VXPerThreadData_t* vxTD, methodPropProperties* mPP,
                                       long long duration);
}

#endif
