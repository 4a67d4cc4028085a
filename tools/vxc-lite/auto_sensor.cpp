#include "auto_sensor.h"

#include <charconv>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <limits>

#include "record_parser.h"
#include "tsv.h"

namespace vxc {

namespace {

constexpr std::string_view kOpeningHead = "auto_sensor_thread_hotspot_data_req:";
constexpr std::string_view kOverallName = "AllTransactions";
const std::string kOverallNameText(kOverallName);

/* Formats of a record's values, one character each: L "%lf", D "%d",
 * Q "%lld", Z the literal "0.0", 0 the literal "0", S any text, N record
 * 52's "no name-<thread id>". */
constexpr char kBtMonitorFormats[] = "LLLQDZLLLQDLLQDLLQDLLQDLLLLDLQQDLQQDLQQD";
constexpr char kThreadSummaryFormats[] = "QDLLLDDLLLD00000";
/* Record 52 from its second field on. */
constexpr char kHotSpotFormats[] = "DDDQNQQDSDD00QQ00000S";
constexpr char kBackendMonitorFormats[] = "QLLQQQQZ00QZ00QL000000";
constexpr char kMethodMonitorFormats[] = "DLLLQD";
constexpr char kExceptionMonitorFormats[] = "DL";
constexpr std::string_view kExceptionOverallName = "OverAll";
static_assert(sizeof kBtMonitorFormats - 1 == 40);
static_assert(sizeof kBackendMonitorFormats - 1 == 22);
static_assert(sizeof kThreadSummaryFormats - 1 == 16);
static_assert(sizeof kHotSpotFormats - 1 == 21);

int reject(std::string* error, std::string text)
{
    if (error) *error = std::move(text);
    return -1;
}

bool fail(std::string* error, std::string text)
{
    reject(error, std::move(text));
    return false;
}

std::string shown(std::string_view s)
{
    return std::string(s.substr(0, 40)) + (s.size() > 40 ? "..." : "");
}

bool is_d(std::string_view s, long long* out = nullptr)
{
    return printf_int(s, INT_MIN, INT_MAX, out);
}

/* A number as printf writes it with %lf: digits, a point, six decimals. */
bool is_lf(std::string_view s)
{
    const size_t dot = s.find('.');
    if (dot == std::string_view::npos || s.size() - dot != 7) return false;
    std::string_view whole = s.substr(0, dot);
    if (!whole.empty() && whole[0] == '-') whole.remove_prefix(1);
    if (whole.empty() || (whole[0] == '0' && whole.size() > 1)) return false;
    auto digits = [](std::string_view d) {
        for (char c : d)
            if (c < '0' || c > '9') return false;
        return true;
    };
    return digits(whole) && digits(s.substr(dot + 1));
}

const char* format_name(char f)
{
    switch (f) {
        case 'L':
            return "%lf";
        case 'D':
            return "%d";
        case 'Q':
            return "%lld";
        case 'Z':
            return "0.0";
        default:
            return "0";
    }
}

/* Splits text on sep into exactly as many values as formats has and checks
 * each; the values go to out. */
bool check_values(std::string_view text, char sep, const char* formats,
                  std::vector<std::string>* out, const std::string& what, std::string* error)
{
    std::vector<std::string> v;
    for (;;) {
        const size_t at = text.find(sep);
        v.emplace_back(text.substr(0, at));
        if (at == std::string_view::npos) break;
        text.remove_prefix(at + 1);
    }
    const size_t want = strlen(formats);
    if (v.size() != want)
        return fail(error, what + " has " + std::to_string(v.size()) + " values, not " +
                               std::to_string(want));
    for (size_t i = 0; i < want; ++i) {
        const std::string& x = v[i];
        const char f = formats[i];
        const bool ok = f == 'L'   ? is_lf(x)
                        : f == 'D' ? is_d(x)
                        : f == 'Q' ? printf_int(x, LLONG_MIN, LLONG_MAX)
                        : f == 'Z' ? x == "0.0"
                        : f == '0' ? x == "0"
                                   : true;
        if (!ok)
            return fail(error, what + ": value " + std::to_string(i + 1) + " \"" + shown(x) +
                                   "\" is not " + format_name(f));
    }
    *out = std::move(v);
    return true;
}

/* "<tierID>|<appID>|<id>:" at the front of s, taken off it. */
struct Head {
    long long tier_id = 0;
    long long app_id = 0;
    long long id = 0;
};

bool take_head(std::string_view* s, Head* h)
{
    const size_t a = s->find('|');
    const size_t b = a == std::string_view::npos ? a : s->find('|', a + 1);
    const size_t c = b == std::string_view::npos ? b : s->find(':', b + 1);
    if (c == std::string_view::npos || !is_d(s->substr(0, a), &h->tier_id) ||
        !is_d(s->substr(a + 1, b - a - 1), &h->app_id) ||
        !is_d(s->substr(b + 1, c - b - 1), &h->id))
        return false;
    s->remove_prefix(c + 1);
    return true;
}

bool check_head_ids(const Head& h, const AsOpening* o, const std::string& what, std::string* error)
{
    if (!o || (h.tier_id == o->tier_id && h.app_id == o->app_id)) return true;
    return fail(error, what + ": ids " + std::to_string(h.tier_id) + "|" +
                           std::to_string(h.app_id) + "| are not the opening line's tierID " +
                           std::to_string(o->tier_id) + " and appID " + std::to_string(o->app_id));
}

/* Takes "<tier>><server>><instance>" and the character behind it off s.
 * With an opening line they are its tierName, vxAppServerHost and appName. */
bool take_vector(std::string_view* s, char behind, const AsOpening* o, const std::string& what,
                 std::string* error)
{
    if (o) {
        const std::string want =
            o->tier_name + ">" + o->server_host + ">" + o->app_name + std::string(1, behind);
        if (s->substr(0, want.size()) != want)
            return fail(error, what + ": vector is not \"" + want + "\" of the opening line");
        s->remove_prefix(want.size());
        return true;
    }
    for (int part = 0; part < 3; ++part) {
        size_t i = 0;
        while (i < s->size() && (*s)[i] != '>' && (*s)[i] != '|') ++i;
        if (i == 0 || i == s->size() || (*s)[i] != (part < 2 ? '>' : behind))
            return fail(error, what + ": no \"<tier>><server>><instance>" + std::string(1, behind) +
                                   "\" vector");
        s->remove_prefix(i + 1);
    }
    return true;
}

bool check_bt_monitor(std::string_view s, const Head& h, const AsOpening* o, BtMonitorLine* bt,
                      std::string* error)
{
    const std::string what = "record 74";
    if (!check_head_ids(h, o, what, error) || !take_vector(&s, '>', o, what, error)) return false;
    /* The values hold no '|': the last one ends the head. A tag text may
     * hold any, the name none. */
    const size_t last = s.rfind('|');
    if (last == std::string_view::npos) return fail(error, what + ": no '|' ends the head");
    const std::string_view names = s.substr(0, last);
    const size_t bar = names.find('|');
    bt->id = h.id;
    bt->name = std::string(names.substr(0, bar));
    bt->tagged = bar != std::string_view::npos;
    bt->tag = bt->tagged ? std::string(names.substr(bar + 1)) : std::string();
    if (bt->name.empty()) return fail(error, what + ": empty name");
    if (h.id == 0 && bt->name != kOverallName)
        return fail(error, what + ": id 0 is the overall line, named AllTransactions, not \"" +
                               shown(bt->name) + "\"");
    if (!check_values(s.substr(last + 1), ' ', kBtMonitorFormats, &bt->fields, what, error))
        return false;
    if (bt->fields[27] != bt->fields[4])
        return fail(error, what + ": value 28 (" + bt->fields[27] + ") is not the count " +
                               bt->fields[4] + " of value 5");
    return true;
}

/* The name ends at the last '|' (an alias may hold any); id below 1 is
 * refused. The session's calls include the interval's. */
bool check_method_monitor(std::string_view s, const Head& h, const AsOpening* o,
                          MethodMonitorLine* m, std::string* error)
{
    const std::string what = "record 61";
    if (!check_head_ids(h, o, what, error) || !take_vector(&s, '>', o, what, error)) return false;
    if (h.id < 1) return fail(error, what + ": method id " + std::to_string(h.id) + " is below 1");
    const size_t last = s.rfind('|');
    if (last == std::string_view::npos) return fail(error, what + ": no '|' ends the head");
    m->id = h.id;
    m->name = std::string(s.substr(0, last));
    if (m->name.empty()) return fail(error, what + ": empty method name");
    if (!check_values(s.substr(last + 1), ' ', kMethodMonitorFormats, &m->fields, what, error))
        return false;
    const long long cum = strtoll(m->fields[0].c_str(), nullptr, 10);
    const long long count = strtoll(m->fields[5].c_str(), nullptr, 10);
    if (count < 0 || cum < count)
        return fail(error, what + ": calls " + m->fields[5] + " are not 0 to the session's " +
                               m->fields[0]);
    return true;
}

/* Two values and a blank before the line end; id 0 is "OverAll" and only
 * it. */
bool check_exception_monitor(std::string_view s, const Head& h, const AsOpening* o,
                             ExceptionMonitorLine* e, std::string* error)
{
    const std::string what = "record 63";
    if (!check_head_ids(h, o, what, error) || !take_vector(&s, '>', o, what, error)) return false;
    if (h.id < 0) return fail(error, what + ": id " + std::to_string(h.id) + " is below 0");
    const size_t last = s.rfind('|');
    if (last == std::string_view::npos) return fail(error, what + ": no '|' ends the head");
    e->id = h.id;
    e->name = std::string(s.substr(0, last));
    if (e->name.empty()) return fail(error, what + ": empty exception name");
    if ((h.id == 0) != (e->name == kExceptionOverallName))
        return fail(error, what + ": id 0 is the overall line, named OverAll, and only it; not " +
                               std::to_string(h.id) + " \"" + shown(e->name) + "\"");
    std::string_view values = s.substr(last + 1);
    if (values.empty() || values.back() != ' ')
        return fail(error, what + ": no blank before the line end");
    values.remove_suffix(1);
    return check_values(values, ' ', kExceptionMonitorFormats, &e->fields, what, error);
}

/* Values 11 and 15 repeat the count of value 6; a failed call is a call
 * (errors, value 7, at most the count) and the session's calls include
 * the interval's (value 1 at least value 6). Rates (2, 16) need the
 * interval's length, which the collector is not told: formats only. */
bool check_backend_monitor(std::string_view s, const Head& h, const AsOpening* o,
                           BackendMonitorLine* b, std::string* error)
{
    const std::string what = "record 75";
    if (!check_head_ids(h, o, what, error) || !take_vector(&s, '>', o, what, error)) return false;
    if (h.id < 1) return fail(error, what + ": backend id " + std::to_string(h.id) + " is below 1");
    /* The values hold no '|': the last one ends the head; a name built
     * from a backend's description may hold any. */
    const size_t last = s.rfind('|');
    if (last == std::string_view::npos) return fail(error, what + ": no '|' ends the head");
    b->id = h.id;
    b->name = std::string(s.substr(0, last));
    if (b->name.empty()) return fail(error, what + ": empty backend name");
    if (!check_values(s.substr(last + 1), ' ', kBackendMonitorFormats, &b->fields, what, error))
        return false;
    const std::vector<std::string>& v = b->fields;
    for (const size_t again : {size_t{10}, size_t{14}})
        if (v[again] != v[5])
            return fail(error, what + ": value " + std::to_string(again + 1) + " (" + v[again] +
                                   ") is not the count " + v[5] + " of value 6");
    const long long cum = strtoll(v[0].c_str(), nullptr, 10);
    const long long count = strtoll(v[5].c_str(), nullptr, 10);
    const long long errors = strtoll(v[6].c_str(), nullptr, 10);
    if (errors < 0 || errors > count)
        return fail(error, what + ": errors " + v[6] + " are not 0 to the count " + v[5]);
    if (cum < count)
        return fail(error,
                    what + ": calls of the session " + v[0] + " are fewer than the count " + v[5]);
    return true;
}

bool check_thread_summary(std::string_view s, const Head& h, const AsOpening* o, std::string* error)
{
    const std::string what = "record 53";
    std::vector<std::string> v;
    if (!check_head_ids(h, o, what, error) || !take_vector(&s, '|', o, what, error) ||
        !check_values(s, ' ', kThreadSummaryFormats, &v, what, error))
        return false;
    /* Values 2 to 6 are all hot spots, 7 to 11 the new ones: count, mean,
     * minimum, maximum, count again; mean and minimum 0.0 with no count. */
    for (size_t count : {size_t{1}, size_t{6}}) {
        if (v[count + 4] != v[count])
            return fail(error, what + ": value " + std::to_string(count + 5) +
                                   " does not repeat the count " + v[count]);
        if (v[count] == "0" && (v[count + 1] != "0.000000" || v[count + 2] != "0.000000"))
            return fail(error, what + ": mean and minimum of a count of 0 are not 0.0");
    }
    return true;
}

bool check_hot_spot(std::string_view line, const AsOpening* o, std::string* error)
{
    const std::string what = "record 52";
    std::vector<std::string> v;
    if (!check_values(line.substr(3), ',', kHotSpotFormats, &v, what, error)) return false;
    /* v[k] is field k + 2 of the record. */
    if (v[4] != "no name-" + v[3])
        return fail(error, what + ": field 6 is not \"no name-\" and the thread id " + v[3]);
    if (v[7] != "0" && v[7] != "1") return fail(error, what + ": field 9 is neither 0 nor 1");
    if (v[20].find('\r') != std::string::npos)
        return fail(error, what + ": carriage return left in the stack text");
    if (o && (v[0] != std::to_string(o->tier_id) || v[1] != std::to_string(o->server_id) ||
              v[2] != std::to_string(o->app_id)))
        return fail(error, what + ": tier, server and app ids " + v[0] + "," + v[1] + "," + v[2] +
                               " are not those of the opening line");
    return true;
}

bool check_gc_report(std::string_view s, const Head& h, const AsOpening* o, std::string* error)
{
    const std::string what = "garbage-collection report";
    return check_head_ids(h, o, what, error) && take_vector(&s, '|', o, what, error);
}

/* A record 96 or 121 after its number and comma. The name may hold commas
 * and '|': the fields behind it are taken from the end. */
bool check_digest_head(std::string_view s, int number, const AsOpening* o, DigestHead* d,
                       std::string* error)
{
    const std::string what = "record " + std::to_string(number);
    const bool c = number == 121;
    long long ids[5] = {};
    const int n_ids = c ? 5 : 4;
    for (int i = 0; i < n_ids; ++i) {
        const size_t at = s.find(i + 1 < n_ids ? '|' : ':');
        /* The group id is a %ld, the others %d. */
        const long long lo = i == 2 ? LLONG_MIN : INT_MIN, hi = i == 2 ? LLONG_MAX : INT_MAX;
        if (at == std::string_view::npos || !printf_int(s.substr(0, at), lo, hi, &ids[i]))
            return fail(error, what + ": head is not \"<tierID>|<appID>|<group>|<graph>" +
                                   (c ? "|<series>" : "") + ":\"");
        s.remove_prefix(at + 1);
    }
    const Head h{ids[0], ids[1], 0};
    if (!check_head_ids(h, o, what, error) || !take_vector(&s, '>', o, what, error)) return false;
    long long bytes = 0;
    const size_t comma = s.rfind(',');
    if (comma == std::string_view::npos || !is_d(s.substr(comma + 1), &bytes))
        return fail(error, what + ": no body length (%d) ends the head");
    if (bytes < 0 || static_cast<unsigned long long>(bytes) > kMaxRawBody)
        return fail(error, what + ": body length " + std::to_string(bytes) + " is not 0 to " +
                               std::to_string(kMaxRawBody));
    s = s.substr(0, comma);
    const size_t ts_at = s.rfind(c ? '|' : ',');
    if (ts_at == std::string_view::npos ||
        !printf_int(s.substr(ts_at + 1), LLONG_MIN, LLONG_MAX, &d->ts))
        return fail(error, what + ": no time (%lld) ahead of the body length");
    s = s.substr(0, ts_at);
    if (c) {
        /* The text between name and time is always empty. */
        if (s.empty() || s.back() != '|')
            return fail(error, what + ": the text ahead of the time is not empty");
        s.remove_suffix(1);
    }
    d->name = std::string(s);
    if (d->name.empty()) return fail(error, what + ": empty name");
    if (c && ids[4] == 0 && d->name != kOverallName)
        return fail(error, what + ": series 0 is the overall line, named AllTransactions, not \"" +
                               shown(d->name) + "\"");
    d->group_id = ids[2];
    d->graph_id = ids[3];
    d->series = c ? ids[4] : -1;
    d->bytes = bytes;
    return true;
}

/* A double in the fewest digits that read back to it; NaN is empty. */
std::string number_text(double v)
{
    if (std::isnan(v)) return std::string();
    char buf[64];
    const auto [end, ec] = std::to_chars(buf, buf + sizeof buf, v);
    return ec == std::errc() ? std::string(buf, end) : std::string();
}

double text_number(const std::string& s)
{
    return s.empty() ? std::numeric_limits<double>::quiet_NaN() : strtod(s.c_str(), nullptr);
}

/* One field of the opening line: its key, where it goes, and the character
 * that ends its value ('\0': the end of the line). */
struct OpeningField {
    const char* key;
    std::string AsOpening::*text;
    long long AsOpening::*number;
    bool wide; /* %lld, else %d */
    char end;
};

constexpr OpeningField kOpeningFields[] = {
    {"appName", &AsOpening::app_name, nullptr, false, ';'},
    {"appID", nullptr, &AsOpening::app_id, false, ';'},
    {"vxAppServerID", nullptr, &AsOpening::server_id, false, ';'},
    {"vxAppServerHost", &AsOpening::server_host, nullptr, false, ';'},
    {"tierName", &AsOpening::tier_name, nullptr, false, ';'},
    {"tierID", nullptr, &AsOpening::tier_id, false, ';'},
    {"VXCollectorIP", &AsOpening::collector_ip, nullptr, false, ';'},
    /* A comma, not a semicolon, ends the port: the agent's line has it so. */
    {"VXCollectorPort", nullptr, &AsOpening::collector_port, false, ','},
    {"testIdx", nullptr, &AsOpening::test_idx, false, ';'},
    {"pid", nullptr, &AsOpening::pid, true, ';'},
    {"agentName", &AsOpening::agent_name, nullptr, false, '\0'},
};

}  // namespace

int check_as_opening(std::string_view line, AsOpening* out, std::string* error)
{
    if (line.substr(0, kOpeningHead.size()) != kOpeningHead)
        return reject(error, "head is not auto_sensor_thread_hotspot_data_req:");
    std::string_view rest = line.substr(kOpeningHead.size());
    AsOpening o;
    for (const OpeningField& f : kOpeningFields) {
        const std::string key = std::string(f.key) + "=";
        if (rest.substr(0, key.size()) != key)
            return reject(error, "expected " + key + " where \"" + shown(rest) + "\" stands");
        rest.remove_prefix(key.size());
        size_t len = 0;
        if (f.number) {
            while (len < rest.size() &&
                   (rest[len] == '-' || (rest[len] >= '0' && rest[len] <= '9')))
                ++len;
            const long long lo = f.wide ? LLONG_MIN : INT_MIN, hi = f.wide ? LLONG_MAX : INT_MAX;
            if (!printf_int(rest.substr(0, len), lo, hi, &(o.*f.number)))
                return reject(error, std::string(f.key) + " is not " + (f.wide ? "%lld" : "%d"));
        } else {
            len = f.end ? rest.find(f.end) : rest.size();
            if (len == std::string_view::npos) len = rest.size();
            o.*f.text = std::string(rest.substr(0, len));
        }
        if (f.end == '\0') {
            if (len != rest.size()) return reject(error, "text behind " + std::string(f.key));
            break;
        }
        if (len == rest.size() || rest[len] != f.end) {
            const bool separator = len < rest.size() && (rest[len] == ';' || rest[len] == ',');
            return reject(error, std::string(f.key) +
                                     (separator || !f.number
                                          ? " is not followed by '" + std::string(1, f.end) + "'"
                                          : " is not a number"));
        }
        rest.remove_prefix(len + 1);
    }
    if (out) *out = std::move(o);
    return 0;
}

int parse_as_record(std::string_view line, const AsOpening* opening, AsRecord* out,
                    std::string* error)
{
    if (line.empty())
        return reject(error,
                      "empty line: a bare line feed is a heartbeat on the data connection "
                      "only");
    const size_t comma = line.find(',');
    long long n = 0;
    if (comma == std::string_view::npos || !is_d(line.substr(0, comma), &n))
        return reject(error, "line does not begin with a number and a comma");
    AsRecord r;
    r.number = static_cast<int>(n);
    std::string_view rest = line.substr(comma + 1);
    const CatalogueEntry* entry = catalogue_find(r.number);
    const bool as_record = entry && entry->channel == Channel::AutoSensor;
    Head h;
    const bool headed = take_head(&rest, &h);
    bool ok = false;
    if (n == 96 || n == 121) {
        r.kind = AsKind::Digest;
        ok = check_digest_head(rest, r.number, opening, &r.digest, error);
        /* A host may give its report the id 96 or 121. */
        if (!ok && headed && h.id == 0 && check_gc_report(rest, h, opening, nullptr)) {
            r.kind = AsKind::GcReport;
            ok = true;
        }
    } else if (headed && n == 75) {
        r.kind = AsKind::BackendMonitor;
        ok = check_backend_monitor(rest, h, opening, &r.backend, error);
        /* A host may give its report the id 75. */
        if (!ok && h.id == 0 && check_gc_report(rest, h, opening, nullptr)) {
            r.kind = AsKind::GcReport;
            ok = true;
        }
    } else if (headed && n == 61) {
        r.kind = AsKind::MethodMonitor;
        ok = check_method_monitor(rest, h, opening, &r.method, error);
        if (!ok && h.id == 0 && check_gc_report(rest, h, opening, nullptr)) {
            r.kind = AsKind::GcReport;
            ok = true;
        }
    } else if (headed && n == 63) {
        r.kind = AsKind::ExceptionMonitor;
        ok = check_exception_monitor(rest, h, opening, &r.exception, error);
        if (!ok && h.id == 0 && check_gc_report(rest, h, opening, nullptr)) {
            r.kind = AsKind::GcReport;
            ok = true;
        }
    } else if (as_record && n != 52 && n != 53 && n != 61 && n != 63 && n != 74 && n != 75) {
        r.kind = AsKind::Other;
        ok = comma + 1 < line.size() || fail(error, "record " + std::to_string(n) + " is empty");
    } else if (headed && n == 74) {
        r.kind = AsKind::BtMonitor;
        ok = check_bt_monitor(rest, h, opening, &r.bt, error);
        /* A host may give its report the id 74. */
        if (!ok && h.id == 0 && check_gc_report(rest, h, opening, nullptr)) {
            r.kind = AsKind::GcReport;
            ok = true;
        }
    } else if (headed && n == 53 && h.id == 1) {
        r.kind = AsKind::ThreadSummary;
        ok = check_thread_summary(rest, h, opening, error);
    } else if (headed && h.id == 0) {
        r.kind = AsKind::GcReport;
        ok = check_gc_report(rest, h, opening, error);
    } else if (!headed && n == 52) {
        r.kind = AsKind::HotSpot;
        ok = check_hot_spot(line, opening, error);
    } else if (entry && entry->channel == Channel::Data) {
        return reject(error, "record " + std::to_string(n) + " belongs on the data connection");
    } else {
        return reject(error,
                      "not a record of the auto-sensor connection: no 74, no 53 with id "
                      "1, no report with id 0, no 52");
    }
    if (!ok) return -1;
    if (out) *out = std::move(r);
    return 0;
}

long long digest_body_length(std::string_view line)
{
    if (line.substr(0, 3) != "96," && line.substr(0, 4) != "121,") return -1;
    long long n = 0;
    const size_t comma = line.rfind(',');
    if (!is_d(line.substr(comma + 1), &n) || n < 0 ||
        static_cast<unsigned long long>(n) > kMaxRawBody)
        return -1;
    return n;
}

std::string bt_monitor_row(unsigned conn, unsigned long long interval, const BtMonitorLine& bt)
{
    std::string row = std::to_string(conn) + "\t" + std::to_string(interval) + "\t" +
                      std::to_string(bt.id) + "\t" + tsv_text(bt.name) + "\t" +
                      (bt.tagged ? "1" : "0") + "\t" + tsv_text(bt.tag);
    for (const size_t field : {1u, 2u, 3u, 4u, 5u, 23u})
        row += "\t" + (field <= bt.fields.size() ? bt.fields[field - 1] : std::string());
    return row;
}

std::vector<BtMonitorRow> read_bt_monitor(const std::string& path)
{
    std::vector<BtMonitorRow> rows;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        const std::vector<std::string> f = tsv_fields(line);
        if (f.size() != 12 || line == kBtMonitorHeader) continue;
        BtMonitorRow r;
        r.conn = static_cast<unsigned>(strtoul(f[0].c_str(), nullptr, 10));
        r.interval = strtoull(f[1].c_str(), nullptr, 10);
        r.id = strtoll(f[2].c_str(), nullptr, 10);
        r.name = f[3];
        r.tagged = f[4] == "1";
        r.tag = f[5];
        r.tps = strtod(f[6].c_str(), nullptr);
        r.avg = strtod(f[7].c_str(), nullptr);
        r.min = strtod(f[8].c_str(), nullptr);
        r.max = strtoll(f[9].c_str(), nullptr, 10);
        r.count = strtoll(f[10].c_str(), nullptr, 10);
        r.errors = strtoll(f[11].c_str(), nullptr, 10);
        rows.push_back(std::move(r));
    }
    return rows;
}

