#include "link/vx_data_buffers.h"

#include <strings.h>

#include <cstdlib>
#include <cstring>

#include "agent/vx_instance.h"
#include "core/vx_atomic.h"
#include "core/vx_thread.h"
#include "core/vx_trace_log.h"

namespace {

/* Append `node` to the list given by its head and tail. */
void append(nioSettings_t*& head, nioSettings_t*& tail, nioSettings_t* node)
{
    node->next = nullptr;
    if (!head)
        head = node;
    else
        tail->next = node;
    tail = node;
}

/* Unlink and return the head of a list (null when empty). */
nioSettings_t* take_head(nioSettings_t*& head, nioSettings_t*& tail)
{
    nioSettings_t* node = head;
    if (!node) return nullptr;
    head = node->next;
    if (!head) tail = nullptr;
    node->next = nullptr;
    return node;
}

int buffer_count(const VXProxyInstance_t* app)
{
    int count = app->VXSys.dataBuffMaxCount;
    const char* type = app->VXBCISetting.agentType;
    if (!app->VXSys.proxyServerFlag && type && strcasecmp(type, "php") == 0) count /= 32;
    return count;
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
    for (int i = 0; i < count; ++i) {
        auto* node = static_cast<nioSettings_t*>(calloc(1, sizeof(nioSettings_t)));
        if (!node) return 1;
        node->buff = static_cast<char*>(malloc(static_cast<size_t>(size)));
        if (!node->buff) {
            free(node);
            return 1;
        }
        node->buff_size = size;
        append(app->dataChannel.writeList, app->dataChannel.writeListLast, node);
        ++app->dataChannel.writeListSize;
        if (!app->dataChannel.VXBCIAgentBB) app->dataChannel.VXBCIAgentBB = node;
    }
    VX_TRACE(app->VXSys.controlTraceLevel, 1, "DATA_THREAD",
             "Data buffers ready: %d of %d bytes", app->dataChannel.writeListSize, size);
    return 0;
}

extern "C" void moveToReadList(void)
{
    VXProxyInstance_t* app = vx_app();
    vx::VXLockGuard guard(app->dataChannel.bufferMoveLock);
    nioSettings_t* node = take_head(app->dataChannel.writeList, app->dataChannel.writeListLast);
    if (!node) return;
    app->dataChannel.VXBCIAgentBB = app->dataChannel.writeList;
    append(app->dataChannel.readList, app->dataChannel.readListLast, node);
    if (!app->dataChannel.VXCollectorBB) app->dataChannel.VXCollectorBB = app->dataChannel.readList;
    ++app->dataChannel.readListSize;
    --app->dataChannel.writeListSize;
}

extern "C" void moveToWriteList(void)
{
    VXProxyInstance_t* app = vx_app();
    /* Both locks, in their order: producers read VXBCIAgentBB, which this
     * may set, under bufferWriteLock only. */
    vx::VXLockGuard write(app->dataChannel.bufferWriteLock);
    vx::VXLockGuard guard(app->dataChannel.bufferMoveLock);
    nioSettings_t* node = take_head(app->dataChannel.readList, app->dataChannel.readListLast);
    if (!node) return;
    app->dataChannel.VXCollectorBB = app->dataChannel.readList;
    append(app->dataChannel.writeList, app->dataChannel.writeListLast, node);
    /* Producers recover here after the free list ran empty. */
    if (!app->dataChannel.VXBCIAgentBB) app->dataChannel.VXBCIAgentBB = app->dataChannel.writeList;
    ++app->dataChannel.writeListSize;
    --app->dataChannel.readListSize;
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
    nioSettings_t* cur = app->dataChannel.VXBCIAgentBB;
    if (!cur) {
        vx::fetch_add_relaxed(app->VXSys.discardCount, 1);
        vx::VXLockGuard move(app->dataChannel.bufferMoveLock); /* the sender moves the read head */
        return app->dataChannel.VXCollectorBB ? kBufferNoneFree : kBufferNotReady;
    }
    const int room = cur->buff_size - cur->use_len;
    if (bytesToWrite <= room) {
        memcpy(cur->buff + cur->use_len, data, static_cast<size_t>(bytesToWrite));
        cur->use_len += bytesToWrite;
        if (cur->use_len >= cur->buff_size) moveToReadList();
        return kBufferStored;
    }
    /* The last free buffer is never spilled into: the record goes whole. */
    if (!cur->next) {
        vx::fetch_add_relaxed(app->VXSys.discardCount, 1);
        return kBufferNoRoom;
    }
    memcpy(cur->buff + cur->use_len, data, static_cast<size_t>(room));
    cur->use_len += room;
    moveToReadList();

    nioSettings_t* spill = app->dataChannel.VXBCIAgentBB;
    const int rest = bytesToWrite - room;
    if (rest > spill->buff_size) {
        vx::fetch_add_relaxed(app->VXSys.discardCount, 1);
        spill->buff[spill->use_len++] = '\n'; /* the cut record still ends its line */
        if (spill->use_len >= spill->buff_size) moveToReadList();
        return kBufferRecordCut;
    }
    memcpy(spill->buff + spill->use_len, data + room, static_cast<size_t>(rest));
    spill->use_len += rest;
    if (spill->use_len >= spill->buff_size) moveToReadList();
    return kBufferStored;
}
