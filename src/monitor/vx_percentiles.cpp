#include "monitor/vx_percentiles.h"

#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "agent/vx_instance.h"
#include "core/vx_atomic.h"
#include "core/vx_limits.h"
#include "core/vx_text.h"
#include "core/vx_thread.h"
#include "core/vx_trace_log.h"
#include "link/vx_as_buffers.h"

namespace {

constexpr int kFields = 7;
constexpr double kLoggedQuantiles[] = {0.80, 0.85, 0.90, 0.95, 0.99};
constexpr const char* kLoggedNames[] = {"80th", "85th", "90th", "95th", "99th"};

void defaults(VXTDigestPercentileBT_t& d, long group)
{
    d = VXTDigestPercentileBT_t{};
    d.aggregate_time = 300000;
    d.serialization = kTDigestModeSmall;
    d.delta = 0.01;
    d.k = 100;
    d.group_id = group;
    d.graph_id = 1;
}

/* The five percentiles and the count; trace levels above 1. */
void log_percentiles(int traceLevel, const char* family, const char* name, const double* q,
                     long long count)
{
    for (int i = 0; i < 5; ++i)
        VX_TRACE(traceLevel, 2, "PERCENTILE", "%s percentile for %s [%s]:%f", kLoggedNames[i],
                 family, name, q[i]);
    VX_TRACE(traceLevel, 2, "PERCENTILE", "TDigest Data count for %s [%s]:%d", family, name,
             static_cast<int>(count));
}

/* Puts head, a body of `bodyLen` bytes written by `body(dest)`, and the
 * closing line feed into the work buffer, handing what it holds to the
 * channel first when the record would not fit. A record larger than the
 * whole buffer is built in a block of its own and handed over alone; the
 * channel cannot carry one larger than its buffers, which is refused. */
template <class Body>
int place(char* buff, int* len, int bufLen, const char* head, int headLen, int bodyLen, Body body)
{
    const long long total = static_cast<long long>(headLen) + bodyLen + 1;
    if (total > bufLen - *len && *len > 0) {
        dumpASData(buff, *len);
        *len = 0;
    }
    if (total <= bufLen) {
        char* out = buff + *len;
        memcpy(out, head, static_cast<size_t>(headLen));
        body(out + headLen);
        out[headLen + bodyLen] = '\n';
        *len += static_cast<int>(total);
        if (*len > bufLen - (vx::kMonitorRecordMax + 1)) {
            dumpASData(buff, *len);
            *len = 0;
        }
        return 1;
    }
    const int channelMax = vx_app()->VXSys.bciASDataBufferMaxSize;
    if (total > channelMax) {
        VX_ERROR("PERCENTILE",
                 "A digest record of %lld bytes exceeds the auto-sensor buffers (%d bytes); not "
                 "sent",
                 total, channelMax);
        return 0;
    }
    char* own = static_cast<char*>(malloc(static_cast<size_t>(total)));
    if (!own) {
        VX_ERROR("PERCENTILE", "No memory for a digest record of %lld bytes; not sent", total);
        return 0;
    }
    memcpy(own, head, static_cast<size_t>(headLen));
    body(own + headLen);
    own[total - 1] = '\n';
    dumpASData(own, static_cast<int>(total));
    free(own);
    return 1;
}

/* A real number field, as strtod reads it, within [lo, hi]. */
bool real_in(const char* keyword, const char* text, double lo, double hi, double* out)
{
    char* end = nullptr;
    const double v = strtod(text, &end);
    if (end == text || !std::isfinite(v) || v < lo || v > hi) {
        VX_ERROR("CONTROL_THREAD", "Invalid value '%s' of keyword %s; kept %f", text, keyword, *out);
        return false;
    }
    *out = v;
    return true;
}

}  // namespace

extern "C" void VXDigestPercentileInit(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    VXPercentiles_t& p = app->percentiles;
    defaults(p.TDigestPercentileBT, 793);
    defaults(p.TDigestPercentileIP, 794);
    if (!p.lock) p.lock = vx::mutex_create(app->control_pool);
}

extern "C" void cDigest_Init(void)
{
    VXProxyInstance_t* app = vx_app();
    tslb_cdigest_init_lib();
    if (app) vx::store_relaxed(app->percentiles.enableCdigest, static_cast<char>(1));
}

