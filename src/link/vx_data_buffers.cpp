#include "link/vx_data_buffers.h"

#include <strings.h>

#include <cstdlib>
#include <cstring>

#include "agent/vx_instance.h"
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
    if (app->writeList) return 0;
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
        append(app->writeList, app->writeListLast, node);
        ++app->writeListSize;
        if (!app->VXBCIAgentBB) app->VXBCIAgentBB = node;
    }
    VX_TRACE(app->VXSys.controlTraceLevel, 1, "DATA_THREAD",
             "Data buffers ready: %d of %d bytes", app->writeListSize, size);
    return 0;
}

extern "C" void moveToReadList(void)
{
    VXProxyInstance_t* app = vx_app();
    vx::VXLockGuard guard(app->bufferMoveLock);
    nioSettings_t* node = take_head(app->writeList, app->writeListLast);
    if (!node) return;
    app->VXBCIAgentBB = app->writeList;
    append(app->readList, app->readListLast, node);
    if (!app->VXCollectorBB) app->VXCollectorBB = app->readList;
    ++app->readListSize;
    --app->writeListSize;
}

extern "C" void moveToWriteList(void)
{
    VXProxyInstance_t* app = vx_app();
    vx::VXLockGuard guard(app->bufferMoveLock);
    nioSettings_t* node = take_head(app->readList, app->readListLast);
    if (!node) return;
    app->VXCollectorBB = app->readList;
    append(app->writeList, app->writeListLast, node);
    /* Producers recover here after the free list ran empty. */
    if (!app->VXBCIAgentBB) app->VXBCIAgentBB = app->writeList;
    ++app->writeListSize;
    --app->readListSize;
}

extern "C" void movePartialToReadList(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !app->bufferWriteLock) return;
    vx::VXLockGuard guard(app->bufferWriteLock);
    if (app->VXBCIAgentBB && app->VXBCIAgentBB->use_len > 0) moveToReadList();
}

extern "C" int addDataInSendBuffer(char* data, int bytesToWrite)
{
    VXProxyInstance_t* app = vx_app();
    nioSettings_t* cur = app->VXBCIAgentBB;
    if (!cur) {
        ++app->VXSys.discardCount;
        return app->VXCollectorBB ? kBufferNoneFree : kBufferNotReady;
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
        ++app->VXSys.discardCount;
        return kBufferNoRoom;
    }
    memcpy(cur->buff + cur->use_len, data, static_cast<size_t>(room));
    cur->use_len += room;
    moveToReadList();

    nioSettings_t* spill = app->VXBCIAgentBB;
    const int rest = bytesToWrite - room;
    if (rest > spill->buff_size) {
        ++app->VXSys.discardCount;
        spill->buff[spill->use_len++] = '\n'; /* the cut record still ends its line */
        if (spill->use_len >= spill->buff_size) moveToReadList();
        return kBufferRecordCut;
    }
    memcpy(spill->buff + spill->use_len, data + room, static_cast<size_t>(rest));
    spill->use_len += rest;
    if (spill->use_len >= spill->buff_size) moveToReadList();
    return kBufferStored;
}
