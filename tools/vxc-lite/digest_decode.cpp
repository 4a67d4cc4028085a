#include "digest_decode.h"
#include <algorithm>

#include <bit>
#include <climits>
#include <cmath>
#include <cstdint>
#include <limits>

namespace vxc {

namespace {

constexpr size_t kTdHeader = 16;
constexpr size_t kCdHeader = 48;
constexpr int kMaxVarintBytes = 5; /* counts are 32-bit */
constexpr double kNan = std::numeric_limits<double>::quiet_NaN();

int reject(std::string* error, std::string text)
{
    if (error) *error = std::move(text);
    return -1;
}

/* Little-endian reads at a position the caller has checked is inside. */
uint64_t le(std::string_view b, size_t at, size_t width)
{
    uint64_t v = 0;
    for (size_t i = width; i-- > 0;) v = v << 8 | static_cast<unsigned char>(b[at + i]);
    return v;
}

int32_t le_i32(std::string_view b, size_t at)
{
    return static_cast<int32_t>(static_cast<uint32_t>(le(b, at, 4)));
}

double le_double(std::string_view b, size_t at)
{
    return std::bit_cast<double>(le(b, at, 8));
}

float le_float(std::string_view b, size_t at)
{
    return std::bit_cast<float>(static_cast<uint32_t>(le(b, at, 4)));
}

}  // namespace

int decode_tdigest(std::string_view body, TDigest* out, std::string* error)
{
    if (body.size() < kTdHeader)
        return reject(error, "t-digest of " + std::to_string(body.size()) +
                                 " bytes is shorter than its 16-byte header");
    TDigest d;
    d.mode = le_i32(body, 0);
    d.compression = le_double(body, 4);
    const int32_t n = le_i32(body, 12);
    if (d.mode != 1 && d.mode != 2)
        return reject(error, "t-digest mode " + std::to_string(d.mode) + " is neither 1 nor 2");
    if (!std::isfinite(d.compression) || d.compression <= 0)
        return reject(error, "t-digest compression is not a positive number");
    /* Each centroid takes at least 12 bytes in mode 1 and 5 in mode 2: a
     * count past that cannot be in the body, and is refused before any
     * allocation. */
    const size_t room = body.size() - kTdHeader;
    const size_t least = d.mode == 1 ? 12 : 5;
    if (n < 0 || static_cast<size_t>(n) > room / least)
        return reject(error, "t-digest of " + std::to_string(body.size()) + " bytes cannot hold " +
                                 std::to_string(n) + " centroids");
    const size_t cn = static_cast<size_t>(n);
    d.centroids.resize(cn);
    size_t at = kTdHeader;
    double mean = 0;
    for (size_t i = 0; i < cn; ++i, at += d.mode == 1 ? 8 : 4) {
        mean = d.mode == 1 ? le_double(body, at) : mean + le_float(body, at);
        if (!std::isfinite(mean))
            return reject(error, "t-digest mean " + std::to_string(i + 1) + " is not finite");
        if (i > 0 && mean < d.centroids[i - 1].mean)
            return reject(error,
                          "t-digest mean " + std::to_string(i + 1) + " is below the one before it");
        d.centroids[i].mean = mean;
    }
    for (size_t i = 0; i < cn; ++i) {
        long long c = 0;
        if (d.mode == 1) {
            c = le_i32(body, at);
            at += 4;
        } else {
            int len = 0;
            for (;; ++len) {
                if (at >= body.size() || len == kMaxVarintBytes)
                    return reject(error, "t-digest count " + std::to_string(i + 1) +
                                             (at >= body.size() ? " runs past the body"
                                                                : " is longer than 5 bytes"));
                const unsigned char byte = static_cast<unsigned char>(body[at++]);
                c |= static_cast<long long>(byte & 0x7f) << (7 * len);
                if (!(byte & 0x80)) break;
            }
        }
        if (c < 1 || c > INT32_MAX)
            return reject(error, "t-digest count " + std::to_string(i + 1) + " is " +
                                     std::to_string(c) + ", not 1 to 2^31-1");
        d.centroids[i].count = c;
        d.count += static_cast<unsigned long long>(c);
    }
    if (at != body.size())
        return reject(error, "t-digest of " + std::to_string(cn) + " centroids ends at byte " +
                                 std::to_string(at) + " of " + std::to_string(body.size()));
    if (out) *out = std::move(d);
    return 0;
}

double tdigest_quantile(const TDigest& d, double q)
{
    const std::vector<Centroid>& c = d.centroids;
    if (c.empty()) return kNan;
    const double target = static_cast<double>(d.count - 1) * q;
    double before = 0; /* counts ahead of centroid i */
    double prev_rank = 0;
    for (size_t i = 0; i < c.size(); ++i) {
        const double rank = before + static_cast<double>(c[i].count - 1) / 2;
        if (target <= rank) {
            if (i == 0) return c[0].mean;
            return c[i - 1].mean +
                   (c[i].mean - c[i - 1].mean) * (target - prev_rank) / (rank - prev_rank);
        }
        before += static_cast<double>(c[i].count);
        prev_rank = rank;
    }
    return c.back().mean;
}

int decode_cdigest(std::string_view body, CDigest* out, std::string* error)
{
    if (body.size() < kCdHeader)
        return reject(error, "c-digest of " + std::to_string(body.size()) +
                                 " bytes is shorter than its 48-byte header");
    const uint32_t bits = static_cast<uint32_t>(le(body, 0, 4));
    CDigest d;
    d.lz = static_cast<int>(bits & 0x7ff);
    const int tz = static_cast<int>(bits >> 11 & 0x7ff);
    d.max_bit = static_cast<int>(bits >> 22 & 0x3f);
    d.max_value_bit = static_cast<unsigned char>(body[4]);
    d.max_count_bit = static_cast<unsigned char>(body[5]);
    const int version = static_cast<unsigned char>(body[6]);
    d.count = le(body, 16, 8);
    d.min = le_double(body, 24);
    d.max = le_double(body, 32);
    d.sum = le_double(body, 40);
    if (bits >> 28 != 0) return reject(error, "c-digest flags are not 0");
    if ((d.max_value_bit != 32 && d.max_value_bit != 64) ||
        (d.max_count_bit != 32 && d.max_count_bit != 64))
        return reject(error, "c-digest value or count width is not 32 or 64");
    if (version != 1) return reject(error, "c-digest version " + std::to_string(version));
    for (size_t i = 7; i < 16; ++i)
        if (body[i] != 0) return reject(error, "c-digest reserved bytes are not zero");
    if (d.count == 0) {
        /* An empty digest is its header alone; its bucket fields mean nothing. */
        if (body.size() != kCdHeader)
            return reject(error, "empty c-digest has bytes behind its header");
        if (out) *out = std::move(d);
        return 0;
    }
    const int buckets = d.max_value_bit == 32 ? 896 : 1920;
    d.last = buckets - 1 - tz;
    if (d.max_bit == 0 || d.max_bit % 8 != 0 || d.max_bit > d.max_count_bit)
        return reject(error, "c-digest bucket width " + std::to_string(d.max_bit) +
                                 " is not a multiple of 8 up to the count width");
    if (d.lz >= buckets || d.last < d.lz)
        return reject(error, "c-digest buckets " + std::to_string(d.lz) + " to " +
                                 std::to_string(d.last) + " are not a range below " +
                                 std::to_string(buckets));
    const size_t width = static_cast<size_t>(d.max_bit / 8);
    const size_t used = static_cast<size_t>(d.last - d.lz + 1);
    if (body.size() != kCdHeader + used * width)
        return reject(error, "c-digest of " + std::to_string(used) + " buckets of " +
                                 std::to_string(width) + " bytes is not " +
                                 std::to_string(body.size()) + " bytes long");
    if (!(d.min <= d.max) || !std::isfinite(d.min) || !std::isfinite(d.max))
        return reject(error, "c-digest min and max are not finite and in order");
    d.buckets.resize(used);
    unsigned long long total = 0;
    for (size_t i = 0; i < used; ++i) {
        d.buckets[i] = le(body, kCdHeader + i * width, width);
        if (d.buckets[i] > d.count - total)
            return reject(error, "c-digest buckets add up to more than its count");
        total += d.buckets[i];
    }
    if (total != d.count)
        return reject(error, "c-digest buckets add up to " + std::to_string(total) +
                                 ", not its count " + std::to_string(d.count));
    if (d.buckets.front() == 0 || d.buckets.back() == 0)
        return reject(error, "c-digest first or last bucket in use is empty");
    if (out) *out = std::move(d);
    return 0;
}

double cdigest_slot_value(int index)
{
    if (index < 0 || index >= 1920) return kNan;
    if (index < 64) return index;
    const int b = index / 32 + 5; /* bit length of the bucket's values */
    const uint64_t j = static_cast<uint64_t>(index % 32);
    const uint64_t w = uint64_t{1} << (b - 6);
    return static_cast<double>((uint64_t{1} << (b - 1)) + j * w + (w - 1) / 2);
}

double cdigest_quantile(const CDigest& d, double q)
{
    if (d.count == 0 || d.buckets.empty()) return kNan;
    const auto target = static_cast<unsigned long long>(static_cast<double>(d.count) * q);
    unsigned long long seen = 0;
    size_t i = 0;
    /* The buckets add up to count, so the walk stops at the last one at
     * the latest. */
    for (; i + 1 < d.buckets.size(); ++i) {
        seen += d.buckets[i];
        if (seen >= target) break;
    }
    const double v = cdigest_slot_value(d.lz + static_cast<int>(i));
    return v < d.max ? v : d.max;
}

double exact_quantile(const std::vector<double>& sorted, double q)
{
    if (sorted.empty()) return kNan;
    const double at = static_cast<double>(sorted.size() - 1) * q;
    const size_t lo = static_cast<size_t>(at);
    if (lo + 1 >= sorted.size()) return sorted.back();
    return sorted[lo] + (sorted[lo + 1] - sorted[lo]) * (at - static_cast<double>(lo));
}

double exact_rank_quantile(const std::vector<double>& sorted, double q)
{
    if (sorted.empty()) return kNan;
    const auto rank = static_cast<size_t>(static_cast<double>(sorted.size()) * q);
    return sorted[std::clamp<size_t>(rank, 1, sorted.size()) - 1];
}

}  // namespace vxc
