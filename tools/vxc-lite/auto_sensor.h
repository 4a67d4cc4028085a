/*
 * auto_sensor: the lines of an auto-sensor connection, the agent's second
 * stream, which carries monitor rows, thread reports and garbage-collection
 * reports. The collector sends nothing back on it.
 *
 * The opening line and each record are checked field by field against the
 * formats the agent prints them with: "%d" and "%lld" are whole numbers as
 * printf writes them (no sign but "-", no leading zero), "%lf" is a number
 * with exactly six decimals. When the opening line was good, the tier and
 * application ids and the vector (tier, server, instance) every record
 * names must be the ones it gave.
 *
 * Nothing here touches a socket or a file, except read_bt_monitor,
 * read_backend_monitor and read_percentiles, which read back the files the
 * server writes. Pure
 * functions, and ExactTotals, one per connection; any thread.
 */
#ifndef VXC_LITE_AUTO_SENSOR_H
#define VXC_LITE_AUTO_SENSOR_H

#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vxc {

/* The fields of the opening line
 * "auto_sensor_thread_hotspot_data_req:appName=%s;appID=%d;vxAppServerID=%d;
 * vxAppServerHost=%s;tierName=%s;tierID=%d;VXCollectorIP=%s;
 * VXCollectorPort=%d,testIdx=%d;pid=%lld;agentName=%s". */
struct AsOpening {
    std::string app_name;
    long long app_id = 0;
    long long server_id = 0;
    std::string server_host;
    std::string tier_name;
    long long tier_id = 0;
    std::string collector_ip;
    long long collector_port = 0;
    long long test_idx = 0;
    long long pid = 0;
    std::string agent_name;
};

/* Checks the opening line (without its line feed) in exactly that order and
 * form; the separator ahead of testIdx is a comma, not a semicolon. Returns 0
 * and fills out, or -1 with the first difference in error. */
int check_as_opening(std::string_view line, AsOpening* out, std::string* error);

/* A record 74 of the BT monitor: "74,<tierID>|<appID>|<id>:<tier>><server>>
 * <instance>><BT name>|" and, with tags, "<tag text>|" behind the name, then
 * 40 fields separated by blanks. The id is the BT id, with tags the series
 * id; 0 is the overall line "AllTransactions". */
struct BtMonitorLine {
    long long id = 0;
    std::string name;
    bool tagged = false;
    std::string tag;
    std::vector<std::string> fields; /* the 40 fields as they stand */
};

/* A record 75 of the backend monitor: "75,<tierID>|<appID>|<backend id>:
 * <tier>><server>><instance>><backend name>|" then 22 fields separated by
 * blanks, "%lld %lf %lf %lld %lld %lld %lld 0.0 0 0 %lld 0.0 0 0 %lld %lf
 * 0 0 0 0 0 0": calls of the session, calls a second, mean, minimum and
 * maximum duration, calls, failed calls, ..., failed calls a second. There
 * is no overall line: the id is a backend's, 1 or more. */
struct BackendMonitorLine {
    long long id = 0;
    std::string name;
    std::vector<std::string> fields; /* the 22 fields as they stand */
};

/* A record 61 of the method monitor: "61,<tierID>|<appID>|<method id>:
 * <tier>><server>><instance>><name>|" then "%d %lf %lf %lf %lld %d": calls
 * of the session, calls a second, mean, minimum and maximum duration, calls
 * of the interval. The id is a method's, 1 or more. */
struct MethodMonitorLine {
    long long id = 0;
    std::string name;
    std::vector<std::string> fields; /* the 6 fields as they stand */
};

/* A record 63 of the exception monitor: the same head, then "%d %lf \n":
 * throws of the session, throws a second, and a blank before the line
 * feed. Id 0 is the overall line "OverAll". */
struct ExceptionMonitorLine {
    long long id = 0;
    std::string name;
    std::vector<std::string> fields; /* the 2 fields as they stand */
};

/* The head of a digest record, printed with "%s%ld|%d:%s%s,%lld,%d" (96,
 * t-digest) or "%s%ld|%d|%d:%s%s|%s|%lld,%d" (121, c-digest) behind the
 * number: "<tierID>|<appID>|", group id, graph id, for 121 the series id (0
 * for the overall "AllTransactions"), the vector "<tier>><server>>
 * <instance>>", the name, for 121 an empty text, the time in ms and the
 * length of the binary body that follows the head's line feed. */
