#include "http/vx_trace_context.h"

#include <strings.h>

#include <climits>
#include <cstdlib>
#include <cstring>

#include "agent/vx_instance.h"
#include "core/vx_encode.h"
#include "core/vx_limits.h"
#include "core/vx_text.h"
#include "core/vx_trace_log.h"
#include "flowpath/vx_per_thread_data.h"

int arrPropagationHeaders[3] = {0, 0, 0};
int arSpanType[5] = {0, 0, 0, 0, 0};

namespace {

/* Layout of a record's otlStore: the two ids, then the state. */
constexpr int kTraceIdAt = 0;
constexpr int kParentIdAt = vx::kOTLIdSize;
constexpr int kStateAt = 2 * vx::kOTLIdSize;
constexpr int kStoreSize = kStateAt + vx::kOTLTextSize;

/* The entry this system adds to the state. */
constexpr char kStateKey[] = "kelvane=";

char* store_of(VXPerThreadData_t* vxTD)
{
    if (!vxTD->otlStore) {
        /* Once per record: records are never freed, and neither is this. */
        vxTD->otlStore = static_cast<char*>(malloc(kStoreSize));
        if (!vxTD->otlStore) VX_ERROR("HTTP", "Out of memory for the trace context of a record");
    }
    return vxTD->otlStore;
}

/* The decimal reading of a field (leading blanks, a sign, digits), held to
 * int: "ff" and "0a" read as 0. */
int decimal(const char* s)
{
    if (!s) return 0;
    while (*s == ' ' || *s == '\t') ++s;
    const bool neg = *s == '-';
    if (*s == '-' || *s == '+') ++s;
    long long v = 0;
    for (; *s >= '0' && *s <= '9'; ++s)
        if ((v = v * 10 + (*s - '0')) > INT_MAX) v = INT_MAX;
    return static_cast<int>(neg ? -v : v);
}

/* Splits `value` at its three dashes into four fields, in place; false (and
 * `value` untouched) unless there are exactly four. */
bool four_fields(char* value, char* f[4])
{
    char* dash[3];
    const char* from = value;
    for (int i = 0; i < 3; ++i) {
        if (!(dash[i] = strchr(const_cast<char*>(from), '-'))) return false;
        from = dash[i] + 1;
    }
    if (strchr(from, '-')) return false;
    f[0] = value;
    for (int i = 0; i < 3; ++i) {
        *dash[i] = '\0';
        f[i + 1] = dash[i] + 1;
    }
    return true;
}

/* HexToDec over [b, e). Adding up digit * 16^k in 64 bits, k counting
 * hexadecimal digits from the end, wraps the weight to 0 after 16 digits
 * and cannot overflow before: the sum is not 0 exactly when one of the last
 * 16 digits is not 0. Other characters are skipped. */
bool hex_nonzero(const char* b, const char* e)
{
    int digits = 0;
    while (e > b && digits < 16) {
        const char c = *--e;
        if (c == '0')
            ++digits;
        else if ((c >= '1' && c <= '9') || ((c | 0x20) >= 'a' && (c | 0x20) <= 'f'))
            return true;
    }
    return false;
}

bool fits_id(const char* id)
{
    return id && strnlen(id, vx::kOTLIdSize) < static_cast<size_t>(vx::kOTLIdSize);
}

/* OTL_tracestate := "<incoming>,kelvane=<b64 of parent>", or without the
 * incoming part when it is shorter than 2 characters or would push the
 * system's entry out of the buffer. */
void set_state(VXPerThreadData_t* vxTD, const char* incoming)
{
    char* store = store_of(vxTD);
    if (!store) return;
    char* state = store + kStateAt;
    const char* parent = vxTD->OTL_parentID ? vxTD->OTL_parentID : "";
    char b64[vx::kOTLBase64Size];
    int n = hblb_encode_base64_ex(reinterpret_cast<unsigned char*>(const_cast<char*>(parent)),
                                  static_cast<int>(strlen(parent)),
                                  reinterpret_cast<unsigned char*>(b64), sizeof b64 - 1);
    if (n < 0) n = 0; /* ids are bounded far below this */
    b64[n] = '\0';
    const size_t own = sizeof kStateKey - 1 + static_cast<size_t>(n);
    size_t in = incoming ? strlen(incoming) : 0;
    if (in >= 2 && in + 1 + own >= static_cast<size_t>(vx::kOTLTextSize)) {
        VX_TRACE(vx_app() ? vx_app()->VXSys.fpTraceLevel : 0, 2, "HTTP",
                 "Incoming tracestate of %zu bytes is dropped: no room for our entry", in);
        in = 0;
    }
    char* w = state;
    if (in >= 2) {
        memcpy(w, incoming, in);
        w += in;
        *w++ = ',';
    }
    memcpy(w, kStateKey, sizeof kStateKey - 1);
    w += sizeof kStateKey - 1;
    memcpy(w, b64, static_cast<size_t>(n) + 1);
    vxTD->OTL_tracestate = state;
}

}  // namespace

