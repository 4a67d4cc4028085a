#include "link/vx_data_dispatcher.h"

#include <apr_errno.h>
#include <apr_network_io.h>
#include <apr_time.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "agent/vx_instance.h"
#include "core/vx_atomic.h"
#include "core/vx_thread.h"
#include "core/vx_trace_log.h"
#include "link/vx_data_buffers.h"
#include "link/vx_data_thread.h"
#include "link/vx_lws_transport.h"

namespace {

struct Tap {
    vx::DataTapFn fn = nullptr;
    void* ctx = nullptr;
};
Tap g_tap;

/* The opening of the connection this thread is writing, if any. */
thread_local vx::DataOpening* tl_opening = nullptr;
constexpr size_t kOpeningSliceBytes = 256 * 1024;

constexpr int kFlushPasses = 100;
/* The buffer the sender drains next. Producers move full buffers to the
 * read list under bufferMoveLock; taking it here also makes their bytes
 * visible to the data thread. */
nioSettings_t* next_to_send(VXProxyInstance_t* app)
{
    vx::VXLockGuard guard(app->dataChannel.bufferMoveLock);
    return app->dataChannel.VXCollectorBB;
}

/* Write a small record through dumpData, cut to the metadata bound. */
void dump_text_record(const char* format, int number, const char* text)
{
    char* rec = static_cast<char*>(malloc(vx::kTagRecordSize));
    if (!rec) return;
    vx::dump_record(rec, vx::kTagRecordSize, format, number, text);
    free(rec);
}

}  // namespace

namespace {

/* dumpData's body. The end mark is taken under the write lock together with
 * the flag that turns later records away: a host thread that passed the
 * running test just before the stop cannot land a record behind it. */
void door_write(VXProxyInstance_t* app, char* data, int len, bool endMark)
{
    if (g_tap.fn) g_tap.fn(data, len, g_tap.ctx);
    if (!app->dataChannel.bufferWriteLock) { /* no data thread was ever started */
        vx::fetch_add_relaxed(app->VXSys.discardCount, 1);
        return;
    }
    vx::VXTurnstileGuard guard(app->dataChannel.doorTurn, app->dataChannel.bufferWriteLock);
    if (vx::load_relaxed(app->Server.isTenRecordDump)) {
        VX_TRACE(app->VXSys.fpTraceLevel, 4, "DATA_THREAD", "the session's end mark is out");
        return;
    }
    const int rv = addDataInSendBuffer(data, len);
    if (endMark) vx::store_relaxed(app->Server.isTenRecordDump, 1);
    if (rv < 0 && vx::load_relaxed(app->VXSys.discardCount) % 1000 == 999)
        VX_ERROR("DATA_THREAD",
                 "VXDataDispatcher - dumpData(): Warning - No space left in buffer or thread is not "
                 "initialized for sending data to VXCollector. Return = %d, writeListSize = %d "
                 "readListSize = %d",
                 rv, app->dataChannel.writeListSize, app->dataChannel.readListSize);
}

}  // namespace

extern "C" void dumpData(char* data, int len)
{
    VXProxyInstance_t* app = vx_app();
    /* Acquire: a session start makes the buffers and their locks before it
     * raises the flag with release, so seeing the flag up means seeing them. */
    if (!app || !vx::load_acquire(app->Server.testRunRunning)) {
        VX_TRACE(VX_LEVEL(fpTraceLevel), 4, "DATA_THREAD", "test is not running");
        return;
    }
    if (!data || len <= 0) {
        VX_TRACE(app->VXSys.fpTraceLevel, 4, "DATA_THREAD", "data is null or zero length");
        return;
    }
    if (tl_opening && tl_opening->add(data, len)) {
        if (g_tap.fn) g_tap.fn(data, len, g_tap.ctx);
        return;
    }
    door_write(app, data, len, false);
}

namespace {

/* processData's body: at most `limit` buffers when limit >= 0. */
int send_buffers(VXProxyInstance_t* app, int limit)
{
    if (!app->dataChannel.dataSkt.skt) return -1;
    for (; limit != 0; limit -= limit > 0) {
        nioSettings_t* node = next_to_send(app);
        if (!node) break;
        while (node->use_len - node->send_len > 0) {
            apr_size_t len = static_cast<apr_size_t>(node->use_len - node->send_len);
            const apr_status_t rv = apr_socket_send(app->dataChannel.dataSkt.skt, node->buff + node->send_len, &len);
            if (vx::connection_broken(rv)) {
                char err[256];
                VX_ERROR("DATA_THREAD", "Error = %s, dataLen = %d",
                         apr_strerror(rv, err, sizeof err), static_cast<int>(len));
                node->send_len += static_cast<int>(len);
                return -1;
            }
            if (len == 0) return 1;
            node->send_len += static_cast<int>(len);
            if (vx::load_relaxed(app->VXSys.retryFlag) ||
                vx::load_relaxed(app->VXSys.closeCtrlConFlag)) {
                flushCommonData();
                VX_TRACE(app->VXSys.controlTraceLevel, 1, "DATA_THREAD",
                         "dataConnectionBreak Control connecton already closed. Going to closing "
                         "data thread");
            }
            checkAndStopThread();
        }
        node->use_len = node->send_len = 0;
        moveToWriteList();
    }
    return 0;
}

}  // namespace

extern "C" int processData(void) { return send_buffers(vx_app(), -1); }

extern "C" int sendDataLeftovers(void)
{
    VXProxyInstance_t* app = vx_app();
    const int n = app->dataChannel.leftoverBuffers;
    app->dataChannel.leftoverBuffers = 0;
    if (n <= 0 || app->lws_active == 1) return 0;
    return send_buffers(app, n) < 0 ? -1 : 0;
}

