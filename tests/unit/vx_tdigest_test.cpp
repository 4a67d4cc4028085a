/*
 * The t-digest: its quantiles against an exact oracle, the two serialised
 * forms byte for byte, merging, and serialised input it must refuse.
 */
#include "monitor/vx_tdigest.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

using Digest = std::unique_ptr<td_histogram_t, decltype(&td_free)>;

Digest make(double delta = 0.01, int K = 100)
{
    return Digest(td_new(delta, K), td_free);
}

std::string serialize(td_histogram_t* h, int mode)
{
    int cap = 8, size = 0;
    char* buf = static_cast<char*>(malloc(static_cast<size_t>(cap)));
    char* out = td_serialize(h, mode, buf, &cap, &size);
    std::string s = out ? std::string(out, static_cast<size_t>(size)) : std::string();
    free(out ? out : buf);
    return s;
}

/* The exact quantile: linear interpolation at rank (n - 1) * q. */
double exact(const std::vector<double>& sorted, double q)
{
    const double at = (static_cast<double>(sorted.size()) - 1) * q;
    const size_t lo = static_cast<size_t>(at);
    const size_t hi = std::min(lo + 1, sorted.size() - 1);
    return sorted[lo] + (sorted[hi] - sorted[lo]) * (at - static_cast<double>(lo));
}

TEST(TDigest, SmallDigestsGiveTheValueAtRulesAndExactQuantiles)
{
    Digest one = make();
    td_add(one.get(), 42, 1);
    EXPECT_EQ(td_value_at(one.get(), 0.5), 42);

    Digest two = make();
    td_add(two.get(), 20, 1);
    td_add(two.get(), 10, 1);
    EXPECT_EQ(td_value_at(two.get(), 0.25), 10);
    EXPECT_EQ(td_value_at(two.get(), 0.5), 15);
    EXPECT_DOUBLE_EQ(td_value_at(two.get(), 0.8), 21);

    /* Too few values to fold: every quantile is the exact one. */
    std::vector<double> v;
    Digest few = make();
    std::mt19937 rng(7);
    for (int i = 0; i < 50; ++i) {
        v.push_back(std::floor(std::exp(std::normal_distribution<>(4, 1)(rng))));
        td_add(few.get(), v.back(), 1);
    }
    std::sort(v.begin(), v.end());
    for (double q : {0.0, 0.1, 0.5, 0.9, 0.99, 1.0})
        EXPECT_NEAR(td_value_at(few.get(), q), exact(v, q), 1e-9) << q;
    EXPECT_EQ(td_total_count(few.get()), 50);
    EXPECT_DOUBLE_EQ(td_quantile_of(few.get(), v[0] - 1), 0);
    EXPECT_DOUBLE_EQ(td_quantile_of(few.get(), v.back() + 1), 1);

    Digest empty = make();
    EXPECT_EQ(td_value_at(empty.get(), 0.5), 0);
    EXPECT_TRUE(std::isnan(td_quantile_of(empty.get(), 1)));
    td_add(empty.get(), NAN, 1); /* refused: a NaN would break the ordering */
    td_add(empty.get(), INFINITY, 1);
    td_add(empty.get(), 3, 0);
    EXPECT_EQ(td_centroid_count(empty.get()), 0);

    /* Weights summing to just above 1 (ln of the total near 0) fold
     * nothing: a full block drops later values, never writes past itself. */
    Digest tiny = make(1, 1); /* compression 1: 16 nodes */
    for (int i = 0; i < 100; ++i) td_add(tiny.get(), i, 0.0625001);
    EXPECT_LE(td_centroid_count(tiny.get()), tiny->cap);
}

TEST(TDigest, RankErrorOfAMillionLongTailedValuesStaysWithinTheSizeRule)
{
    /* The merge folds a centroid only while its weight w stays within
     * q(1-q) * 2 pi N ln(N) / compression of the N values, so a centroid
     * near quantile q spans at most a fraction q(1-q) * 2 pi ln(N) /
     * compression of the ranks; a value read between two neighbours is off
     * in rank by at most that (interpolation stays inside them). */
    constexpr int kN = 1000000;
    Digest h = make();
    std::vector<double> v(kN);
    std::mt19937_64 rng(11);
    std::lognormal_distribution<> dist(3, 1.5);
    for (double& x : v) {
        x = dist(rng);
        td_add(h.get(), x, 1);
    }
    std::sort(v.begin(), v.end());
    const double compression = h->compression;
    for (double q : {0.5, 0.9, 0.99, 0.999}) {
        const double value = td_value_at(h.get(), q);
        const double rank =
            static_cast<double>(std::lower_bound(v.begin(), v.end(), value) - v.begin()) / kN;
        const double bound = q * (1 - q) * 2 * M_PI * std::log(kN) / compression;
        EXPECT_LE(std::abs(rank - q), bound + 1.0 / kN) << "q " << q;
    }
    EXPECT_EQ(td_total_count(h.get()), kN);
    EXPECT_LT(td_centroid_count(h.get()), 5000) << "compressed, not one node per value";

    /* Two halves merged read as the whole; the second is left as it was. */
    Digest a = make(), b = make();
    for (int i = 0; i < kN; ++i) td_add(i % 2 ? a.get() : b.get(), v[static_cast<size_t>(i)], 1);
    const double bMedian = td_value_at(b.get(), 0.5);
    td_merge(a.get(), b.get());
    EXPECT_EQ(td_total_count(a.get()), kN);
    EXPECT_EQ(td_total_count(b.get()), kN / 2);
    EXPECT_EQ(td_value_at(b.get(), 0.5), bMedian);
    for (double q : {0.5, 0.99}) {
        const double rank = static_cast<double>(std::lower_bound(v.begin(), v.end(),
                                                                 td_value_at(a.get(), q)) -
                                                v.begin()) /
                            kN;
        EXPECT_LE(std::abs(rank - q), 2 * q * (1 - q) * 2 * M_PI * std::log(kN) / compression);
    }
}

