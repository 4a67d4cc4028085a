/*
 * The c-digest: buckets, the packed form and its readers. Every reader of a
 * packed digest checks its header against the length it was given before it
 * touches a bucket, so a damaged or hostile packing yields NaN, 0 or null.
 */
#include "monitor/vx_cdigest.h"

#include <array>
#include <bit>
#include <cfloat>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace {

constexpr double DBL_NAN = std::numeric_limits<double>::quiet_NaN();
constexpr int kEmptyMinIdx = 32767;

/* baseOffset[s]: the first bucket of values whose bit length is s + 6. */
constexpr std::array<uint16_t, 59> kBaseOffset = [] {
    std::array<uint16_t, 59> t{};
    t[0] = 0;
    t[1] = 64;
    for (int s = 2; s < 59; ++s) t[s] = static_cast<uint16_t>(t[s - 1] + 32);
    return t;
}();

/* slotValue[i]: the value bucket i stands for, the centre of its range. */
constexpr std::array<double, kCDigestBuckets64> kSlotValue = [] {
    std::array<double, kCDigestBuckets64> t{};
    for (int i = 0; i < 64; ++i) t[i] = i;
    for (int b = 7; b <= 64; ++b) {
        const uint64_t w = uint64_t{1} << (b - 6);
        for (int j = 0; j < 32; ++j) {
            const uint64_t v = (uint64_t{1} << (b - 1)) + j * w + (w - 1) / 2;
            t[(b - 5) * 32 + j] = static_cast<double>(v);
        }
    }
    return t;
}();

static_assert(kSlotValue[64] == 64 && kSlotValue[96] == 129 && kBaseOffset[58] == 1888);

/* The largest doubles that still truncate into 32 and 64 bits. */
constexpr double kTop32 = 4294967295.0;
constexpr double kTop64 = 0x1p64 - 0x1p11;

inline int reach_of(int value_bit)
{
    return value_bit == 64 ? kCDigestBuckets64 : kCDigestBuckets32;
}
inline bool width_ok(int bit)
{
    return bit == 32 || bit == 64;
}

inline int bucket_of(uint64_t v)
{
    if (v < 64) return static_cast<int>(v);
    const int s = 64 - std::countl_zero(v) - 6;
    return kBaseOffset[s] + static_cast<int>((v >> s) & 31);
}

/* Buckets go through memcpy: the member is declared uint32_t[] but holds
 * uint64_t elements for 64-bit counts. */
inline uint64_t get_bucket(const tslb_cdigest_t* d, int i)
{
    const auto* base = reinterpret_cast<const unsigned char*>(d->buckets);
    if (d->max_count_bit == 64) {
        uint64_t n;
        std::memcpy(&n, base + i * 8, 8);
        return n;
    }
    uint32_t n;
    std::memcpy(&n, base + i * 4, 4);
    return n;
}

/* Stores n in the element width (a 32-bit bucket wraps) and gives back what
 * was stored, so max_count follows the bucket as it really is. */
inline uint64_t set_bucket(tslb_cdigest_t* d, int i, uint64_t n)
{
    auto* base = reinterpret_cast<unsigned char*>(d->buckets);
    if (d->max_count_bit == 64) {
        std::memcpy(base + i * 8, &n, 8);
        return n;
    }
    const uint32_t m = static_cast<uint32_t>(n);
    std::memcpy(base + i * 4, &m, 4);
    return m;
}

uint64_t load_le(const unsigned char* p, int bytes)
{
    uint64_t v = 0;
    for (int k = bytes - 1; k >= 0; --k) v = (v << 8) | p[k];
    return v;
}

void store_le(unsigned char* p, uint64_t v, int bytes)
{
    for (int k = 0; k < bytes; ++k) p[k] = static_cast<unsigned char>(v >> (8 * k));
}

/* Either form of a digest, as the readers walk it. lo > hi when empty. */
struct View {
    int value_bit = 0;
    int count_bit = 0;
    uint64_t count = 0;
    double min = 0, max = 0, sum = 0;
    int lo = 1, hi = 0;
    const tslb_cdigest_t* digest = nullptr; /* unpacked */
    const unsigned char* data = nullptr;    /* packed: the count of bucket lo */
    int bytes = 0;                          /* packed: width of a count */

    uint64_t at(int i) const
    {
        return digest ? get_bucket(digest, i)
                      : load_le(data + static_cast<size_t>(i - lo) * bytes, bytes);
    }
};

View view_of(const tslb_cdigest_t* d)
{
    View v;
    v.value_bit = d->max_value_bit;
    v.count_bit = d->max_count_bit;
    v.count = d->count;
    v.min = d->min;
    v.max = d->max;
    v.sum = d->avg;
    if (d->count != 0) {
        v.lo = d->min_idx;
        v.hi = d->max_idx;
    }
    v.digest = d;
    return v;
}

