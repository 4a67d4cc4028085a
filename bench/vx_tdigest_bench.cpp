/*
 * The t-digest: the amortised cost of an insert (merges included), the
 * merge of two digests of 10^6 values each, both serialised forms
 * ("bytes"), and what the exact alternative costs: sorting the same values
 * ("exact_bytes": 8 per value on the wire). BM_TDigestRankError reports the
 * rank error at four quantiles of 10^6 long-tailed values against that
 * sort, and the bound the merge's size rule gives.
 */
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <random>
#include <vector>

#include "monitor/vx_tdigest.h"

namespace {

using Digest = std::unique_ptr<td_histogram_t, decltype(&td_free)>;
constexpr int kValues = 1000000;

const std::vector<double>& values()
{
    static const std::vector<double> v = [] {
        std::mt19937_64 rng(7);
        std::lognormal_distribution<double> tail(6.0, 2.0);
        std::vector<double> out(kValues);
        for (double& x : out) x = tail(rng);
        return out;
    }();
    return v;
}

Digest filled(size_t offset)
{
    Digest d(td_new(0.01, 100), td_free);
    const std::vector<double>& v = values();
    for (size_t i = 0; i < v.size(); ++i) td_add(d.get(), v[(i + offset) % v.size()], 1);
    td_compress(d.get());
    return d;
}

void BM_TDigestInsert(benchmark::State& state)
{
    const std::vector<double>& v = values();
    for (auto _ : state) {
        Digest d(td_new(0.01, 100), td_free);
        for (double x : v) td_add(d.get(), x, 1);
        td_compress(d.get());
        benchmark::DoNotOptimize(d->merged_nodes);
    }
    state.SetItemsProcessed(state.iterations() * kValues);
}
BENCHMARK(BM_TDigestInsert)->Unit(benchmark::kMillisecond);

void BM_OracleSort(benchmark::State& state)
{
    for (auto _ : state) {
        std::vector<double> copy = values();
        std::sort(copy.begin(), copy.end());
        benchmark::DoNotOptimize(copy.data());
    }
    state.SetItemsProcessed(state.iterations() * kValues);
    state.counters["exact_bytes"] = 8.0 * kValues;
}
BENCHMARK(BM_OracleSort)->Unit(benchmark::kMillisecond);

void BM_TDigestMerge(benchmark::State& state)
{
    Digest b = filled(1);
    for (auto _ : state) {
        state.PauseTiming();
        Digest a = filled(0);
        state.ResumeTiming();
        td_merge(a.get(), b.get());
        td_compress(a.get());
        benchmark::DoNotOptimize(a->merged_nodes);
    }
}
BENCHMARK(BM_TDigestMerge)->Unit(benchmark::kMicrosecond)->Iterations(20);

void BM_TDigestSerialize(benchmark::State& state)
{
    const int mode = static_cast<int>(state.range(0));
    Digest d = filled(0);
    int cap = 1 << 16, size = 0;
    char* buf = static_cast<char*>(malloc(static_cast<size_t>(cap)));
    for (auto _ : state) {
        buf = td_serialize(d.get(), mode, buf, &cap, &size);
        benchmark::DoNotOptimize(buf);
    }
    free(buf);
    state.counters["bytes"] = size;
    state.counters["centroids"] = d->merged_nodes;
}
BENCHMARK(BM_TDigestSerialize)->Arg(kTDigestModeVerbose)->Arg(kTDigestModeSmall)->Unit(benchmark::kMicrosecond);

void BM_TDigestRankError(benchmark::State& state)
{
    std::vector<double> sorted = values();
    std::sort(sorted.begin(), sorted.end());
    Digest d = filled(0);
    for (auto _ : state) benchmark::DoNotOptimize(td_value_at(d.get(), 0.5));
    const double qs[] = {0.5, 0.9, 0.99, 0.999};
    const char* names[] = {"p50", "p90", "p99", "p999"};
    for (int i = 0; i < 4; ++i) {
        const double q = qs[i];
        const double v = td_value_at(d.get(), q);
        const double rank =
            static_cast<double>(std::lower_bound(sorted.begin(), sorted.end(), v) - sorted.begin()) /
            kValues;
        state.counters[std::string(names[i]) + "_err"] = std::abs(rank - q);
        state.counters[std::string(names[i]) + "_bound"] =
            q * (1 - q) * 2 * M_PI * std::log(kValues) / d->compression;
    }
}
BENCHMARK(BM_TDigestRankError)->Iterations(1);

}  // namespace
