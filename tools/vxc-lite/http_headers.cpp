#include "http_headers.h"

#include <cstdint>
#include <cstdlib>
#include <fstream>

#include "record_parser.h"
#include "tsv.h"

namespace vxc {

namespace {

bool fail(std::string* error, std::string text)
{
    if (error) *error = std::move(text);
    return false;
}

/* One whole item; false when it is not of either form. */
bool parse_item(std::string_view s, CaptureItem* item)
{
    const size_t colon = s.find(':');
    if (colon == std::string_view::npos ||
        !printf_int(s.substr(0, colon), 1, INT32_MAX, &item->name_id))
        return false;
    std::string_view v = s.substr(colon + 1);
    if (!v.empty() && v.front() == '<') {
        if (v.size() < 2 || v.back() != '>') return false;
        item->value = std::string(v.substr(1, v.size() - 2));
        return true;
    }
    item->value_is_id = true;
    return printf_int(v, 1, INT32_MAX, &item->value_id);
}

/* What a cut can leave of an item: a prefix of either form. */
bool is_item_prefix(std::string_view s)
{
    size_t i = 0;
    while (i < s.size() && s[i] >= '0' && s[i] <= '9') ++i;
    if (i == s.size()) return true;
    if (i == 0 || s[i] != ':') return false;
    std::string_view v = s.substr(i + 1);
    if (!v.empty() && v.front() == '<') return true;
    for (char c : v)
        if (c < '0' || c > '9') return false;
    return true;
}

}  // namespace

int parse_capture_text(std::string_view text, std::vector<CaptureItem>* out, std::string* error)
{
    out->clear();
    if (text.size() > kCaptureTextMax)
        return fail(error, "captured text of " + std::to_string(text.size()) + " bytes, over 2047"),
               -1;
    const bool may_be_cut = text.size() == kCaptureTextMax;
    std::string_view rest = text;
    if (!rest.empty() && rest.front() == '|') rest.remove_prefix(1);
    if (rest.empty()) return 0;
    for (size_t from = 0;;) {
        const size_t bar = rest.find('|', from);
        const bool last = bar == std::string_view::npos;
        const std::string_view piece =
            rest.substr(from, last ? std::string_view::npos : bar - from);
        CaptureItem item;
        if (parse_item(piece, &item)) {
            out->push_back(std::move(item));
        } else if (!(last && may_be_cut && is_item_prefix(piece))) {
            return fail(error,
                        "captured text: bad item \"" + std::string(piece.substr(0, 60)) + "\""),
                   -1;
        }
        if (last) return 0;
        from = bar + 1;
    }
}

std::vector<std::string> header_rows(unsigned conn, int number, const std::vector<std::string>& f,
                                     const std::map<long long, std::string>& ids)
{
    std::vector<std::string> rows;
    const bool req = number == 12;
    if (f.size() != (req ? 2u : 3u)) return rows;
    std::vector<CaptureItem> items;
    if (parse_capture_text(f.back(), &items, nullptr) != 0) return rows;
    const std::string head = std::to_string(conn) + "\t" + f[0] + "\t" + (req ? "req" : "rep") +
                             "\t" + (req ? std::string("-") : f[1]) + "\t";
    auto name_of = [&](long long id) {
        const auto it = ids.find(id);
        return it == ids.end() ? std::string("-") : tsv_text(it->second);
    };
    for (const CaptureItem& i : items)
        rows.push_back(head + std::to_string(i.name_id) + "\t" + name_of(i.name_id) + "\t" +
                       (i.value_is_id ? std::to_string(i.value_id) : "-") + "\t" +
                       (i.value_is_id ? name_of(i.value_id) : tsv_text(i.value)));
    return rows;
}

std::vector<HeaderRow> read_headers(const std::string& path)
{
    std::vector<HeaderRow> out;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        const std::vector<std::string> f = tsv_fields(line);
        if (f.size() != 8 || line == kHeadersHeader) continue;
        out.push_back({static_cast<unsigned>(strtoul(f[0].c_str(), nullptr, 10)),
                       strtoll(f[1].c_str(), nullptr, 10), f[2], f[3],
                       strtoll(f[4].c_str(), nullptr, 10), f[5], f[6], f[7]});
    }
    return out;
}

}  // namespace vxc
