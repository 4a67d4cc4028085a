#include "core/vx_text.h"

#include <apr_strings.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "core/vx_trace_log.h"

extern "C" int vxlb_get_tokens_with_multi_delimiter(char* buf, char** fields, char* token,
                                                    int max_flds)
{
    if (!buf || !fields || !token || max_flds <= 0) return 0;
    int n = 0;
    char* state = nullptr;
    for (char* t = apr_strtok(buf, token, &state); t && n < max_flds;
         t = apr_strtok(nullptr, token, &state))
        fields[n++] = t;
    return n;
}

extern "C" int tokenize(char* read_buf, char** fields, char* token, int max_flds)
{
    if (!read_buf || !fields || !token || !*token || max_flds <= 0) return 0;
    const size_t tlen = strlen(token);
    int n = 0;
    char* p = read_buf;
    while (true) {
        if (n == max_flds - 1) {
            fields[n++] = p;
            if (strstr(p, token))
                VX_ERROR("CONTROL_THREAD",
                         "Total fields are more than max fields (%d), remaining fields are ignored\n",
                         max_flds);
            break;
        }
        fields[n++] = p;
        char* hit = strstr(p, token);
        if (!hit) break;
        *hit = '\0';
        p = hit + tlen;
    }
    return n;
}

extern "C" char* split_key_value(char* field, char* keyword)
{
    if (!field || !keyword) return nullptr;
    char* eq = strchr(field, '=');
    if (!eq) return nullptr;
    size_t n = static_cast<size_t>(eq - field);
    constexpr size_t kKeywordMax = 1023;
    if (n > kKeywordMax) n = kKeywordMax;
    memcpy(keyword, field, n);
    keyword[n] = '\0';
    return eq + 1;
}

extern "C" char* split(char* field)
{
    if (!field) return nullptr;
    char* eq = strchr(field, '=');
    return eq ? eq + 1 : nullptr;
}

extern "C" char* vxlb_remove_whitespaces(char* string, char* out_string, char operation,
                                         char tampering_mode)
{
    if (!string) {
        VX_ERROR("CONTROL_THREAD", "Invalid input is passed");
        return nullptr;
    }
    char* target;
    if (tampering_mode & 1) {
        if (!out_string) {
            VX_ERROR("CONTROL_THREAD", "Check 2nd and 4th argument field");
            return nullptr;
        }
        strcpy(out_string, string);
        target = out_string;
    } else if (tampering_mode & 2) {
        target = string;
    } else {
        VX_ERROR("CONTROL_THREAD", "Check 2nd and 4th argument field");
        return nullptr;
    }
    if (operation != 1 && operation != 2 && operation != 3) operation = 7;
    auto is_space = [](char c) { return isspace(static_cast<unsigned char>(c)) != 0; };
    if (operation == 7) {
        char* w = target;
        for (char* r = target; *r; ++r)
            if (!is_space(*r)) *w++ = *r;
        *w = '\0';
        return target;
    }
    if (operation & 2) {
        size_t len = strlen(target);
        while (len > 0 && is_space(target[len - 1])) target[--len] = '\0';
    }
    if (operation & 1) {
        char* r = target;
        while (*r && is_space(*r)) ++r;
        if (r != target) memmove(target, r, strlen(r) + 1);
    }
    return target;
}

extern "C" int vxlb_indexOf(char* str, int c)
{
    if (!str) return -1;
    int last = -1;
    for (int i = 0;; ++i) {
        if (static_cast<unsigned char>(str[i]) == static_cast<unsigned char>(c)) last = i + 1;
        if (str[i] == '\0') break;
    }
    return last;
}

extern "C" void vxlb_substring(char* string, int offset, int len, char* dest)
{
    if (!string || !dest || len < 0 || offset > len || offset < 0) return;
    if (static_cast<int>(strlen(string)) < len) return;
    int count = len - offset - 1;
    if (count < 0) count = 0;
    memcpy(dest, string + offset, static_cast<size_t>(count));
    dest[count] = '\0';
}

extern "C" char* vxStrRev(char* str)
{
    if (!str) return nullptr;
    size_t len = strlen(str);
    auto* out = static_cast<char*>(malloc(len + 1));
    if (!out) return nullptr;
    for (size_t i = 0; i < len; ++i) out[i] = str[len - 1 - i];
    out[len] = '\0';
    return out;
}

extern "C" int setOperationCode(char* value)
{
    static constexpr const char* kOperators[] = {
        "EQUALS", "CONTAINS", "STARTS_WITH", "ENDS_WITH", "EQ",          "NE",
        "LT",     "GT",       "LE",          "GE",        "TRUE",        "FALSE",
        "EXCEPTION", "NOT_EQUALS", "CAPTURE", "EXTRACT_SUBPART", "INVOCATION", "VALUE", "OCCURS"};
    if (!value) return -1;
    for (int i = 0; i < static_cast<int>(sizeof kOperators / sizeof kOperators[0]); ++i)
        if (strcasecmp(value, kOperators[i]) == 0) return i;
    return -1;
}

namespace vx {

size_t copy_text(char* dst, size_t cap, const char* src)
{
    if (!dst || cap == 0) return 0;
    size_t n = src ? strnlen(src, cap - 1) : 0;
    if (n) memcpy(dst, src, n);
    dst[n] = '\0';
    return n;
}

size_t put_hex(char* out, unsigned long long v)
{
    char rev[16];
    size_t n = 0;
    do {
        rev[n++] = "0123456789abcdef"[v & 15];
        v >>= 4;
    } while (v);
    for (size_t i = 0; i < n; ++i) out[i] = rev[n - 1 - i];
    out[n] = '\0';
    return n;
}

bool number_in(const char* what, const char* text, long long lo, long long hi, long long* out)
{
    const char* digits = text ? text : "";
    errno = 0;
    char* end = nullptr;
    const long long v = strtoll(digits, &end, 10);
    if (errno != ERANGE && v >= lo && v <= hi) {
        *out = v;
        return true;
    }
    VX_ERROR("CONTROL_THREAD",
             "Value '%.64s' of %s is out of range [%lld, %lld]; kept the previous value", digits,
             what ? what : "(number)", lo, hi);
    return false;
}

}  // namespace vx
