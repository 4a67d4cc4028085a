/* The c-digest: buckets, packed bytes, quantile error, merges, and packed
 * input that lies about its own size. */
#include "monitor/vx_cdigest.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

struct Free {
    void operator()(tslb_cdigest_t* d) const { tslb_free_cdigest(d); }
};
using Digest = std::unique_ptr<tslb_cdigest_t, Free>;
using Bytes = std::vector<unsigned char>;

Digest make(int vb = 32, int cb = 32, std::initializer_list<double> values = {})
{
    tslb_cdigest_init_lib();
    Digest d(tslb_new_cdigest(vb, cb));
    for (double v : values) tslb_cdigest_update(d.get(), v);
    return d;
}

Bytes pack(const tslb_cdigest_t* d)
{
    Bytes out(func1(d));
    EXPECT_EQ(tslb_cdigest_pack(d, out.data(), static_cast<int>(out.size())), (int)out.size());
    return out;
}

int lz_of(const Bytes& p)
{
    return (p[0] | p[1] << 8) & 0x7ff;
}
double quantile(const Bytes& p, double q)
{
    return tslb_cdigest_get_quantile(p.data(), p.size(), q);
}

TEST(CDigest, BucketsFollowTheTopSixBits)
{
    const std::pair<double, int> cases[] = {{63, 63},  {64, 64},  {65, 64}, {66, 65},
                                            {127, 95}, {128, 96}, {-5, 0},  {NAN, 0}};
    for (auto [value, bucket] : cases)
        EXPECT_EQ(lz_of(pack(make(32, 32, {value}).get())), bucket) << value;
    // slotValue[64] and slotValue[96]: a single value's quantile is its bucket's value
    EXPECT_EQ(quantile(pack(make(32, 32, {65}).get()), 0.5), 64);
    EXPECT_EQ(quantile(pack(make(32, 32, {128}).get()), 0.5), 129);
    // past the value width: the top bucket, and min/max/sum agree with it
    Digest big = make(32, 32, {1e300, INFINITY});
    EXPECT_EQ(lz_of(pack(big.get())), 895);
    EXPECT_EQ(big->max, 4294967295.0);
    EXPECT_EQ(big->avg, 2 * 4294967295.0);
    EXPECT_EQ(lz_of(pack(make(64, 32, {1e300}).get())), 1919);
}

TEST(CDigest, PackedBytesAreTheWireForm)
{
    const Bytes golden = {0x3e, 0xf0, 0x19, 0x02, 0x20, 0x20, 0x01, 0x00, 0x00, 0x00, 0x00,
                          0x00, 0x00, 0x00, 0x00, 0x00, 0x03, 0x00, 0x00, 0x00, 0x00, 0x00,
                          0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x4f, 0x40, 0x00,
                          0x00, 0x00, 0x00, 0x00, 0x80, 0x50, 0x40, 0x00, 0x00, 0x00, 0x00,
                          0x00, 0xc0, 0x67, 0x40, 0x02, 0x00, 0x00, 0x01};
    Digest d = make(32, 32, {62, 62, 66});
    EXPECT_EQ(pack(d.get()), golden);
    unsigned char small[51];
    EXPECT_EQ(tslb_cdigest_pack(d.get(), small, sizeof small), -1);

    Digest e = make();
    Bytes empty = pack(e.get());
    EXPECT_EQ(empty.size(), 48u);
    EXPECT_EQ(lz_of(empty), 0x7ff);
    EXPECT_TRUE(std::isnan(quantile(empty, 0.5)));

    // a bucket of 300 needs two bytes a bucket: 48 + 3 * 2
    Digest wide = make(32, 32, {64, 66});
    for (int k = 0; k < 300; ++k) tslb_cdigest_update(wide.get(), 68);
    Bytes w = pack(wide.get());
    EXPECT_EQ(w.size(), 54u);
    EXPECT_EQ((w[2] >> 6 | w[3] << 2) & 63, 16);
    EXPECT_EQ(quantile(w, 1), 68);

    tslb_cdigest_reset(wide.get());
    EXPECT_EQ(wide->min, DBL_MAX);
    EXPECT_EQ(wide->max_count_bit, 32);
    EXPECT_EQ(pack(wide.get()), empty);
    tslb_cdigest_update(wide.get(), 62);
    tslb_cdigest_update(wide.get(), 62);
    tslb_cdigest_update(wide.get(), 66);
    EXPECT_EQ(pack(wide.get()), golden);  // no count left over from before
}

