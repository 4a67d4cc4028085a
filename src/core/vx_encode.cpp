#include "core/vx_encode.h"

#include <libwebsockets.h>

#include <cstdlib>
#include <cstring>

namespace {

/* Copy `in` to `sb`, replacing characters by `subst(c)` (null: keep). */
template <typename Subst>
void escape_into(char* sb, int len, const char* in, Subst subst)
{
    if (!sb || len <= 0) return;
    int o = 0;
    if (in) {
        for (const char* p = in; *p; ++p) {
            if (o >= len - 2) break;
            const char* rep = subst(*p);
            if (!rep) {
                sb[o++] = *p;
                continue;
            }
            int rl = static_cast<int>(strlen(rep));
            if (o + rl > len - 2) break;
            memcpy(sb + o, rep, static_cast<size_t>(rl));
            o += rl;
        }
    }
    sb[o] = '\0';
}

}  // namespace

extern "C" void escapeURLEncoding(char* sb, int len, char* msgData)
{
    escape_into(sb, len, msgData, [](char c) -> const char* {
        switch (c) {
        case '|': return "%7C";
        case '\n': return "%A";
        case '\r': return "%D";
        case '"': return "%22";
        case '&': return "%26";
        case '\'': return "%27";
        case ',': return "%2C";
        case '.': return "%2E";
        case ':': return "%3A";
        case '\\': return "%5C";
        case '^': return "%5E";
        default: return nullptr;
        }
    });
}

extern "C" void escapeURLEncodingForHttp(char* sb, int len, char* msgData)
{
    /* All nine become the same "%2C": the receiver only needs the separators
     * gone, not the original characters back. */
    escape_into(sb, len, msgData, [](char c) -> const char* {
        switch (c) {
        case '|': case '^': case '\\': case ':': case '\n': case '\r': case '"': case '\'':
        case ',':
            return "%2C";
        default: return nullptr;
        }
    });
}

extern "C" void replaceCharacterForVXLQ(char* sb, int len, char* msgData)
{
    escape_into(sb, len, msgData, [](char c) -> const char* {
        switch (c) {
        case '\n': case '\r': return "%20";
        case '"': return "%22";
        default: return nullptr;
        }
    });
}

namespace {

const char* html_entity(char c, bool underscore)
{
    switch (c) {
    case '\n': return "&#010;";
    case '\r': return "&#013;";
    case '"': return "&#034;";
    case '&': return "&#038;";
    case '\'': return "&#039;";
    case ',': return "&#044;";
    case '.': return "&#46;";
    case ':': return "&#58;";
    case '\\': return "&#092;";
    case '^': return "&#094;";
    case '|': return "&#124;";
    case '_': return underscore ? "&#95;" : nullptr;
    default: return nullptr;
    }
}

/* Entities into `sb`, stopping when fewer than 5 bytes remain. */
template <typename Subst>
void entities_into(char* sb, int len, const char* in, Subst subst)
{
    if (!sb || len <= 0) return;
    int o = 0;
    if (in) {
        for (const char* p = in; *p && len - o >= 5; ++p) {
            const char* rep = subst(*p);
            if (!rep) {
                sb[o++] = *p;
                continue;
            }
            int rl = static_cast<int>(strlen(rep));
            if (o + rl > len - 1) break;
            memcpy(sb + o, rep, static_cast<size_t>(rl));
            o += rl;
        }
    }
    sb[o] = '\0';
}

}  // namespace

extern "C" void escapeHTML(char* sb, int len, char* msgData, int is_underscore)
{
    entities_into(sb, len, msgData, [is_underscore](char c) { return html_entity(c, is_underscore != 0); });
}

extern "C" void decodeHTML(char* sb, const char* msgData)
{
    if (!sb) return;
    size_t o = 0;
    for (const char* p = msgData; p && *p;) {
        if (p[0] == '&' && p[1] == '#') {
            int code = 0, digits = 0;
            const char* q = p + 2;
            for (; *q >= '0' && *q <= '9' && digits < 4; ++q, ++digits)
                code = code * 10 + (*q - '0');
            if (digits > 0 && *q == ';' && code >= 1 && code <= 255) {
                sb[o++] = static_cast<char>(code);
                p = q + 1;
                continue;
            }
        }
        sb[o++] = *p++;
    }
    sb[o] = '\0';
}