extern "C" int processDataLws(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app->dataChannel.dataSkt.lws_handler.wsi) return -1;
    while (nioSettings_t* node = next_to_send(app)) {
        int last = 0;
        while (node->use_len - node->send_len > 0) {
            const int len = node->use_len - node->send_len;
            const int sent = send_data_via_lws_socket(node->buff + node->send_len, len);
            node->send_len += len; /* a failed chunk is lost on this transport */
            if (sent < 0) return -1;
            last = len;
        }
        if (last > 1) send_data_via_lws_socket(const_cast<char*>("\n"), 1);
        node->use_len = node->send_len = 0;
        moveToWriteList();
    }
    return 0;
}

extern "C" int dataConnService(void)
{
    VXProxyInstance_t* app = vx_app();
    return app->lws_active == 1 ? processDataLws() : processData();
}

extern "C" void flushCommonData(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || (!vx::load_relaxed(app->dataChannel.dataSkt.skt) &&
                 !vx::load_relaxed(app->dataChannel.dataSkt.lws_handler.wsi)))
        return;
    /* processData calls back here while a stop is under way: one flush at a
     * time per thread is enough, the outer one finishes the job. */
    static thread_local bool flushing = false;
    if (flushing) return;
    movePartialToReadList();
    /* Another thread only publishes; the data thread sends it. */
    if (!vx::on_data_thread()) return;
    flushing = true;
    for (int i = 0; i < kFlushPasses; ++i)
        if (dataConnService() < 1) break;
    flushing = false;
}

extern "C" void handleHeartBeat(void)
{
    VXProxyInstance_t* app = vx_app();
    if (vx::load_relaxed(app->VXSys.vxcBciDataConnectionHeartBeat) <= 0) return;
    if (--app->dataChannel.heartBeatExpiryCnt < 1) {
        if (app->lws_active == 1) send_data_via_lws_socket(const_cast<char*>("\n"), 1);
        dumpData(const_cast<char*>("\n"), 1);
        ++app->dataChannel.dumpHeartBeat;
        app->dataChannel.heartBeatExpiryCnt =
            vx::load_relaxed(app->VXSys.vxcBciDataConnectionHeartBeat);
    }
    if (app->dataChannel.dumpHeartBeat >= 5) {
        VX_TRACE(app->VXSys.controlTraceLevel, 2, "DATA_THREAD",
                 "VXDataDispatcher: heartBeatExpiryCnt '%d' ", app->dataChannel.heartBeatExpiryCnt);
        app->dataChannel.dumpHeartBeat = 0;
    }
}

extern "C" int sendBufferDataCon(char* buf, int len)
{
    VXProxyInstance_t* app = vx_app();
    if (app->lws_active == 1) {
        dumpData(buf, len);
        return 0;
    }
    if (!app->dataChannel.dataSkt.skt || vx::load_relaxed(app->VXSys.dataConnState) == 0) return 0;
    char err[256] = "";
    const int sent = vxlb_send_n_bytes(app->dataChannel.dataSkt.skt, buf, len, err, sizeof err);
    if (sent != len) {
        VX_ERROR("DATA_THREAD", "Sent incomplete data, tried %d, success %d bytes", len, sent);
        return len;
    }
    return 0;
}

extern "C" void dumpNewConnectionRecord(void)
{
    VXProxyInstance_t* app = vx_app();
    char rec[vx::kMetaRecordSize];
    vx::dump_record(rec, sizeof rec, "\n%d,NewConnection,FPGVersion:%s\n", 99, app->Server.fpgVID);
}

extern "C" void tag_record(void)
{
    const char* tags = vx_app()->VXBCISetting.json_tag;
    if (tags && *tags) dump_text_record("%d,%s\n", 110, tags);
}

extern "C" void attr_record(void)
{
    const char* attributes = vx_app()->VXBCISetting.tierAttr;
    if (attributes && strlen(attributes) >= 3) dump_text_record("%d,%s\n", 111, attributes);
}

extern "C" void dumpVxDataOverRecord(void)
{
    VXProxyInstance_t* app = vx_app();
    if (app && vx::load_acquire(app->Server.testRunRunning))
        door_write(app, const_cast<char*>("10,\n"), 4, true);
    else if (app)
        vx::store_relaxed(app->Server.isTenRecordDump, 1);
}

namespace vx {

DataOpening::DataOpening()
{
    VXProxyInstance_t* app = vx_app();
    if (app && app->lws_active != 1 && app->dataChannel.dataSkt.skt) tl_opening = this;
}

DataOpening::~DataOpening()
{
    if (tl_opening != this) return;
    flush();
    tl_opening = nullptr;
}

bool DataOpening::add(const char* data, int len) noexcept
{
    try {
        text_.append(data, static_cast<size_t>(len));
    } catch (...) {
        return false;
    }
    if (text_.size() >= kOpeningSliceBytes) flush();
    return true;
}

void DataOpening::flush() noexcept
{
    if (!text_.empty() && !broken_ &&
        sendBufferDataCon(text_.data(), static_cast<int>(text_.size())) != 0) {
        /* The connection broke: the data loop finds it and opens a new one,
         * which gets its own opening. */
        broken_ = true;
        VX_ERROR("DATA_THREAD", "The opening of the data connection was cut after a send failed");
    }
    text_.clear();
}

void data_tap_set(DataTapFn fn, void* ctx)
{
    g_tap.fn = nullptr;
    g_tap.ctx = ctx;
    g_tap.fn = fn;
}

}  // namespace vx
