#include "agent/vx_tag_encoding.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "agent/vx_instance.h"

extern "C" void EncodeTagsandAttributes(char* str)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !str) return;
    const int* map = app->VXSys.arTagEncode;
    for (unsigned char* p = reinterpret_cast<unsigned char*>(str); *p; ++p)
        if (map[*p] > 0 && map[*p] < 256) *p = static_cast<unsigned char>(map[*p]);
}

extern "C" void swapTags(char** a, char** b)
{
    char* t = *a;
    *a = *b;
    *b = t;
}

extern "C" void sortTags(char** k, char** v, int len)
{
    /* Few pairs (at most 128): a plain exchange sort, stable for keys that
     * agree over the shorter length. */
    for (int i = 0; i < len; ++i)
        for (int j = 0; j + 1 < len - i; ++j) {
            const size_t n = std::min(strlen(k[j]), strlen(k[j + 1]));
            if (strncmp(k[j], k[j + 1], n) > 0) {
                swapTags(&k[j], &k[j + 1]);
                swapTags(&v[j], &v[j + 1]);
            }
        }
}

namespace {

void json_string(std::string& out, const char* s)
{
    out += '"';
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(s); *p; ++p) {
        if (*p == '"' || *p == '\\') {
            out += '\\';
            out += static_cast<char>(*p);
        } else if (*p < 0x20) {
            char u[8];
            snprintf(u, sizeof u, "\\u%04x", *p);
            out += u;
        } else {
            out += static_cast<char>(*p);
        }
    }
    out += '"';
}

}  // namespace

void vx::tag_pairs_to_json(std::string& out, char* const* keys, char* const* values, int n)
{
    out += '{';
    bool first = true;
    for (int i = 0; i < n; ++i) {
        bool later = false;
        for (int j = i + 1; j < n && !later; ++j) later = strcmp(keys[i], keys[j]) == 0;
        bool earlier = false;
        for (int j = 0; j < i && !earlier; ++j) earlier = strcmp(keys[i], keys[j]) == 0;
        if (earlier) continue;
        /* A key met again keeps its first place and takes the last value. */
        const char* value = values[i];
        if (later)
            for (int j = i + 1; j < n; ++j)
                if (strcmp(keys[i], keys[j]) == 0) value = values[j];
        if (!first) out += ',';
        first = false;
        json_string(out, keys[i]);
        out += ':';
        json_string(out, value);
    }
    out += '}';
}
