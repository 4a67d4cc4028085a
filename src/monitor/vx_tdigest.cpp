#include "monitor/vx_tdigest.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr double kPi = 6.283185307179586 / 2;
constexpr double kNoMean = -999; /* value-at's "no previous node" mark */
/* A serialised digest names its compression; one that would make a block
 * of more than ~16 MB (cap * 16 bytes) is refused rather than allocated. */
constexpr double kCompressionMax = 1e6 / 6;
constexpr int kVarintMaxBytes = 5;

double compression_of(double delta, int K)
{
    return delta != 0 ? K / delta : K;
}

void merge(td_histogram_t* h)
{
    if (h->unmerged_nodes == 0) return;
    const int N = h->merged_nodes + h->unmerged_nodes;
    td_node* n = h->nodes;
    std::sort(n, n + N, [](const td_node& a, const td_node& b) { return a.mean < b.mean; });
    const double total = h->merged_count + h->unmerged_count;
    const double normalizer = h->compression / (2 * kPi * total * std::log(total));
    int cur = 0;
    double so_far = 0;
    for (int i = 1; i < N; ++i) {
        const double proposed = n[cur].count + n[i].count;
        const double q0 = so_far / total;
        const double q2 = (so_far + proposed) / total;
        const double z = proposed * normalizer;
        if (z <= q0 * (1 - q0) && z <= q2 * (1 - q2)) {
            n[cur].count += n[i].count;
            n[cur].mean += (n[i].mean - n[cur].mean) * n[i].count / n[cur].count;
        } else {
            so_far += n[cur].count;
            n[++cur] = n[i];
        }
        if (cur != i) n[i] = td_node{0, 0};
    }
    h->merged_nodes = cur + 1;
    h->merged_count = total;
    h->unmerged_nodes = 0;
    h->unmerged_count = 0;
}

double interpolate(double index, double prev_index, double next_index, double prev_mean,
                   double next_mean)
{
    const double span = next_index - prev_index;
    return next_mean * (index - prev_index) / span + prev_mean * (next_index - index) / span;
}

/* A growing output buffer over the caller's malloc'd block. */
struct Out {
    char* buf;
    int* cap;
    int len = 0;
    bool ok = true;

    void put(const void* p, int n)
    {
        if (!ok) return;
        if (len + n > *cap) {
            int grown = *cap > 0 ? *cap : 256;
            while (grown < len + n) grown *= 2;
            char* q = static_cast<char*>(realloc(buf, static_cast<size_t>(grown)));
            if (!q) {
                ok = false;
                return;
            }
            buf = q;
            *cap = grown;
        }
        memcpy(buf + len, p, static_cast<size_t>(n));
        len += n;
    }
};

/* Bounds-checked reads of a serialised digest. */
struct In {
    const char* at;
    const char* end;

    template <class T>
    bool get(T* v)
    {
        if (end - at < static_cast<long>(sizeof(T))) return false;
        memcpy(v, at, sizeof(T));
        at += sizeof(T);
        return true;
    }
    bool varint(uint32_t* v)
    {
        uint32_t r = 0;
        for (int i = 0; i < kVarintMaxBytes; ++i) {
            if (at == end) return false;
            const unsigned char b = static_cast<unsigned char>(*at++);
            r |= static_cast<uint32_t>(b & 0x7f) << (7 * i);
            if (!(b & 0x80)) {
                *v = r;
                return true;
            }
        }
        return false;
    }
};

}  // namespace

extern "C" td_histogram_t* td_new(double delta, int K)
{
    const double compression = compression_of(delta, K);
    if (!(compression > 0) || compression > kCompressionMax) return nullptr;
    const int cap = static_cast<int>(compression) * 6 + 10;
    /* calloc: pages of the node block the digest never reaches stay
     * untouched, and uncommitted. */
    auto* h = static_cast<td_histogram_t*>(
        calloc(1, sizeof(td_histogram_t) + static_cast<size_t>(cap) * sizeof(td_node)));
    if (!h) return nullptr;
    h->delta = delta;
    h->K = K;
    h->compression = compression;
    h->cap = cap;
    return h;
}

extern "C" void td_free(td_histogram_t* h)
{
    free(h);
}

extern "C" void td_reset(td_histogram_t* h)
{
    if (!h) return;
    memset(h->nodes, 0,
           static_cast<size_t>(h->merged_nodes + h->unmerged_nodes) * sizeof(td_node));
    h->merged_nodes = h->unmerged_nodes = 0;
    h->merged_count = h->unmerged_count = 0;
}

