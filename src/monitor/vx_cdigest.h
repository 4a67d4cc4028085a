/*
 * The c-digest: a fixed-size log-linear histogram of non-negative values.
 * Values below 64 have a bucket each; above, every power of two is cut in
 * 32 buckets, so a value's bucket follows from its top six bits and its
 * relative error stays within 1/32. An update is a shift, an add and a
 * table read; two digests merge by adding buckets; the packed form carries
 * only the buckets in use, each in the narrowest whole number of bytes.
 *
 * Packed form, little endian: a 48-byte header (bits 0-10 min_idx, 11-21
 * the buckets unused above max_idx, 22-27 the bucket width in bits, 28-31
 * flags; then value width, count width, version, 9 bytes zero, count, min,
 * max and the sum of the values), then the counts of min_idx..max_idx,
 * nothing when the count is 0. A bucket width of 64 bits does not fit its
 * six-bit field and is written as 0. Readers of a packed digest take its
 * length and refuse (NaN, 0 results, null) any header that does not
 * account for exactly that many bytes.
 *
 * A digest is not thread-safe: its owner serialises every call. The tables
 * are constant-initialised and read-only.
 */
#ifndef VX_CDIGEST_H
#define VX_CDIGEST_H

#include <cstddef>
#include <cstdint>

struct tslb_cdigest_t {
    int8_t max_value_bit; /* 32 or 64: width of the values */
    int8_t max_count_bit; /* 32 or 64: width of a bucket */
    int8_t version;       /* 1 */
    uint8_t flags;        /* 0 */
    int16_t min_idx;      /* lowest bucket in use; 32767 when empty */
    int16_t max_idx;      /* highest bucket in use; 0 when empty */
    uint64_t count;       /* values */
    double min;           /* the largest double when empty */
    double max;
    double avg;         /* the sum of the values, in spite of its name */
    uint64_t max_count; /* highest bucket count */
    uint32_t buckets[]; /* uint64_t elements when max_count_bit is 64 */
};

/* A packed digest: its bytes as tslb_cdigest_pack wrote them. */
using tslb_cdigest_packed = unsigned char;

inline constexpr int kCDigestHeaderBytes = 48;
inline constexpr int kCDigestBuckets32 = 896;  /* reachable with 32-bit values */
inline constexpr int kCDigestBuckets64 = 1920; /* reachable with 64-bit values */

extern "C" {

/* The tables need no building (they are constant-initialised); kept so
 * callers can enable the digest the same way. Safe from any thread. */
void tslb_cdigest_init_lib(void);

/* Bytes of a digest block of these widths. */
size_t tslb_cdigest_block_size(int value_max_bit, int count_max_bit);
/* Prepares a block of tslb_cdigest_block_size bytes; null for widths other
 * than 32 and 64. */
tslb_cdigest_t* tslb_init_cdigest(void* digest, int value_max_bit, int count_max_bit);
/* Allocates and prepares; null when memory runs out or for bad widths. */
tslb_cdigest_t* tslb_new_cdigest(int value_max_bit, int count_max_bit);
void tslb_free_cdigest(tslb_cdigest_t* digest);

/* Adds a value. NaN and negative values count as 0; a value past the
 * digest's value width counts as the largest it can hold. min, max and the
 * sum take the value as counted, so they agree with the buckets. */
void tslb_cdigest_update(tslb_cdigest_t* digest, double value);
/* Back to empty; widths and version stay. */
void tslb_cdigest_reset(tslb_cdigest_t* digest);

/* The size tslb_cdigest_pack will need. */
int func1(const tslb_cdigest_t* digest);
/* Packs into dest: the packed size, or -1 when out_max_sz is too small
 * (or either pointer is null). */
int tslb_cdigest_pack(const tslb_cdigest_t* digest, tslb_cdigest_packed* dest, int out_max_sz);

/* Adds src into dest: dest, or null (dest untouched) when dest is narrower
 * than src in either width. */
tslb_cdigest_t* tslb_cdigest_unpacked_merge_single(const tslb_cdigest_t* src, tslb_cdigest_t* dest);
/* Adds every digest of the array into out_digest: out_digest, or null at
 * the first that does not fit. */
tslb_cdigest_t* tslb_cdigest_unpacked_merge(tslb_cdigest_t* const* digest_arr, int num_digests,
                                            tslb_cdigest_t* out_digest);
/* Adds a packed digest of `len` bytes into dest: dest, or null for a
 * malformed packed digest or one wider than dest. */
tslb_cdigest_t* tslb_cdigest_unpacked_merge_packed(tslb_cdigest_t* dest_digest,
                                                   const tslb_cdigest_packed* src_pdigest,
                                                   size_t len);

/* The value at quantile idx of a packed digest of `len` bytes: the value of
 * the first bucket whose cumulative count reaches count * idx, not capped
 * at max. idx is clamped to 0..1 (NaN as 0). NaN when empty or malformed. */
double tslb_cdigest_get_quantile(const tslb_cdigest_packed* digest, size_t len, double idx);
/* Several quantiles, ascending, in one walk; each capped at the digest's
 * max; one below its predecessor gets the predecessor's bucket. Returns
 * idx_arr_sz; when the digest is empty or malformed every result is NaN
 * and 0 is returned. */
int tslb_cdigest_get_quantile_many(const tslb_cdigest_packed* digest, size_t len,
                                   const double* idx_arr, int idx_arr_sz, double* out_arr);
int tslb_cdigest_unpacked_get_quantile_many(const tslb_cdigest_t* digest, const double* idx_arr,
                                            int idx_arr_sz, double* out_arr);

/* One line for the trace log in the caller's buffer, always terminated:
 * "cdigest(<value bits>,<count bits>) count=N", then, when not empty,
 * " min=.. max=.. sum=.. buckets=lo..hi". The _with_buckets forms add a
 * space and "%d:%ld," per bucket in use (index, cumulative count). When the
 * buffer runs out, the text ends at the last whole piece and "...". Returns
 * buf; null (buf empty) for a null digest or a malformed packed one. */
const char* tslb_cdigest_digest_str(const tslb_cdigest_t* digest, char* buf, size_t max_buf_len);
const char* tslb_cdigest_pdigest_str(const tslb_cdigest_packed* pdigest, size_t len, char* buf,
                                     size_t max_buf_len);
const char* tslb_cdigest_digest_str_with_buckets(const tslb_cdigest_t* digest, char* buf,
                                                 size_t max_buf_len);
const char* tslb_cdigest_pdigest_str_with_buckets(const tslb_cdigest_packed* pdigest, size_t len,
                                                  char* buf, size_t max_buf_len);
}

#endif
