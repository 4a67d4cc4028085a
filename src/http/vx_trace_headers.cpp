#include "http/vx_trace_headers.h"

#include <cstdlib>
#include <cstring>

#include "agent/vx_instance.h"
#include "core/vx_limits.h"
#include "core/vx_text.h"
#include "core/vx_trace_log.h"
#include "flowpath/vx_per_thread_data.h"
#include "http/vx_trace_context.h"

namespace {

/* A bounded writer over a caller's buffer: once something does not fit it
 * stays failed, and the caller drops the whole part. No printf: these texts
 * go out on every outgoing call. */
struct Part {
    char* at;
    char* end; /* last byte, kept for the terminator */
    bool ok = true;

    Part& put(const char* s) { return put(s, s ? strlen(s) : 0); }
    /* A literal, its length known. */
    template <size_t N>
    Part& lit(const char (&s)[N])
    {
        return put(s, N - 1);
    }
    Part& put(const char* s, size_t n)
    {
        if (!ok || n > static_cast<size_t>(end - at)) {
            ok = false;
            return *this;
        }
        memcpy(at, s, n);
        at += n;
        return *this;
    }
    /* "%.2d". */
    Part& two(int v)
    {
        char d[16];
        char* p = d + sizeof d;
        *--p = '\0';
        unsigned long long u =
            v < 0 ? 0ULL - static_cast<unsigned long long>(v) : static_cast<unsigned long long>(v);
        int digits = 0;
        do {
            *--p = static_cast<char>('0' + u % 10);
            u /= 10;
            ++digits;
        } while (u || digits < 2);
        if (v < 0) *--p = '-';
        return put(p, static_cast<size_t>(d + sizeof d - 1 - p));
    }
    Part& hex(unsigned long long v)
    {
        char h[20];
        return put(h, vx::put_hex(h, v));
    }
    /* Terminates; false (and the buffer as before the part) when it did
     * not fit. */
    bool close(char* start)
    {
        if (!ok) {
            *start = '\0';
            return false;
        }
        *at = '\0';
        return true;
    }
};

const char* text(const char* s)
{
    return s ? s : "";
}

}  // namespace

extern "C" char* get_otl_traceparent_header(VXPerThreadData_t* vxTD) VX_NOEXCEPT
{
    if (!vxTD || !vxTD->OTL_traceID) return nullptr;
    auto* buf = static_cast<char*>(malloc(vx::kOTLTextSize));
    if (!buf) {
        VX_ERROR("HTTP", "Out of memory for a traceparent header");
        return nullptr;
    }
    Part p{buf, buf + vx::kOTLTextSize - 1};
    p.two(vxTD->OTL_version).lit("-").put(vxTD->OTL_traceID).lit("-");
    p.hex(static_cast<unsigned long long>(vxTD->flowpathInstance))
        .lit("-")
        .two(vxTD->OTL_traceflag);
    p.close(buf); /* ids are bounded well below the buffer */
    return buf;
}

extern "C" char* get_otl_tracestate_header(VXPerThreadData_t* vxTD) VX_NOEXCEPT
{
    return vxTD ? vxTD->OTL_tracestate : nullptr;
}

extern "C" long long get_otl_parentID(VXPerThreadData_t* vxTD) VX_NOEXCEPT
{
    return vxTD ? vxTD->flowpathInstance : 0;
}

extern "C" void get_propagation_header(VXPerThreadData_t* vxTD, char* str) VX_NOEXCEPT
{
    VXProxyInstance_t* app = vx_app();
    if (!str || !vxTD || !app || !app->VXSys.enableOTELStandard) return;
    /* No context yet: an empty trace id would only make the callee start a
     * broken trace, so nothing is written. */
    if (!vxTD->OTL_traceID) return;
    char* const end = str + vx::kOTLTextSize - 1;
    char* start = str + strnlen(str, vx::kOTLTextSize - 1);
    if (arrPropagationHeaders[0] == 1) {
        Part p{start, end};
        p.lit("traceparent:").two(vxTD->OTL_version).lit("-").put(vxTD->OTL_traceID).lit("-");
        p.put(vxTD->trans_span_id).lit("-").two(vxTD->OTL_traceflag).lit("\ntracestate:");
        p.put(text(vxTD->OTL_tracestate)).lit("\n");
        if (p.close(start)) start = p.at;
    }
    if (arrPropagationHeaders[1] == 1) {
        Part p{start, end};
        p.lit("X-B3-TraceId:").put(vxTD->OTL_traceID).lit("\nX-B3-ParentSpanId:");
        p.put(vxTD->trans_span_id).lit("\nX-B3-SpanId:").put(vxTD->callout_span_id);
        p.lit("\nX-B3-Sampled:").two(vxTD->OTL_traceflag).lit("\n");
        if (p.close(start)) start = p.at;
    }
    if (arrPropagationHeaders[2] == 1) {
        Part p{start, end};
        p.lit("B3:").put(vxTD->OTL_traceID).lit("-").put(vxTD->callout_span_id).lit("-");
        p.two(vxTD->OTL_traceflag).lit("-").put(vxTD->trans_span_id);
        p.close(start);
    }
}
