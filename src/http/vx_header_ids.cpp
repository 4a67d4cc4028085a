#include "http/vx_header_ids.h"

#include <apr_strings.h>
#include <strings.h>

#include <cstdlib>
#include <cstring>

#include "agent/vx_instance.h"
#include "core/vx_atomic.h"
#include "core/vx_hashmap.h"
#include "core/vx_record_door.h"
#include "core/vx_text.h"
#include "core/vx_thread.h"
#include "core/vx_trace_log.h"
#include "http/vx_http_capture.h"
#include "http/vx_http_capture_settings.h"

namespace {

/* Room for "6,", the comma, the id and the line feed in a metadata record. */
constexpr size_t kRecord6NameMax = vx::kMetaRecordSize - 24;

apr_hash_t* table_of(void* node)
{
    return static_cast<apr_hash_t*>(node);
}

void dump_record6(VXProxyInstance_t* app, const httpHeaderInfo* e)
{
    if (!vx::load_relaxed(app->VXBCISetting.data_thread_running)) return;
    char buf[vx::kMetaRecordSize];
    vx::dump_record(buf, sizeof buf, "6,%s,%d\n", e->name, e->id);
}

/* A name a record 6 can carry whole, on one line. */
bool name_fits_record(const char* name)
{
    const size_t n = strnlen(name, kRecord6NameMax + 1);
    return n <= kRecord6NameMax && !memchr(name, '\n', n) && !memchr(name, '\r', n);
}

httpHeaderInfo* add_entry(VXProxyInstance_t* app, apr_hash_t* map, const char* name,
                          const char* type)
{
    if (!name_fits_record(name)) {
        VX_ERROR("HTTP_CAPTURE",
                 "Header name or value of %zu bytes or with a line break gets no id", strlen(name));
        return nullptr;
    }
    apr_pool_t* pool = apr_hash_pool_get(map);
    auto* e = static_cast<httpHeaderInfo*>(apr_pcalloc(pool, sizeof(httpHeaderInfo)));
    if (!e) return nullptr;
    e->name = apr_pstrdup(pool, name);
    e->type = type ? apr_pstrdup(pool, type) : nullptr;
    e->id = app->httpid++;
    apr_hash_set(map, e->name, APR_HASH_KEY_STRING, e);
    return e;
}

}  // namespace

extern "C" void initHttpHashMapNode(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    if (!app->httpEntryLock) app->httpEntryLock = vx::mutex_create(app->control_pool);
    if (vx::load_acquire(app->httpHashMapNode)) return;
    apr_hash_t* map = create_hashmap(app->control_pool);
    if (!map) {
        VX_ERROR("HTTP_CAPTURE", "No memory for the header-id table");
        return;
    }
    vx::store_release(app->httpHashMapNode, static_cast<void*>(map));
}

extern "C" void free_HttpHashMapNode(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !app->httpEntryLock) return;
    apr_hash_t* map = table_of(vx::load_acquire(app->httpHashMapNode));
    if (!map) return;
    vx::VXLockGuard guard(app->httpEntryLock);
    apr_hash_clear(map);
}

extern "C" httpHeaderInfo* updateHttpHashMapNode(char* name, void* httpHashMapNodeLocal)
{
    VXProxyInstance_t* app = vx_app();
    apr_hash_t* map = table_of(httpHashMapNodeLocal);
    if (!app || !map || !name) return nullptr;
    httpHeaderInfo* e = add_entry(app, map, name, nullptr);
    if (e) dump_record6(app, e);
    return e;
}

extern "C" httpHeaderInfo* searchAndUpdatehttpHashMapNode(char* name, void* httpHashMapNodeLocal,
                                                          int updateFlag)
{
    VXProxyInstance_t* app = vx_app();
    apr_hash_t* map = table_of(httpHashMapNodeLocal);
    if (!app || !map || !name || !app->httpEntryLock) return nullptr;
    vx::VXLockGuard guard(app->httpEntryLock);
    auto* e = static_cast<httpHeaderInfo*>(apr_hash_get(map, name, APR_HASH_KEY_STRING));
    if (e || !updateFlag) return e;
    return updateHttpHashMapNode(name, map);
}

