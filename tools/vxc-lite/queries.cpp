#include "queries.h"

#include <climits>
#include <cstdlib>
#include <fstream>

#include "record_parser.h"
#include "tsv.h"

namespace vxc {

namespace {

/* The agent sends these itself, before any other, with fpi 0. */
constexpr std::string_view kFixedQueries[kLastFixedQueryId] = {
    "Unknown", "XA TRANSACTION START", "XA TRANSACTION COMMIT", "XA TRANSACTION END",
    "XA TRANSACTION ROLLBACK"};

/* What the agent's escaping writes for a query; the underscore is not
 * escaped in query texts, so "&#95;" is not among them. */
constexpr std::string_view kEntities[] = {"&#010;", "&#013;", "&#034;", "&#038;",
                                          "&#039;", "&#044;", "&#46;",  "&#58;",
                                          "&#092;", "&#094;", "&#124;"};
constexpr std::string_view kEscapedChars = "\n\r\"&',.:\\^|";

constexpr std::string_view kCutMark = "...";

bool fail(std::string* error, std::string text)
{
    if (error) *error = std::move(text);
    return false;
}

int reject(std::string* error, std::string text)
{
    fail(error, std::move(text));
    return -1;
}

/* The text is what the agent's escaping can write: no character of the
 * escape table raw, every '&' the start of one of its entities. A cut text
 * (without its "...") may end inside an entity. */
bool check_escaped(std::string_view text, bool cut, std::string* error)
{
    for (size_t i = 0; i < text.size();) {
        const std::string_view rest = text.substr(i);
        if (text[i] != '&') {
            if (kEscapedChars.find(text[i]) != std::string_view::npos)
                return fail(error, "record 22: raw '" + std::string(1, text[i]) + "' at byte " +
                                       std::to_string(i) +
                                       " of the query, which the agent escapes");
            ++i;
            continue;
        }
        size_t len = 0;
        bool prefix = false;
        for (std::string_view e : kEntities) {
            if (rest.substr(0, e.size()) == e) len = e.size();
            prefix = prefix || (rest.size() < e.size() && e.substr(0, rest.size()) == rest);
        }
        if (len == 0 && !(cut && prefix))
            return fail(error, "record 22: '&' at byte " + std::to_string(i) +
                                   " of the query begins no entity of the escape table");
        i += len == 0 ? rest.size() : len;
    }
    return true;
}

}  // namespace

int parse_query_record(const std::vector<std::string>& f, QueryRecord* out, std::string* error)
{
    /* The text is escaped, so it holds no comma: the field count is exact. */
    if (f.size() != 3)
        return reject(error, "record 22 has " + std::to_string(f.size() + 1) +
                                 " fields, needs 4 (a comma in the query travels as &#044;)");
    QueryRecord q;
    if (!printf_int(f[0], 0, LLONG_MAX, &q.fpi))
        return reject(error, "record 22: bad flowpath instance");
    if (!printf_int(f[1], 1, LLONG_MAX, &q.id))
        return reject(error, "record 22: query id is not from 1");
    if (f[2].empty()) return reject(error, "record 22: empty query");
    const size_t line = 3 + f[0].size() + 1 + f[1].size() + 1 + f[2].size();
    q.cut = line == kQueryLineMax;
    if (line > kQueryLineMax - 4 && !q.cut)
        return reject(error, "record 22 of " + std::to_string(line) +
                                 " bytes: the agent cuts a longer one to " +
                                 std::to_string(kQueryLineMax) + " bytes ending in \"...\"");
    std::string_view text = f[2];
    if (q.cut) {
        if (text.size() < kCutMark.size() || text.substr(text.size() - kCutMark.size()) != kCutMark)
            return reject(error, "record 22: a cut query does not end in \"...\"");
        text.remove_suffix(kCutMark.size());
    }
    if (!check_escaped(text, q.cut, error)) return -1;
    if (q.id <= kLastFixedQueryId && (q.fpi != 0 || f[2] != kFixedQueries[q.id - 1]))
        return reject(error, "record 22: id " + std::to_string(q.id) +
                                 " must be the fixed query \"" +
                                 std::string(kFixedQueries[q.id - 1]) + "\" with flowpath 0");
    q.text = f[2];
    if (out) *out = std::move(q);
    return 0;
}

std::string decode_entities(std::string_view text)
{
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size();) {
        if (text[i] == '&' && i + 1 < text.size() && text[i + 1] == '#') {
            size_t j = i + 2;
            int code = 0;
            while (j < text.size() && j < i + 5 && text[j] >= '0' && text[j] <= '9')
                code = code * 10 + (text[j++] - '0');
            if (j > i + 2 && j < text.size() && text[j] == ';' && code >= 1 && code <= 255) {
                out += static_cast<char>(code);
                i = j + 1;
                continue;
            }
        }
        out += text[i++];
    }
    return out;
}

QueryTable::Verdict QueryTable::add(const QueryRecord& q)
{
    const auto id = by_id_.find(q.id);
    if (id != by_id_.end()) return *id->second == q.text ? Verdict::Repeated : Verdict::IdReused;
    if (by_text_.count(q.text)) return Verdict::TextReused;
    if (by_id_.size() >= kMaxKept || bytes_ + q.text.size() > kMaxBytes) {
        ++dropped_;
        return Verdict::New;
    }
    /* Keys of a map stay where they are: by_id_ points at by_text_'s. */
    const auto text = by_text_.emplace(q.text, q.id).first;
    by_id_.emplace(q.id, &text->first);
    bytes_ += q.text.size();
    return Verdict::New;
}

std::string query_row(unsigned conn, const QueryRecord& q)
{
    return std::to_string(conn) + "\t" + std::to_string(q.fpi) + "\t" + std::to_string(q.id) +
           "\t" + tsv_text(q.text) + "\t" + tsv_text(decode_entities(q.text));
}

std::vector<QueryRow> read_queries(const std::string& path)
{
    std::vector<QueryRow> out;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        std::vector<std::string> f = tsv_fields(line);
        if (f.size() != 5 || line == kQueriesHeader) continue;
        out.push_back({static_cast<unsigned>(strtoul(f[0].c_str(), nullptr, 10)),
                       strtoll(f[1].c_str(), nullptr, 10), strtoll(f[2].c_str(), nullptr, 10),
                       std::move(f[3]), std::move(f[4])});
    }
    return out;
}

}  // namespace vxc
