#include "http/vx_http_capture.h"

#include <strings.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "agent/vx_instance.h"
#include "core/vx_atomic.h"
#include "core/vx_encode.h"
#include "core/vx_record_door.h"
#include "core/vx_text.h"
#include "core/vx_trace_log.h"
#include "flowpath/vx_per_thread_data.h"
#include "http/vx_header_ids.h"
#include "http/vx_http_capture_settings.h"
#include "http/vx_trace_context.h"
#include "http/vx_transaction_tags.h"

namespace {

constexpr int kTagRequest = 2;
constexpr int kTagResponse = 3;
constexpr char kEntrySep = 0x7F;

/* The captured text, built in place; once full it takes nothing more. */
struct CaptureText {
    char buf[kHttpTextSize];
    size_t len = 0;

    CaptureText() { buf[0] = '\0'; }
    void put(const char* s, size_t n)
    {
        const size_t room = sizeof buf - 1 - len;
        if (n > room) n = room;
        memcpy(buf + len, s, n);
        len += n;
        buf[len] = '\0';
    }
    void put(const char* s) { put(s, strlen(s)); }
    void put_id(int id)
    {
        char num[16];
        const int n = snprintf(num, sizeof num, "%d", id);
        if (n > 0) put(num, static_cast<size_t>(n));
    }
    /* "[|]<nameId>:<<value>>" */
    void text_item(bool first, int nameId, const char* value)
    {
        if (!first) put("|", 1);
        put_id(nameId);
        put(":<", 2);
        put(value);
        put(">", 1);
    }
    /* "[|]<nameId>:<valueId>" */
    void id_item(bool first, int nameId, int valueId)
    {
        if (!first) put("|", 1);
        put_id(nameId);
        put(":", 1);
        put_id(valueId);
    }
};

/* Walks a header block copied into `work`: calls fn(index, name, value) for
 * each entry that has a "$", at most kHttpBlockEntriesMax entries. */
template <typename Fn>
void for_each_entry(char* work, Fn&& fn)
{
    char* p = work;
    for (int index = 0; p && index < kHttpBlockEntriesMax; ++index) {
        char* next = strchr(p, kEntrySep);
        if (next) *next++ = '\0';
        if (char* dollar = strchr(p, '$')) {
            *dollar = '\0';
            fn(index, p, dollar + 1);
        }
        p = next;
    }
}

bool in_name_list(const VXHttpReqRespCaptureSettings& s, const char* name)
{
    const int count = vx::load_acquire(s.hdrNameListCount);
    const int n = count < kHdrNameListSize ? count : kHdrNameListSize;
    for (int i = 0; i < n; ++i) {
        const char* listed = vx::load_acquire(s.hdrNameList[i]);
        if (listed && strcmp(listed, name) == 0) return true;
    }
    return false;
}

bool wanted(const VXHttpReqRespCaptureSettings& s, const char* name)
{
    const char mode = vx::load_relaxed(s.hdrMode);
    return mode == 0 || (mode == 1 && in_name_list(s, name));
}

int bt_id_of(const VXPerThreadData_t* vxTD)
{
    return vxTD->tlBTObj ? vxTD->tlBTObj->bt_id : 0;
}

bool dotnet_without_status(const VXProxyInstance_t* app, int statusCode)
{
    const char* t = app->VXBCISetting.agentType;
    return statusCode == -1 && t && strcasecmp(t, "DotNet") == 0;
}

}  // namespace

size_t vx_encode_header_value(const char* value, const VXHttpReqRespCaptureSettings* s, char* out,
                              size_t cap)
{
    if (!out || cap == 0) return 0;
    char cut[kHttpValueCut + 1];
    const char* in = value ? value : "";
    if (s && vx::load_relaxed(s->hdrValueLengthMode) != 0) {
        const size_t len = strnlen(in, kHttpValueCut + 1);
        const int most = vx::load_relaxed(s->hdrValueMaxLength);
        if (most > 0 && len * 6 > static_cast<size_t>(most)) {
            VXProxyInstance_t* app = vx_app();
            /* The limit is reported, not applied: the value is cut at 1023
             * bytes either way. */
            VX_TRACE(app ? app->VXSys.fpTraceLevel : 0, 2, "HTTP_CAPTURE",
                     "Header value over hdrValueMaxLength %d; cut at %d bytes", most,
                     kHttpValueCut);
        }
        memcpy(cut, in, len > kHttpValueCut ? kHttpValueCut : len);
        cut[len > kHttpValueCut ? kHttpValueCut : len] = '\0';
        in = cut;
    }
    escapeURLEncoding(out, static_cast<int>(cap), const_cast<char*>(in));
    return strlen(out);
}

extern "C" char* checkHdrModeLengthAndEncodeHeadeValue(char* value,
                                                       VXHttpReqRespCaptureSettings* settings)
{
    const size_t cap = (value ? strlen(value) : 0) * 6 + 1;
    auto* out = static_cast<char*>(malloc(cap < 2 ? 2 : cap));
    if (!out) {
        VX_ERROR("HTTP_CAPTURE", "No memory to encode a header value of %zu bytes", cap / 6);
        return nullptr;
    }
    vx_encode_header_value(value, settings, out, cap < 2 ? 2 : cap);
    return out;
}

