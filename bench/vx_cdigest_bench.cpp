/*
 * The c-digest: an update, the merge of two digests of 10^6 values each,
 * their packing ("packed_bytes") and four percentiles read in one walk of
 * the packed form. Values are long-tailed (log-normal, median about 400,
 * capped at 10^9), generated before the timing starts.
 */
#include <benchmark/benchmark.h>

#include <algorithm>
#include <memory>
#include <random>
#include <vector>

#include "monitor/vx_cdigest.h"

namespace {

struct Free {
    void operator()(tslb_cdigest_t* d) const { tslb_free_cdigest(d); }
};
using Digest = std::unique_ptr<tslb_cdigest_t, Free>;

const std::vector<double>& values()
{
    static const std::vector<double> v = [] {
        std::mt19937_64 rng(7);
        std::lognormal_distribution<double> tail(6.0, 2.0);
        std::vector<double> out(1 << 16);
        for (double& x : out) x = std::min(tail(rng), 1e9);
        return out;
    }();
    return v;
}

Digest filled(unsigned seed)
{
    tslb_cdigest_init_lib();
    Digest d(tslb_new_cdigest(32, 32));
    const std::vector<double>& v = values();
    for (size_t k = 0; k < 1000000; ++k) tslb_cdigest_update(d.get(), v[(k * 7 + seed) & 0xffff]);
    return d;
}

std::vector<unsigned char> packed(const tslb_cdigest_t* d)
{
    std::vector<unsigned char> out(func1(d));
    tslb_cdigest_pack(d, out.data(), static_cast<int>(out.size()));
    return out;
}

void BM_CDigestUpdate(benchmark::State& state)
{
    tslb_cdigest_init_lib();
    Digest d(tslb_new_cdigest(32, 32));
    const std::vector<double>& v = values();
    size_t k = 0;
    for (auto _ : state) tslb_cdigest_update(d.get(), v[k++ & 0xffff]);
    benchmark::DoNotOptimize(d->count);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_CDigestUpdate);

void BM_CDigestMerge(benchmark::State& state)
{
    Digest a = filled(1), b = filled(2);
    for (auto _ : state) {
        benchmark::DoNotOptimize(tslb_cdigest_unpacked_merge_single(a.get(), b.get()));
        // b grows by a each time; the range walked stays the same
    }
    state.counters["buckets"] = a->max_idx - a->min_idx + 1;
}
BENCHMARK(BM_CDigestMerge);

void BM_CDigestPack(benchmark::State& state)
{
    Digest d = filled(1);
    std::vector<unsigned char> out(func1(d.get()));
    int n = 0;
    for (auto _ : state) {
        n = tslb_cdigest_pack(d.get(), out.data(), static_cast<int>(out.size()));
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["packed_bytes"] = n;
}
BENCHMARK(BM_CDigestPack);

void BM_CDigestQuantiles(benchmark::State& state)
{
    const std::vector<unsigned char> p = packed(filled(1).get());
    const double qs[] = {0.5, 0.9, 0.99, 0.999};
    double out[4];
    for (auto _ : state) {
        benchmark::DoNotOptimize(tslb_cdigest_get_quantile_many(p.data(), p.size(), qs, 4, out));
        benchmark::DoNotOptimize(out);
    }
    state.counters["p99"] = out[2];
}
BENCHMARK(BM_CDigestQuantiles);

}  // namespace
