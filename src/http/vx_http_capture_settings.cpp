#include "http/vx_http_capture_settings.h"

#include <strings.h>

#include <climits>
#include <cstdlib>
#include <cstring>

#include "agent/vx_instance.h"
#include "core/vx_atomic.h"
#include "core/vx_text.h"
#include "core/vx_trace_log.h"
#include "http/vx_header_ids.h"

namespace {

constexpr const char* kModule = "CONTROL_THREAD";
constexpr int kCaptureFields = 4;

VXHttpSettings_t& settings()
{
    return vx_app()->httpSettings;
}

bool parse_int(const char* text, long long lo, long long hi, long long* out)
{
    return vx::number_in("HTTP capture setting", text, lo, hi, out);
}

}  // namespace

extern "C" void initVXHttpReqRespCaptureSettings(VXHttpReqRespCaptureSettings* s)
{
    vx::store_relaxed(s->captureLevel, 0);
    vx::store_relaxed(s->hdrMode, 0);
    vx::store_relaxed(s->hdrValueLengthMode, 0);
    vx::store_relaxed(s->hdrValueMaxLength, 0);
    /* The count, not the names: an unlisted count of 15 reads whatever the
     * last list left, exactly as the mode list is kept between sessions. */
    vx::store_relaxed(s->hdrNameListCount, kHdrNameListSize);
}

extern "C" void freeHdrNameList(VXHttpReqRespCaptureSettings* s)
{
    for (int i = 0; i < kHdrNameListSize; ++i) {
        free(s->hdrNameList[i]);
        free(s->hdrNameListRetired[i]);
        s->hdrNameList[i] = s->hdrNameListRetired[i] = nullptr;
    }
}

extern "C" int setCaptureLevel(VXHttpReqRespCaptureSettings* s, const char* value, bool isRequest,
                               const char* keyword)
{
    const int top = isRequest ? 3 : 2;
    const int level = atoi(value);
    if (level < 0 || level > top) {
        VX_ERROR(kModule,
                 "VXHttpCaptureSettings: Not set captureLevel for '%s' as value is less than 0. "
                 "Value = %d",
                 keyword, level);
        return -1;
    }
    vx::store_relaxed(s->captureLevel, level);
    return 0;
}

extern "C" int setHdrMode(VXHttpReqRespCaptureSettings* s, const char* value)
{
    if (strcasecmp(value, "ALL") == 0) {
        vx::store_relaxed(s->hdrMode, 0);
        return 0;
    }
    if (strcasecmp(value, "CONFIGURED") == 0) {
        vx::store_relaxed(s->hdrMode, 2);
        return 0;
    }
    if (!*value) return -1;
    char copy[1024];
    vx::copy_text(copy, sizeof copy, value);
    char* names[kHdrNameListSize + 1];
    int n = tokenize(copy, names, const_cast<char*>(","), kHdrNameListSize + 1);
    /* tokenize leaves the rest in the last field: a 16th name and beyond
     * are dropped. */
    if (n > kHdrNameListSize) n = kHdrNameListSize;
    char* fresh[kHdrNameListSize] = {};
    int kept = 0;
    for (int i = 0; i < n; ++i) {
        fresh[kept] = strdup(names[i]);
        if (!fresh[kept]) {
            VX_ERROR(kModule, "VXHttpCaptureSettings: no memory for header name '%s'", names[i]);
            continue;
        }
        ++kept;
    }
    /* The old names are retired, not freed: see hdrNameListRetired. */
    vx::store_relaxed(s->hdrNameListCount, 0);
    for (int i = 0; i < kHdrNameListSize; ++i) {
        free(s->hdrNameListRetired[i]);
        s->hdrNameListRetired[i] = s->hdrNameList[i];
        vx::store_release(s->hdrNameList[i], fresh[i]);
    }
    vx::store_release(s->hdrNameListCount, kept);
    vx::store_relaxed(s->hdrMode, 1);
    return 0;
}

extern "C" int setHdrValueLengthMode(VXHttpReqRespCaptureSettings* s, const char* value,
                                     bool isRequest)
{
    long long mode = 0;
    if (!parse_int(value, isRequest ? 0 : CHAR_MIN, isRequest ? 1 : CHAR_MAX, &mode)) return -1;
    vx::store_relaxed(s->hdrValueLengthMode, static_cast<char>(mode));
    return 0;
}