TEST(CDigest, QuantilesStayWithinOneThirtySecond)
{
    std::mt19937_64 rng(42);
    std::lognormal_distribution<double> tail(4.0, 3.0);
    std::vector<double> values;
    Digest d = make();
    for (int k = 0; k < 200000; ++k) {
        const double v = std::floor(std::min(tail(rng), 1e9));
        values.push_back(v);
        tslb_cdigest_update(d.get(), v);
    }
    std::sort(values.begin(), values.end());
    const Bytes p = pack(d.get());
    for (int k = 0; k <= 1000; ++k) {
        const double q = k / 1000.0;
        const size_t rank = static_cast<size_t>(values.size() * q);
        const double exact = values[rank == 0 ? 0 : rank - 1];
        const double got = quantile(p, q);
        if (exact < 64)
            EXPECT_EQ(got, exact) << q;
        else
            EXPECT_LE(std::fabs(got - exact), exact / 32) << q;
    }
    // every bucket's value stands within 1/32 for each value it holds
    Digest one = make(64, 64);
    for (int k = 0; k < 20000; ++k) {
        const double v =
            k < 4096 ? k : std::floor(std::ldexp(1.0 + (rng() % 1000) / 1000.0, k % 63));
        tslb_cdigest_reset(one.get());
        tslb_cdigest_update(one.get(), v);
        EXPECT_LE(std::fabs(quantile(pack(one.get()), 0) - v), v / 32) << v;
    }
}

TEST(CDigest, ManyQuantilesMatchSingleOnesCappedAtMax)
{
    EXPECT_EQ(quantile(pack(make(32, 32, {1, 2, 3, 4}).get()), 0.5), 2);

    Digest d = make(32, 32, {3, 70, 128, 5000, 5000, 90000});
    const Bytes p = pack(d.get());
    const double qs[] = {NAN, 0, 0.3, 0.5, 0.9, 0.999, 1, 7};
    double packed[8], unpacked[8];
    EXPECT_EQ(tslb_cdigest_get_quantile_many(p.data(), p.size(), qs, 8, packed), 8);
    EXPECT_EQ(tslb_cdigest_unpacked_get_quantile_many(d.get(), qs, 8, unpacked), 8);
    for (int k = 0; k < 8; ++k) {
        EXPECT_EQ(packed[k], std::min(quantile(p, qs[k]), 90000.0)) << k;
        EXPECT_EQ(unpacked[k], packed[k]) << k;
    }
    Digest top = make(32, 32, {128});  // its bucket stands for 129
    EXPECT_EQ(tslb_cdigest_unpacked_get_quantile_many(top.get(), qs + 6, 1, packed), 1);
    EXPECT_EQ(packed[0], 128);

    Digest e = make();
    EXPECT_EQ(tslb_cdigest_unpacked_get_quantile_many(e.get(), qs, 2, packed), 0);
    EXPECT_TRUE(std::isnan(packed[0]) && std::isnan(packed[1]));
}

TEST(CDigest, MergesAddBucketsAndRefuseANarrowerDest)
{
    Digest a = make(32, 32, {1, 64, 64, 5000});
    Digest b = make(32, 32, {2, 64, 1e6});
    Digest wide = make(64, 64);
    ASSERT_EQ(tslb_cdigest_unpacked_merge_single(a.get(), wide.get()), wide.get());
    EXPECT_EQ(wide->count, 4u);
    EXPECT_EQ(wide->max_count, 2u);
    EXPECT_EQ(quantile(pack(wide.get()), 0.75), 64);

    const Bytes before = pack(a.get());
    EXPECT_EQ(tslb_cdigest_unpacked_merge_single(wide.get(), a.get()), nullptr);
    const Bytes packedWide = pack(wide.get());
    EXPECT_EQ(tslb_cdigest_unpacked_merge_packed(a.get(), packedWide.data(), packedWide.size()),
              nullptr);
    EXPECT_EQ(pack(a.get()), before);

    Digest all = make(32, 32, {1, 64, 64, 5000, 2, 64, 1e6});
    Digest out = make(), viaPacked = make();
    tslb_cdigest_t* arr[] = {a.get(), b.get()};
    ASSERT_EQ(tslb_cdigest_unpacked_merge(arr, 2, out.get()), out.get());
    EXPECT_EQ(pack(out.get()), pack(all.get()));
    for (auto* src : arr) {
        const Bytes p = pack(src);
        ASSERT_NE(tslb_cdigest_unpacked_merge_packed(viaPacked.get(), p.data(), p.size()), nullptr);
    }
    EXPECT_EQ(pack(viaPacked.get()), pack(all.get()));
    tslb_cdigest_t* mixed[] = {a.get(), wide.get()};
    EXPECT_EQ(tslb_cdigest_unpacked_merge(mixed, 2, out.get()), nullptr);
}

