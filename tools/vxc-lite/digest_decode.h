/*
 * digest_decode: the binary bodies of the auto-sensor records 96 (t-digest)
 * and 121 (c-digest), decoded on the collector's side, and the quantiles
 * they give.
 *
 * Both bodies are in the agent's byte order, little endian, with no padding.
 * The decoders trust no length or count they are sent: they read only inside
 * the body they are given, and refuse a body that is shorter or longer than
 * its own fields say, or whose values cannot stand (a bad mode, a count of 0,
 * means out of order, buckets that do not add up to the count).
 *
 * Pure functions; any thread.
 */
#ifndef VXC_LITE_DIGEST_DECODE_H
#define VXC_LITE_DIGEST_DECODE_H

#include <string>
#include <string_view>
#include <vector>

namespace vxc {

struct Centroid {
    double mean = 0;
    long long count = 0;
};

/*
 * A t-digest body:
 *   0  int32   mode, 1 (means as doubles, counts as int32) or 2 (each mean as
 *              a float32 difference from the one before, the first from 0,
 *              summed in double; counts as base-128 varints, low group
 *              first, high bit on all bytes but the last)
 *   4  double  compression
 *   12 int32   number of centroids n
 *   16         n means, then n counts
 */
struct TDigest {
    int mode = 0;
    double compression = 0;
    std::vector<Centroid> centroids; /* in the body's order: means ascending */
    unsigned long long count = 0;    /* sum of the centroids' counts */
};

/* Decodes body into out. Returns 0, or -1 with the reason in error and out
 * untouched. */
int decode_tdigest(std::string_view body, TDigest* out, std::string* error);

/* Quantile q (0..1) of a t-digest: each centroid stands at rank (counts
 * before it) + (count - 1) / 2; the target rank (count - 1) * q is
 * interpolated linearly between the centroids around it, and takes the
 * first or last mean beyond them. With every count 1 this is
 * exact_quantile of the means. NaN when there are no centroids. */
double tdigest_quantile(const TDigest& d, double q);

/*
 * A packed c-digest body: a 48-byte header, then the counts of buckets lz to
 * the last in use, max_bit / 8 bytes each, little endian (nothing when count
 * is 0).
 *   0  uint32  bits 0-10 lz (first bucket in use), 11-21 tz (buckets unused
 *              at the top), 22-27 max_bit, 28-31 flags (0)
 *   4  uint8   max_value_bit, 32 (896 buckets) or 64 (1920 buckets)
 *   5  uint8   max_count_bit, 32 or 64
 *   6  uint8   version, 1
 *   7          9 bytes, zero
 *   16 uint64  count; 24 double min; 32 double max; 40 double sum
 */
struct CDigest {
    int max_value_bit = 0;
    int max_count_bit = 0;
    int max_bit = 0;
    int lz = 0;    /* first bucket in use */
    int last = -1; /* last bucket in use; -1 when empty */
    unsigned long long count = 0;
    double min = 0, max = 0, sum = 0;
    std::vector<unsigned long long> buckets; /* counts of buckets lz..last */
};

int decode_cdigest(std::string_view body, CDigest* out, std::string* error);

/* The value bucket `index` stands for: the index itself below 64, above it
 * the centre of the bucket (32 buckets for each bit length from 7 on).
 * NaN for an index outside 0..1919. */
double cdigest_slot_value(int index);

/* Quantile q (0..1) of a c-digest: the value of the first bucket whose
 * cumulative count reaches count * q (truncated), capped at max. NaN when
 * the digest is empty. */
double cdigest_quantile(const CDigest& d, double q);

/* Quantile q (0..1) of values sorted ascending: linear interpolation at
 * position (n - 1) * q. NaN when there are none. */
double exact_quantile(const std::vector<double>& sorted, double q);

/* Quantile q (0..1) of values sorted ascending by the rank cdigest_quantile
 * reads: the value at rank count * q (truncated, at least 1). A c-digest's
 * answer lies within its bucket's 1/32 of this value, where it may be far
 * from the interpolated one when few values lie far apart. NaN when there
 * are none. */
double exact_rank_quantile(const std::vector<double>& sorted, double q);

}  // namespace vxc

#endif
