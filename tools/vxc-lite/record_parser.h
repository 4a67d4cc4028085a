/*
 * record_parser: turns the byte stream of a collector connection into lines,
 * and lines into records and control messages.
 *
 * Nothing here touches a socket or a file; the server feeds bytes in and gets
 * lines and verdicts back. Every function is bounded by its input and by the
 * limits given at construction, and reports bad input as a result, never by
 * ending the process. All of it is single-threaded: one splitter per
 * connection, used by the thread that owns the connection.
 */
#ifndef VXC_LITE_RECORD_PARSER_H
#define VXC_LITE_RECORD_PARSER_H

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vxc {

/* Default bound of one line: the size of the agent's control buffer, which is
 * also the largest record any producer can write. */
constexpr size_t kDefaultMaxLine = 131072;

/* Bound of a binary body behind a head line (a digest record's). */
constexpr size_t kMaxRawBody = 16u * 1024 * 1024;

/*
 * Splits a byte stream into lines ended by a line feed. A line may straddle
 * any number of feeds. NUL bytes are dropped (the agent skips them between
 * lines, and they carry nothing inside one) and counted. A line longer than
 * the bound is not delivered: the splitter reports it once, drops its bytes up
 * to the next line feed and goes on with the line after it.
 *
 * A line may announce a binary body: the line callback calls take_raw(n),
 * and the next n bytes, whatever they are (line feeds and NULs included),
 * are the body, followed by one line feed. The body goes to the raw callback
 * once that line feed, or the byte standing in its place, has arrived.
 */
class LineSplitter {
public:
    /* on_line receives each complete line without its line feed (possibly
     * empty: a bare line feed). on_overlong receives the bytes seen of a line
     * when it passes the bound. on_raw receives a body and whether the line
     * feed followed it; when it did not, the byte in its place begins the
     * next line. All are called from feed(). */
    using LineFn = std::function<void(std::string_view line)>;
    using OverlongFn = std::function<void(size_t bytes_seen)>;
    using RawFn = std::function<void(std::string_view body, bool line_feed_behind)>;

    explicit LineSplitter(size_t max_line = kDefaultMaxLine, size_t max_raw = kMaxRawBody)
        : max_line_(max_line), max_raw_(max_raw)
    {
    }

    /* on_raw may be empty for a stream that has no bodies; bodies are then
     * dropped. */
    void feed(const char* data, size_t len, const LineFn& on_line, const OverlongFn& on_overlong,
              const RawFn& on_raw = RawFn());

    /* From the line callback only: the n bytes after the line just delivered
     * are a body. Returns 0, or -1 (nothing taken, nothing allocated) when n
     * is over the bound or a body is already awaited. */
    int take_raw(size_t n);

    /* Bytes held for the next feed; not 0 while a body or its line feed is
     * awaited. */
    size_t pending() const { return buf_.size() + raw_.size() + (in_raw_ ? 1 : 0); }
    unsigned long long nul_bytes() const { return nul_bytes_; }

    /* The line begun and not ended, for a peer that closes behind its last
     * line; empty while a body is awaited or an overlong line skipped. The
     * splitter forgets it. */
    std::string take_partial()
    {
        if (in_raw_ || discarding_) return {};
        return std::exchange(buf_, std::string());
    }

private:
    /* Add a run of bytes to the line being built, or drop it while an
     * overlong line is being skipped. */
    void take(const char* run, size_t n, const OverlongFn& on_overlong);
    /* Feeds the awaited body; returns the bytes used. */
    size_t feed_raw(const char* data, size_t len, const RawFn& on_raw);

    size_t max_line_;
    size_t max_raw_;
    std::string buf_;
    bool discarding_ = false;
    size_t discarded_ = 0;
    unsigned long long nul_bytes_ = 0;
    bool in_raw_ = false;
    size_t raw_left_ = 0; /* body bytes still to come */
    std::string raw_;
};

/* Which connection a catalogued record travels on. */
enum class Channel { Data, AutoSensor };

/* The catalogue entry of a record number, or null if the number is not one
 * this system writes. */
struct CatalogueEntry {
    int number;
    Channel channel;
    const char* meaning;
};
const CatalogueEntry* catalogue_find(int number);

/* One parsed record: its number and the fields after it, as they stand on the
 * line (commas inside a free-text field split it; checks that know the shape
 * of a record join them back). colon_form is the "100:<text>" stack trace
 * form, whose one field is the text after the colon. */
struct Record {
    int number = -1;
    bool colon_form = false;
    std::vector<std::string> fields;
};

/*
 * Parses one record line (without its line feed) and checks it against the
 * catalogue and, for the records the agent writes so far (2, 3, 4, 5, 6, 7,
 * 10, 12, 13, 19, 22, 26, 32 to 36, 38, 91, 99, 100), against their field
 * shape. Returns 0 and fills out, or -1 and
 * puts the reason in error. An empty line is not a record (it is a
 * heartbeat; the caller tells them apart). Records that belong on the
 * auto-sensor connection are refused on the data connection.
 */
int parse_record(std::string_view line, Record* out, std::string* error);

/* A whole number as printf writes it with %d or %lld: digits with "-" ahead
 * of a negative one, no "+", no leading zero, within [lo, hi]. */
bool printf_int(std::string_view s, long long lo, long long hi, long long* out = nullptr);

/* Fields [from, to) of `f` joined by commas again. */
std::string join(const std::vector<std::string>& f, size_t from, size_t to);

/*
 * Record 2's second field: the flowpath instance alone, or the triple
 * "<instance>:<first>:<previous>" of a flowpath that continues one of
 * another tier. A forced flowpath has "F" behind every number, so either
 * all of the triple carry it or none does, and a triple's first instance
 * is never 0 (a flowpath without one is written alone).
 */
struct FlowpathIds {
    long long instance = 0;
    long long first = 0;
    long long previous = 0;
    bool chained = false;
    bool forced = false;
};

/* 0 and the ids in out, or -1 when the text is not of that grammar. */
int parse_flowpath_ids(std::string_view s, FlowpathIds* out);

/* A control line: "<head>:<key>=<value>;<key>=<value>;...". Fields without an
 * "=" keep an empty value with the whole field as key (the agent's heartbeat
 * field "heartBeat <n>" is one). Surrounding blanks of a field are dropped. */
struct ControlLine {
    std::string head;
    std::vector<std::pair<std::string, std::string>> fields;

    /* The value of the first field with this key, or null. */
    const std::string* find(std::string_view key) const;
};

/* Splits a control line at its first ":" and then on ";"; each field is cut at
 * its first "=". Returns 0, or -1 with error set when there is no head. */
int parse_control_line(std::string_view line, ControlLine* out, std::string* error);

/* What the first line of a connection says it is, by its head alone. */
enum class FirstLine {
    ControlRequest,
    HostedRequest,
    DataOpening,
    AutoSensorOpening,
    DiscoveryOpening,
    Unknown
};
FirstLine classify_first_line(std::string_view line);

/* Checks the agent's control request "vx_ctrl_msg_req:..." for the fields it
 * must carry and for numbers where numbers belong. Returns the problems found,
 * one text each; empty when the line is as expected. */
std::vector<std::string> check_control_request(const ControlLine& req);

/* The same for the hosted sign-in request "klv_saas_auth_agent_msg_req:...". */
std::vector<std::string> check_hosted_request(const ControlLine& req);

/* The same for the data connection's opening line "vx_data_msg_req:...". */
std::vector<std::string> check_data_opening(const ControlLine& req);

}  // namespace vxc

#endif
