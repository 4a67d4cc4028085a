#include "topology.h"

#include <climits>
#include <cstdlib>
#include <fstream>

#include "tsv.h"

namespace vxc {

namespace {

/* The rows of a file with n fields, header and short rows skipped. */
std::vector<std::vector<std::string>> rows_of(const std::string& path, const char* header, size_t n)
{
    std::vector<std::vector<std::string>> rows;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        std::vector<std::string> f = tsv_fields(line);
        if (f.size() == n && line != header) rows.push_back(std::move(f));
    }
    return rows;
}

long long number(const std::string& s)
{
    return strtoll(s.c_str(), nullptr, 10);
}

bool whole(std::string_view s)
{
    return printf_int(s, LLONG_MIN, LLONG_MAX);
}

/* The ':'-separated fields of a token's rest; n colons give n + 1. */
std::vector<std::string_view> colon_fields(std::string_view rest)
{
    std::vector<std::string_view> p;
    for (size_t from = 0;;) {
        const size_t colon = rest.find(':', from);
        p.push_back(rest.substr(from, colon - from));
        if (colon == std::string_view::npos) break;
        from = colon + 1;
    }
    return p;
}

/* The query id a database call's token carries in the rest of its form,
 * behind its kind; 0 for any other call. The forms tell the calls apart:
 * only a database call has the three empty fields, and a call left by an
 * exception writes kind 10 for a database call alone (a message queue's
 * "E" token of the same shape carries its own kind). */
long long token_query_id(char letter, long long kind, std::string_view rest)
{
    const std::vector<std::string_view> p = colon_fields(rest);
    const bool call =
        p.size() == 7 && whole(p[1]) && p[2].empty() && p[3].empty() && p[4].empty() && whole(p[5]);
    const bool left_by_exception =
        letter == 'E' && kind == 10 && p.size() == 3 && whole(p[1]) && whole(p[2]);
    long long id = 0;
    return (call || left_by_exception) && printf_int(p[0], LLONG_MIN, LLONG_MAX, &id) ? id : 0;
}

/* The resource id an HTTP call's token carries last, behind its start and,
 * for an "E" token, its status; 0 when it carries none (the agent adds it
 * only while resources are named). Kind 1 with "-" (or 0 in the token of a
 * call left by an exception) before the start is the HTTP form. */
long long token_resource_id(char letter, long long kind, std::string_view rest)
{
    const std::vector<std::string_view> p = colon_fields(rest);
    const size_t at = letter == 'E' ? 3 : 2;
    long long id = 0;
    const bool http =
        kind == 1 && p.size() == at + 1 && (p[0] == "-" || p[0] == "0") && whole(p[1]);
    return http && printf_int(p[at], LLONG_MIN, LLONG_MAX, &id) ? id : 0;
}

}  // namespace

std::string topology_row(unsigned conn, const Record& r91)
{
    std::string row = std::to_string(conn);
    for (size_t i = 0; i < 7 && i < r91.fields.size(); ++i) row += "\t" + tsv_text(r91.fields[i]);
    return row;
}

std::vector<TopologyRow> read_topology(const std::string& path)
{
    std::vector<TopologyRow> out;
    for (const auto& f : rows_of(path, kTopologyHeader, 8))
        out.push_back(
            {static_cast<unsigned>(number(f[0])), f[1], f[2], f[3], f[4], f[5], f[6], f[7]});
    return out;
}

std::string topology_key(const Record& r91)
{
    const std::vector<std::string>& f = r91.fields;
    /* Backend, caller's tier, server and instance; NUL cannot stand in a
     * line, so it keeps the parts apart. */
    return f.size() < 5 ? std::string() : f[0] + '\0' + f[1] + '\0' + f[3] + '\0' + f[4];
}

std::string resource_row(unsigned conn, const Record& r26)
{
    const std::vector<std::string>& f = r26.fields;
    return std::to_string(conn) + "\t" + (f.empty() ? std::string() : f[0]) + "\t" +
           tsv_text(join(f, 1, f.size()));
}

std::vector<ResourceRow> read_resources(const std::string& path)
{
    std::vector<ResourceRow> out;
    for (const auto& f : rows_of(path, kResourcesHeader, 3))
        out.push_back({static_cast<unsigned>(number(f[0])), number(f[1]), f[2]});
    return out;
}

std::string link_row(const LinkRow& r)
{
    return std::to_string(r.conn) + "\t" + std::to_string(r.fpi) + "\t" + std::to_string(r.first) +
           "\t" + std::to_string(r.prev) + "\t" + (r.forced ? "1" : "0") + "\t" +
           tsv_text(r.tier_seq) + "\t" + std::to_string(r.caller_conn) + "\t" +
           tsv_text(r.caller_url);
}

std::vector<LinkRow> read_links(const std::string& path)
{
    std::vector<LinkRow> out;
    for (const auto& f : rows_of(path, kLinksHeader, 8)) {
        LinkRow r;
        r.conn = static_cast<unsigned>(number(f[0]));
        r.fpi = number(f[1]);
        r.first = number(f[2]);
        r.prev = number(f[3]);
        r.forced = f[4] == "1";
        r.tier_seq = f[5];
        r.caller_conn = number(f[6]);
        r.caller_url = f[7];
        out.push_back(std::move(r));
    }
    return out;
}

