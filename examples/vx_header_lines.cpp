#include "vx_header_lines.h"

#include <cstring>

int add_header_lines(lws* wsi, const char* lines, unsigned char** p, unsigned char* end)
{
    while (lines && *lines) {
        const char* eol = strchr(lines, '\n');
        const size_t n = eol ? static_cast<size_t>(eol - lines) : strlen(lines);
        if (n == 0) { /* an empty line adds nothing */
            lines = eol + 1;
            continue;
        }
        const char* colon = static_cast<const char*>(memchr(lines, ':', n));
        if (!colon || colon == lines) return 1;
        char name[128];
        const size_t name_len = static_cast<size_t>(colon - lines) + 1;
        if (name_len >= sizeof name) return 1;
        memcpy(name, lines, name_len);
        name[name_len] = '\0';
        const auto* value = reinterpret_cast<const unsigned char*>(colon + 1);
        if (lws_add_http_header_by_name(wsi, reinterpret_cast<const unsigned char*>(name), value,
                                        static_cast<int>(n - name_len), p, end))
            return 1;
        lines = eol ? eol + 1 : lines + n;
    }
    return 0;
}
