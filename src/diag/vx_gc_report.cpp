#include "diag/vx_gc_report.h"

/* STAND-IN(thread-reports). */
extern "C" void sendGCReport(int id, char* GC_report) VX_NOEXCEPT
{
    (void)id;
    (void)GC_report;
}
