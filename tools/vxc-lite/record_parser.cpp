#include "record_parser.h"

#include <charconv>
#include <climits>
#include <cstdint>
#include <cstring>

#include "http_headers.h"
#include "queries.h"

namespace vxc {

void LineSplitter::feed(const char* data, size_t len, const LineFn& on_line,
                        const OverlongFn& on_overlong, const RawFn& on_raw)
{
    if (!data) return;
    size_t i = 0;
    while (i < len) {
        if (in_raw_) {
            i += feed_raw(data + i, len - i, on_raw);
            continue;
        }
        size_t start = i;
        bool to_raw = false;
        for (; i < len && !to_raw; ++i) {
            const char c = data[i];
            if (c != '\n' && c != '\0') continue;
            /* Move the run before this byte into the line being built. */
            take(data + start, i - start, on_overlong);
            start = i + 1;
            if (c == '\0') {
                ++nul_bytes_;
                continue;
            }
            if (discarding_) {
                discarding_ = false;
                discarded_ = 0;
            } else {
                on_line(buf_);
            }
            buf_.clear();
            to_raw = in_raw_; /* the line announced a body */
        }
        if (i > start) take(data + start, i - start, on_overlong);
    }
}

int LineSplitter::take_raw(size_t n)
{
    if (n > max_raw_ || in_raw_) return -1;
    in_raw_ = true;
    raw_left_ = n;
    return 0;
}

size_t LineSplitter::feed_raw(const char* data, size_t len, const RawFn& on_raw)
{
    if (raw_left_ > 0) {
        const size_t n = len < raw_left_ ? len : raw_left_;
        raw_.append(data, n);
        raw_left_ -= n;
        return n;
    }
    const bool line_feed = data[0] == '\n';
    in_raw_ = false;
    if (on_raw) on_raw(raw_, line_feed);
    /* Bodies can be large; do not keep their memory between them. */
    std::string().swap(raw_);
    return line_feed ? 1 : 0;
}

void LineSplitter::take(const char* run, size_t n, const OverlongFn& on_overlong)
{
    if (discarding_) {
        discarded_ += n;
    } else if (buf_.size() + n > max_line_) {
        discarding_ = true;
        discarded_ = buf_.size() + n;
        on_overlong(discarded_);
        buf_.clear();
    } else {
        buf_.append(run, n);
    }
}

std::string join(const std::vector<std::string>& f, size_t from, size_t to)
{
    std::string out;
    for (size_t i = from; i < to && i < f.size(); ++i) {
        if (i > from) out += ',';
        out += f[i];
    }
    return out;
}

namespace {

constexpr CatalogueEntry kCatalogue[] = {
    {2, Channel::Data, "flowpath header"},
    {3, Channel::Data, "partial sequence blob"},
    {4, Channel::Data, "flowpath end"},
    {5, Channel::Data, "method metadata"},
    {6, Channel::Data, "HTTP header name"},
    {7, Channel::Data, "business transaction name"},
    {10, Channel::Data, "end of session data"},
    {11, Channel::Data, "metadata replay marker"},
    {12, Channel::Data, "HTTP request data"},
    {13, Channel::Data, "HTTP response data"},
    {19, Channel::Data, "method argument value"},
    {22, Channel::Data, "SQL query text"},
    {26, Channel::Data, "resource URL"},
    {30, Channel::Data, "HTTP body"},
    {32, Channel::Data, "exception class name"},
    {33, Channel::Data, "exception throwing class"},
    {34, Channel::Data, "exception throwing method"},
    {35, Channel::Data, "exception message"},
    {36, Channel::Data, "exception cause"},
    {38, Channel::Data, "exception occurrence"},
    {52, Channel::AutoSensor, "thread hot spot"},
    {53, Channel::AutoSensor, "thread summary report"},
    {61, Channel::AutoSensor, "method monitor row"},
    {63, Channel::AutoSensor, "exception monitor row"},
    {74, Channel::AutoSensor, "business transaction monitor row"},
    {75, Channel::AutoSensor, "backend monitor row"},
    {91, Channel::Data, "tier call-out mapping"},
    {96, Channel::AutoSensor, "t-digest data"},
    {99, Channel::Data, "new data connection"},
    {100, Channel::Data, "debug or stack trace data"},
    {110, Channel::Data, "tier tags"},
    {111, Channel::Data, "tier attributes"},
    {112, Channel::Data, "business transaction tag"},
    {121, Channel::AutoSensor, "c-digest data"},
};

bool is_int(std::string_view s, bool allow_negative = true)
{
    if (!s.empty() && s[0] == '-' && allow_negative) s.remove_prefix(1);
    if (s.empty() || s.size() > 20) return false;
    for (char c : s)
        if (c < '0' || c > '9') return false;
    return true;
}

/* A flowpath instance as records carry it: digits, "F" behind them when the
 * flowpath was forced. */
bool is_instance(std::string_view s)
{
    if (!s.empty() && s.back() == 'F') s.remove_suffix(1);
    return is_int(s, false);
}

/* One number of record 2's ids: digits, "F" behind them when forced. */
bool take_instance(std::string_view s, long long* v, bool* forced)
{
    *forced = !s.empty() && s.back() == 'F';
    if (*forced) s.remove_suffix(1);
    return printf_int(s, 0, LLONG_MAX, v);
}

bool fail(std::string* error, std::string text)
{
    if (error) *error = std::move(text);
    return false;
}

/* Fields here are those after the number: f[0] is the record's second field. */
bool check_record_2(const std::vector<std::string>& f, std::string* error)
{
    /* instance, start, thread, sequence, bt, url, correlation, session, sid,
     * page, empty, type, queue time, trace id, parent id, flags: 16 fields,
     * more only when the URL holds commas. */
    const size_t n = f.size();
    if (n < 16) return fail(error, "record 2 has " + std::to_string(n + 1) + " fields, needs 17");
    FlowpathIds ids;
    if (parse_flowpath_ids(f[0], &ids) != 0) return fail(error, "record 2: bad flowpath instance");
    if (!is_int(f[1])) return fail(error, "record 2: bad start time");
    if (!is_int(f[2])) return fail(error, "record 2: bad thread id");
    if (f[3].size() < 3 || f[3].compare(f[3].size() - 2, 2, ".1") != 0)
        return fail(error, "record 2: sequence does not end in \".1\"");
    /* Outside a chain the tier sequence is the thread id. */
    if (!ids.chained && f[3] != f[2] + ".1")
        return fail(error,
                    "record 2: sequence " + f[3] + " is not the thread id " + f[2] + " and \".1\"");
    if (!is_int(f[4])) return fail(error, "record 2: bad business transaction id");
    if (!f[n - 6].empty()) return fail(error, "record 2: field 12 is not empty");
    if (!is_int(f[n - 5])) return fail(error, "record 2: bad flowpath type");
    if (!is_int(f[n - 4])) return fail(error, "record 2: bad queue time");
    return true;
}

bool check_record_4(const std::vector<std::string>& f, std::string* error)
{
    /* instance, status, category, cpu, response, bt, type, empty, trace
     * request, [tag id,] sequence blob. */
    const size_t n = f.size();
    if (n != 10 && n != 11)
        return fail(error, "record 4 has " + std::to_string(n + 1) + " fields, needs 11 or 12");
    if (!is_instance(f[0])) return fail(error, "record 4: bad flowpath instance");
    for (size_t i = 1; i <= 6; ++i)
        if (!is_int(f[i]))
            return fail(error, "record 4: field " + std::to_string(i + 2) + " is not a number");
    if (!f[7].empty()) return fail(error, "record 4: field 10 is not empty");
    if (!is_int(f[8])) return fail(error, "record 4: bad trace request");
    if (n == 11 && !is_int(f[9])) return fail(error, "record 4: bad tag id");
    return true;
}

/* An exception: instance, seconds, method id, sequence number (0 without
 * the blob token), the literals -1 and -1, the ids of class, throwing class,
 * throwing method, the line, the ids of message and cause, then the stack
 * trace, which may hold commas. Ids and the line are -1 or from 1. */
bool check_record_38(const std::vector<std::string>& f, std::string* error)
{
    const size_t n = f.size();
    if (n < 13) return fail(error, "record 38 has " + std::to_string(n + 1) + " fields, needs at least 14");
    if (!printf_int(f[0], LLONG_MIN, LLONG_MAX)) return fail(error, "record 38: bad flowpath instance");
    if (!printf_int(f[1], LLONG_MIN, LLONG_MAX)) return fail(error, "record 38: bad time");
    if (!printf_int(f[2], 0, INT32_MAX)) return fail(error, "record 38: bad method id");
    if (!printf_int(f[3], 0, LLONG_MAX)) return fail(error, "record 38: bad sequence number");
    if (f[4] != "-1" || f[5] != "-1") return fail(error, "record 38: fields 6 and 7 must be -1");
    static const char* const kNames[] = {"class id", "throwing class id", "throwing method id", "line",
                                         "message id", "cause id"};
    for (size_t i = 6; i < 12; ++i) {
        long long v = 0;
        if (!printf_int(f[i], -1, INT32_MAX, &v) || v == 0)
            return fail(error, std::string("record 38: ") + kNames[i - 6] + " is not -1 or from 1");
    }
    return true;
}

bool check_shape(const Record& r, std::string* error)
{
    const std::vector<std::string>& f = r.fields;
    const size_t n = f.size();
    switch (r.number) {
        case 2:
            return check_record_2(f, error);
        case 3:
            if (n < 2) return fail(error, "record 3 needs an instance and a sequence blob");
            if (!is_instance(f[0])) return fail(error, "record 3: bad flowpath instance");
            return true;
        case 4:
            return check_record_4(f, error);
        case 5:
            /* The name may hold commas inside its signature; the id is last. */
            if (n < 2) return fail(error, "record 5 needs a name and a method id");
            if (!is_int(f[n - 1])) return fail(error, "record 5: bad method id");
            if (join(f, 0, n - 1).empty()) return fail(error, "record 5: empty method name");
            return true;
        case 6:
            /* "6,%s,%d": the name may hold commas; it may be empty. */
            if (n < 2 || !printf_int(f[n - 1], 1, INT32_MAX))
                return fail(error, "record 6 is not \"6,<name>,<id>\" with an id above 0");
            return true;
        case 12:
        case 13: {
            /* Escaped values hold no comma: the field count is exact. */
            const size_t want = r.number == 12 ? 2 : 3;
            if (n != want)
                return fail(error, "record " + std::to_string(r.number) + " has " + std::to_string(n + 1) +
                                       " fields, needs " + std::to_string(want + 1));
            if (!printf_int(f[0], 0, LLONG_MAX)) return fail(error, "record " + std::to_string(r.number) + ": bad flowpath instance");
            if (r.number == 13 && !printf_int(f[1], INT32_MIN, INT32_MAX))
                return fail(error, "record 13: bad status code");
            std::vector<CaptureItem> items;
            std::string why;
            if (parse_capture_text(f[n - 1], &items, &why) != 0)
                return fail(error, "record " + std::to_string(r.number) + ": " + why);
            return true;
        }
        case 7:
            if (n < 2) return fail(error, "record 7 needs an id and a name");
            if (!is_int(f[0])) return fail(error, "record 7: bad business transaction id");
            if (join(f, 1, n).empty()) return fail(error, "record 7: empty name");
            return true;
        case 10:
            if (n != 1 || !f[0].empty()) return fail(error, "record 10 must be \"10,\"");
            return true;
        case 19: {
            if (n < 2) return fail(error, "record 19 needs an instance and a value");
            if (!is_int(f[0])) return fail(error, "record 19: bad flowpath instance");
            const std::string v = join(f, 1, n);
            if (v.compare(0, 2, "2:") != 0 || v.find(":<") == std::string::npos || v.size() < 4 ||
                v.compare(v.size() - 2, 2, ">|") != 0)
                return fail(error, "record 19: value is not \"2:...:<...>|\"");
            return true;
        }
        case 22:
            return parse_query_record(f, nullptr, error) == 0;
        case 26:
            /* "26,%lld,%s": the name may hold commas. */
            if (n < 2 || !printf_int(f[0], LLONG_MIN, LLONG_MAX))
                return fail(error, "record 26 is not \"26,<id>,<name>\" with a whole-number id");
            return true;
        case 32:
        case 33:
        case 34:
        case 35:
        case 36:
            /* "%d,%d,%s": an exception text's id from 1, then the text, which
             * may hold commas and is never empty. */
            if (n < 2 || !printf_int(f[0], 1, INT32_MAX) || join(f, 1, n).empty())
                return fail(error, "record " + std::to_string(r.number) + " is not \"" + std::to_string(r.number) +
                                       ",<id from 1>,<text>\"");
            return true;
        case 38:
            return check_record_38(f, error);
        case 91:
            /* Caller's backend, caller's tier, own tier, caller's server and
             * instance, own server and instance, then the literal NA. */
            if (n != 8 || f[7] != "NA")
                return fail(error, "record 91 is not seven names and NA: " + std::to_string(n + 1) +
                                       " fields" + (n == 8 ? ", the last not NA" : ""));
            return true;
        case 99:
            if (n != 2 || f[0] != "NewConnection" || f[1].compare(0, 11, "FPGVersion:") != 0)
                return fail(error, "record 99 must be \"99,NewConnection,FPGVersion:<version>\"");
            return true;
        case 100:
            if (r.colon_form) return true;
            if (n < 2) return fail(error, "record 100 needs an instance and debug text");
            if (!is_int(f[0])) return fail(error, "record 100: bad flowpath instance");
            return true;
        default:
            /* Catalogued but not yet written by the agent: only the framing. */
            if (n < 1) return fail(error, "record " + std::to_string(r.number) + " has no fields");
            return true;
    }
}

int reject(std::string* error, std::string text)
{
    fail(error, std::move(text));
    return -1;
}

std::string_view trim(std::string_view s)
{
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t' || s.front() == '\r'))
        s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r'))
        s.remove_suffix(1);
    return s;
}

std::vector<std::string> missing_fields(const ControlLine& req, const char* const* keys,
                                        size_t count, const char* const* numeric,
                                        size_t numeric_count)
{
    std::vector<std::string> problems;
    for (size_t i = 0; i < count; ++i)
        if (!req.find(keys[i])) problems.push_back(std::string("missing field ") + keys[i]);
    for (size_t i = 0; i < numeric_count; ++i) {
        const std::string* v = req.find(numeric[i]);
        if (v && !is_int(*v))
            problems.push_back(std::string("field ") + numeric[i] + " is not a number");
    }
    return problems;
}

}  // namespace

bool printf_int(std::string_view s, long long lo, long long hi, long long* out)
{
    std::string_view digits = s;
    if (!digits.empty() && digits[0] == '-') digits.remove_prefix(1);
    if (digits.empty() || (digits[0] == '0' && (digits.size() > 1 || digits.size() < s.size())))
        return false;
    for (char c : digits)
        if (c < '0' || c > '9') return false;
    long long v = 0;
    const auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
    if (ec != std::errc() || end != s.data() + s.size() || v < lo || v > hi) return false;
    if (out) *out = v;
    return true;
}

int parse_flowpath_ids(std::string_view s, FlowpathIds* out)
{
    FlowpathIds ids;
    const size_t a = s.find(':');
    if (a == std::string_view::npos) {
        if (!take_instance(s, &ids.instance, &ids.forced)) return -1;
    } else {
        const size_t b = s.find(':', a + 1);
        if (b == std::string_view::npos) return -1;
        bool f1 = false, f2 = false;
        if (!take_instance(s.substr(0, a), &ids.instance, &ids.forced) ||
            !take_instance(s.substr(a + 1, b - a - 1), &ids.first, &f1) ||
            !take_instance(s.substr(b + 1), &ids.previous, &f2) || f1 != ids.forced ||
            f2 != ids.forced || ids.first == 0)
            return -1;
        ids.chained = true;
    }
    if (out) *out = ids;
    return 0;
}

const CatalogueEntry* catalogue_find(int number)
{
    for (const CatalogueEntry& e : kCatalogue)
        if (e.number == number) return &e;
    return nullptr;
}

int parse_record(std::string_view line, Record* out, std::string* error)
{
    Record r;
    if (line.empty()) return reject(error, "empty line");
    size_t i = 0;
    while (i < line.size() && i < 4 && line[i] >= '0' && line[i] <= '9') ++i;
    if (i == 0 || i >= line.size() || (line[i] != ',' && line[i] != ':'))
        return reject(error, "line does not begin with a record number and a comma");
    r.number = 0;
    for (size_t k = 0; k < i; ++k) r.number = r.number * 10 + (line[k] - '0');
    const CatalogueEntry* entry = catalogue_find(r.number);
    if (!entry)
        return reject(error,
                      "record number " + std::to_string(r.number) + " is not in the catalogue");
    if (entry->channel != Channel::Data)
        return reject(
            error, "record " + std::to_string(r.number) + " belongs on the auto-sensor connection");
    std::string_view rest = line.substr(i + 1);
    if (line[i] == ':') {
        if (r.number != 100) return reject(error, "only record 100 has the colon form");
        r.colon_form = true;
        r.fields.emplace_back(rest);
    } else {
        for (;;) {
            const size_t c = rest.find(',');
            r.fields.emplace_back(rest.substr(0, c));
            if (c == std::string_view::npos) break;
            rest.remove_prefix(c + 1);
        }
    }
    if (!check_shape(r, error)) return -1;
    if (out) *out = std::move(r);
    return 0;
}

const std::string* ControlLine::find(std::string_view key) const
{
    for (const auto& kv : fields)
        if (kv.first == key) return &kv.second;
    return nullptr;
}

int parse_control_line(std::string_view line, ControlLine* out, std::string* error)
{
    const size_t colon = line.find(':');
    if (colon == std::string_view::npos || colon == 0) {
        if (error) *error = "control line has no head";
        return -1;
    }
    ControlLine c;
    c.head = std::string(trim(line.substr(0, colon)));
    std::string_view rest = line.substr(colon + 1);
    while (!rest.empty()) {
        const size_t semi = rest.find(';');
        const std::string_view field = trim(rest.substr(0, semi));
        if (!field.empty()) {
            const size_t eq = field.find('=');
            if (eq == std::string_view::npos)
                c.fields.emplace_back(std::string(field), std::string());
            else
                c.fields.emplace_back(std::string(field.substr(0, eq)),
                                      std::string(field.substr(eq + 1)));
        }
        if (semi == std::string_view::npos) break;
        rest.remove_prefix(semi + 1);
    }
    if (out) *out = std::move(c);
    return 0;
}

FirstLine classify_first_line(std::string_view line)
{
    auto starts = [&](const char* p) { return line.compare(0, strlen(p), p) == 0; };
    if (starts("vx_ctrl_msg_req:")) return FirstLine::ControlRequest;
    if (starts("klv_saas_auth_agent_msg_req:")) return FirstLine::HostedRequest;
    if (starts("vx_data_msg_req:")) return FirstLine::DataOpening;
    if (starts("auto_sensor_thread_hotspot_data_req:")) return FirstLine::AutoSensorOpening;
    if (starts("agent_post_data_req:action=discover_loaded_classes;"))
        return FirstLine::DiscoveryOpening;
    return FirstLine::Unknown;
}

std::vector<std::string> check_control_request(const ControlLine& req)
{
    static const char* const kKeys[] = {"appName",      "vxAppServerHost",
                                        "tierName",     "bciVersion",
                                        "bciStartTime", "vxHome",
                                        "pid",          "BCITimeStamp",
                                        "agentType",    "serverIp",
                                        "hostName",     "isAgentLess",
                                        "jvmType",      "javaVersion",
                                        "javaHome",     "machineType",
                                        "requestType",  "lastConnectionTimeStamp",
                                        "connDuration", "connDestination",
                                        "agentName",    "supportedProtocols",
                                        "authtoken",    "tags",
                                        "attributes",   "protoVer"};
    static const char* const kNumeric[] = {
        "bciStartTime", "pid",     "BCITimeStamp", "requestType", "lastConnectionTimeStamp",
        "connDuration", "protoVer"};
    std::vector<std::string> problems;
    if (req.head != "vx_ctrl_msg_req") problems.push_back("head is not vx_ctrl_msg_req");
    for (std::string& p :
         missing_fields(req, kKeys, std::size(kKeys), kNumeric, std::size(kNumeric)))
        problems.push_back(std::move(p));
    const std::string* rt = req.find("requestType");
    if (rt && is_int(*rt) && (*rt != "1" && *rt != "2" && *rt != "3"))
        problems.push_back("requestType is not 1, 2 or 3");
    const std::string* pv = req.find("protoVer");
    if (pv && is_int(*pv) && *pv != "0" && *pv != "1") problems.push_back("protoVer is not 0 or 1");
    return problems;
}

std::vector<std::string> check_hosted_request(const ControlLine& req)
{
    static const char* const kKeys[] = {
        "appName",      "agentVersion",       "agentStartTime", "vxHome",
        "pid",          "isAgentLess",        "jvmType",        "javaVersion",
        "javaHome",     "machineType",        "requestType",    "lastConnectionTimeStamp",
        "connDuration", "connDestination",    "projectKey",     "protoVer",
        "agentType",    "supportedProtocols", "agentIp",        "tags",
        "attributes",   "agentHostName"};
    static const char* const kNumeric[] = {"agentStartTime",          "pid",          "requestType",
                                           "lastConnectionTimeStamp", "connDuration", "protoVer"};
    std::vector<std::string> problems;
    if (req.head != "klv_saas_auth_agent_msg_req")
        problems.push_back("head is not klv_saas_auth_agent_msg_req");
    for (std::string& p :
         missing_fields(req, kKeys, std::size(kKeys), kNumeric, std::size(kNumeric)))
        problems.push_back(std::move(p));
    const std::string* pv = req.find("protoVer");
    if (pv && *pv != "1") problems.push_back("protoVer is not 1");
    return problems;
}

std::vector<std::string> check_data_opening(const ControlLine& req)
{
    static const char* const kKeys[] = {"appName",  "appID",  "vxAppServerID", "vxAppServerHost",
                                        "tierName", "tierID", "VXCollectorIP", "VXCollectorPort",
                                        "testIdx",  "pid",    "agentName"};
    static const char* const kNumeric[] = {"appID",           "vxAppServerID", "tierID",
                                           "VXCollectorPort", "testIdx",       "pid"};
    std::vector<std::string> problems;
    if (req.head != "vx_data_msg_req") problems.push_back("head is not vx_data_msg_req");
    for (std::string& p :
         missing_fields(req, kKeys, std::size(kKeys), kNumeric, std::size(kNumeric)))
        problems.push_back(std::move(p));
    return problems;
}

}  // namespace vxc