extern "C" void init_propagation_header(Propheaderdata* pdata)
{
    if (pdata) memset(pdata, 0, sizeof *pdata);
}

extern "C" int store_propagation_header(Propheaderdata* pdata, const char* name, char* value)
{
    if (!pdata || !name || !value) return 0;
    if (arrPropagationHeaders[0] == 1) {
        if (!strcasecmp(name, "traceparent")) {
            pdata->OTL_traceparent = value;
            return 1;
        }
        if (!strcasecmp(name, "tracestate")) {
            pdata->OTL_tracestate = value;
            return 0;
        }
    }
    if (arrPropagationHeaders[1] == 1 && !strncasecmp(name, "X-B3-", 5)) {
        const char* rest = name + 5;
        if (!strcasecmp(rest, "TraceId"))
            pdata->XB3_traceID = value;
        else if (!strcasecmp(rest, "ParentSpanId"))
            pdata->XB3_ParentSpanId = value;
        else if (!strcasecmp(rest, "SpanId"))
            pdata->XB3_SpanId = value;
        else if (!strcasecmp(rest, "Sampled"))
            pdata->XB3_sampled = decimal(value);
        return 0;
    }
    if (arrPropagationHeaders[2] == 1 && !strcasecmp(name, "b3")) pdata->B3 = value;
    return 0;
}

extern "C" int HexToDec(const char* hex)
{
    return hex && hex_nonzero(hex, hex + strlen(hex)) ? 1 : 0;
}

extern "C" int HexDivider(const char* traceID, char* leftHalf, char* rightHalf)
{
    if (!traceID || !leftHalf || !rightHalf) return -1;
    const size_t len = strlen(traceID);
    const size_t half = len / 2;
    if (len - half >= static_cast<size_t>(vx::kOTLHalfSize)) return -1;
    memcpy(leftHalf, traceID, half);
    leftHalf[half] = '\0';
    memcpy(rightHalf, traceID + half, len - half + 1);
    return 0;
}

extern "C" bool ValidateTraceId(const char* traceID)
{
    if (!traceID) return false;
    const size_t len = strlen(traceID);
    /* The halves as HexDivider cuts them, read in place; an id whose half
     * would not fit HexDivider's buffers is refused as there. */
    if (len < 32 || len - len / 2 >= static_cast<size_t>(vx::kOTLHalfSize)) return false;
    return hex_nonzero(traceID, traceID + len / 2) || hex_nonzero(traceID + len / 2, traceID + len);
}

extern "C" int OTL_storeData(VXPerThreadData_t* vxTD, int OTL_version, int OTL_traceflag,
                             const char* OTL_traceID, const char* OTL_parentID)
{
    if (!vxTD) return -1;
    if ((OTL_traceID && !fits_id(OTL_traceID)) || (OTL_parentID && !fits_id(OTL_parentID)))
        return -1;
    char* store = store_of(vxTD);
    if (!store) return -1;
    vxTD->OTL_version = OTL_version;
    vxTD->OTL_traceflag = OTL_traceflag;
    char* const slot[] = {store + kTraceIdAt, store + kParentIdAt};
    const char* const from[] = {OTL_traceID, OTL_parentID};
    char** const field[] = {&vxTD->OTL_traceID, &vxTD->OTL_parentID};
    for (int i = 0; i < 2; ++i) {
        if (!from[i]) {
            *field[i] = nullptr;
            continue;
        }
        if (from[i] != slot[i]) memmove(slot[i], from[i], strlen(from[i]) + 1);
        *field[i] = slot[i];
    }
    return 0;
}

extern "C" int vx_otl_store_tracestate(VXPerThreadData_t* vxTD, const char* text)
{
    if (!vxTD) return -1;
    if (!text) {
        vxTD->OTL_tracestate = nullptr;
        return 0;
    }
    const size_t n = strnlen(text, vx::kOTLTextSize);
    char* store = n < static_cast<size_t>(vx::kOTLTextSize) ? store_of(vxTD) : nullptr;
    if (!store) return -1;
    memmove(store + kStateAt, text, n + 1);
    vxTD->OTL_tracestate = store + kStateAt;
    return 0;
}

extern "C" int Validate_traceparent(VXPerThreadData_t* vxTD, Propheaderdata* pdata)
{
    if (!vxTD || !pdata || !pdata->OTL_traceparent) return 0;
    char* f[4];
    if (!four_fields(pdata->OTL_traceparent, f)) return 0;
    if (!fits_id(f[1]) || !fits_id(f[2]) || !ValidateTraceId(f[1]) || !HexToDec(f[2])) return 0;
    return OTL_storeData(vxTD, decimal(f[0]), decimal(f[3]), f[1], f[2]) == 0 ? 1 : 0;
}