TEST(CDigest, PackedInputIsCheckedAgainstItsLength)
{
    Digest d = make(32, 32, {3, 100, 100, 70000});
    const Bytes good = pack(d.get());
    char text[256];
    auto refused = [&](const unsigned char* src, size_t len) {
        // an exact-size heap copy, so a read past len is caught by the sanitizer
        std::unique_ptr<unsigned char[]> p(new unsigned char[len]);
        std::memcpy(p.get(), src, len);
        double out[2], qs[2] = {0.5, 1};
        Digest dest = make(64, 64);
        return std::isnan(tslb_cdigest_get_quantile(p.get(), len, 0.5)) &&
               tslb_cdigest_get_quantile_many(p.get(), len, qs, 2, out) == 0 &&
               std::isnan(out[1]) &&
               !tslb_cdigest_unpacked_merge_packed(dest.get(), p.get(), len) && dest->count == 0 &&
               !tslb_cdigest_pdigest_str_with_buckets(p.get(), len, text, sizeof text);
    };
    EXPECT_FALSE(refused(good.data(), good.size()));
    for (size_t len = 0; len < good.size(); ++len) EXPECT_TRUE(refused(good.data(), len)) << len;

    auto with = [&](size_t at, unsigned char byte) {
        Bytes bad = good;
        bad[at] = byte;
        return refused(bad.data(), bad.size());
    };
    EXPECT_TRUE(with(4, 16));    // value width
    EXPECT_TRUE(with(5, 0));     // count width
    EXPECT_TRUE(with(6, 2));     // version
    EXPECT_TRUE(with(1, 0xf7));  // lz past 895
    EXPECT_TRUE(with(2, 0x3f));  // tz puts the range end below lz
    EXPECT_TRUE(with(3, 0x01));  // bucket width 4 bits

    auto forged = [&](uint32_t lz, uint32_t tz, uint32_t bits, size_t body) {
        Bytes p = pack(make().get());
        const uint32_t word = lz | tz << 11 | (bits & 63) << 22;
        for (int k = 0; k < 4; ++k) p[k] = static_cast<unsigned char>(word >> 8 * k);
        p[16] = 1;  // count
        p.resize(48 + body, 1);
        return refused(p.data(), p.size());
    };
    EXPECT_FALSE(forged(5, 890, 8, 1));  // bucket 5 alone
    EXPECT_TRUE(forged(5, 891, 8, 0));   // range end one below lz, no buckets
    EXPECT_TRUE(forged(5, 890, 8, 2));   // a byte more than the range needs
    EXPECT_TRUE(forged(5, 890, 40, 5));  // 40-bit counts, length to match
}

TEST(CDigest, TextStaysInTheCallersBuffer)
{
    Digest d = make(32, 32, {62, 62, 66});
    const Bytes p = pack(d.get());
    const char* full = "cdigest(32,32) count=3 min=62 max=66 sum=190 buckets=62..65 62:2,65:3,";
    char buf[128];
    EXPECT_STREQ(tslb_cdigest_pdigest_str_with_buckets(p.data(), p.size(), buf, sizeof buf), full);
    EXPECT_STREQ(tslb_cdigest_digest_str(d.get(), buf, sizeof buf),
                 "cdigest(32,32) count=3 min=62 max=66 sum=190 buckets=62..65");
    for (size_t n = 1; n <= strlen(full) + 1; ++n) {
        std::vector<char> exact(n);
        const std::string s = tslb_cdigest_digest_str_with_buckets(d.get(), exact.data(), n);
        ASSERT_LT(s.size(), n);
        if (n > strlen(full)) {
            EXPECT_EQ(s, full);
        } else if (n >= 4) {
            EXPECT_EQ(s.substr(s.size() - 3), "...") << n;
        }
    }
}

}  // namespace