extern "C" void td_add(td_histogram_t* h, double mean, double count)
{
    /* A NaN, or an infinity that a fold would turn into one, would break
     * the sort's ordering. */
    if (!h || !std::isfinite(mean) || !(count > 0) || !std::isfinite(count)) return;
    if (h->merged_nodes + h->unmerged_nodes == h->cap) {
        merge(h);
        /* Counts so small that ln(total) is not above 0 fold nothing: the
         * value is dropped rather than written past the block. */
        if (h->merged_nodes == h->cap) return;
    }
    h->nodes[h->merged_nodes + h->unmerged_nodes] = td_node{mean, count};
    ++h->unmerged_nodes;
    h->unmerged_count += count;
}

extern "C" void td_compress(td_histogram_t* h)
{
    if (h) merge(h);
}

extern "C" void td_merge(td_histogram_t* into, td_histogram_t* from)
{
    if (!into || !from) return;
    merge(into);
    merge(from);
    for (int i = 0; i < from->merged_nodes; ++i)
        td_add(into, from->nodes[i].mean, from->nodes[i].count);
}

extern "C" double td_value_at(td_histogram_t* h, double q)
{
    if (!h) return 0;
    merge(h);
    const int n = h->merged_nodes;
    const td_node* nd = h->nodes;
    if (n == 0) return 0;
    if (n == 1) return nd[0].mean;
    if (n == 2) {
        const double d = (nd[1].mean - nd[0].mean) / 2;
        return q > 0.75 ? nd[1].mean + (4 * q - 3) * d : nd[0].mean + (4 * q - 1) * d;
    }
    const double index = (h->merged_count - 1) * q;
    double prev_mean = kNoMean, prev_index = 0;
    long long total = 0; /* the truncated sum of the counts */
    for (int i = 0; i < n; ++i) {
        const double next_index = total + (nd[i].count - 1) / 2;
        if (next_index >= index) {
            if (prev_mean == kNoMean) {
                if (next_index == prev_index) return nd[i].mean;
                if (i + 1 < n) {
                    const double next_index2 = total + nd[i].count + (nd[i + 1].count - 1) / 2;
                    prev_mean = (next_index2 * nd[i].mean - next_index * nd[i + 1].mean) /
                                (next_index2 - next_index);
                }
            }
            return interpolate(index, prev_index, next_index, prev_mean, nd[i].mean);
        }
        if (i == n - 1) {
            const double next_index2 = h->merged_count - 1;
            const double next_mean2 = (nd[i].mean * (next_index2 - prev_index) -
                                       prev_mean * (next_index2 - next_index)) /
                                      (next_index - prev_index);
            return interpolate(index, next_index, next_index2, nd[i].mean, next_mean2);
        }
        total += static_cast<long long>(nd[i].count);
        prev_mean = nd[i].mean;
        prev_index = next_index;
    }
    return nd[n - 1].mean;
}

extern "C" double td_quantile_of(td_histogram_t* h, double val)
{
    if (!h) return NAN;
    merge(h);
    const int n = h->merged_nodes;
    const td_node* nd = h->nodes;
    if (n == 0) return NAN;
    double k = 0;
    int i = 0;
    while (i < n && nd[i].mean < val) k += nd[i++].count;
    if (i == n) return 1;
    if (nd[i].mean == val) {
        double m = 0;
        for (int j = i; j < n && nd[j].mean == val; ++j) m += nd[j].count;
        return (m / 2 + k) / h->merged_count;
    }
    if (i == 0) return 0;
    const td_node& p = nd[i - 1];
    return (k - p.count / 2 +
            (val - p.mean) / ((nd[i].mean - p.mean) / (nd[i].count / 2 + p.count / 2))) /
           h->merged_count;
}

extern "C" int td_total_count(const td_histogram_t* h)
{
    return h ? static_cast<int>(h->merged_count + h->unmerged_count) : 0;
}

extern "C" int td_centroid_count(const td_histogram_t* h)
{
    return h ? h->merged_nodes + h->unmerged_nodes : 0;
}

