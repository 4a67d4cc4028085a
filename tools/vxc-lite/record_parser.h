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
#include <vector>

namespace vxc {

/* Default bound of one line: the size of the agent's control buffer, which is
 * also the largest record any producer can write. */
constexpr size_t kDefaultMaxLine = 131072;

/*
 * Splits a byte stream into lines ended by a line feed. A line may straddle
 * any number of feeds. NUL bytes are dropped (the agent skips them between
 * lines, and they carry nothing inside one) and counted. A line longer than
 * the bound is not delivered: the splitter reports it once, drops its bytes up
 * to the next line feed and goes on with the line after it.
 */
class LineSplitter {
public:
    /* on_line receives each complete line without its line feed (possibly
     * empty: a bare line feed). on_overlong receives the bytes seen of a line
     * when it passes the bound. Both are called from feed(). */
    using LineFn = std::function<void(std::string_view line)>;
    using OverlongFn = std::function<void(size_t bytes_seen)>;

    explicit LineSplitter(size_t max_line = kDefaultMaxLine) : max_line_(max_line) {}

    void feed(const char* data, size_t len, const LineFn& on_line, const OverlongFn& on_overlong);

    /* Bytes of an unfinished line held for the next feed. */
    size_t pending() const { return buf_.size(); }
    unsigned long long nul_bytes() const { return nul_bytes_; }

private:
    /* Add a run of bytes to the line being built, or drop it while an
     * overlong line is being skipped. */
    void take(const char* run, size_t n, const OverlongFn& on_overlong);

    size_t max_line_;
    std::string buf_;
    bool discarding_ = false;
    size_t discarded_ = 0;
    unsigned long long nul_bytes_ = 0;
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
 * catalogue and, for the records the agent writes so far (2, 3, 4, 5, 7, 10,
 * 19, 99, 100), against their field shape. Returns 0 and fills out, or -1 and
 * puts the reason in error. An empty line is not a record (it is a
 * heartbeat; the caller tells them apart). Records that belong on the
 * auto-sensor connection are refused on the data connection.
 */
int parse_record(std::string_view line, Record* out, std::string* error);

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
enum class FirstLine { ControlRequest, HostedRequest, DataOpening, AutoSensorOpening, Unknown };
FirstLine classify_first_line(std::string_view line);

/* Checks the agent's control request "vx_ctrl_msg_req:..." for the fields it
 * must carry and for numbers where numbers belong. Returns the problems found,
 * one text each; empty when the line is as expected. */
std::vector<std::string> check_control_request(const ControlLine& req);

/* The same for the data connection's opening line "vx_data_msg_req:...". */
std::vector<std::string> check_data_opening(const ControlLine& req);

}  // namespace vxc

#endif
