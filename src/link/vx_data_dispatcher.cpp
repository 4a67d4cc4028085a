#include "link/vx_data_dispatcher.h"

#include "core/vx_instance.h"
#include "core/vx_trace_log.h"

namespace {

void discard(const char*, int, void*) {}

struct Sink {
    vx::DataSinkFn fn = discard;
    void* ctx = nullptr;
};
Sink g_sink;

}  // namespace

extern "C" void dumpData(char* data, int len)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !app->Server.testRunRunning) {
        VX_TRACE(VX_LEVEL(fpTraceLevel), 4, "FLOWPATH", "test is not running");
        return;
    }
    if (!data || len <= 0) {
        VX_TRACE(app->VXSys.fpTraceLevel, 4, "FLOWPATH", "data is null or zero length");
        return;
    }
    g_sink.fn(data, len, g_sink.ctx);
}

extern "C" void flushCommonData(void) {}

namespace vx {

void data_sink_set(DataSinkFn fn, void* ctx)
{
    g_sink.ctx = ctx;
    g_sink.fn = fn ? fn : discard;
}

}  // namespace vx
