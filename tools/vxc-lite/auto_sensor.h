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
 * Nothing here touches a socket or a file, except read_bt_monitor, which
 * reads back the file the server writes. Pure functions; any thread.
 */
#ifndef VXC_LITE_AUTO_SENSOR_H
#define VXC_LITE_AUTO_SENSOR_H

#include <string>
#include <string_view>
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

enum class AsKind {
    BtMonitor,     /* record 74 */
    ThreadSummary, /* record 53 */
    HotSpot,       /* record 52 */
    GcReport,      /* "<id>,<tierID>|<appID>|0:<tier>><server>><instance>|<report>" */
    Other,         /* 61, 63, 75, 96 or 121: framing only so far */
};

struct AsRecord {
    int number = -1; /* for a garbage-collection report, the host's id */
    AsKind kind = AsKind::Other;
    BtMonitorLine bt; /* a record 74's parts */
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

}  // namespace vxc

#endif