std::string backend_monitor_row(unsigned conn, unsigned long long interval,
                                const BackendMonitorLine& b)
{
    std::string row = std::to_string(conn) + "\t" + std::to_string(interval) + "\t" +
                      std::to_string(b.id) + "\t" + tsv_text(b.name);
    for (const size_t field : {1u, 2u, 3u, 4u, 5u, 6u, 7u, 16u})
        row += "\t" + (field <= b.fields.size() ? b.fields[field - 1] : std::string());
    return row;
}

std::vector<BackendMonitorRow> read_backend_monitor(const std::string& path)
{
    std::vector<BackendMonitorRow> rows;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        const std::vector<std::string> f = tsv_fields(line);
        if (f.size() != 12 || line == kBackendMonitorHeader) continue;
        BackendMonitorRow r;
        r.conn = static_cast<unsigned>(strtoul(f[0].c_str(), nullptr, 10));
        r.interval = strtoull(f[1].c_str(), nullptr, 10);
        r.id = strtoll(f[2].c_str(), nullptr, 10);
        r.name = f[3];
        r.cum_count = strtoll(f[4].c_str(), nullptr, 10);
        r.tps = strtod(f[5].c_str(), nullptr);
        r.avg = strtod(f[6].c_str(), nullptr);
        r.min = strtoll(f[7].c_str(), nullptr, 10);
        r.max = strtoll(f[8].c_str(), nullptr, 10);
        r.count = strtoll(f[9].c_str(), nullptr, 10);
        r.errors = strtoll(f[10].c_str(), nullptr, 10);
        r.eps = strtod(f[11].c_str(), nullptr);
        rows.push_back(std::move(r));
    }
    return rows;
}