extern "C" int OTL_headerValidator(VXPerThreadData_t* vxTD, Propheaderdata* pdata, int OTL_flag)
{
    if (OTL_flag == 0 || !Validate_traceparent(vxTD, pdata)) return 0;
    set_state(vxTD, pdata->OTL_tracestate);
    return 1;
}

extern "C" int validate_xb3(VXPerThreadData_t* vxTD, Propheaderdata* pdata)
{
    if (!vxTD || !pdata || !pdata->XB3_traceID || !pdata->XB3_ParentSpanId || !pdata->XB3_SpanId ||
        pdata->XB3_sampled <= 0 || !ValidateTraceId(pdata->XB3_traceID))
        return 0;
    /* X-B3-ParentSpanId must be there; its value is not used. */
    return OTL_storeData(vxTD, vxTD->OTL_version, pdata->XB3_sampled, pdata->XB3_traceID,
                         pdata->XB3_SpanId) == 0
               ? 2
               : 0;
}

extern "C" int validate_b3(VXPerThreadData_t* vxTD, Propheaderdata* pdata)
{
    if (!vxTD || !pdata || !pdata->B3) return 0;
    char* f[4];
    if (!four_fields(pdata->B3, f) || !ValidateTraceId(f[0])) return 0;
    /* The fourth field (the caller's parent) is not used. */
    return OTL_storeData(vxTD, vxTD->OTL_version, decimal(f[2]), f[0], f[1]) == 0 ? 3 : 0;
}

extern "C" int OTL_generate_traceparent(VXPerThreadData_t* vxTD)
{
    if (!vxTD) return 1;
    /* All tiers of one transaction share the first tier's trace id. */
    const unsigned long long n = static_cast<unsigned long long>(
        vxTD->firstFlowpathInstance >= 1 ? vxTD->firstFlowpathInstance : vxTD->flowpathInstance);
    char trace[40], parent[20];
    const size_t len = vx::put_hex(parent, n);
    memcpy(trace, "0000000000000000", 16);
    memcpy(trace + 16, parent, len + 1);
    OTL_storeData(vxTD, 0, 1, trace, parent);
    return 1;
}

extern "C" void generatetracestate(VXPerThreadData_t* vxTD)
{
    if (vxTD) set_state(vxTD, nullptr);
}

extern "C" char* base64Encoder(const char* input_str, int len_str)
{
    if (!input_str || len_str < 0) return nullptr;
    auto* out = static_cast<char*>(calloc(1, vx::kOTLBase64Size));
    if (!out) {
        VX_ERROR("HTTP", "Out of memory for a Base64 text");
        return nullptr;
    }
    if (hblb_encode_base64_ex(reinterpret_cast<unsigned char*>(const_cast<char*>(input_str)),
                              len_str, reinterpret_cast<unsigned char*>(out),
                              vx::kOTLBase64Size - 1) < 0) {
        free(out);
        return nullptr;
    }
    return out;
}

extern "C" void Validate_propheader(VXPerThreadData_t* vxTD, Propheaderdata* pdata, int OTL_flag)
{
    if (!vxTD || !pdata) return;
    const bool w3c = arrPropagationHeaders[0] == 1;
    int form = 0;
    if (w3c) form = OTL_headerValidator(vxTD, pdata, OTL_flag);
    if (!form && arrPropagationHeaders[1] == 1) form = validate_xb3(vxTD, pdata);
    if (!form && arrPropagationHeaders[2] == 1) form = validate_b3(vxTD, pdata);
    if (!form) {
        if (!w3c && arrPropagationHeaders[1] != 1 && arrPropagationHeaders[2] != 1) return;
        OTL_generate_traceparent(vxTD);
    }
    if (w3c && form != 1) generatetracestate(vxTD);
}

extern "C" void OTL_headers(VXPerThreadData_t* vxTD, char* buffer) VX_NOEXCEPT
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !vxTD || !buffer || !*buffer || !app->VXSys.enableOTELStandard) return;
    if (arrPropagationHeaders[0] != 1 && arrPropagationHeaders[1] != 1 &&
        arrPropagationHeaders[2] != 1)
        return;
    /* A work copy: validation splits values in place. */
    char block[vx::kOTLBlockLook];
    vx::copy_text(block, sizeof block, buffer);
    const char* type = app->VXBCISetting.agentType;
    const char sep = type && !strcasecmp(type, "Python") ? '|' : '\x7f';
    Propheaderdata pdata;
    init_propagation_header(&pdata);
    int OTL_flag = 0;
    char* entry = block;
    for (int n = 0; entry && n < vx::kOTLBlockEntries; ++n) {
        char* next = strchr(entry, sep);
        if (next) *next++ = '\0';
        if (char* dollar = strchr(entry, '$')) {
            *dollar = '\0';
            if (store_propagation_header(&pdata, entry, dollar + 1)) OTL_flag = 1;
        }
        entry = next;
    }
    Validate_propheader(vxTD, &pdata, OTL_flag);
}
