/*
 * Tokenisers and small text helpers. Tokenisers write zero bytes into their
 * input and never allocate.
 */
#ifndef VX_TEXT_H
#define VX_TEXT_H

extern "C" {

/* Split `buf` on any character of `token`; adjacent delimiters collapse and
 * empty fields vanish. At most `max_flds` fields; the count. */
int vxlb_get_tokens_with_multi_delimiter(char* buf, char** fields, char* token, int max_flds);

/* Split `read_buf` on the whole string `token`; empty fields stay. The last
 * field takes the rest when there are more than `max_flds`. The count. */
int tokenize(char* read_buf, char** fields, char* token, int max_flds);

/* The text after the first "=", or null. */
char* split(char* field);

/* Cut `field` at its first "=": the key goes to `keyword` (at least 1024
 * bytes, cut to 1023 characters) and the value is returned. Null, with
 * `keyword` untouched, when there is no "=" or an argument is null. */
char* split_key_value(char* field, char* keyword);

/* `operation`: 1 leading, 2 trailing, 3 both, 7 (or anything else) all white
 * space. `tampering_mode` bit 1 writes into `out_string`, bit 2 in place. */
char* vxlb_remove_whitespaces(char* string, char* out_string, char operation, char tampering_mode);

/* Position plus 1 of the last `c` (the terminator counts), -1 when absent. */
int vxlb_indexOf(char* str, int c);

void vxlb_substring(char* string, int offset, int len, char* dest);

/* A new reversed copy (free()), null for null. */
char* vxStrRev(char* str);

/* Rule operator number, ignoring case; -1 for an unknown word. */
int setOperationCode(char* value);
}

#include <cstddef>
#include <string_view>

namespace vx {

/* True when `text` begins with `prefix` (the way control lines are told
 * apart). */
inline bool starts_with(const char* text, const char* prefix)
{
    return std::string_view(text).starts_with(prefix);
}

/* Copy `src` (null counts as "") into `dst` of `cap` bytes, cut to fit and
 * always terminated. Returns the length copied. */
size_t copy_text(char* dst, size_t cap, const char* src);

/* "%llx" of `v` into `out`, which holds at least 17 bytes; terminated.
 * Returns the length. For ids on hot paths, where snprintf costs more than
 * the rest of the work. */
size_t put_hex(char* out, unsigned long long v);

/* The number `text` begins with, read as atoll reads it (blanks, a sign,
 * digits; no digits is 0), into *out when it lies within [lo, hi]. Otherwise,
 * and when it does not fit 64 bits, *out is left alone, an error naming
 * `what` is logged, and the result is false. Every number from the
 * collector that sizes memory, a count or a time passes here. */
bool number_in(const char* what, const char* text, long long lo, long long hi, long long* out);

}  // namespace vx

#endif
