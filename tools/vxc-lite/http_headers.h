/*
 * http_headers: the HTTP headers a run's agents captured, as records 6, 12
 * and 13 carry them.
 *
 *   6,<name>,<id>                 an id for a header name, or for a header
 *                                 value that travels as an id; the name may
 *                                 hold commas, the id is the last field
 *   12,<instance>,<text>          a flowpath's request headers
 *   13,<instance>,<status>,<text> its response headers
 *
 * The text is "|"-separated items "<nameId>:<<value>>" or
 * "<nameId>:<valueId>"; values come escaped, so they hold no "|" or ",".
 * A text whose first header was left out begins with "|". The agent cuts
 * the text at 2047 bytes, so a text of that length may end inside an item.
 *
 * headers.tsv has one row per item: the connection, the flowpath, "req" or
 * "rep", the status ("-" for a request), the name's id and name, the
 * value's id ("-" for a text value) and the value (an id's name); a name
 * no record 6 of the connection gave is "-". Pure functions except
 * read_headers, which reads the file back for tests.
 */
#ifndef VXC_LITE_HTTP_HEADERS_H
#define VXC_LITE_HTTP_HEADERS_H

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace vxc {

/* The longest text the agent writes; a text this long may end cut. */
constexpr size_t kCaptureTextMax = 2047;

struct CaptureItem {
    long long name_id = 0;
    bool value_is_id = false;
    long long value_id = 0;
    std::string value; /* the text value, as on the wire */
};

/* 0 and the items, or -1 with the reason. A cut last item (only in a text
 * of kCaptureTextMax bytes) is dropped. */
int parse_capture_text(std::string_view text, std::vector<CaptureItem>* out, std::string* error);

constexpr const char* kHeadersHeader =
    "conn\tfpi\tdirection\tstatus\tname_id\tname\tvalue_id\tvalue";

struct HeaderRow {
    unsigned conn = 0;
    long long fpi = 0;
    std::string direction; /* "req" or "rep" */
    std::string status;    /* "-" for a request */
    long long name_id = 0;
    std::string name;
    std::string value_id; /* "-" for a text value */
    std::string value;
};

/* The rows of one record 12 or 13 that passed parse_record, with names and
 * value ids resolved through `ids` (the connection's records 6). */
std::vector<std::string> header_rows(unsigned conn, int number,
                                     const std::vector<std::string>& fields,
                                     const std::map<long long, std::string>& ids);
std::vector<HeaderRow> read_headers(const std::string& path);

}  // namespace vxc

#endif