extern "C" void encoded_with_underscore(char* sb, int len, char* msgData)
{
    if (!sb || len <= 0) return;
    int o = 0;
    for (const char* p = msgData; p && *p; ++p) {
        const char* rep = *p == '_' ? "&#95;" : nullptr;
        const int rl = rep ? 5 : 1;
        if (o + rl > len - 1) break;
        if (rep)
            memcpy(sb + o, rep, 5);
        else
            sb[o] = *p;
        o += rl;
    }
    sb[o] = '\0';
}

extern "C" void decodeUnderscore(char* sb, int len, const char* msgData)
{
    if (!sb || len <= 0) return;
    int o = 0;
    for (const char* p = msgData; p && *p && o < len - 1;) {
        if (strncmp(p, "&#95;", 5) == 0) {
            sb[o++] = '_';
            p += 5;
        } else {
            sb[o++] = *p++;
        }
    }
    sb[o] = '\0';
}

extern "C" void DBQueryParamEncoding(char* sb, int len, char* msgData)
{
    entities_into(sb, len, msgData, [](char c) -> const char* {
        switch (c) {
        case '\t': return "&#9;";
        case ' ': return "&#032;";
        case '+': return "&#043;";
        default: return html_entity(c, true);
        }
    });
}

extern "C" char escapeURLDecoding(char* BTHeaderName, char* New_BT, int k)
{
    (void)New_BT;
    if (!BTHeaderName || k < 0) return 0;
    const char* p = BTHeaderName + k;
    struct Code {
        const char* text;
        char ch;
    };
    /* "124" is three characters long; it is tried before the two-character codes. */
    static constexpr Code kCodes[] = {{"124", '|'}, {"2C", ','}, {"2E", '.'},  {"26", '&'},
                                      {"2F", '/'}, {"39", '\''}, {"34", '"'}, {"3A", ':'},
                                      {"3D", '='}, {"5C", '\\'}, {"5E", '^'}, {"60", ' '}};
    for (const Code& c : kCodes)
        if (strncmp(p, c.text, strlen(c.text)) == 0) return c.ch;
    return 0;
}

namespace {

/* Base64 length of `n` bytes plus the terminator; 64-bit so that no length a
 * caller can pass overflows. */
long long base64_size(int n) { return (static_cast<long long>(n) + 2) / 3 * 4 + 1; }

/* libwebsockets' encoder wants one byte of room beyond the text and its
 * terminator, so callers' buffers are given that byte here. `out` holds
 * base64_size(n) + 1 bytes. */
int base64_encode(const unsigned char* in, int n, char* out, long long out_size)
{
    return lws_b64_encode_string(reinterpret_cast<const char*>(in), n, out,
                                 static_cast<int>(out_size));
}

}  // namespace

extern "C" int hblb_encode_base64_ex(unsigned char* input, int input_length, unsigned char* output,
                                     int output_size)
{
    if (!input || input_length < 0 || !output) return -1;
    const long long needed = base64_size(input_length);
    if (output_size < needed || needed + 1 > 0x7fffffff) return -1;
    if (output_size > needed) return base64_encode(input, input_length, reinterpret_cast<char*>(output), output_size);
    /* An exact-size buffer: encode with the encoder's extra byte, then copy. */
    auto* scratch = static_cast<char*>(malloc(static_cast<size_t>(needed + 1)));
    if (!scratch) return -1;
    int n = base64_encode(input, input_length, scratch, needed + 1);
    if (n >= 0) memcpy(output, scratch, static_cast<size_t>(n) + 1);
    free(scratch);
    return n;
}