extern "C" int readHttpHeaderListFile(char* fileData)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !fileData) return -1;
    initHttpHashMapNode();
    apr_hash_t* map = table_of(vx::load_acquire(app->httpHashMapNode));
    if (!map) return -1;
    char* copy = strdup(fileData);
    if (!copy) {
        VX_ERROR("HTTP_CAPTURE", "No memory to read the header list file");
        return -1;
    }
    int added = 0;
    char* save = nullptr;
    vx::VXLockGuard guard(app->httpEntryLock);
    /* strtok_r on "\n" would skip empty lines anyway; a line's own first
     * byte decides the rest. */
    for (char* line = strtok_r(copy, "\n", &save); line; line = strtok_r(nullptr, "\n", &save)) {
        if (line[0] == '\r' || line[0] == '#') continue;
        char* bar1 = strchr(line, '|');
        char* bar2 = bar1 ? strchr(bar1 + 1, '|') : nullptr;
        if (!bar2) {
            VX_ERROR("HTTP_CAPTURE", "Header list line without two '|' skipped: %.200s", line);
            continue;
        }
        *bar1 = '\0';
        *bar2 = '\0';
        const char* type = bar1 + 1;
        auto* e = static_cast<httpHeaderInfo*>(apr_hash_get(map, line, APR_HASH_KEY_STRING));
        if (e) {
            /* A name known already keeps its id (the collector has it);
             * the file only gives it its type. */
            e->type = apr_pstrdup(apr_hash_pool_get(map), type);
            continue;
        }
        if (add_entry(app, map, line, type)) ++added;
    }
    free(copy);
    VX_TRACE(app->VXSys.controlTraceLevel, 1, "HTTP_CAPTURE",
             "Header list file gave %d new headers", added);
    return added;
}

extern "C" void setHttpHashMapNode(char* fileData)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    readHttpHeaderListFile(fileData);
    updateHashMapForhdrListForValueAsId(app->httpSettings.vxHttpCapture.hdrListValue);
}

extern "C" void updateHashMapForhdrListForValueAsId(char* headerslistForValueAsId)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !headerslistForValueAsId) return;
    if (getHttpReqCaptureLevel() == 0 && getHttpRespCaptureLevel() == 0) return;
    apr_hash_t* map = table_of(vx::load_acquire(app->httpHashMapNode));
    if (!map) return;
    char* copy = strdup(headerslistForValueAsId);
    if (!copy) {
        VX_ERROR("HTTP_CAPTURE", "No memory to apply hdrListForValueAsId");
        return;
    }
    char* names[kHdrListForValueAsIdMax + 1];
    int n = tokenize(copy, names, const_cast<char*>(","), kHdrListForValueAsIdMax + 1);
    if (n > kHdrListForValueAsIdMax) {
        VX_ERROR("HTTP_CAPTURE", "hdrListForValueAsId: names after the first %d ignored",
                 kHdrListForValueAsIdMax);
        n = kHdrListForValueAsIdMax;
    }
    vx::VXLockGuard guard(app->httpEntryLock);
    for (int i = 0; i < n; ++i) {
        if (!*names[i]) continue;
        auto* e = static_cast<httpHeaderInfo*>(apr_hash_get(map, names[i], APR_HASH_KEY_STRING));
        if (!e) e = updateHttpHashMapNode(names[i], map);
        if (e) vx::store_relaxed(e->valueAsId, 1);
    }
    free(copy);
}

extern "C" void dumpHttpHeaderMetaData(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !app->httpEntryLock) return;
    apr_hash_t* map = table_of(vx::load_acquire(app->httpHashMapNode));
    if (!map) return;
    vx::VXLockGuard guard(app->httpEntryLock);
    for (apr_hash_index_t* hi = apr_hash_first(nullptr, map); hi; hi = apr_hash_next(hi)) {
        void* v = nullptr;
        apr_hash_this(hi, nullptr, nullptr, &v);
        dump_record6(app, static_cast<httpHeaderInfo*>(v));
    }
}

extern "C" void parseBufferAndGenerateHttpHeaderValueid(VXPerThreadData_t* vxTD,
                                                        char* buffer) VX_NOEXCEPT
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !vxTD || !buffer || !*buffer) return;
    void* map = vx::load_acquire(app->httpHashMapNode);
    if (!map) return;
    char work[kHttpBlockScanMax + 1];
    vx::copy_text(work, sizeof work, buffer);
    char encoded[kHttpTextSize + 1];
    char* save = nullptr;
    for (char* item = strtok_r(work, "&", &save); item; item = strtok_r(nullptr, "&", &save)) {
        char* value = strchr(item, '=');
        if (!value) continue;
        *value++ = '\0';
        httpHeaderInfo* h = searchAndUpdatehttpHashMapNode(item, map, 0);
        if (!h || !vx::load_relaxed(h->valueAsId) || !h->type) continue;
        const bool req = strcasecmp(h->type, "Req") == 0;
        if (!req && strcasecmp(h->type, "Rep") != 0) continue;
        const VXHttpReqRespCaptureSettings& s = req ? app->httpSettings.vxHttpReqCaptureSettings
                                                    : app->httpSettings.vxHttpRespCaptureSettings;
        vx_encode_header_value(value, &s, encoded, sizeof encoded);
        searchAndUpdatehttpHashMapNode(encoded, map, 1);
    }
}
