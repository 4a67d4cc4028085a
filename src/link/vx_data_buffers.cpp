#include "link/vx_data_buffers.h"

#include <strings.h>

#include "agent/vx_instance.h"
#include "core/vx_thread.h"
#include "core/vx_trace_log.h"
#include "link/vx_buffer_ring.h"

namespace {

int buffer_count(const VXProxyInstance_t* app)
{
    int count = app->VXSys.dataBuffMaxCount;
    const char* type = app->VXBCISetting.agentType;
    if (!app->VXSys.proxyServerFlag && type && strcasecmp(type, "php") == 0) count /= 32;
    return count;
}

VXRingLists_t lists(VXDataChannel_t& c)
{
    return {c.writeList,    c.writeListLast, c.writeListSize, c.VXBCIAgentBB, c.readList,
            c.readListLast, c.readListSize,  c.VXCollectorBB, c.bufferMoveLock};
}

}  // namespace

extern "C" int buff_list_init(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return 1;
    /* Producers move nodes under this lock once the session runs; a second
     * call made then only looks. */
    vx::VXLockGuard guard(app->dataChannel.bufferMoveLock);
    if (app->dataChannel.writeList || app->dataChannel.readList) return 0;
    const int count = buffer_count(app);
    const int size = app->VXSys.bciDataBufferMaxSize;
    if (vx::ring_grow(lists(app->dataChannel), count, size) < count) return 1;
    VX_TRACE(app->VXSys.controlTraceLevel, 1, "DATA_THREAD",
             "Data buffers ready: %d of %d bytes", app->dataChannel.writeListSize, size);
    return 0;
}

extern "C" void moveToReadList(void)
{
    VXProxyInstance_t* app = vx_app();
    vx::VXLockGuard guard(app->dataChannel.bufferMoveLock);
    vx::ring_to_read(lists(app->dataChannel));
}

extern "C" void moveToWriteList(void)
{
    VXProxyInstance_t* app = vx_app();
    /* Both locks, in their order: producers read VXBCIAgentBB, which this
     * may set, under bufferWriteLock only. */
    vx::VXLockGuard write(app->dataChannel.bufferWriteLock);
    vx::VXLockGuard guard(app->dataChannel.bufferMoveLock);
    vx::ring_to_write(lists(app->dataChannel));
}

extern "C" void movePartialToReadList(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !app->dataChannel.bufferWriteLock) return;
    vx::VXLockGuard guard(app->dataChannel.bufferWriteLock);
    if (app->dataChannel.VXBCIAgentBB && app->dataChannel.VXBCIAgentBB->use_len > 0) moveToReadList();
}

extern "C" int addDataInSendBuffer(char* data, int bytesToWrite)
{
    VXProxyInstance_t* app = vx_app();
    return vx::ring_add(lists(app->dataChannel), app->VXSys.discardCount, data, bytesToWrite,
                        vx::CutRecord::kCloseLine);
}

extern "C" void markDataLeftovers(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !app->dataChannel.bufferMoveLock) return;
    movePartialToReadList();
    vx::VXLockGuard guard(app->dataChannel.bufferMoveLock);
    app->dataChannel.leftoverBuffers = app->dataChannel.readListSize;
}
