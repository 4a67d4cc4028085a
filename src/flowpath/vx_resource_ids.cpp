#include "flowpath/vx_resource_ids.h"

#include <cstdlib>
#include <cstring>

#include "agent/vx_instance.h"
#include "core/vx_hashmap.h"
#include "core/vx_record_door.h"
#include "core/vx_text.h"
#include "core/vx_thread.h"
#include "core/vx_trace_log.h"

namespace {

constexpr int kDescriptionCopy = 1024;
constexpr int kDescriptionFields = 12;
constexpr int kURLField = 3;
constexpr int kPhpURLField = 5;

struct ResourceEntry {
    long long id;
    char name[1];   /* the key, allocated to its length */
};

/* The URL of the description, by position. */
const char* url_of(char* copy, const char* original, bool php)
{
    char* f[kDescriptionFields];
    const int n = tokenize(copy, f, const_cast<char*>("|"), kDescriptionFields);
    if (n <= 1 && !strchr(original, '|')) return f[0];
    if (php && n > kPhpURLField) return f[kPhpURLField];
    if (n > kURLField) return f[kURLField];
    return original;
}

}  // namespace

extern "C" void initResourceIds(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    VXResources_t& r = app->resources;
    if (!r.resourceHashMap) r.resourceHashMap = create_hashmap(app->control_pool);
    if (!r.pool) apr_pool_create(&r.pool, app->control_pool);
    if (!r.vxenableResourceLock) r.vxenableResourceLock = vx::mutex_create(app->control_pool);
    r.getenableResource.maxURLChar = kDefaultMaxURLChar;
}

extern "C" char* getFormattedUrlIpResource(const char* url, char* out, int len)
{
    if (!out || len <= 0) return out;
    const VXEnableResource_t& s = vx_app()->resources.getenableResource;
    char whole[kDescriptionCopy];
    vx::copy_text(whole, sizeof whole, url);
    const int offset = s.urlOffsetValue > 0 ? s.urlOffsetValue : 0;
    auto part = [&](const char* text) {
        const size_t tl = strlen(text);
        const char* from = static_cast<size_t>(offset) < tl ? text + offset : text + tl;
        int cap = s.maxUrlLength + 1;
        if (cap > len) cap = len;
        vx::copy_text(out, static_cast<size_t>(cap), from);
    };
    if (s.formatIPResourceURLCaptureMode != 0) {
        char* q = strchr(whole, '?');
        if (q) *q = '\0';
        if (q && s.maxUrlLength > 0)
            part(whole);
        else
            vx::copy_text(out, static_cast<size_t>(len), whole);
    } else if (s.maxUrlLength > 0) {
        part(whole);
    } else {
        vx::copy_text(out, static_cast<size_t>(len), whole);
    }
    return out;
}

extern "C" long long getIDForIPResourceURL(char* buffer)
{
    VXProxyInstance_t* app = vx_app();
    if (!buffer || !app || !app->resources.resourceHashMap || !app->resources.pool) return 0;
    VXResources_t& r = app->resources;
    char copy[kDescriptionCopy];
    vx::copy_text(copy, sizeof copy, buffer);
    const char* url = url_of(copy, buffer, app->VXBCISetting.agentIsPhp);
    char name[kResourceNameSize];
    vx::VXLockGuard guard(r.vxenableResourceLock);
    getFormattedUrlIpResource(url, name, sizeof name);
    if (auto* e = static_cast<ResourceEntry*>(search_hashmap(name, r.resourceHashMap))) return e->id;
    if (r.count >= kResourceMax) return 0;
    const size_t nl = strlen(name);
    /* Resources live as long as the instance: in its pool. */
    auto* e = static_cast<ResourceEntry*>(apr_palloc(r.pool, sizeof(ResourceEntry) + nl));
    memcpy(e->name, name, nl + 1);
    e->id = app->resourceMetaID++;
    modify_hashmap(e->name, e, r.resourceHashMap);
    if (++r.count == kResourceMax)
        VX_ERROR("FLOWPATH", "%d resources named; later URLs get no resource id", kResourceMax);
    dumpResourceMetaRecord(e->id, e->name);
    return e->id;
}

extern "C" void parseFormatIPResourceURL(char* val, char*, int)
{
    VXResources_t& r = vx_app()->resources;
    VXEnableResource_t& s = r.getenableResource;
    vx::VXLockGuard guard(r.vxenableResourceLock);
    char* f[4];
    const int n = val ? tokenize(val, f, const_cast<char*>("%20"), 3) : 0;
    s.formatIPResourceURLCaptureMode = n > 0 ? atoi(f[0]) : 0;
    if (n < 3) {
        s.urlOffsetValue = 0;
        s.maxUrlLength = 0;
        s.maxURLChar = kDefaultMaxURLChar;
        return;
    }
    s.urlOffsetValue = atoi(f[1]) > 0 ? atoi(f[1]) : 0;
    const int length = atoi(f[2]);
    s.maxUrlLength = length > 0 ? length : 0;
    s.maxURLChar = length < 1 ? kDefaultMaxURLChar : s.urlOffsetValue + length;
}

extern "C" void dumpResourceMetaRecord(long long id, char* resourceName)
{
    char buf[kResourceNameSize + 32];
    vx::dump_record(buf, sizeof buf, "26,%lld,%s\n", id, resourceName ? resourceName : "");
}

extern "C" void getenableResourceLock(void)
{
    VXProxyInstance_t* app = vx_app();
    if (app && app->resources.vxenableResourceLock) apr_thread_mutex_lock(app->resources.vxenableResourceLock);
}

extern "C" void releaseenableResourceLock(void)
{
    VXProxyInstance_t* app = vx_app();
    if (app && app->resources.vxenableResourceLock) apr_thread_mutex_unlock(app->resources.vxenableResourceLock);
}

void vx::resource_for_each(const std::function<bool(long long id, const char* name)>& fn)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !app->resources.resourceHashMap) return;
    VXResources_t& r = app->resources;
    vx::VXLockGuard guard(r.vxenableResourceLock);
    for (apr_hash_index_t* hi = apr_hash_first(nullptr, r.resourceHashMap); hi; hi = apr_hash_next(hi)) {
        const auto* e = static_cast<const ResourceEntry*>(apr_hash_this_val(hi));
        if (!fn(e->id, e->name)) return;
    }
}
