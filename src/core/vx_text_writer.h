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
        if (!s) return;
        const size_t n = strlen(s);
        if (len_ + 1 < cap_) {
            const size_t room = cap_ - 1 - len_;
            memcpy(out_ + len_, s, n < room ? n : room);
        }
        len_ += n;
    }
    void put(long long v) { put_digits(v, 0, false); }
    void put(int v) { put_digits(v, 0, false); }

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
    void put_digits(long long v, int width, bool pad_sign_first, bool precision = false)
    {
        char digits[24];
        auto r = std::to_chars(digits, digits + sizeof digits, v);
        const char* p = digits;
        int n = static_cast<int>(r.ptr - digits);
        const bool negative = v < 0;
        if (negative) {
            put('-');
            ++p;
            --n;
        }
        int pad = precision ? width - n : width - n - (negative && pad_sign_first ? 1 : 0);
        for (; pad > 0; --pad) put('0');
        for (; p < r.ptr; ++p) put(*p);
    }

    char* out_;
    size_t cap_;
    size_t len_ = 0;
};

}  // namespace vx

#endif
