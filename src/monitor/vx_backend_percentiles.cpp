#include "monitor/vx_backend_percentiles.h"

#include <cstdlib>
#include <cstring>

#include "agent/vx_instance.h"
#include "core/vx_atomic.h"
#include "core/vx_limits.h"
#include "core/vx_thread.h"
#include "core/vx_trace_log.h"
#include "flowpath/vx_method_table.h"
#include "link/vx_as_buffers.h"
#include "monitor/vx_backend_monitor.h"

namespace {

vx::DigestSlot slot_of(VXBackendMonitorDataCounters& e)
{
    return {e.tdigest_key, e.tdigestDataExist, e.cdigest_key, e.cdigestDataExist};
}

int trace_level()
{
    return VX_LEVEL(backendMonTraceLevel);
}

const char* digest_name(const methodPropProperties* mpp)
{
    if (mpp->type_ == kMethodTypeHttp && mpp->mon_methodName) return mpp->mon_methodName;
    return mpp->methodName ? mpp->methodName : "";
}

/* Two entries for one backend: a new generation of the method table copies
 * its entries, so the same backend may come back as another entry. */
bool same_backend(const methodPropProperties* a, const methodPropProperties* b)
{
    return a == b || (a->methodName && b->methodName && strcmp(a->methodName, b->methodName) == 0);
}

}  // namespace

void vx::ip_digests_feed(const DigestFeed* feeds, int n)
{
    VXProxyInstance_t* app = vx_app();
    VXBackendMonitor_t& m = app->VXBackendMonitor;
    VXPercentiles_t& p = app->percentiles;
    vx::VXLockGuard guard(p.lock);
    const VXTDigestPercentileIP_t& cfg = p.TDigestPercentileIP;
    if (!cfg.is_enabled) return;
    for (int i = 0; i < n; ++i) {
        const int id = feeds[i].id;
        if (id < 1 || id >= m.reportArrSize) continue;
        VXBackendMonitorDataCounters& e = m.reportArr[id];
        methodPropProperties* bound = vx::backend_bound_to(id);
        if (!bound) continue;
        if (e.mpp && !same_backend(e.mpp, bound)) digest_release(slot_of(e));
        e.mpp = bound;
        digest_feed(cfg, slot_of(e), feeds[i].duration);
    }
}

void vx::ip_digests_release_all()
{
    VXProxyInstance_t* app = vx_app();
    VXBackendMonitor_t& m = app->VXBackendMonitor;
    vx::VXLockGuard report(m.reportLock);
    vx::VXLockGuard guard(app->percentiles.lock);
    for (int id = 0; id < m.reportArrSize; ++id) {
        digest_release(slot_of(m.reportArr[id]));
        m.reportArr[id].mpp = nullptr;
    }
}

extern "C" int generateAndDumpTDigestDataForIP(char* buff, int* len, int bufLen)
{
    VXProxyInstance_t* app = vx_app();
    VXBackendMonitor_t& m = app->VXBackendMonitor;
    const VXTDigestPercentileIP_t& cfg = app->percentiles.TDigestPercentileIP;
    int emitted = 0;
    for (int id = 1; id < m.reportArrSize; ++id) {
        VXBackendMonitorDataCounters& e = m.reportArr[id];
        if (!e.tdigestDataExist || !e.tdigest_key) continue;
        if (e.mpp) {
            vx::write_record_96(buff, len, bufLen, cfg, m.vectorPrefixID, m.vectorPrefix,
                                digest_name(e.mpp), e.tdigest_key, "IP", trace_level());
            ++emitted;
        }
        td_free(e.tdigest_key);
        e.tdigest_key = nullptr;
        e.tdigestDataExist = 0;
    }
    return emitted;
}

extern "C" int generateAndDumpCDigestDataForIP(char* buff, int* len, int bufLen)
{
    VXProxyInstance_t* app = vx_app();
    VXBackendMonitor_t& m = app->VXBackendMonitor;
    const VXTDigestPercentileIP_t& cfg = app->percentiles.TDigestPercentileIP;
    int emitted = 0;
    for (int id = 1; id < m.reportArrSize; ++id) {
        VXBackendMonitorDataCounters& e = m.reportArr[id];
        if (!e.cdigestDataExist || !e.cdigest_key || !e.mpp) continue;
        vx::write_record_121(buff, len, bufLen, cfg, m.vectorPrefixID, id, m.vectorPrefix,
                             digest_name(e.mpp), e.cdigest_key, "IP", trace_level());
        ++emitted;
    }
    return emitted;
}

namespace {

/* Frees every c-digest of the family; caller holds both locks. */
void drop_cdigests()
{
    VXBackendMonitor_t& m = vx_app()->VXBackendMonitor;
    for (int id = 0; id < m.reportArrSize; ++id) {
        VXBackendMonitorDataCounters& e = m.reportArr[id];
        tslb_free_cdigest(e.cdigest_key);
        e.cdigest_key = nullptr;
        e.cdigestDataExist = 0;
    }
}

vx::DigestFamily family()
{
    VXProxyInstance_t* app = vx_app();
    return {app->percentiles.TDigestPercentileIP, app->VXBackendMonitor.reportLock, generateAndDumpTDigestDataForIP,
            generateAndDumpCDigestDataForIP, drop_cdigests};
}

}  // namespace

extern "C" void generateAndDumpPartialDigestIPRecords(void)
{
    vx::percentiles_dump_now(family());
}

void vx::ip_percentiles_keyword(const char* keyword, char* value)
{
    vx::percentiles_keyword(family(), keyword, value);
}

void vx::ip_percentiles_schedule(long long now)
{
    vx::percentiles_schedule(vx_app()->percentiles.TDigestPercentileIP, now);
}

void vx::ip_percentiles_dump_due(char* buf, int bufLen, long long now)
{
    vx::percentiles_dump_due(family(), buf, bufLen, now);
}
