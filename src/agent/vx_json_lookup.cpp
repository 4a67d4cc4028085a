#include "agent/vx_json_lookup.h"

#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr int kDepthMax = 32;

struct Reader {
    const char* p;
    const char* end;

    void ws()
    {
        while (p < end && (*p == ' ' || *p == '\t' || *p == '\n' || *p == '\r')) ++p;
    }
    bool eat(char c)
    {
        ws();
        if (p < end && *p == c) {
            ++p;
            return true;
        }
        return false;
    }
    /* A string after its opening quote, unescaped into `s`. */
    bool string(std::string& s)
    {
        s.clear();
        while (p < end && *p != '"') {
            char c = *p++;
            if (c == '\\') {
                if (p >= end) return false;
                c = *p++;
                switch (c) {
                    case 'n':
                        c = '\n';
                        break;
                    case 't':
                        c = '\t';
                        break;
                    case 'r':
                        c = '\r';
                        break;
                    case 'b':
                        c = '\b';
                        break;
                    case 'f':
                        c = '\f';
                        break;
                    case 'u': {
                        if (end - p < 4) return false;
                        const unsigned long u = strtoul(std::string(p, 4).c_str(), nullptr, 16);
                        p += 4;
                        c = u < 0x80 ? static_cast<char>(u) : '?';
                        break;
                    }
                    default:
                        break; /* '"', '\\', '/' stand for themselves */
                }
            }
            s += c;
        }
        if (p >= end) return false;
        ++p;
        return true;
    }
    /* Skips any value; false when malformed. */
    bool skip(int depth)
    {
        ws();
        if (p >= end || depth > kDepthMax) return false;
        std::string s;
        if (*p == '"') {
            ++p;
            return string(s);
        }
        if (*p == '{' || *p == '[') {
            const char close = *p == '{' ? '}' : ']';
            const bool object = *p == '{';
            ++p;
            if (eat(close)) return true;
            do {
                if (object && (!eat('"') || !string(s) || !eat(':'))) return false;
                if (!skip(depth + 1)) return false;
            } while (eat(','));
            return eat(close);
        }
        const char* start = p;
        while (p < end && !strchr(",}] \t\r\n", *p)) ++p;
        return p > start;
    }
};

}  // namespace

int vx::json_lookup(const char* text, size_t len, const char* path, char* out, size_t cap)
{
    if (!text || !path || !*path || !out || cap == 0) return -1;
    out[0] = '\0';
    Reader r{text, text + len};
    std::string key, wanted;
    const char* seg = path;
    for (int depth = 0; depth <= kDepthMax; ++depth) {
        const char* dot = strchr(seg, '.');
        wanted.assign(seg, dot ? static_cast<size_t>(dot - seg) : strlen(seg));
        if (!r.eat('{')) return -1;
        bool found = false;
        if (!r.eat('}')) {
            do {
                if (!r.eat('"') || !r.string(key) || !r.eat(':')) return -1;
                if (key == wanted) {
                    found = true;
                    break;
                }
                if (!r.skip(depth + 1)) return -1;
            } while (r.eat(','));
        }
        if (!found) return -1;
        if (dot) {
            seg = dot + 1;
            continue;
        }
        r.ws();
        if (r.p >= r.end) return -1;
        std::string value;
        if (*r.p == '"') {
            ++r.p;
            if (!r.string(value)) return -1;
        } else {
            const char* start = r.p;
            if (*start == '{' || *start == '[') return -1;
            while (r.p < r.end && !strchr(",}] \t\r\n", *r.p)) ++r.p;
            value.assign(start, r.p);
            if (value.empty() || value == "null") return -1;
        }
        const size_t n = value.size() < cap - 1 ? value.size() : cap - 1;
        memcpy(out, value.data(), n);
        out[n] = '\0';
        return 0;
    }
    return -1;
}
