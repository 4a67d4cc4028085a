/*
 * One check of the query and exception text encoders against arbitrary
 * bytes, shared by the fuzz target and the unit tests: every output stays
 * inside its buffer, is terminated, and keeps a record's framing (no raw
 * line end, comma or pipe survives a query escape; every '&' starts a
 * numeric entity; an exception text has no line end and no half character
 * at a cut).
 */
#ifndef VX_ENCODE_CHECK_H
#define VX_ENCODE_CHECK_H

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "core/vx_encode.h"

namespace vx_check {

/* The framing every escaped text keeps; `extra` lists more characters that
 * must not appear raw. */
inline bool framed(const char* s, const char* extra)
{
    for (const char* p = s; *p; ++p) {
        if (*p == '\n' || *p == '\r' || *p == ',' || *p == '|' || *p == '"' || *p == '\'') return false;
        if (strchr(extra, *p)) return false;
        if (*p == '&') {
            const char* q = p + 1;
            if (*q++ != '#') return false;
            if (*q < '0' || *q > '9') return false;
            while (*q >= '0' && *q <= '9') ++q;
            if (*q != ';') return false;
        }
    }
    return true;
}

/* Written into a buffer one byte bigger than `len`: the extra byte must
 * keep its sentinel, and a terminator must lie inside `len`. */
template <class F>
inline bool bounded(int len, F&& encode, std::vector<char>& out)
{
    out.assign(static_cast<size_t>(len) + 1, '\x7f');
    encode(out.data(), len);
    return out[static_cast<size_t>(len)] == '\x7f' && memchr(out.data(), '\0', static_cast<size_t>(len));
}

/* 0 when all encoders behave on `data`; otherwise the number of the
 * failed check. The input is copied to an exactly sized heap block so
 * that a read past its end is caught under AddressSanitizer. */
inline int check_encoders(const unsigned char* data, size_t size)
{
    if (size > 65536) size = 65536;
    char* text = static_cast<char*>(malloc(size + 1));
    if (!text) return 0;
    memcpy(text, data, size);
    text[size] = '\0';
    const int n = static_cast<int>(strlen(text));
    int failed = 0;
    std::vector<char> out;

    /* Query texts: the dictionary's buffer and a tight one. */
    for (int len : {16384, n + 1, 7, 5, 1}) {
        if (!bounded(len, [&](char* sb, int l) { escapeHTML(sb, l, text, 0); }, out)) failed = 1;
        else if (!framed(out.data(), "\\^")) failed = 2;
        if (!bounded(len, [&](char* sb, int l) { escapeHTML(sb, l, text, 1); }, out)) failed = 3;
        else if (!framed(out.data(), "_")) failed = 4;
    }
    /* Bound values: six times the text plus one holds every one of them. */
    const int cap = n * 6 + 1;
    if (!bounded(cap, [&](char* sb, int l) { DBQueryParamEncoding(sb, l, text); }, out)) failed = 5;
    else if (!framed(out.data(), "\t _+:.^\\")) failed = 6;
    else if (n > 0 && strlen(out.data()) < static_cast<size_t>(n)) failed = 7;
    /* The inverse gives the text back whenever the escape was not cut. */
    if (!failed && n > 0) {
        std::vector<char> back(out.size());
        decodeHTML(back.data(), out.data());
        if (strcmp(back.data(), text) != 0) failed = 8;
    }
    /* Exception texts: the dictionaries' cut, the message's, tiny ones. */
    for (const size_t limit : {size_t{1000}, size_t{50}, size_t{3}, size_t{0}}) {
        for (const size_t cap : {size_t{1001}, size_t{51}, size_t{4}}) {
            out.assign(cap + 1, '\x7f');
            const size_t got = vx::exception_text_clean(text, limit, out.data(), cap);
            if (out[cap] != '\x7f' || got > limit || got >= cap || out[got] != '\0') {
                failed = 11;
            } else if (memchr(out.data(), '\n', got) || memchr(out.data(), '\r', got)) {
                failed = 12;
            } else {
                for (size_t i = 0; i < got; ++i) {
                    const char want = text[i] == '\n' ? '|' : text[i] == '\r' ? ' ' : text[i];
                    if (out[i] != want) failed = 13;
                }
                /* A cut falls before a character, never inside one. */
                if (got > 0 && got < static_cast<size_t>(n) &&
                    (static_cast<unsigned char>(text[got]) & 0xC0) == 0x80)
                    failed = 14;
            }
        }
    }
    /* Decoders only shrink a text and stay terminated. */
    std::vector<char> dec(static_cast<size_t>(n) + 1);
    decodeurlencoding(dec.data(), text, n);
    if (strlen(dec.data()) > static_cast<size_t>(n)) failed = 9;
    check_and_remove_slash_n(text);
    if (strchr(text, '\n') || strchr(text, '\r')) failed = 10;
    free(text);
    return failed;
}

}  // namespace vx_check

#endif
