#include "monitor/vx_bt_monitor.h"

/* STAND-IN(monitors): the monitor data model is not built yet. These
 * keep the flowpath engine's call sites in place. */
extern "C" void initThreadBasedModelMap(void) {}

extern "C" void initVXMonitorDataModel(VXPerThreadData_t* tlData) { (void)tlData; }

extern "C" void updateCounterAndDurationForBT(VXPerThreadData_t* vxTD) { (void)vxTD; }