bool LinkTable::add(unsigned conn, const Record& r2)
{
    const std::vector<std::string>& f = r2.fields;
    FlowpathIds ids;
    if (r2.number != 2 || f.size() < 16 || parse_flowpath_ids(f[0], &ids) != 0) return false;
    if (!by_instance_.count(ids.instance)) {
        if (by_instance_.size() < kMaxKept)
            /* The URL runs from field 7 to the correlation field, which
             * stands 10 fields from the end: it is the one that may hold
             * commas. */
            by_instance_.emplace(ids.instance, Flowpath{conn, join(f, 5, f.size() - 10)});
        else
            ++dropped_;
    }
    if (!ids.chained) return false;
    if (chained_.size() >= kMaxKept) {
        ++dropped_;
        return true;
    }
    LinkRow row;
    row.conn = conn;
    row.fpi = ids.instance;
    row.first = ids.first;
    row.prev = ids.previous;
    row.forced = ids.forced;
    row.tier_seq = f[3].substr(0, f[3].size() - 2); /* checked to end in ".1" */
    chained_.push_back(std::move(row));
    return true;
}

std::vector<LinkRow> LinkTable::resolve() const
{
    std::vector<LinkRow> rows = chained_;
    for (LinkRow& r : rows) {
        const auto it = by_instance_.find(r.prev);
        if (it == by_instance_.end()) continue;
        r.caller_conn = it->second.conn;
        r.caller_url = it->second.url;
    }
    return rows;
}

std::string trace_row(unsigned conn, const Record& r2)
{
    const std::vector<std::string>& f = r2.fields;
    FlowpathIds ids;
    if (r2.number != 2 || f.size() < 16 || parse_flowpath_ids(f[0], &ids) != 0) return {};
    /* The URL may hold commas: the trace fields are counted from the end. */
    const size_t n = f.size();
    return std::to_string(conn) + "\t" + std::to_string(ids.instance) + "\t" +
           std::to_string(ids.chained ? ids.first : 0) + "\t" + tsv_text(f[n - 3]) + "\t" +
           tsv_text(f[n - 2]) + "\t" + tsv_text(f[n - 1]);
}

std::vector<TraceRow> read_traces(const std::string& path)
{
    std::vector<TraceRow> out;
    for (const auto& f : rows_of(path, kTracesHeader, 6))
        out.push_back(
            {static_cast<unsigned>(number(f[0])), number(f[1]), number(f[2]), f[3], f[4], f[5]});
    return out;
}

std::vector<CalloutToken> callout_tokens(std::string_view blob)
{
    std::vector<CalloutToken> out;
    for (size_t i = 0; i < blob.size(); ++i) {
        if ((blob[i] != 'T' && blob[i] != 'E') || (i > 0 && blob[i - 1] != '_')) continue;
        CalloutToken t;
        t.kind = blob[i];
        long long kind = 0;
        long long* const parts[] = {&t.seq, &t.backend_id, &t.duration, &kind};
        size_t at = i + 1;
        bool ok = true;
        for (long long* p : parts) {
            const size_t colon = blob.find(':', at);
            if (colon == std::string_view::npos ||
                !printf_int(blob.substr(at, colon - at), LLONG_MIN, LLONG_MAX, p)) {
                ok = false;
                break;
            }
            at = colon + 1;
        }
        const size_t end = ok ? blob.find('_', at) : std::string_view::npos;
        if (end == std::string_view::npos) continue;
        t.query_id = token_query_id(t.kind, kind, blob.substr(at, end - at));
        t.resource_id = token_resource_id(t.kind, kind, blob.substr(at, end - at));
        out.push_back(t);
        i = end;
    }
    return out;
}

bool record_blob(const Record& r, long long* fpi, std::string* blob)
{
    const std::vector<std::string>& f = r.fields;
    if ((r.number != 3 && r.number != 4) || f.size() < 2) return false;
    std::string_view id = f[0];
    if (!id.empty() && id.back() == 'F') id.remove_suffix(1);
    if (!printf_int(id, 0, LLONG_MAX, fpi)) return false;
    /* Record 3's blob is all behind the instance; record 4's is its last
     * field, behind a fixed count of numbers. */
    *blob = r.number == 3 ? join(f, 1, f.size()) : f.back();
    return true;
}

bool method_declaration(const Record& r, long long* id, std::string* name)
{
    const std::vector<std::string>& f = r.fields;
    if (r.number != 5 || f.size() < 2 || !printf_int(f.back(), LLONG_MIN, LLONG_MAX, id))
        return false;
    *name = join(f, 0, f.size() - 1);
    return true;
}

std::string callout_row(const CalloutRow& r)
{
    return std::to_string(r.conn) + "\t" + std::to_string(r.fpi) + "\t" + std::string(1, r.kind) +
           "\t" + std::to_string(r.seq) + "\t" + std::to_string(r.backend_id) + "\t" +
           tsv_text(r.backend_name) + "\t" + std::to_string(r.duration) + "\t" +
           std::to_string(r.query_id);
}

std::vector<CalloutRow> read_callouts(const std::string& path)
{
    std::vector<CalloutRow> out;
    for (const auto& f : rows_of(path, kCalloutsHeader, 8)) {
        CalloutRow r;
        r.conn = static_cast<unsigned>(number(f[0]));
        r.fpi = number(f[1]);
        r.kind = f[2].empty() ? '?' : f[2][0];
        r.seq = number(f[3]);
        r.backend_id = number(f[4]);
        r.backend_name = f[5];
        r.duration = number(f[6]);
        r.query_id = number(f[7]);
        out.push_back(std::move(r));
    }
    return out;
}

}  // namespace vxc