TEST(TDigest, BothFormsAreTheWireBytesAndReadBack)
{
    Digest h = make();
    td_add(h.get(), 1.5, 1);
    td_add(h.get(), 10, 300);
    /* Verbose: mode, 1/delta, n, means, 32-bit counts. */
    const unsigned char verbose[] = {
        1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x59, 0x40, 2, 0, 0, 0,  /* 1, 100.0, 2 */
        0, 0, 0, 0, 0, 0, 0xf8, 0x3f, 0, 0, 0, 0, 0, 0, 0x24, 0x40, /* 1.5, 10.0 */
        1, 0, 0, 0, 0x2c, 0x01, 0, 0};                         /* 1, 300 */
    EXPECT_EQ(serialize(h.get(), kTDigestModeVerbose),
              std::string(reinterpret_cast<const char*>(verbose), sizeof verbose));
    /* Small: float differences (1.5, 8.5), then varints (1; 300 = 0xac 0x02). */
    const unsigned char small[] = {2, 0, 0,    0,    0, 0, 0, 0, 0, 0, 0x59, 0x40, 2, 0, 0, 0,
                                   0, 0, 0xc0, 0x3f, 0, 0, 8, 0x41, 1, 0xac, 0x02};
    const std::string s = serialize(h.get(), kTDigestModeSmall);
    EXPECT_EQ(s, std::string(reinterpret_cast<const char*>(small), sizeof small));
    EXPECT_EQ(serialize(h.get(), 3), "");

    /* Round trip of many values: means within float precision of their
     * differences, counts exact. */
    Digest many = make();
    std::mt19937 rng(3);
    for (int i = 0; i < 20000; ++i) td_add(many.get(), std::uniform_real_distribution<>(0, 5000)(rng), 1 + i % 3);
    td_compress(many.get());
    const std::string body = serialize(many.get(), kTDigestModeSmall);
    Digest back(td_deserialize(body.data(), body.size(), 0), td_free);
    ASSERT_TRUE(back);
    td_compress(back.get());
    ASSERT_EQ(back->merged_nodes, many->merged_nodes);
    for (int i = 0; i < many->merged_nodes; ++i) {
        EXPECT_NEAR(back->nodes[i].mean, many->nodes[i].mean, 1e-3 * (i + 1));
        EXPECT_EQ(back->nodes[i].count, std::floor(many->nodes[i].count));
    }
    char text[256];
    EXPECT_GT(td_debug_dump_output_in_buf(s.data(), s.size(), text, sizeof text), 0);
    EXPECT_EQ(std::string(text),
              "Mode = 2, Compression = 100.000000, Num Centroids = 2\n"
              "Centroid# |    Mean    |  Count\n"
              "        0 |   1.500000 |    1\n"
              "        1 |  10.000000 |  300\n"
              "Total data count = 301\n");
}

TEST(TDigest, SerialisedInputIsReadWithinItsLength)
{
    Digest h = make();
    for (int i = 1; i <= 40; ++i) td_add(h.get(), i * 3.5, i);
    for (int mode : {kTDigestModeVerbose, kTDigestModeSmall}) {
        const std::string good = serialize(h.get(), mode);
        for (size_t cut = 0; cut < good.size(); ++cut) {
            /* An exact-size copy: a read past it is a sanitizer report. */
            std::unique_ptr<char[]> part(new char[cut + 1]);
            memcpy(part.get(), good.data(), cut);
            Digest d(td_deserialize(part.get(), cut, 0), td_free);
            EXPECT_FALSE(d) << "mode " << mode << " cut at " << cut;
        }
    }
    std::string bad = serialize(h.get(), kTDigestModeSmall);
    bad[0] = 7;
    EXPECT_EQ(td_deserialize(bad.data(), bad.size(), 0), nullptr);
    bad = serialize(h.get(), kTDigestModeSmall);
    const int32_t huge = 0x7fffffff;
    memcpy(&bad[12], &huge, 4);
    EXPECT_EQ(td_deserialize(bad.data(), bad.size(), 0), nullptr);
    bad = serialize(h.get(), kTDigestModeSmall);
    const double enormous = 1e12; /* a compression no block is made for */
    memcpy(&bad[4], &enormous, 8);
    EXPECT_EQ(td_deserialize(bad.data(), bad.size(), 0), nullptr);
}

}  // namespace
