/*
 * Text encoders that keep comma-separated records and the correlation header
 * safe from their own separators, and Base64.
 *
 * The escape functions write into `sb` of `len` bytes, stop when the output
 * is 2 bytes from `len`, and always terminate it.
 */
#ifndef VX_ENCODE_H
#define VX_ENCODE_H

#include <cstddef>

extern "C" {

/* For text inside a comma-separated record: | LF CR " & ' , . : \ ^. */
void escapeURLEncoding(char* sb, int len, char* msgData);

/* For the BT header text at startFP: nine characters, each to "%2C". */
void escapeURLEncodingForHttp(char* sb, int len, char* msgData);

/* For log text: LF and CR to "%20", double quote to "%22". */
void replaceCharacterForVXLQ(char* sb, int len, char* msgData);

/* Decode the code after a "%" at BTHeaderName[k]; the character, or 0. */
char escapeURLDecoding(char* BTHeaderName, char* New_BT, int k);

/* Numeric entities for text entering the method and query dictionaries:
 * LF CR " & ' , . : \ ^ | (and "_" when `is_underscore`). Stops when fewer
 * than 5 bytes remain in `len`. */
void escapeHTML(char* sb, int len, char* msgData, int is_underscore);

/* The inverse of the numeric entities above: each "&#<decimal>;" of a code
 * from 1 to 255 becomes its character, in one pass (an escaped "&" does not
 * start a new entity); anything else is copied. `sb` holds at least
 * strlen(msgData) + 1 bytes: the text only shrinks. Always terminated. */
void decodeHTML(char* sb, const char* msgData);

/* escapeHTML with "_" always escaped, and tab, blank and "+" too; for bound
 * query values. `sb` holds six times the text's length plus one. */
void DBQueryParamEncoding(char* sb, int len, char* msgData);

/* For identity names in the correlation header: each "_" becomes "&#95;".
 * Stops at the first character that does not fit; always terminates. */
void encoded_with_underscore(char* sb, int len, char* msgData);
/* The reverse: each "&#95;" back to "_", into `sb` of `len` bytes (cut to
 * fit, always terminated). */
void decodeUnderscore(char* sb, int len, const char* msgData);

/* Newline becomes "%A"; into `sb` of `len` bytes, cut to fit, terminated. */
void encode_n_tag(char* sb, int len, char* msgData);
/* Removes in place "%4A", "%4D", the two-character texts \n and \r, and
 * bytes 10 and 13. */
void check_and_remove_slash_n(char* ptr);
/* Decodes the percent escapes of , CR LF ' " \ | . : & ^ blank = ; % > < /
 * in at most `deslen` characters of `msgData` into `sb` (deslen + 1 bytes);
 * unknown escapes and a '%' without two characters after it are copied. */
void decodeurlencoding(char* sb, char* msgData, int deslen);
/* A new heap string (free()) in which "%3D" is '=' and "%7C" is '|'. */
char* decode_fun(char* str);

/* Base64 (RFC 4648, padded). A new zeroed buffer (free()) and its length in
 * *enc_len; null on failure. */
char* hblb_encode_text_to_base64(char* text_input, int text_len, int* enc_len);

/* Encoded length, or -1 when `output_size` is too small. */
int hblb_encode_base64_ex(unsigned char* input, int input_length, unsigned char* output,
                          int output_size);
}

namespace vx {
/* Copy `text` into `out` (cap bytes) so it cannot break a record line:
 * '\r' becomes ' ', '\n' becomes '|', and at most `limit` bytes are kept,
 * never splitting a UTF-8 sequence. Returns the length written. For the
 * exception texts, which are a record's last field (commas stay). */
size_t exception_text_clean(const char* text, size_t limit, char* out, size_t cap);
}  // namespace vx

#endif
