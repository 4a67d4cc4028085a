/* Digest bodies written out byte by byte, decoded and queried; hostile bodies
 * refused from a buffer of exactly their size, so a read past the end shows
 * under AddressSanitizer. */
#include "digest_decode.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <string>

namespace {

std::string bytes(std::initializer_list<int> b)
{
    std::string s;
    for (int v : b) s += static_cast<char>(v);
    return s;
}

// clang-format off
/* Centroids (10, 1), (20, 2), (40.5, 1), compression 100. */
const std::string kMode1 = bytes({
    0x01, 0, 0, 0,                                  /* mode 1 */
    0, 0, 0, 0, 0, 0, 0x59, 0x40,                   /* 100.0 */
    0x03, 0, 0, 0,                                  /* 3 centroids */
    0, 0, 0, 0, 0, 0, 0x24, 0x40,                   /* 10.0 */
    0, 0, 0, 0, 0, 0, 0x34, 0x40,                   /* 20.0 */
    0, 0, 0, 0, 0, 0x40, 0x44, 0x40,                /* 40.5 */
    0x01, 0, 0, 0, 0x02, 0, 0, 0, 0x01, 0, 0, 0});  /* counts */

/* Centroids (1.5, 300), (4, 1), (1030, 2), compression 50. */
const std::string kMode2 = bytes({
    0x02, 0, 0, 0,                 /* mode 2 */
    0, 0, 0, 0, 0, 0, 0x49, 0x40,  /* 50.0 */
    0x03, 0, 0, 0,                 /* 3 centroids */
    0, 0, 0xc0, 0x3f,              /* +1.5f */
    0, 0, 0x20, 0x40,              /* +2.5f */
    0, 0x40, 0x80, 0x44,           /* +1026.0f */
    0xac, 0x02, 0x01, 0x02});      /* varints 300, 1, 2 */

/* The values 1, 1 and 70: buckets 1 (count 2) and 67 (64 + (70 - 64) / 2,
 * count 1), so lz 1, tz 895 - 67 = 828, one byte a bucket. */
const std::string kPacked = bytes({
    0x01, 0xe0, 0x19, 0x02,                   /* 1 | 828 << 11 | 8 << 22 */
    32, 32, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0,
    0x03, 0, 0, 0, 0, 0, 0, 0,                /* count 3 */
    0, 0, 0, 0, 0, 0, 0xf0, 0x3f,             /* min 1.0 */
    0, 0, 0, 0, 0, 0x80, 0x51, 0x40,          /* max 70.0 */
    0, 0, 0, 0, 0, 0, 0x52, 0x40}) +          /* sum 72.0 */
    "\x02" + std::string(65, '\0') + "\x01";  /* buckets 1 to 67 */

/* The value 200 alone: bucket (8 - 5) * 32 + (200 - 128) / 4 = 114, whose
 * value 201 is above the max. */
const std::string kPacked200 = bytes({
    0x72, 0x68, 0x18, 0x02,                   /* 114 | 781 << 11 | 8 << 22 */
    32, 32, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0,
    0x01, 0, 0, 0, 0, 0, 0, 0,
    0, 0, 0, 0, 0, 0, 0x69, 0x40,             /* 200.0 three times */
    0, 0, 0, 0, 0, 0, 0x69, 0x40,
    0, 0, 0, 0, 0, 0, 0x69, 0x40, 0x01});
// clang-format on

/* Decodes from a heap block of exactly the body's size. */
template <typename Digest, typename Decode>
int decode_exact(const std::string& body, Decode decode, Digest* out = nullptr,
                 std::string* error = nullptr)
{
    std::unique_ptr<char[]> copy(new char[body.size()]);
    std::copy(body.begin(), body.end(), copy.get());
    return decode(std::string_view(copy.get(), body.size()), out, error);
}

int td(const std::string& body, vxc::TDigest* out = nullptr, std::string* error = nullptr)
{
    return decode_exact(body, vxc::decode_tdigest, out, error);
}

int cd(const std::string& body, vxc::CDigest* out = nullptr, std::string* error = nullptr)
{
    return decode_exact(body, vxc::decode_cdigest, out, error);
}

std::string patched(std::string s, size_t at, std::initializer_list<int> b)
{
    for (int v : b) s[at++] = static_cast<char>(v);
    return s;
}

TEST(TDigestDecode, BothModesGiveCentroidsAndInterpolatedQuantiles)
{
    vxc::TDigest d;
    std::string error;
    ASSERT_EQ(td(kMode1, &d, &error), 0) << error;
    EXPECT_EQ(d.compression, 100.0);
    EXPECT_EQ(d.count, 4u);
    /* Ranks 0, 1.5 and 3 over 4 values. */
    EXPECT_EQ(vxc::tdigest_quantile(d, 0), 10.0);
    EXPECT_EQ(vxc::tdigest_quantile(d, 0.5), 20.0);
    EXPECT_DOUBLE_EQ(vxc::tdigest_quantile(d, 0.9), 36.4);
    EXPECT_DOUBLE_EQ(vxc::tdigest_quantile(d, 0.99), 40.09);
    EXPECT_EQ(vxc::tdigest_quantile(d, 1), 40.5);

    ASSERT_EQ(td(kMode2, &d, &error), 0) << error;
    EXPECT_EQ(d.compression, 50.0);
    ASSERT_EQ(d.centroids.size(), 3u);
    EXPECT_EQ(d.centroids[0].count, 300);
    EXPECT_EQ(d.centroids[1].mean, 4.0);
    EXPECT_EQ(d.centroids[2].mean, 1030.0);
    EXPECT_EQ(d.count, 303u);
    /* Ranks 149.5, 300 and 301.5 over 303 values. */
    EXPECT_EQ(vxc::tdigest_quantile(d, 0.1), 1.5);
    EXPECT_DOUBLE_EQ(vxc::tdigest_quantile(d, 0.5), 1.5249169435215948);
    EXPECT_DOUBLE_EQ(vxc::tdigest_quantile(d, 0.99), 3.9830564784053157);
    EXPECT_EQ(vxc::tdigest_quantile(d, 1), 1030.0);

    /* No centroids: an empty digest, no quantile. */
    ASSERT_EQ(td(kMode1.substr(0, 12) + bytes({0, 0, 0, 0}), &d), 0);
    EXPECT_EQ(d.count, 0u);
    EXPECT_TRUE(std::isnan(vxc::tdigest_quantile(d, 0.5)));
}

TEST(TDigestDecode, HostileBodiesAreRefused)
{
    for (const std::string& good : {kMode1, kMode2}) {
        for (size_t len = 0; len < good.size(); ++len)
            EXPECT_EQ(td(good.substr(0, len)), -1) << "cut to " << len;
        EXPECT_EQ(td(good + '\0'), -1) << "a byte too many";
    }
    // clang-format off
    const std::string bad[] = {
        patched(kMode1, 0, {0}),                         /* mode 0 */
        patched(kMode2, 0, {3}),                         /* mode 3 */
        patched(kMode1, 4, {0, 0, 0, 0, 0, 0, 0xf8, 0x7f}), /* NaN compression */
        patched(kMode1, 4, {0, 0, 0, 0, 0, 0, 0, 0}),    /* compression 0 */
        patched(kMode1, 12, {0xff, 0xff, 0xff, 0x7f}),   /* 2^31-1 centroids */
        patched(kMode2, 12, {0xff, 0xff, 0xff, 0x7f}),
        patched(kMode1, 12, {0xff, 0xff, 0xff, 0xff}),   /* -1 centroids */
        patched(kMode1, 12, {2}),                        /* 2: counts read from the means */
        patched(kMode1, 32, {0, 0, 0, 0, 0, 0, 0x14, 0x40}), /* 5.0 after 20.0 */
        patched(kMode1, 32, {0, 0, 0, 0, 0, 0, 0xf0, 0x7f}), /* infinity */
        patched(kMode2, 20, {0, 0, 0x20, 0xc0}),         /* -2.5f */
        patched(kMode1, 44, {0, 0, 0, 0}),               /* count 0 */
        patched(kMode1, 44, {0xff, 0xff, 0xff, 0xff}),   /* count -1 */
        kMode2.substr(0, 28) + bytes({0x80, 0x80, 0x80, 0x80, 0x80, 0x01, 1, 2}), /* 6 bytes */
        kMode2.substr(0, 28) + bytes({0xff, 0xff, 0xff, 0xff, 0x0f, 1, 2}),       /* 2^32-1 */
        kMode2.substr(0, 28) + bytes({0xac, 0x02, 0x01, 0x82}), /* last varint unfinished */
    };
    // clang-format on
    for (const std::string& body : bad) {
        std::string error;
        EXPECT_EQ(td(body, nullptr, &error), -1) << testing::PrintToString(body);
        EXPECT_FALSE(error.empty());
    }
    vxc::TDigest d;
    EXPECT_EQ(td(kMode2.substr(0, 28) + bytes({0xff, 0xff, 0xff, 0xff, 0x07, 1, 2}), &d), 0)
        << "2^31-1 in five bytes is a count";
}

TEST(CDigestDecode, PackedBucketsGiveTheirValuesCappedAtTheMax)
{
    vxc::CDigest d;
    std::string error;
    ASSERT_EQ(cd(kPacked, &d, &error), 0) << error;
    EXPECT_EQ(d.lz, 1);
    EXPECT_EQ(d.last, 67);
    EXPECT_EQ(d.count, 3u);
    ASSERT_EQ(d.buckets.size(), 67u);
    /* Targets 3 * q truncated: 1, 2, 2 reach bucket 1; 3 reaches bucket 67. */
    EXPECT_EQ(vxc::cdigest_quantile(d, 0.5), 1.0);
    EXPECT_EQ(vxc::cdigest_quantile(d, 0.99), 1.0);
    EXPECT_EQ(vxc::cdigest_quantile(d, 1), 70.0);
    ASSERT_EQ(cd(kPacked200, &d, &error), 0) << error;
    EXPECT_EQ(vxc::cdigest_quantile(d, 0.5), 200.0) << "bucket 114 stands for 201";

    EXPECT_EQ(vxc::cdigest_slot_value(63), 63.0);
    EXPECT_EQ(vxc::cdigest_slot_value(64), 64.0);
    EXPECT_EQ(vxc::cdigest_slot_value(95), 126.0);
    EXPECT_EQ(vxc::cdigest_slot_value(114), 201.0);
    EXPECT_EQ(vxc::cdigest_slot_value(1919), 0x1.fcp63);
    EXPECT_TRUE(std::isnan(vxc::cdigest_slot_value(1920)));

    /* Two-byte buckets of 64-bit values, and an empty digest. */
    std::string wide = patched(kPacked200, 0, {0x72, 0x68, 0x38, 0x04}); /* tz 1805, max_bit 16 */
    wide[4] = 64;
    ASSERT_EQ(cd(wide + '\0', &d, &error), 0) << error;
    EXPECT_EQ(d.last, 114);
    std::string empty = kPacked.substr(0, 48);
    empty[16] = 0;
    ASSERT_EQ(cd(empty, &d, &error), 0) << error;
    EXPECT_TRUE(std::isnan(vxc::cdigest_quantile(d, 0.5)));
}

TEST(CDigestDecode, HostileBodiesAreRefused)
{
    for (const std::string& good : {kPacked, kPacked200}) {
        for (size_t len = 0; len < good.size(); ++len)
            EXPECT_EQ(cd(good.substr(0, len)), -1) << "cut to " << len;
        EXPECT_EQ(cd(good + '\0'), -1) << "a byte too many";
    }
    std::string empty_with_bytes = kPacked;
    empty_with_bytes[16] = 0;
    // clang-format off
    const std::string bad[] = {
        patched(kPacked, 3, {0x12}),            /* flags 1 */
        patched(kPacked, 4, {16}),              /* 16-bit values */
        patched(kPacked, 5, {8}),               /* 8-bit counts */
        patched(kPacked, 6, {2}),               /* version 2 */
        patched(kPacked, 9, {1}),               /* reserved */
        patched(kPacked, 0, {0x01, 0xe0, 0x19, 0x03}), /* max_bit 12 */
        patched(kPacked, 0, {0x01, 0xe0, 0x19, 0x00}), /* max_bit 0 */
        patched(kPacked, 0, {0x01, 0xe0, 0x19, 0x0a}), /* max_bit 40 */
        patched(kPacked, 0, {0x7f, 0xe3, 0x19, 0x02}), /* lz 895 above the last bucket */
        patched(kPacked, 16, {4}),              /* buckets add up to 3, not 4 */
        patched(kPacked, 16, {2}),
        patched(kPacked, 16, {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff}),
        patched(patched(kPacked, 48, {0}), 16, {1}), /* first bucket empty */
        patched(kPacked, 24, {0, 0, 0, 0, 0, 0, 0x59, 0x40}), /* min 100 above max 70 */
        empty_with_bytes,
    };
    // clang-format on
    for (const std::string& body : bad) {
        std::string error;
        EXPECT_EQ(cd(body, nullptr, &error), -1) << testing::PrintToString(body);
        EXPECT_FALSE(error.empty());
    }
}

TEST(ExactQuantile, InterpolatesOrReadsTheDigestsRank)
{
    EXPECT_TRUE(std::isnan(vxc::exact_quantile({}, 0.5)));
    EXPECT_EQ(vxc::exact_quantile({7}, 0.99), 7.0);
    EXPECT_EQ(vxc::exact_quantile({10, 15, 61}, 0.5), 15.0);
    /* Rank rule: count * q truncated, at least the first value. */
    EXPECT_TRUE(std::isnan(vxc::exact_rank_quantile({}, 0.5)));
    EXPECT_EQ(vxc::exact_rank_quantile({700, 702, 737, 739}, 0.5), 702.0);
    EXPECT_EQ(vxc::exact_rank_quantile({700, 702, 737, 739}, 0.1), 700.0);
    EXPECT_EQ(vxc::exact_rank_quantile({700, 702, 737, 739}, 0.99), 737.0);
    EXPECT_DOUBLE_EQ(vxc::exact_quantile({10, 15, 61}, 0.9), 51.8);
    EXPECT_EQ(vxc::exact_quantile({10, 15, 61}, 1), 61.0);
}

}  // namespace
