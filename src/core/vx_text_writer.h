/*
 * TextWriter: formats record and token text into a fixed buffer without
 * format parsing. It behaves like snprintf bounded by the buffer: the text is
 * cut at the end and always terminated, and the full length is counted.
 *
 * Records and tokens are written on the host's threads, where a printf-style
 * call per field costs more than everything else the event does.
 */
#ifndef VX_TEXT_WRITER_H
#define VX_TEXT_WRITER_H

#include <charconv>
#include <cstddef>
#include <cstring>

namespace vx {

class TextWriter {
public:
    TextWriter(char* out, size_t cap) : out_(out), cap_(cap) {}

    void put(char c)
    {
        if (len_ + 1 < cap_) out_[len_] = c;
        ++len_;
    }
    void put(const char* s)
    {
        if (s) put_bytes(s, strlen(s));
    }
    /* A literal: its length is known when compiled. */
    template <size_t N>
    void put(const char (&s)[N])
    {
        put_bytes(s, N - 1);
    }
    void put(char* s) { put(static_cast<const char*>(s)); }
    /* `n` bytes of `s`, as far as they fit. */
    void put_bytes(const char* s, size_t n)
    {
        if (len_ + 1 < cap_) {
            const size_t room = cap_ - 1 - len_;
            memcpy(out_ + len_, s, n < room ? n : room);
        }
        len_ += n;
    }
    void put(long long v)
    {
        /* Usual case, inline: room for any number. */
        if (len_ + kMaxDigits < cap_) {
            len_ = static_cast<size_t>(std::to_chars(out_ + len_, out_ + cap_ - 1, v).ptr - out_);
            return;
        }
        put_digits(v, 0, false);
    }
    void put(int v) { put(static_cast<long long>(v)); }

    /* "%0<width>lld" */
    void put_zero_padded(long long v, int width) { put_digits(v, width, true); }
    /* "%.<digits>d": at least `digits` digits after the sign. */
    void put_min_digits(long long v, int digits) { put_digits(v, digits, false, true); }

    template <typename... Parts>
    void write(Parts... parts)
    {
        (put(parts), ...);
    }

    /* Terminate; the full length the text would have had. */
    size_t finish()
    {
        if (cap_ > 0) out_[len_ < cap_ ? len_ : cap_ - 1] = '\0';
        return len_;
    }
    /* Bytes actually in the buffer (without the terminator). */
    size_t stored() const { return len_ < cap_ ? len_ : (cap_ ? cap_ - 1 : 0); }

private:
    /* The number is built whole on the stack, sign and padding included,
     * and appended in one copy: tokens are mostly digits. */
    void put_digits(long long v, int width, bool pad_sign_first, bool precision = false)
    {
        char digits[24];
        auto r = std::to_chars(digits, digits + sizeof digits, v);
        const bool negative = v < 0;
        const char* p = negative ? digits + 1 : digits;
        const int n = static_cast<int>(r.ptr - p);
        int pad = precision ? width - n : width - n - (negative && pad_sign_first ? 1 : 0);
        if (pad <= 0) {
            put_bytes(digits, static_cast<size_t>(r.ptr - digits));
            return;
        }
        if (negative) put('-');
        for (; pad > 0; --pad) put('0');
        put_bytes(p, static_cast<size_t>(n));
    }

    static constexpr size_t kMaxDigits = 21; /* sign and 19 digits, and the terminator */
    char* out_;
    size_t cap_;
    size_t len_ = 0;
};

}  // namespace vx

#endif