/* Trusts nothing in the header: false unless every bucket it announces lies
 * within len. */
bool parse_packed(const unsigned char* p, size_t len, View* v)
{
    if (!p || len < static_cast<size_t>(kCDigestHeaderBytes)) return false;
    const uint32_t word = static_cast<uint32_t>(load_le(p, 4));
    const int lz = word & 0x7ff;
    const int tz = (word >> 11) & 0x7ff;
    int bits = (word >> 22) & 63;
    if (bits == 0) bits = 64; /* 64 does not fit the six-bit field; pack writes it as 0 */
    v->value_bit = p[4];
    v->count_bit = p[5];
    if (!width_ok(v->value_bit) || !width_ok(v->count_bit) || p[6] != 1) return false;
    v->count = load_le(p + 16, 8);
    v->min = std::bit_cast<double>(load_le(p + 24, 8));
    v->max = std::bit_cast<double>(load_le(p + 32, 8));
    v->sum = std::bit_cast<double>(load_le(p + 40, 8));
    if (v->count == 0) return len == static_cast<size_t>(kCDigestHeaderBytes);
    const int reach = reach_of(v->value_bit);
    if (bits % 8 != 0 || bits > v->count_bit || lz > reach - 1 || tz > reach - 1 - lz) return false;
    v->lo = lz;
    v->hi = reach - 1 - tz;
    v->bytes = bits / 8;
    v->data = p + kCDigestHeaderBytes;
    return len == kCDigestHeaderBytes + static_cast<size_t>(v->bytes) * (v->hi - v->lo + 1);
}

/* Merges any view into dest once the widths allow it. */
tslb_cdigest_t* merge_view(const View& s, tslb_cdigest_t* d)
{
    if (d->max_count_bit < s.count_bit || d->max_value_bit < s.value_bit) return nullptr;
    if (s.count == 0) return d;
    if (s.lo < d->min_idx) d->min_idx = static_cast<int16_t>(s.lo);
    if (s.hi > d->max_idx) d->max_idx = static_cast<int16_t>(s.hi);
    if (s.min < d->min) d->min = s.min;
    if (s.max > d->max) d->max = s.max;
    d->avg += s.sum;
    d->count += s.count;
    for (int i = s.lo; i <= s.hi; ++i) {
        const uint64_t n = s.at(i);
        if (n == 0) continue;
        const uint64_t now = set_bucket(d, i, get_bucket(d, i) + n);
        if (now > d->max_count) d->max_count = now;
    }
    return d;
}

/* One walk for ascending quantiles. A quantile is clamped to 0..1 so its
 * target never passes count; one below its predecessor gets the
 * predecessor's bucket. A walk that runs through (counts that add up to
 * less than count) stops at the top bucket in range. */
int walk_quantiles(const View& v, const double* idx, int n, double* out, bool cap)
{
    if (!idx || !out || n <= 0) return 0;
    if (v.count == 0 || v.lo > v.hi) {
        for (int k = 0; k < n; ++k) out[k] = DBL_NAN;
        return 0;
    }
    int i = v.lo;
    uint64_t cum = v.at(i);
    for (int k = 0; k < n; ++k) {
        double q = idx[k];
        if (!(q > 0)) q = 0;
        if (q > 1) q = 1;
        const double t = static_cast<double>(v.count) * q;
        uint64_t target = t >= 0x1p64 ? v.count : static_cast<uint64_t>(t);
        if (target > v.count) target = v.count;
        while (cum < target && i < v.hi) cum += v.at(++i);
        out[k] = kSlotValue[i];
        if (cap && out[k] > v.max) out[k] = v.max;
    }
    return n;
}

/* Appends whole pieces to a caller's buffer, never past its end. When a
 * piece does not fit, the text is cut back to the last piece that leaves
 * room for "..." and ends there. */
struct Text {
    char* buf;
    size_t cap;
    size_t len = 0;
    size_t safe = 0;
    bool full = false;

    __attribute__((format(printf, 2, 3))) void add(const char* fmt, ...)
    {
        if (full) return;
        va_list ap;
        va_start(ap, fmt);
        const int w = std::vsnprintf(buf + len, cap - len, fmt, ap);
        va_end(ap);
        if (w >= 0 && static_cast<size_t>(w) < cap - len) {
            len += w;
            if (len + 4 <= cap) safe = len;
            return;
        }
        full = true;
        if (cap >= 4) {
            std::memcpy(buf + safe, "...", 4);
            len = safe + 3;
        } else {
            buf[len] = '\0';
        }
    }
};

