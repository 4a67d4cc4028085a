/*
 * run_store: the run directory of one vxc-lite run and the counts that go
 * into its summary.
 *
 *   conn-<n>-<kind>.lines  every line a connection sent, NUL bytes removed
 *   bt_monitor.tsv         one row per record 74 of the auto-sensor
 *                          connections (see auto_sensor.h)
 *   backend_monitor.tsv    one row per record 75 (ditto)
 *   method_monitor.tsv     one row per record 61 (ditto)
 *   exception_monitor.tsv  one row per record 63 (ditto)
 *   percentiles.tsv        one row per digest record 96 or 121 (ditto)
 *   topology.tsv           one row per record 91 of the data connections
 *                          (see topology.h)
 *   resources.tsv          one row per record 26 (ditto)
 *   callouts.tsv           one row per callout token of records 3 and 4,
 *                          with the query id of a database call
 *   traces.tsv             one row per record 2: ids, trace id, parent id, flags
 *                          (ditto)
 *   headers.tsv            one row per captured header of records 12 and
 *                          13 (see http_headers.h)
 *   exceptions.tsv         one row per record 38, texts resolved through
 *                          records 32 to 36 (see exceptions.h)
 *   queries.tsv            one row per record 22: its query text as sent
 *                          and decoded (see queries.h)
 *   discovery.tsv          one row per result or summary line of the
 *                          discovery connections (see discovery.h)
 *   links.tsv              one row per chained record 2 (ditto), written
 *                          when the run ends
 *   malformed.txt          "<conn> <reason> | <line, cut to 200 bytes>"
 *   undeclared.txt         the same, one line for each use of an id the
 *                          connection did not declare before (see
 *                          id_ledger.h), the first 1,000 of a connection
 *   summary.txt            key=value counts, one line a declared business
 *                          transaction ("bt.<id>=<name>"), then one line a
 *                          connection ("conn.<n>=...") and one more a
 *                          control connection ("control.<n>=..."); rewritten at most once a second
 *                          while something changed, and at the end
 *   vxc-lite.log           the log
 *
 * Used by the server's thread only. File errors are logged once and the run
 * goes on without that file.
 */
#ifndef VXC_LITE_RUN_STORE_H
#define VXC_LITE_RUN_STORE_H

#include <cstdio>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "bt_registry.h"