void vx::digest_feed(const VXTDigestPercentileBT_t& cfg, DigestSlot slot, long long duration)
{
    if (duration < 0) duration = 0;
    if (cfg.is_enabled == 1 && duration >= 1) {
        if (!slot.tdigest_key) slot.tdigest_key = td_new(cfg.delta, static_cast<int>(cfg.k));
        if (!slot.tdigest_key) {
            VX_ERROR("PERCENTILE", "No memory for a t-digest; the value %lld is not kept", duration);
            return;
        }
        td_add(slot.tdigest_key, static_cast<double>(duration), 1);
        slot.tdigestDataExist = 1;
    } else if (cfg.is_enabled == 2 && duration > 0) {
        if (!slot.cdigest_key) slot.cdigest_key = tslb_new_cdigest(32, 32);
        if (!slot.cdigest_key) {
            VX_ERROR("PERCENTILE", "No memory for a c-digest; the value %lld is not kept", duration);
            return;
        }
        tslb_cdigest_update(slot.cdigest_key, static_cast<double>(duration));
        slot.cdigestDataExist = 1;
    }
}

void vx::DigestFeeds::add(int id, long long duration)
{
    if (n == cap) {
        const int grown = cap ? 2 * cap : 256;
        auto* p =
            static_cast<DigestFeed*>(realloc(at, static_cast<size_t>(grown) * sizeof(DigestFeed)));
        if (!p) {
            VX_ERROR("PERCENTILE", "No memory for the digests' values; series %d's is not kept",
                     id);
            return;
        }
        at = p;
        cap = grown;
    }
    at[n++] = {id, duration};
}

void vx::digest_release(DigestSlot slot)
{
    td_free(slot.tdigest_key);
    slot.tdigest_key = nullptr;
    tslb_free_cdigest(slot.cdigest_key);
    slot.cdigest_key = nullptr;
    slot.tdigestDataExist = slot.cdigestDataExist = 0;
}

int vx::write_record_96(char* buff, int* len, int bufLen, const VXTDigestPercentileBT_t& cfg,
                        const char* vectorPrefixID, const char* vectorPrefix, const char* name,
                        td_histogram_t* h, const char* family, int traceLevel)
{
    VXProxyInstance_t* app = vx_app();
    VXPercentiles_t& p = app->percentiles;
    if (!p.scratch) {
        p.scratch = static_cast<char*>(malloc(kDigestScratchInitial));
        p.scratchLen = p.scratch ? kDigestScratchInitial : 0;
    }
    int bytes = 0;
    char* out = td_serialize(h, cfg.serialization, p.scratch, &p.scratchLen, &bytes);
    if (!out) {
        VX_ERROR("PERCENTILE", "Could not serialise the t-digest of %s (form %d); not sent", name,
                 cfg.serialization);
        return 0;
    }
    p.scratch = out;
    if (traceLevel > 1) {
        double q[5];
        for (int i = 0; i < 5; ++i) q[i] = td_value_at(h, kLoggedQuantiles[i]);
        log_percentiles(traceLevel, family, name, q, td_total_count(h));
    }
    char head[kDigestHeadMax];
    const int n = snprintf(head, sizeof head, "96,%s%ld|%d:%s%s,%lld,%d\n", vectorPrefixID,
                           cfg.group_id, cfg.graph_id, vectorPrefix, name, vx_agent_now(app), bytes);
    if (n < 0 || n >= static_cast<int>(sizeof head)) return 0;
    return place(buff, len, bufLen, head, n, bytes,
                 [&](char* dest) { memcpy(dest, p.scratch, static_cast<size_t>(bytes)); });
}

int vx::write_record_121(char* buff, int* len, int bufLen, const VXTDigestPercentileBT_t& cfg,
                         const char* vectorPrefixID, int seriesId, const char* vectorPrefix,
                         const char* name, const tslb_cdigest_t* d, const char* family,
                         int traceLevel)
{
    VXProxyInstance_t* app = vx_app();
    const int bytes = func1(d);
    if (bytes < kCDigestHeaderBytes) return 0;
    if (traceLevel > 1) {
        double q[5];
        tslb_cdigest_unpacked_get_quantile_many(d, kLoggedQuantiles, 5, q);
        log_percentiles(traceLevel, family, name, q, static_cast<long long>(d->count));
    }
    char head[kDigestHeadMax];
    const int n = snprintf(head, sizeof head, "121,%s%ld|%d|%d:%s%s|%s|%lld,%d\n", vectorPrefixID,
                           cfg.group_id, cfg.graph_id, seriesId, vectorPrefix, name, "",
                           vx_agent_now(app), bytes);
    if (n < 0 || n >= static_cast<int>(sizeof head)) return 0;
    return place(buff, len, bufLen, head, n, bytes, [&](char* dest) {
        tslb_cdigest_pack(d, reinterpret_cast<tslb_cdigest_packed*>(dest), bytes);
    });
}