extern "C" char* td_serialize(td_histogram_t* h, int mode, char* buf, int* bufmalloclen, int* tdgsz)
{
    if (!h || !buf || !bufmalloclen ||
        (mode != kTDigestModeVerbose && mode != kTDigestModeSmall))
        return nullptr;
    merge(h);
    const int32_t n = h->merged_nodes;
    const double inverse = h->delta != 0 ? 1 / h->delta : 100.0;
    const int32_t m = mode;
    Out out{buf, bufmalloclen};
    out.put(&m, 4);
    out.put(&inverse, 8);
    out.put(&n, 4);
    if (mode == kTDigestModeVerbose) {
        for (int i = 0; i < n; ++i) out.put(&h->nodes[i].mean, 8);
        for (int i = 0; i < n; ++i) {
            const int32_t c = static_cast<int32_t>(h->nodes[i].count);
            out.put(&c, 4);
        }
    } else {
        double previous = 0;
        for (int i = 0; i < n; ++i) {
            const float d = static_cast<float>(h->nodes[i].mean - previous);
            previous = h->nodes[i].mean;
            out.put(&d, 4);
        }
        for (int i = 0; i < n; ++i) {
            uint32_t c = static_cast<uint32_t>(h->nodes[i].count);
            unsigned char bytes[kVarintMaxBytes];
            int k = 0;
            do {
                bytes[k] = static_cast<unsigned char>(c & 0x7f);
                c >>= 7;
                if (c) bytes[k] |= 0x80;
                ++k;
            } while (c);
            out.put(bytes, k);
        }
    }
    if (!out.ok) return nullptr; /* buf (perhaps moved) is still the caller's */
    if (tdgsz) *tdgsz = out.len;
    return out.buf;
}

extern "C" td_histogram_t* td_deserialize(const char* buf, size_t len, int K)
{
    if (!buf) return nullptr;
    In in{buf, buf + len};
    int32_t mode = 0, n = 0;
    double inverse = 0;
    if (!in.get(&mode) || !in.get(&inverse) || !in.get(&n)) return nullptr;
    if ((mode != kTDigestModeVerbose && mode != kTDigestModeSmall) || n < 0 ||
        !std::isfinite(inverse) || inverse < 0)
        return nullptr;
    /* The means must fit, and each count takes at least a byte (verbose:
     * 4): a count the input cannot hold is refused before anything is
     * allocated. */
    const size_t meanBytes = mode == kTDigestModeVerbose ? 8 : 4;
    const size_t countMin = mode == kTDigestModeVerbose ? 4 : 1;
    if (static_cast<size_t>(n) > (len - kTDigestHeadBytes) / (meanBytes + countMin)) return nullptr;
    td_histogram_t* h = td_new(inverse != 0 ? 1 / inverse : 0.01, K ? K : 100);
    if (!h) return nullptr;
    In ms{in.at, in.at + static_cast<size_t>(n) * meanBytes};
    In counts{ms.end, in.end};
    double running = 0;
    for (int i = 0; i < n; ++i) {
        double mean = 0;
        uint32_t count = 0;
        bool ok;
        if (mode == kTDigestModeVerbose) {
            int32_t c = 0;
            ok = ms.get(&mean) && counts.get(&c) && c >= 0;
            count = static_cast<uint32_t>(c);
        } else {
            float d = 0;
            ok = ms.get(&d) && counts.varint(&count);
            mean = running += d;
        }
        if (!ok || !std::isfinite(mean)) {
            td_free(h); /* truncated or malformed */
            return nullptr;
        }
        td_add(h, mean, count);
    }
    return h;
}

extern "C" int td_debug_dump_output_in_buf(const char* buf, size_t len, char* out, size_t outLen)
{
    if (!out || outLen == 0) return 0;
    out[0] = '\0';
    if (!buf || len < kTDigestHeadBytes) return 0;
    int32_t mode, n;
    double compression;
    memcpy(&mode, buf, 4);
    memcpy(&compression, buf + 4, 8);
    memcpy(&n, buf + 12, 4);
    td_histogram_t* h = td_deserialize(buf, len, 0);
    if (!h) return 0;
    td_compress(h);
    size_t used = 0;
    auto add = [&](const char* fmt, auto... args) {
        if (used >= outLen) return;
        const int w = snprintf(out + used, outLen - used, fmt, args...);
        if (w > 0) used = std::min(outLen - 1, used + static_cast<size_t>(w));
    };
    add("Mode = %d, ", mode);
    add("Compression = %f, ", compression);
    add("Num Centroids = %d\n", n);
    add("%s\n", "Centroid# |    Mean    |  Count");
    for (int i = 0; i < h->merged_nodes; ++i)
        add("%9d | %10f | %4d\n", i, h->nodes[i].mean, static_cast<int>(h->nodes[i].count));
    add("Total data count = %d\n", td_total_count(h));
    td_free(h);
    return static_cast<int>(used);
}