namespace vxc {

/* One connection as the summary lists it. */
struct ConnectionSeen {
    std::string kind = "unknown";
    std::string peer;
    std::string app_name; /* from the first line, when it names them */
    std::string agent_name;
    std::string pid;
    unsigned long long lines = 0;
    unsigned long long records = 0;
    unsigned long long malformed = 0;
    std::string closed; /* empty while open, else why it closed */
    /* A control connection: the head of its request, the requestType and
     * connDestination it gave, and the agent's heartbeats on it. */
    std::string request;
    std::string request_type;
    std::string conn_destination;
    unsigned long long agent_heartbeats = 0;
};

/* Connections listed one by one in the summary; later ones are only counted. */
constexpr size_t kMaxConnectionsListed = 10000;

struct Counts {
    unsigned long long connections = 0;         /* accepted */
    unsigned long long connections_refused = 0; /* over the limit */
    unsigned long long control_connections = 0;
    unsigned long long data_connections = 0;
    unsigned long long unknown_connections = 0; /* first line not recognised, or none */
    unsigned long long control_requests_with_problems = 0;
    unsigned long long data_openings_with_problems = 0;
    unsigned long long agent_control_lines = 0; /* after the request */
    unsigned long long heartbeats_sent = 0;
    /* Moving agents: the agent's heartbeats on control connections, the
     * hosted sign-in requests answered, the reroute orders sent. */
    unsigned long long agent_heartbeats = 0;
    unsigned long long hosted_replies = 0;
    unsigned long long reroutes_sent = 0;
    /* Bare line feeds on data connections: heartbeats, and the one that
     * opens record 99 and the one behind the opening line. */
    unsigned long long data_heartbeats = 0;
    unsigned long long records = 0;
    unsigned long long malformed = 0;
    unsigned long long overlong = 0;
    unsigned long long nul_bytes = 0;
    /* The instrumentation session: lines sent, the agent's answers, its
     * fetches and how they were answered. */
    unsigned long long starts_sent = 0;
    unsigned long long modifies_sent = 0;
    unsigned long long replay_requests_sent = 0;
    unsigned long long replay_answers = 0; /* "vx_meta_data_rep:status=complete;" */
    unsigned long long leftover_records = 0; /* data records ahead of their connection's 99 */
    unsigned long long stops_sent = 0;
    unsigned long long start_answers = 0;
    unsigned long long modify_answers = 0;
    unsigned long long stop_answers = 0;
    unsigned long long error_answers = 0; /* "vx_control_rep:result=Error..." */
    unsigned long long file_requests = 0;
    unsigned long long profile_requests = 0;
    unsigned long long files_sent = 0;          /* file and profile replies with content */
    unsigned long long failed_file_replies = 0; /* file and profile refusals */
    unsigned long long fetches_dropped = 0;     /* connections closed instead of answering */
    /* Business transactions: records 7 received, and records 2 and 4 whose
     * id neither a record 7 nor the served rules declared before them. */
    unsigned long long bt_declarations = 0;
    unsigned long long undeclared_bt = 0;
    /* Tiers and resources: records 91 and 26 received, records 91 of a
     * caller the connection named before, records 2 of a chained flowpath
     * and, when the run ends, those whose caller's record 2 never came. */
    unsigned long long records_91 = 0;
    unsigned long long records_91_repeated = 0;
    unsigned long long records_26 = 0;
    unsigned long long chained_flowpaths = 0;
    unsigned long long chained_unresolved = 0;
    /* Queries: records 22 whose id the connection announced before with
     * another text, and those whose text it announced with another id
     * (both also in malformed). */
    unsigned long long query_ids_reused = 0;
    unsigned long long query_texts_reused = 0;
    /* Uses of ids that no metadata record of the same data connection
     * declared before them (see id_ledger.h), by table; business
     * transactions are undeclared_bt above. */
    unsigned long long undeclared_methods = 0;
    unsigned long long undeclared_headers = 0;
    unsigned long long undeclared_queries = 0;
    unsigned long long undeclared_resources = 0;
    unsigned long long undeclared_exception_texts = 0;
    /* Auto-sensor connections: openings refused, records by kind (overall
     * lines are records 74 too), lines refused (also in malformed), and
     * what the stress options did. */
    unsigned long long as_connections = 0;
    unsigned long long as_bad_opening = 0;
    unsigned long long as_records_74 = 0;
    unsigned long long as_overall_lines = 0;
    unsigned long long as_records_53 = 0;
    unsigned long long as_records_52 = 0;
    unsigned long long as_gc_reports = 0;
    unsigned long long as_records_75 = 0;
    unsigned long long as_records_other = 0; /* 61, 63 */
    /* Digest records whose head and body were good; those whose body did
     * not decode or lacked its line feed (also in malformed). */
    unsigned long long as_records_96 = 0;
    unsigned long long as_records_121 = 0;
    unsigned long long as_digest_malformed = 0;
    unsigned long long as_malformed = 0;
    unsigned long long as_unread_connections = 0;
    unsigned long long as_closed_by_collector = 0;
    unsigned long long data_closed_by_collector = 0;
    unsigned long long as_state_zero_heartbeats = 0;
    /* Loaded-class discovery: requests sent, the agent's answers, the
     * connections, openings refused, result and summary lines. */
    unsigned long long discovery_requests = 0;
    unsigned long long discovery_answers = 0;
    unsigned long long discovery_connections = 0;
    unsigned long long discovery_bad_opening = 0;
    unsigned long long discovery_results = 0;
    unsigned long long discovery_summaries = 0;
    BtRegistry bts;
    std::map<int, unsigned long long> per_record;
    std::map<unsigned, ConnectionSeen> seen;

    /* The entry of connection id, or null when the list is full. */
    ConnectionSeen* connection(unsigned id);
};

class RunStore {
public:
    RunStore() = default;
    ~RunStore() { close(); }
    RunStore(const RunStore&) = delete;
    RunStore& operator=(const RunStore&) = delete;

    /* Creates the directory (and parents) and opens the log. 0 or -1. */
    int open(const std::string& dir, std::string* error);
    void close();

    /* Opens conn-<id>-<kind>.lines; returns the file (owned by the caller,
     * closed with fclose) or null. */
    FILE* open_connection_file(unsigned id, const char* kind);

    void log(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    void malformed(unsigned conn, std::string_view reason, std::string_view line);
    /* One line of undeclared.txt, not logged; the caller bounds how many. */
    void undeclared(unsigned conn, std::string_view reason, std::string_view line);
    /* The files written row by row as records arrive. */
    enum class Table {
        BtMonitor,
        BackendMonitor,
        Percentiles,
        Topology,
        Resources,
        Callouts,
        Traces,
        Headers,
        Exceptions,
        MethodMonitor,
        ExceptionMonitor,
        Queries,
        Discovery
    };
    static constexpr size_t kTables = static_cast<size_t>(Table::Discovery) + 1;
    /* Appends one row, without its line feed, to the table's file. */
    void row(Table t, std::string_view row);
    /* Writes links.tsv whole: the header, then each row. */
    int write_links(const std::vector<std::string>& rows);
    int write_summary();

    Counts counts;
    bool echo_to_stderr = true;
    const std::string& dir() const { return dir_; }

private:
    std::string dir_;
    FILE* log_ = nullptr;
    FILE* malformed_ = nullptr;
    FILE* undeclared_ = nullptr;
    FILE* tables_[kTables] = {};
};

}  // namespace vxc

#endif
