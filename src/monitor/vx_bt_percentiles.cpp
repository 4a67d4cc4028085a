#include "monitor/vx_bt_percentiles.h"

#include <cstdlib>

#include "agent/vx_instance.h"
#include "bt/vx_bt_object.h"
#include "core/vx_atomic.h"
#include "core/vx_limits.h"
#include "core/vx_thread.h"
#include "core/vx_trace_log.h"
#include "link/vx_as_buffers.h"
#include "monitor/vx_bt_monitor.h"
#include "monitor/vx_percentiles.h"

namespace {

constexpr char kOverallName[] = "AllTransactions";

vx::DigestSlot slot_of(VXBTMonitorDataCounters& e)
{
    return {e.tdigest_key, e.tdigestDataExist, e.cdigest_key, e.cdigestDataExist};
}

int trace_level()
{
    return VX_LEVEL(btMonitorTraceLevel);
}

/* The BT whose digest element e is, when its id is still bound to it. */
const BTObject* owner(const VXBTMonitorDataCounters& e, int id)
{
    const BTObject* bound = vx::bt_bound_to(id, nullptr);
    return bound && bound == e.tlBTObj ? bound : nullptr;
}

}  // namespace

void vx::bt_digests_feed(const DigestFeed* feeds, int n)
{
    VXProxyInstance_t* app = vx_app();
    VXBTMonitor_t& m = app->VXBTMonitor;
    VXPercentiles_t& p = app->percentiles;
    vx::VXLockGuard guard(p.lock);
    const VXTDigestPercentileBT_t& cfg = p.TDigestPercentileBT;
    if (!cfg.is_enabled) return;
    for (int i = 0; i < n; ++i) {
        const int id = feeds[i].id;
        if (id < 1 || id >= m.reportArrSize) continue;
        VXBTMonitorDataCounters& e = m.reportArr[id];
        BTObject* bound = vx::bt_bound_to(id, nullptr);
        if (!bound) continue;
        if (e.tlBTObj != bound) {
            /* The id now names another BT: what was gathered is not its. */
            digest_release(slot_of(e));
            e.tlBTObj = bound;
        }
        digest_feed(cfg, slot_of(e), feeds[i].duration);
    }
}

void vx::bt_digests_release_all()
{
    VXProxyInstance_t* app = vx_app();
    VXBTMonitor_t& m = app->VXBTMonitor;
    if (!m.reportLock) return;
    vx::VXLockGuard report(m.reportLock);
    vx::VXLockGuard guard(app->percentiles.lock);
    for (int id = 0; id < m.reportArrSize; ++id) {
        digest_release(slot_of(m.reportArr[id]));
        m.reportArr[id].tlBTObj = nullptr;
    }
}

extern "C" int generateAndDumpTDigestDataForBT(char* buff, int* len, int bufLen)
{
    VXProxyInstance_t* app = vx_app();
    VXBTMonitor_t& m = app->VXBTMonitor;
    const VXTDigestPercentileBT_t& cfg = app->percentiles.TDigestPercentileBT;
    td_histogram_t* overall = nullptr;
    int emitted = 0;
    for (int id = 1; id < m.reportArrSize; ++id) {
        VXBTMonitorDataCounters& e = m.reportArr[id];
        if (!e.tdigestDataExist || !e.tdigest_key) continue;
        if (const BTObject* bt = owner(e, id)) {
            if (!overall) overall = td_new(cfg.delta, static_cast<int>(cfg.k));
            vx::write_record_96(buff, len, bufLen, cfg, m.vectorPrefixID, m.vectorPrefix,
                                bt->bt_name, e.tdigest_key, "BT", trace_level());
            if (overall) td_merge(overall, e.tdigest_key);
            ++emitted;
        }
        td_free(e.tdigest_key);
        e.tdigest_key = nullptr;
        e.tdigestDataExist = 0;
    }
    if (emitted && overall)
        vx::write_record_96(buff, len, bufLen, cfg, m.vectorPrefixID, m.vectorPrefix, kOverallName,
                            overall, "BT", trace_level());
    td_free(overall);
    return emitted;
}

extern "C" int generateAndDumpCDigestDataForBT(char* buff, int* len, int bufLen)
{
    VXProxyInstance_t* app = vx_app();
    VXBTMonitor_t& m = app->VXBTMonitor;
    VXPercentiles_t& p = app->percentiles;
    const VXTDigestPercentileBT_t& cfg = p.TDigestPercentileBT;
    int emitted = 0;
    for (int id = 1; id < m.reportArrSize; ++id) {
        VXBTMonitorDataCounters& e = m.reportArr[id];
        if (!e.cdigestDataExist || !e.cdigest_key) continue;
        const BTObject* bt = owner(e, id);
        if (!bt) {
            vx::digest_release(slot_of(e));
            continue;
        }
        vx::write_record_121(buff, len, bufLen, cfg, m.vectorPrefixID, vx::bt_monitor_series_id(id),
                             m.vectorPrefix, bt->bt_name, e.cdigest_key, "BT", trace_level());
        if (!p.overallCDigestBT) p.overallCDigestBT = tslb_new_cdigest(32, 32);
        if (p.overallCDigestBT) tslb_cdigest_unpacked_merge_single(e.cdigest_key, p.overallCDigestBT);
        tslb_cdigest_reset(e.cdigest_key);
        ++emitted;
    }
    if (emitted && p.overallCDigestBT) {
        vx::write_record_121(buff, len, bufLen, cfg, m.vectorPrefixID, 0, m.vectorPrefix,
                             kOverallName, p.overallCDigestBT, "BT", trace_level());
        tslb_cdigest_reset(p.overallCDigestBT);
    }
    return emitted;
}

namespace {

/* Frees every c-digest of the family; caller holds both locks. */
void drop_cdigests()
{
    VXBTMonitor_t& m = vx_app()->VXBTMonitor;
    for (int id = 0; id < m.reportArrSize; ++id) {
        VXBTMonitorDataCounters& e = m.reportArr[id];
        tslb_free_cdigest(e.cdigest_key);
        e.cdigest_key = nullptr;
        e.cdigestDataExist = 0;
    }
}

vx::DigestFamily family()
{
    VXProxyInstance_t* app = vx_app();
    return {app->percentiles.TDigestPercentileBT, app->VXBTMonitor.reportLock, generateAndDumpTDigestDataForBT,
            generateAndDumpCDigestDataForBT, drop_cdigests};
}

}  // namespace

extern "C" void generateAndDumpPartialDigestBTRecords(void)
{
    vx::percentiles_dump_now(family());
}

void vx::bt_percentiles_keyword(const char* keyword, char* value)
{
    vx::percentiles_keyword(family(), keyword, value);
}

void vx::bt_percentiles_schedule(long long now)
{
    vx::percentiles_schedule(vx_app()->percentiles.TDigestPercentileBT, now);
}

void vx::bt_percentiles_dump_due(char* buf, int bufLen, long long now)
{
    vx::percentiles_dump_due(family(), buf, bufLen, now);
}