std::string method_monitor_row(unsigned conn, unsigned long long interval,
                               const MethodMonitorLine& m)
{
    std::string row = std::to_string(conn) + "\t" + std::to_string(interval) + "\t" +
                      std::to_string(m.id) + "\t" + tsv_text(m.name);
    for (const std::string& f : m.fields) row += "\t" + f;
    return row;
}

std::vector<MethodMonitorRow> read_method_monitor(const std::string& path)
{
    std::vector<MethodMonitorRow> rows;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        const std::vector<std::string> f = tsv_fields(line);
        if (f.size() != 10 || line == kMethodMonitorHeader) continue;
        MethodMonitorRow r;
        r.conn = static_cast<unsigned>(strtoul(f[0].c_str(), nullptr, 10));
        r.interval = strtoull(f[1].c_str(), nullptr, 10);
        r.id = strtoll(f[2].c_str(), nullptr, 10);
        r.name = f[3];
        r.cum_count = strtoll(f[4].c_str(), nullptr, 10);
        r.tps = strtod(f[5].c_str(), nullptr);
        r.avg = strtod(f[6].c_str(), nullptr);
        r.min = strtod(f[7].c_str(), nullptr);
        r.max = strtoll(f[8].c_str(), nullptr, 10);
        r.count = strtoll(f[9].c_str(), nullptr, 10);
        rows.push_back(std::move(r));
    }
    return rows;
}