extern "C" void dumpHttpReqRepRecord(VXPerThreadData_t* vxTD, char* httpBuffer, int recType,
                                     int statusCode)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !vxTD || !httpBuffer) return;
    if (!vx::load_relaxed(app->VXBCISetting.data_thread_running)) return;
    char rec[kHttpTextSize + 64];
    if (recType == 12)
        vx::dump_record(rec, sizeof rec, "%d,%lld,%s\n", 12, vxTD->flowpathInstance, httpBuffer);
    else
        vx::dump_record(rec, sizeof rec, "%d,%lld,%d,%s\n", 13, vxTD->flowpathInstance, statusCode,
                        httpBuffer);
}

extern "C" void sendHttpHdrReq(VXPerThreadData_t* vxTD, char* buffer, char*, int statusCode)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !vxTD || !buffer || !*buffer) return;
    const VXHttpReqRespCaptureSettings& s = app->httpSettings.vxHttpReqCaptureSettings;
    const int level = vx::load_relaxed(s.captureLevel);
    const int btId = bt_id_of(vxTD);
    const bool tag = btId > 0 && is_tag_applied_per_bt_or_globally(btId, kTagRequest);
    const bool otel = app->VXSys.enableOTELStandard != 0;
    if (level <= 2 && !tag && !otel) return;
    /* The proxy replays the context from the frame's fields instead. */
    const bool readContext = otel && !vx_in_proxy_process();
    void* table = vx::load_acquire(app->httpHashMapNode);

    /* The work copy holds the propagation values until Validate_propheader. */
    char work[kHttpBlockScanMax + 1];
    vx::copy_text(work, sizeof work, buffer);
    CaptureText text;
    char encoded[kHttpTextSize + 1];
    Propheaderdata pdata;
    init_propagation_header(&pdata);
    int OTL_flag = 0;

    for_each_entry(work, [&](int index, char* name, char* value) {
        if (tag) resolveTransactionTag(vxTD, name, value, btId, kTagRequest);
        if (readContext && store_propagation_header(&pdata, name, value)) OTL_flag = 1;
        if (level <= 2) return;
        httpHeaderInfo* h = searchAndUpdatehttpHashMapNode(name, table, 1);
        if (!h || !wanted(s, name)) return;
        vx_encode_header_value(value, &s, encoded, sizeof encoded);
        if (!vx::load_relaxed(h->valueAsId)) {
            text.text_item(index == 0, h->id, encoded);
        } else if (httpHeaderInfo* v = searchAndUpdatehttpHashMapNode(encoded, table, 1)) {
            text.id_item(index == 0, h->id, v->id);
        }
    });

    if (readContext &&
        (arrPropagationHeaders[0] || arrPropagationHeaders[1] || arrPropagationHeaders[2]))
        Validate_propheader(vxTD, &pdata, OTL_flag);
    if (level == 3 && !dotnet_without_status(app, statusCode))
        dumpHttpReqRepRecord(vxTD, text.buf, 12, -1);
}

extern "C" void sendHttpHdrRep(VXPerThreadData_t* vxTD, char* buffer, char*, int statusCode)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !vxTD || !buffer || !*buffer) return;
    const VXHttpReqRespCaptureSettings& s = app->httpSettings.vxHttpRespCaptureSettings;
    const int level = vx::load_relaxed(s.captureLevel);
    const int btId = bt_id_of(vxTD);
    const bool tag = btId > 0 && is_tag_applied_per_bt_or_globally(btId, kTagResponse);
    if (level <= 1 && !tag) return;
    void* table = vx::load_acquire(app->httpHashMapNode);

    char work[kHttpBlockScanMax + 1];
    vx::copy_text(work, sizeof work, buffer);
    CaptureText text;
    char encoded[kHttpTextSize + 1];

    for_each_entry(work, [&](int index, char* name, char* value) {
        if (tag) resolveTransactionTag(vxTD, name, value, btId, kTagResponse);
        httpHeaderInfo* h = searchAndUpdatehttpHashMapNode(name, table, 1);
        if (!h || !wanted(s, name)) return;
        vx_encode_header_value(value, &s, encoded, sizeof encoded);
        /* Server always shows its text: it names the peer, not a value
         * worth an id. */
        if (!vx::load_relaxed(h->valueAsId) || strcmp(name, "Server") == 0) {
            text.text_item(index == 0, h->id, encoded);
        } else if (httpHeaderInfo* v = searchAndUpdatehttpHashMapNode(encoded, table, 1)) {
            text.id_item(index == 0, h->id, v->id);
        } else if (vx::load_relaxed(s.hdrMode) == 1 && index == 0) {
            text.text_item(true, h->id, encoded);
        }
    });

    if (level == 2 && !dotnet_without_status(app, statusCode))
        dumpHttpReqRepRecord(vxTD, text.buf, 13, statusCode);
}

extern "C" void httpReqRespWrapper(VXPerThreadData_t* vxTD, char* buffer, char* type,
                                   int statusCode) VX_NOEXCEPT
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !vxTD) return;
    const bool otel = app->VXSys.enableOTELStandard != 0;
    if (otel)
        snprintf(vxTD->trans_span_id, sizeof vxTD->trans_span_id, "%llx", vxTD->flowpathInstance);
    const bool request = type && strcmp(type, "req") == 0;
    if (vx_agent_behind_proxy(app)) {
        if (request && otel) OTL_headers(vxTD, buffer);
        /* STAND-IN(proxy): the block goes to the proxy as a frame of type 6
         * (encodeHttpHeaderReq with flowpathInstance, buffer, type and
         * statusCode); the proxy runs the capture with its settings. */
        return;
    }
    if (request)
        sendHttpHdrReq(vxTD, buffer, type, statusCode);
    else
        sendHttpHdrRep(vxTD, buffer, type, statusCode);
}