struct DigestHead {
    long long group_id = 0;
    long long graph_id = 0;
    long long series = -1; /* 121 only */
    std::string name;
    long long ts = 0;
    long long bytes = 0; /* at most kMaxRawBody */
};

enum class AsKind {
    BtMonitor,      /* record 74 */
    BackendMonitor, /* record 75 */
    ThreadSummary,  /* record 53 */
    HotSpot,        /* record 52 */
    GcReport,       /* "<id>,<tierID>|<appID>|0:<tier>><server>><instance>|<report>" */
    Digest,         /* the head of a record 96 or 121 */
    MethodMonitor,    /* record 61 */
    ExceptionMonitor, /* record 63 */
    Other,
};

struct AsRecord {
    int number = -1; /* for a garbage-collection report, the host's id */
    AsKind kind = AsKind::Other;
    BtMonitorLine bt;           /* a record 74's parts */
    BackendMonitorLine backend; /* a record 75's */
    MethodMonitorLine method;   /* a record 61's */
    ExceptionMonitorLine exception; /* a record 63's */
    DigestHead digest;          /* a record 96's or 121's */
};

/*
 * Parses one line of an auto-sensor connection after its opening line.
 * opening, when not null, is the connection's good opening line, whose ids
 * and names the heads must repeat. Returns 0 and fills out, or -1 with the
 * reason in error: an empty line (a bare line feed is a heartbeat only on the
 * data connection), a data-connection record, or a record that fails its
 * check.
 */
int parse_as_record(std::string_view line, const AsOpening* opening, AsRecord* out,
                    std::string* error);

/* The body length a record 96 or 121 head announces, read from its last
 * field alone, so that the body of a head parse_as_record refused can still
 * be passed over. -1 when the line is no such head or the length is not one
 * from 0 to kMaxRawBody. */
long long digest_body_length(std::string_view line);

/*
 * bt_monitor.tsv, one row per record 74 accepted, tab-separated, under the
 * header line kBtMonitorHeader. interval counts the overall lines its
 * connection sent before the row, so a row and the overall line that closes
 * its interval share it. The numbers stand as on the record: tps field 1,
 * avg 2, min 3, max 4, count 5, errors 23. Tabs in name and tag become
 * blanks.
 */
constexpr const char* kBtMonitorHeader =
    "conn\tinterval\tid\tname\ttagged\ttag\ttps\tavg\tmin\tmax\tcount\terrors";

std::string bt_monitor_row(unsigned conn, unsigned long long interval, const BtMonitorLine& bt);

struct BtMonitorRow {
    unsigned conn = 0;
    unsigned long long interval = 0;
    long long id = 0;
    std::string name;
    bool tagged = false;
    std::string tag;
    double tps = 0, avg = 0, min = 0;
    long long max = 0, count = 0, errors = 0;
};

/* The rows of a bt_monitor.tsv; rows that do not read are skipped. */
std::vector<BtMonitorRow> read_bt_monitor(const std::string& path);

/*
 * backend_monitor.tsv, one row per record 75 accepted, under the header
 * kBackendMonitorHeader: the connection, the interval counted as in
 * bt_monitor.tsv (the overall records 74 the connection sent before the
 * row), the backend id and name, then fields 1 to 7 and 16 as they stand
 * on the record.
 */
constexpr const char* kBackendMonitorHeader =
    "conn\tinterval\tid\tname\tcum_count\ttps\tavg\tmin\tmax\tcount\terrors\teps";

std::string backend_monitor_row(unsigned conn, unsigned long long interval,
                                const BackendMonitorLine& b);

struct BackendMonitorRow {
    unsigned conn = 0;
    unsigned long long interval = 0;
    long long id = 0;
    std::string name;
    long long cum_count = 0;
    double tps = 0, avg = 0;
    long long min = 0, max = 0, count = 0, errors = 0;
    double eps = 0;
};

/* The rows of a backend_monitor.tsv; rows that do not read are skipped. */
std::vector<BackendMonitorRow> read_backend_monitor(const std::string& path);