std::string exception_monitor_row(unsigned conn, unsigned long long interval,
                                  const ExceptionMonitorLine& e)
{
    std::string row = std::to_string(conn) + "\t" + std::to_string(interval) + "\t" +
                      std::to_string(e.id) + "\t" + tsv_text(e.name);
    for (const std::string& f : e.fields) row += "\t" + f;
    return row;
}

std::vector<ExceptionMonitorRow> read_exception_monitor(const std::string& path)
{
    std::vector<ExceptionMonitorRow> rows;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        const std::vector<std::string> f = tsv_fields(line);
        if (f.size() != 6 || line == kExceptionMonitorHeader) continue;
        ExceptionMonitorRow r;
        r.conn = static_cast<unsigned>(strtoul(f[0].c_str(), nullptr, 10));
        r.interval = strtoull(f[1].c_str(), nullptr, 10);
        r.id = strtoll(f[2].c_str(), nullptr, 10);
        r.name = f[3];
        r.cum_count = strtoll(f[4].c_str(), nullptr, 10);
        r.eps = strtod(f[5].c_str(), nullptr);
        rows.push_back(std::move(r));
    }
    return rows;
}

void ExactTotals::add(const BtMonitorLine& bt)
{
    if (bt.id == 0 || bt.fields.size() < 5) return;
    /* With tags on, every line has a tag field: a tag set's carries its
     * text the first time only, so its series id is remembered then. */
    if (bt.tagged && (!bt.tag.empty() || tag_series_.count(bt.id))) {
        tag_series_.insert(bt.id);
        return;
    }
    const double total =
        std::round(strtod(bt.fields[1].c_str(), nullptr) * strtod(bt.fields[4].c_str(), nullptr));
    if (!(total >= 1)) return;
    for (const int record : {96, 121})
        for (const std::string* name : {&bt.name, &kOverallNameText}) {
            std::vector<double>& list = lists_[{record, *name}];
            if (list.size() < kMaxExactTotals) list.push_back(total);
        }
}