extern "C" char* hblb_encode_text_to_base64(char* text_input, int text_len, int* enc_len)
{
    if (!text_input || text_len < 0) return nullptr;
    const long long cap = base64_size(text_len) + 1; /* the encoder's extra byte */
    if (cap > 0x7fffffff) return nullptr;
    auto* out = static_cast<char*>(calloc(1, static_cast<size_t>(cap)));
    if (!out) return nullptr;
    int n = base64_encode(reinterpret_cast<unsigned char*>(text_input), text_len, out, cap);
    if (n < 0) {
        free(out);
        return nullptr;
    }
    if (enc_len) *enc_len = n;
    return out;
}

extern "C" void encode_n_tag(char* sb, int len, char* msgData)
{
    if (!sb || len <= 0) return;
    int o = 0;
    for (const char* p = msgData ? msgData : ""; *p; ++p) {
        if (*p == '\n') {
            if (o + 2 >= len) break;
            sb[o++] = '%';
            sb[o++] = 'A';
        } else {
            if (o + 1 >= len) break;
            sb[o++] = *p;
        }
    }
    sb[o] = '\0';
}

extern "C" void check_and_remove_slash_n(char* ptr)
{
    if (!ptr) return;
    char* out = ptr;
    for (const char* p = ptr; *p;) {
        if (p[0] == '%' && p[1] == '4' && (p[2] == 'A' || p[2] == 'D')) {
            p += 3;
        } else if (p[0] == '\\' && (p[1] == 'n' || p[1] == 'r')) {
            p += 2;
        } else if (*p == '\n' || *p == '\r') {
            ++p;
        } else {
            *out++ = *p++;
        }
    }
    *out = '\0';
}

namespace {

struct Escape {
    char code[3];
    char c;
};

constexpr Escape kUrlEscapes[] = {
    {"2C", ','}, {"4D", '\r'}, {"4A", '\n'}, {"27", '\''}, {"22", '"'}, {"5C", '\\'},
    {"7C", '|'}, {"2E", '.'},  {"3A", ':'},  {"26", '&'},  {"5E", '^'}, {"20", ' '},
    {"3D", '='}, {"3B", ';'},  {"25", '%'},  {"3E", '>'},  {"3C", '<'}, {"2F", '/'},
};

}  // namespace

extern "C" void decodeurlencoding(char* sb, char* msgData, int deslen)
{
    if (!sb) return;
    int o = 0;
    const char* p = msgData ? msgData : "";
    for (int i = 0; i < deslen && p[i];) {
        char c = 0;
        /* Both code characters must lie inside the text and the limit. */
        if (p[i] == '%' && i + 2 < deslen && p[i + 1] && p[i + 2])
            for (const Escape& e : kUrlEscapes)
                if (p[i + 1] == e.code[0] && p[i + 2] == e.code[1]) c = e.c;
        if (c) {
            sb[o++] = c;
            i += 3;
        } else {
            sb[o++] = p[i++];
        }
    }
    sb[o] = '\0';
}

extern "C" char* decode_fun(char* str)
{
    if (!str) return nullptr;
    char* out = static_cast<char*>(malloc(strlen(str) + 1));
    if (!out) return nullptr;
    char* o = out;
    for (const char* p = str; *p;) {
        if (p[0] == '%' && p[1] == '3' && p[2] == 'D') {
            *o++ = '=';
            p += 3;
        } else if (p[0] == '%' && p[1] == '7' && p[2] == 'C') {
            *o++ = '|';
            p += 3;
        } else {
            *o++ = *p++;
        }
    }
    *o = '\0';
    return out;
}

namespace vx {

size_t exception_text_clean(const char* text, size_t limit, char* out, size_t cap)
{
    if (!out || cap == 0) return 0;
    size_t n = 0;
    if (text) n = strnlen(text, limit < cap - 1 ? limit : cap - 1);
    /* A cut inside a UTF-8 sequence would leave half a character. */
    if (text && text[n] != '\0')
        while (n > 0 && (static_cast<unsigned char>(text[n]) & 0xC0) == 0x80) --n;
    for (size_t i = 0; i < n; ++i) {
        const char c = text[i];
        out[i] = c == '\n' ? '|' : c == '\r' ? ' ' : c;
    }
    out[n] = '\0';
    return n;
}

}  // namespace vx
