/*
 * The merging t-digest: a compact summary of a distribution of response
 * times, kept per series by the monitors and sent whole to the collector,
 * which merges and reads it.
 *
 * One heap block holds the header and `cap` nodes: sorted, compressed
 * centroids at the front (merged_nodes), raw inserts behind them
 * (unmerged_nodes). An insert appends; when the block is full it is sorted
 * and compressed in place (merge). Memory is fixed at creation and a merge
 * neither allocates nor frees. The block is large (cap * 16 + 56 bytes,
 * about 960 kB at the defaults) but only the pages the nodes reach are ever
 * touched, so what a digest costs in memory follows what it holds.
 *
 * A digest is not thread-safe: its owner serialises every call.
 */
#ifndef VX_TDIGEST_H
#define VX_TDIGEST_H

#include <cstddef>

struct td_node {
    double mean;
    double count;
};

struct td_histogram_t {
    double delta;       /* accuracy; 0.01 by default */
    int K;              /* size; 100 by default */
    double compression; /* K / delta, or K when delta is 0 */
    int cap;            /* nodes: (int)compression * 6 + 10 */
    int merged_nodes;
    int unmerged_nodes;
    double merged_count;
    double unmerged_count;
    td_node nodes[]; /* cap elements, in the same block */
};

inline constexpr int kTDigestModeVerbose = 1; /* doubles and 32-bit counts */
inline constexpr int kTDigestModeSmall = 2;   /* float differences and varint counts */
inline constexpr size_t kTDigestHeadBytes = 16; /* mode, 1/delta, centroid count */

extern "C" {

/* A new empty digest, or null when memory runs out. */
td_histogram_t* td_new(double delta, int K);
void td_free(td_histogram_t* h);
/* Empties the digest; its parameters stay. */
void td_reset(td_histogram_t* h);

/* Adds `count` values of `mean`. A NaN mean or a count that is not above
 * 0 is not taken. Merges first when the block is full. */
void td_add(td_histogram_t* h, double mean, double count);
/* Adds all of `from` to `into` (both are merged first; `from` keeps its
 * data). */
void td_merge(td_histogram_t* into, td_histogram_t* from);
/* Sorts and compresses the unmerged nodes into the merged ones. */
void td_compress(td_histogram_t* h);

/* The value at quantile q (0..1), after a merge: 0 with no data. */
double td_value_at(td_histogram_t* h, double q);
/* The quantile of value `val`, after a merge: NaN with no data. */
double td_quantile_of(td_histogram_t* h, double val);
/* Merged plus unmerged weight, truncated. */
int td_total_count(const td_histogram_t* h);
/* Merged plus unmerged nodes. */
int td_centroid_count(const td_histogram_t* h);

/* Writes the digest (merged first) in `mode` into the malloc'd `buf` of
 * *bufmalloclen bytes, reallocating it when too small (*bufmalloclen then
 * follows). The buffer (perhaps moved), its used size in *tdgsz; null with
 * nothing written for another mode, a null digest or a null buffer, or
 * when memory runs out (`buf` then stays valid). Host byte order. */
char* td_serialize(td_histogram_t* h, int mode, char* buf, int* bufmalloclen, int* tdgsz);
/* A new digest from `len` bytes of a serialised one (K 100 when 0 is
 * given); null for a malformed or truncated input. */
td_histogram_t* td_deserialize(const char* buf, size_t len, int K);

/* The digest's text for the trace log, into `out` (at most `outLen` bytes,
 * always terminated): mode, compression, centroids, then a table of them
 * and the total count. The length written. */
int td_debug_dump_output_in_buf(const char* buf, size_t len, char* out, size_t outLen);

/* The monitors' names for the operations above. */
inline void hblb_t_digest_init(td_histogram_t** p_key, double delta, int K)
{
    *p_key = td_new(delta, K);
}
inline void hblb_t_digest_insert(td_histogram_t* p_key, double mean, int count)
{
    td_add(p_key, mean, count);
}
inline void hblb_t_digest_merge(td_histogram_t* p_key1, td_histogram_t* p_key2)
{
    td_merge(p_key1, p_key2);
}
inline double hblb_t_digest_getquantile(td_histogram_t* p_key, double quantile)
{
    return td_value_at(p_key, quantile);
}
inline void hblb_t_digest_destroy(td_histogram_t* p_key)
{
    td_free(p_key);
}
inline char* hblb_t_digest_serialize(td_histogram_t* p_key, int mode, char* buf, int* bufmalloclen,
                                     int* tdgsz)
{
    return td_serialize(p_key, mode, buf, bufmalloclen, tdgsz);
}
inline int hblb_t_digest_get_ncentroids(const td_histogram_t* p_key)
{
    return td_centroid_count(p_key);
}
inline int hblb_t_digest_get_data_count(const td_histogram_t* p_key)
{
    return td_total_count(p_key);
}
}

#endif
