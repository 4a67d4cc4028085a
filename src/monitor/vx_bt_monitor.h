/*
 * The BT monitor: per-interval counters of business transactions.
 *
 * STAND-IN(monitors): only what the flowpath engine reads and calls
 * exists yet; counting and the interval records come with the monitors.
 */
#ifndef VX_BT_MONITOR_H
#define VX_BT_MONITOR_H

struct VXPerThreadData_t;

struct VXBTMonitor_t {
    int doNotDisacrdAnyTransaction; /* report uncaptured normal transactions too */
};

extern "C" {
void initThreadBasedModelMap(void);
void initVXMonitorDataModel(VXPerThreadData_t* tlData);
void updateCounterAndDurationForBT(VXPerThreadData_t* vxTD);
}

#endif
