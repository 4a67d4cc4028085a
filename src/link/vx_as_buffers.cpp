#include "link/vx_as_buffers.h"

#include "agent/vx_instance.h"
#include "core/vx_atomic.h"
#include "core/vx_thread.h"
#include "core/vx_trace_log.h"
#include "link/vx_buffer_ring.h"

namespace {

VXRingLists_t lists(VXAutoSensorChannel_t& c)
{
    return {c.writeListAS,    c.writeListLastAS, c.writeListSizeAS, c.VXBCIAgentBBAS,  c.readListAS,
            c.readListLastAS, c.readListSizeAS,  c.VXCollectorBBAS, c.bufferMoveLockAS};
}

/* One line per 10,000 discards keeps a long outage from flooding the log. */
void warn_discard(VXProxyInstance_t* app, int rv)
{
    if (vx::load_relaxed(app->VXSys.discardCount) % 10000 != 1) return;
    VX_ERROR("AUTO_SENSOR",
             "VXDataDispatcher - dumpData(): Warning - No space left in buffer or thread is not "
             "initialized for sending data. Return = %d, writeListSizeAS = %d readListSizeAS = %d",
             rv, app->asChannel.writeListSizeAS, app->asChannel.readListSizeAS);
}

}  // namespace

extern "C" int buff_list_init_as(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return 1;
    VXAutoSensorChannel_t& ch = app->asChannel;
    vx::VXLockGuard guard(ch.bufferMoveLockAS);
    if (ch.writeListAS) return 0;
    ch.dataBufferSizeAS = app->VXSys.bciASDataBufferMaxSize;
    int batch = app->VXSys.ASDataBuffMinCount;
    if (ch.curBuffers + batch > app->VXSys.ASDataBuffMaxCount)
        batch = app->VXSys.ASDataBuffMaxCount - ch.curBuffers;
    if (batch < 1) return 1;
    ch.maxBuffersAS = batch;
    const int built = vx::ring_grow(lists(ch), batch, ch.dataBufferSizeAS);
    ch.curBuffers += built;
    VX_TRACE(app->VXSys.controlTraceLevel, 1, "AUTO_SENSOR",
             "Auto-sensor buffers: %d built, %d of %d bytes", built, ch.curBuffers,
             ch.dataBufferSizeAS);
    return built < batch ? 1 : 0;
}

extern "C" void moveToASReadList(void)
{
    VXAutoSensorChannel_t& ch = vx_app()->asChannel;
    vx::VXLockGuard guard(ch.bufferMoveLockAS);
    vx::ring_to_read(lists(ch));
}

extern "C" void moveToASWriteList(void)
{
    VXAutoSensorChannel_t& ch = vx_app()->asChannel;
    /* Producers read VXBCIAgentBBAS, which this may set, under the write
     * lock only. */
    vx::VXLockGuard write(ch.bufferWriteLockAS);
    vx::VXLockGuard guard(ch.bufferMoveLockAS);
    vx::ring_to_write(lists(ch));
}

extern "C" void moveCommonPartialToReadList(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !app->asChannel.bufferWriteLockAS) return;
    vx::VXLockGuard guard(app->asChannel.bufferWriteLockAS);
    if (app->asChannel.VXBCIAgentBBAS && app->asChannel.VXBCIAgentBBAS->use_len > 0)
        moveToASReadList();
}

extern "C" int addDataInASSendBuffer(char* data, int bytesToWrite)
{
    VXProxyInstance_t* app = vx_app();
    return vx::ring_add(lists(app->asChannel), app->VXSys.discardCount, data, bytesToWrite,
                        vx::CutRecord::kKeepAsIs);
}

extern "C" int dumpASData(char* data, int len)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return 1;
    if (!data || len <= 0) {
        VX_TRACE(app->VXSys.fpTraceLevel, 4, "AUTO_SENSOR", "data is null or zero length");
        return 1;
    }
    VXAutoSensorChannel_t& ch = app->asChannel;
    if (!ch.bufferWriteLockAS) { /* the channel was never set up */
        vx::fetch_add_relaxed(app->VXSys.discardCount, 1);
        return 1;
    }
    vx::VXLockGuard guard(ch.bufferWriteLockAS);
    /* Growth comes before the copy: a record is counted once, whether it is
     * stored or dropped. */
    if (!ch.VXBCIAgentBBAS && buff_list_init_as() != 0 && !ch.VXBCIAgentBBAS) {
        vx::fetch_add_relaxed(app->VXSys.discardCount, 1);
        if (vx::load_relaxed(app->VXSys.discardCount) % 10000 == 1)
            VX_ERROR("AUTO_SENSOR", "Error in buff_list_init_as");
        return 1;
    }
    const int rv = addDataInASSendBuffer(data, len);
    if (rv < 0) warn_discard(app, rv);
    return 0;
}