const char* describe(const View* v, char* buf, size_t max_buf_len, bool with_buckets)
{
    if (!buf || max_buf_len == 0) return nullptr;
    buf[0] = '\0';
    if (!v) return nullptr;
    Text t{buf, max_buf_len};
    t.add("cdigest(%d,%d) count=%" PRIu64, v->value_bit, v->count_bit, v->count);
    if (v->count != 0)
        t.add(" min=%.17g max=%.17g sum=%.17g buckets=%d..%d", v->min, v->max, v->sum, v->lo,
              v->hi);
    if (with_buckets && v->count != 0) {
        t.add(" ");
        uint64_t cum = 0;
        for (int i = v->lo; i <= v->hi && !t.full; ++i) {
            const uint64_t n = v->at(i);
            if (n == 0) continue;
            cum += n;
            t.add("%d:%ld,", i, static_cast<long>(cum));
        }
    }
    return buf;
}

}  // namespace

extern "C" {

/* The tables are constant-initialised, so they exist before any caller
 * runs; nothing is left to build here. */
void tslb_cdigest_init_lib(void) {}

size_t tslb_cdigest_block_size(int value_max_bit, int count_max_bit)
{
    if (!width_ok(value_max_bit) || !width_ok(count_max_bit)) return 0;
    return static_cast<size_t>(value_max_bit) * count_max_bit * 32 + 52;
}

tslb_cdigest_t* tslb_init_cdigest(void* digest, int value_max_bit, int count_max_bit)
{
    if (!digest || !width_ok(value_max_bit) || !width_ok(count_max_bit)) return nullptr;
    std::memset(digest, 0, tslb_cdigest_block_size(value_max_bit, count_max_bit));
    auto* d = static_cast<tslb_cdigest_t*>(digest);
    d->max_value_bit = static_cast<int8_t>(value_max_bit);
    d->max_count_bit = static_cast<int8_t>(count_max_bit);
    d->version = 1;
    d->min_idx = kEmptyMinIdx;
    d->min = DBL_MAX;
    return d;
}

tslb_cdigest_t* tslb_new_cdigest(int value_max_bit, int count_max_bit)
{
    const size_t sz = tslb_cdigest_block_size(value_max_bit, count_max_bit);
    if (sz == 0) return nullptr;
    void* p = std::malloc(sz);
    return p ? tslb_init_cdigest(p, value_max_bit, count_max_bit) : nullptr;
}

void tslb_free_cdigest(tslb_cdigest_t* digest)
{
    std::free(digest);
}

void tslb_cdigest_update(tslb_cdigest_t* d, double value)
{
    if (!d) return;
    /* Clamped before the truncation, which is undefined for NaN, negatives
     * and values past 64 bits; min, max and sum take the clamped value so
     * the header agrees with the buckets. */
    const double top = d->max_value_bit == 64 ? kTop64 : kTop32;
    if (!(value >= 0)) value = 0;
    if (value > top) value = top;
    const int i = bucket_of(static_cast<uint64_t>(value));
    const uint64_t n = set_bucket(d, i, get_bucket(d, i) + 1);
    if (n > d->max_count) d->max_count = n;
    if (value < d->min) d->min = value;
    if (value > d->max) d->max = value;
    d->avg += value;
    d->count++;
    if (i < d->min_idx) d->min_idx = static_cast<int16_t>(i);
    if (i > d->max_idx) d->max_idx = static_cast<int16_t>(i);
}

void tslb_cdigest_reset(tslb_cdigest_t* d)
{
    if (!d) return;
    /* Buckets outside min_idx..max_idx are zero already; clearing only the
     * range keeps a reset of a narrow digest cheap. */
    if (d->count != 0 && d->min_idx <= d->max_idx) {
        const int w = d->max_count_bit / 8;
        std::memset(reinterpret_cast<unsigned char*>(d->buckets) + d->min_idx * w, 0,
                    static_cast<size_t>(d->max_idx - d->min_idx + 1) * w);
    }
    d->max_idx = 0;
    d->count = 0;
    d->max = 0;
    d->avg = 0;
    d->max_count = 0;
    d->min = DBL_MAX;
    d->min_idx = kEmptyMinIdx;
}

int func1(const tslb_cdigest_t* d)
{
    if (!d) return -1;
    const int bits = d->max_count == 0 ? 1 : 64 - std::countl_zero(d->max_count);
    const int bytes = (bits + 7) / 8;
    return kCDigestHeaderBytes + (d->count != 0 ? bytes * (d->max_idx - d->min_idx + 1) : 0);
}

int tslb_cdigest_pack(const tslb_cdigest_t* d, tslb_cdigest_packed* dest, int out_max_sz)
{
    if (!d || !dest) return -1;
    const int need = func1(d);
    if (out_max_sz < need) return -1;
    const int bits = d->max_count == 0 ? 1 : 64 - std::countl_zero(d->max_count);
    const int bytes = (bits + 7) / 8;
    const uint32_t tz = static_cast<uint32_t>(reach_of(d->max_value_bit) - 1 - d->max_idx);
    const uint32_t word = (static_cast<uint32_t>(d->min_idx) & 0x7ff) | ((tz & 0x7ff) << 11) |
                          (static_cast<uint32_t>((bytes * 8) & 63) << 22) |
                          (static_cast<uint32_t>(d->flags & 15) << 28);
    std::memset(dest, 0, kCDigestHeaderBytes);
    store_le(dest, word, 4);
    dest[4] = static_cast<unsigned char>(d->max_value_bit);
    dest[5] = static_cast<unsigned char>(d->max_count_bit);
    dest[6] = static_cast<unsigned char>(d->version);
    store_le(dest + 16, d->count, 8);
    store_le(dest + 24, std::bit_cast<uint64_t>(d->min), 8);
    store_le(dest + 32, std::bit_cast<uint64_t>(d->max), 8);
    store_le(dest + 40, std::bit_cast<uint64_t>(d->avg), 8);
    if (d->count == 0) return need;
    unsigned char* p = dest + kCDigestHeaderBytes;
    for (int i = d->min_idx; i <= d->max_idx; ++i, p += bytes) store_le(p, get_bucket(d, i), bytes);
    return need;
}

tslb_cdigest_t* tslb_cdigest_unpacked_merge_single(const tslb_cdigest_t* src, tslb_cdigest_t* dest)
{
    if (!src || !dest) return nullptr;
    return merge_view(view_of(src), dest);
}

tslb_cdigest_t* tslb_cdigest_unpacked_merge(tslb_cdigest_t* const* digest_arr, int num_digests,
                                            tslb_cdigest_t* out_digest)
{
    if (!out_digest || (num_digests > 0 && !digest_arr)) return nullptr;
    for (int k = 0; k < num_digests; ++k) {
        if (!tslb_cdigest_unpacked_merge_single(digest_arr[k], out_digest)) return nullptr;
    }
    return out_digest;
}

tslb_cdigest_t* tslb_cdigest_unpacked_merge_packed(tslb_cdigest_t* dest_digest,
                                                   const tslb_cdigest_packed* src_pdigest,
                                                   size_t len)
{
    View v;
    if (!dest_digest || !parse_packed(src_pdigest, len, &v)) return nullptr;
    return merge_view(v, dest_digest);
}

double tslb_cdigest_get_quantile(const tslb_cdigest_packed* digest, size_t len, double idx)
{
    View v;
    double out = DBL_NAN;
    if (parse_packed(digest, len, &v)) walk_quantiles(v, &idx, 1, &out, false);
    return out;
}

int tslb_cdigest_get_quantile_many(const tslb_cdigest_packed* digest, size_t len,
                                   const double* idx_arr, int idx_arr_sz, double* out_arr)
{
    View v;
    if (!parse_packed(digest, len, &v)) v.count = 0; /* all NaN */
    return walk_quantiles(v, idx_arr, idx_arr_sz, out_arr, true);
}

int tslb_cdigest_unpacked_get_quantile_many(const tslb_cdigest_t* digest, const double* idx_arr,
                                            int idx_arr_sz, double* out_arr)
{
    View v;
    if (digest) v = view_of(digest);
    return walk_quantiles(v, idx_arr, idx_arr_sz, out_arr, true);
}

const char* tslb_cdigest_digest_str(const tslb_cdigest_t* digest, char* buf, size_t max_buf_len)
{
    const View v = digest ? view_of(digest) : View{};
    return describe(digest ? &v : nullptr, buf, max_buf_len, false);
}

const char* tslb_cdigest_pdigest_str(const tslb_cdigest_packed* pdigest, size_t len, char* buf,
                                     size_t max_buf_len)
{
    View v;
    const bool ok = parse_packed(pdigest, len, &v);
    return describe(ok ? &v : nullptr, buf, max_buf_len, false);
}

const char* tslb_cdigest_digest_str_with_buckets(const tslb_cdigest_t* digest, char* buf,
                                                 size_t max_buf_len)
{
    const View v = digest ? view_of(digest) : View{};
    return describe(digest ? &v : nullptr, buf, max_buf_len, true);
}

const char* tslb_cdigest_pdigest_str_with_buckets(const tslb_cdigest_packed* pdigest, size_t len,
                                                  char* buf, size_t max_buf_len)
{
    View v;
    const bool ok = parse_packed(pdigest, len, &v);
    return describe(ok ? &v : nullptr, buf, max_buf_len, true);
}
}