std::vector<double> ExactTotals::take(int record, const std::string& name)
{
    const auto it = lists_.find({record, name});
    if (it == lists_.end()) return {};
    std::vector<double> out = std::move(it->second);
    lists_.erase(it);
    return out;
}

std::string percentiles_row(const PercentileRow& r)
{
    std::string row = std::to_string(r.conn) + "\t" + std::to_string(r.record) + "\t" +
                      (r.series >= 0 ? std::to_string(r.series) : std::string()) + "\t" +
                      tsv_text(r.name) + "\t" + std::to_string(r.ts) + "\t" +
                      std::to_string(r.bytes) + "\t" + std::to_string(r.count);
    for (const double v : {r.p50, r.p90, r.p99}) row += "\t" + number_text(v);
    row += "\t" + std::to_string(r.exact_n);
    for (const double v : {r.exact_p50, r.exact_p90, r.exact_p99}) row += "\t" + number_text(v);
    return row;
}

std::vector<PercentileRow> read_percentiles(const std::string& path)
{
    std::vector<PercentileRow> rows;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        const std::vector<std::string> f = tsv_fields(line);
        if (f.size() != 14 || line == kPercentilesHeader) continue;
        PercentileRow r;
        r.conn = static_cast<unsigned>(strtoul(f[0].c_str(), nullptr, 10));
        r.record = static_cast<int>(strtol(f[1].c_str(), nullptr, 10));
        r.series = f[2].empty() ? -1 : strtoll(f[2].c_str(), nullptr, 10);
        r.name = f[3];
        r.ts = strtoll(f[4].c_str(), nullptr, 10);
        r.bytes = strtoll(f[5].c_str(), nullptr, 10);
        r.count = strtoull(f[6].c_str(), nullptr, 10);
        r.p50 = text_number(f[7]);
        r.p90 = text_number(f[8]);
        r.p99 = text_number(f[9]);
        r.exact_n = strtoull(f[10].c_str(), nullptr, 10);
        r.exact_p50 = text_number(f[11]);
        r.exact_p90 = text_number(f[12]);
        r.exact_p99 = text_number(f[13]);
        rows.push_back(std::move(r));
    }
    return rows;
}

}  // namespace vxc