/* method_monitor.tsv, one row per record 61 accepted: connection,
 * interval (as in bt_monitor.tsv), id, name, then the 6 fields as they
 * stand. */
constexpr const char* kMethodMonitorHeader =
    "conn\tinterval\tid\tname\tcum_count\ttps\tavg\tmin\tmax\tcount";

std::string method_monitor_row(unsigned conn, unsigned long long interval,
                               const MethodMonitorLine& m);

struct MethodMonitorRow {
    unsigned conn = 0;
    unsigned long long interval = 0;
    long long id = 0;
    std::string name;
    long long cum_count = 0;
    double tps = 0, avg = 0, min = 0;
    long long max = 0, count = 0;
};

std::vector<MethodMonitorRow> read_method_monitor(const std::string& path);

/* exception_monitor.tsv, one row per record 63 accepted: connection,
 * interval, id, name, throws of the session, throws a second. */
constexpr const char* kExceptionMonitorHeader = "conn\tinterval\tid\tname\tcum_count\teps";

std::string exception_monitor_row(unsigned conn, unsigned long long interval,
                                  const ExceptionMonitorLine& e);

struct ExceptionMonitorRow {
    unsigned conn = 0;
    unsigned long long interval = 0;
    long long id = 0;
    std::string name;
    long long cum_count = 0;
    double eps = 0;
};

std::vector<ExceptionMonitorRow> read_exception_monitor(const std::string& path);

/*
 * The values the collector can rebuild, from a connection's records 74, of
 * what the agent put into a digest series: for each row of a business
 * transaction's own series (not a tag set's, known by the tag text its
 * first row carries), the interval's total response time, avg (value 2)
 * times count (value 5) rounded to the nearest whole number, kept when it is
 * at least 1. The series "AllTransactions" gets the totals of every
 * transaction's rows, not those of the overall line. The agent feeds a
 * digest one sum per host thread and interval, so these totals are the
 * values in its digests when each business transaction is served by one
 * host thread, as the demo and the tests arrange; with more threads the
 * digest holds each thread's share instead, and the two differ.
 *
 * Kept apart for records 96 and 121: take() hands over a name's totals since
 * that record's last digest of the name and starts the list again. A list
 * stops growing at kMaxExactTotals values (a connection that sends no
 * digests). One per connection.
 */
class ExactTotals {
public:
    static constexpr size_t kMaxExactTotals = 1u << 20;

    void add(const BtMonitorLine& bt);
    std::vector<double> take(int record, const std::string& name);

private:
    std::map<std::pair<int, std::string>, std::vector<double>> lists_;
    std::set<long long> tag_series_; /* series ids of tag sets */
};

/*
 * percentiles.tsv, one row per digest record whose body decoded, under the
 * header kPercentilesHeader: connection, record number, series id (121
 * only), name, time, body length, values in the digest, its quantiles 0.5,
 * 0.9 and 0.99, then exact_n, the number of totals ExactTotals had for the
 * series, and their quantiles (exact_quantile for record 96,
 * exact_rank_quantile for record 121, the rules their digests are read by). A quantile of nothing is an
 * empty field; numbers are written in the fewest digits that read back to
 * the same double.
 */
constexpr const char* kPercentilesHeader =
    "conn\trecord\tseries\tname\tts\tbytes\tcount\tp50\tp90\tp99\texact_n\texact_p50\t"
    "exact_p90\texact_p99";

struct PercentileRow {
    unsigned conn = 0;
    int record = 0;
    long long series = -1; /* -1: none (record 96) */
    std::string name;
    long long ts = 0;
    long long bytes = 0;
    unsigned long long count = 0;
    double p50 = 0, p90 = 0, p99 = 0; /* NaN for an empty digest */
    unsigned long long exact_n = 0;
    double exact_p50 = 0, exact_p90 = 0, exact_p99 = 0; /* NaN when exact_n is 0 */
};

std::string percentiles_row(const PercentileRow& row);

/* The rows of a percentiles.tsv; rows that do not read are skipped. */
std::vector<PercentileRow> read_percentiles(const std::string& path);

}  // namespace vxc

#endif