extern "C" int sethdrValueMaxLength(VXHttpReqRespCaptureSettings* s, const char* value)
{
    long long most = 0;
    if (!parse_int(value, 0, INT_MAX, &most)) return -1;
    vx::store_relaxed(s->hdrValueMaxLength, static_cast<int>(most));
    return 0;
}

extern "C" void setHttpReqRespCaptureSettings(char* value, char* keyword, int)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !keyword) return;
    /* The log texts below, misspellings included, are the ones operators
     * search for: keep them as they are. */
    if (!value || !*value) {
        VX_ERROR(kModule,
                 "VXHttpCaptureSettings: Retrurning without setting HttpCaptureSettings for '%s' "
                 "as keyword "
                 "value is not provided.",
                 keyword);
        return;
    }
    char copy[2048];
    vx::copy_text(copy, sizeof copy, value);
    char* fields[kCaptureFields + 1];
    const int n = tokenize(copy, fields, const_cast<char*>("%20"), kCaptureFields + 1);
    const bool isRequest = strcmp(keyword, "captureHTTPReqFullFp") == 0;
    VXHttpReqRespCaptureSettings* s =
        isRequest ? &settings().vxHttpReqCaptureSettings : &settings().vxHttpRespCaptureSettings;

    const bool refused = setCaptureLevel(s, fields[0], isRequest, keyword) != 0;
    if (refused || s->captureLevel == 0) {
        /* Off is a normal value: only a refused one is an error. */
        if (refused)
            VX_ERROR(kModule,
                     "VXHttpCaptureSettings: Retrurning without setting HttpCaptureSettings for "
                     "'%s' as keyword "
                     "value is invalidi.Default value will be used",
                     keyword);
        else
            VX_TRACE(app->VXSys.controlTraceLevel, 1, kModule,
                     "VXHttpCaptureSettings: Retrurning without setting HttpCaptureSettings for "
                     "'%s' as keyword "
                     "value is invalidi.Default value will be used",
                     keyword);
        return;
    }
    initHttpHashMapNode();
    if (n < 2) return;
    if (setHdrMode(s, fields[1]) != 0)
        VX_ERROR(kModule, "VXHttpCaptureSettings: header mode '%s' of '%s' refused", fields[1],
                 keyword);
    if (n < 3) return;
    if (setHdrValueLengthMode(s, fields[2], isRequest) != 0)
        VX_ERROR(kModule, "VXHttpCaptureSettings: value length mode '%s' of '%s' refused",
                 fields[2], keyword);
    if (n < 4) return;
    if (sethdrValueMaxLength(s, fields[3]) != 0)
        VX_ERROR(kModule, "VXHttpCaptureSettings: value maximum length '%s' of '%s' refused",
                 fields[3], keyword);
    VX_TRACE(app->VXSys.controlTraceLevel, 1, kModule,
             "VXHttpCaptureSettings: %s level %d mode %d length mode %d maximum %d names %d",
             keyword, s->captureLevel, s->hdrMode, s->hdrValueLengthMode, s->hdrValueMaxLength,
             s->hdrNameListCount);
}

extern "C" void sethdrListForValueAsId(char* value, char*, int)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    VXHttpCapture_t& c = settings().vxHttpCapture;
    char* kept = value ? strdup(value) : nullptr;
    if (value && !kept) {
        VX_ERROR(kModule, "hdrListForValueAsId: no memory; the old list stays");
        return;
    }
    free(c.hdrListValue);
    c.hdrListValue = kept;
    updateHashMapForhdrListForValueAsId(kept);
}

extern "C" int getHttpReqCaptureLevel(void)
{
    VXProxyInstance_t* app = vx_app();
    return app ? vx::load_relaxed(app->httpSettings.vxHttpReqCaptureSettings.captureLevel) : 0;
}

extern "C" int getHttpRespCaptureLevel(void)
{
    VXProxyInstance_t* app = vx_app();
    return app ? vx::load_relaxed(app->httpSettings.vxHttpRespCaptureSettings.captureLevel) : 0;
}