bool vx::percentile_settings_parse(VXTDigestPercentileBT_t& cfg, const char* keyword, char* value)
{
    char* f[kFields];
    const int n = tokenize(value, f, const_cast<char*>("%20"), kFields);
    long long v = 0;
    if (n < 1 || !vx::number_in(keyword, f[0], 0, 2, &v)) return false;
    if (v == 0) {
        VX_TRACE(VX_LEVEL(controlTraceLevel), 1, "CONTROL_THREAD",
                 "keyword value is 0. Hence returning.");
        return false;
    }
    VXTDigestPercentileBT_t next = cfg;
    next.is_enabled = static_cast<char>(v);
    if (n > 1 && vx::number_in(keyword, f[1], 1, kDigestPeriodMaxMinutes, &v)) {
        /* Minutes, or hours when the text holds an 'h'. */
        const long long ms = v * 60000 * (strchr(f[1], 'h') ? 60 : 1);
        if (ms <= kDigestPeriodMaxMinutes * 60000LL)
            next.aggregate_time = static_cast<long>(ms);
        else
            VX_ERROR("CONTROL_THREAD", "Period %s of keyword %s is above a day; kept %ld ms", f[1],
                     keyword, cfg.aggregate_time);
    }
    if (n > 2 && vx::number_in(keyword, f[2], kTDigestModeVerbose, kTDigestModeSmall, &v))
        next.serialization = static_cast<char>(v);
    double inverse = cfg.delta > 0 ? 1 / cfg.delta : 100;
    if (n > 3 && real_in(keyword, f[3], 1, kDigestInvDeltaMax, &inverse)) next.delta = 1 / inverse;
    if (n > 4 && vx::number_in(keyword, f[4], 1, kDigestKMax, &v)) next.k = static_cast<unsigned>(v);
    if (n > 5 && vx::number_in(keyword, f[5], LONG_MIN, LONG_MAX, &v)) next.group_id = static_cast<long>(v);
    if (n > 6 && vx::number_in(keyword, f[6], INT_MIN, INT_MAX, &v)) next.graph_id = static_cast<int>(v);
    if (next.k / next.delta > kDigestCompressionMax) {
        VX_ERROR("CONTROL_THREAD",
                 "Keyword %s: K %u with delta %f makes a digest too large; K and delta kept",
                 keyword, next.k, next.delta);
        next.k = cfg.k;
        next.delta = cfg.delta;
    }
    cfg = next;
    if (cfg.is_enabled == 2) cDigest_Init();
    return true;
}

void vx::percentile_schedule(VXTDigestPercentileBT_t& cfg, long long now)
{
    if (cfg.nextLogTime <= 0 || cfg.nextLogTime > now + cfg.aggregate_time)
        cfg.nextLogTime = now + cfg.aggregate_time;
}

bool vx::percentile_due(VXTDigestPercentileBT_t& cfg, long long now)
{
    if (!cfg.is_enabled || cfg.aggregate_time <= 0 || now < cfg.nextLogTime) return false;
    cfg.nextLogTime += ((now - cfg.nextLogTime) / cfg.aggregate_time + 1) * cfg.aggregate_time;
    return true;
}

void vx::percentiles_dump_now(const DigestFamily& f)
{
    VXProxyInstance_t* app = vx_app();
    char* buf = static_cast<char*>(malloc(vx::kASWorkBufferSize));
    if (!buf) {
        VX_ERROR("PERCENTILE", "No memory for the digests' records; they wait for the next dump");
        return;
    }
    {
        vx::VXLockGuard report(f.reportLock);
        vx::VXLockGuard guard(app->percentiles.lock);
        int len = 0;
        f.write_tdigests(buf, &len, vx::kASWorkBufferSize);
        f.write_cdigests(buf, &len, vx::kASWorkBufferSize);
        if (len > 0) dumpASData(buf, len);
        /* A kind no longer chosen would never be dumped again. */
        if (f.cfg.is_enabled != 2) f.drop_cdigests();
        f.cfg.nextLogTime = vx_agent_now(app) + f.cfg.aggregate_time;
    }
    free(buf);
}

void vx::percentiles_keyword(const DigestFamily& f, const char* keyword, char* value)
{
    VXProxyInstance_t* app = vx_app();
    bool taken;
    {
        vx::VXLockGuard guard(app->percentiles.lock);
        taken = percentile_settings_parse(f.cfg, keyword, value);
    }
    if (taken && vx::load_acquire(app->Server.testRunRunning) == 1) percentiles_dump_now(f);
}

void vx::percentiles_schedule(VXTDigestPercentileBT_t& cfg, long long now)
{
    vx::VXLockGuard guard(vx_app()->percentiles.lock);
    percentile_schedule(cfg, now);
}

void vx::percentiles_dump_due(const DigestFamily& f, char* buf, int bufLen, long long now)
{
    vx::VXLockGuard report(f.reportLock);
    vx::VXLockGuard guard(vx_app()->percentiles.lock);
    const char kind = f.cfg.is_enabled;
    if (!percentile_due(f.cfg, now)) return;
    int len = 0;
    if (kind == 1)
        f.write_tdigests(buf, &len, bufLen);
    else
        f.write_cdigests(buf, &len, bufLen);
    if (len > 0) dumpASData(buf, len);
}
