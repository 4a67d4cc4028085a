#include "run_store.h"

#include <sys/stat.h>
#include <sys/time.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <iterator>

#include "auto_sensor.h"
#include "exceptions.h"
#include "discovery.h"
#include "http_headers.h"
#include "queries.h"
#include "topology.h"

namespace vxc {

namespace {

/* mkdir -p, bounded by the path's length. */
int make_dirs(const std::string& path)
{
    std::string part;
    for (size_t i = 0; i <= path.size(); ++i) {
        if (i == path.size() || (path[i] == '/' && i > 0)) {
            part = path.substr(0, i);
            if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) return -1;
        }
    }
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode) ? 0 : -1;
}

void append_row(FILE* f, std::string_view row)
{
    if (!f) return;
    fprintf(f, "%.*s\n", static_cast<int>(row.size()), row.data());
    fflush(f);
}

/* In the order of RunStore::Table. */
struct TableFile {
    const char* name;
    const char* header;
};
constexpr TableFile kTableFiles[] = {
    {"bt_monitor.tsv", kBtMonitorHeader},
    {"backend_monitor.tsv", kBackendMonitorHeader},
    {"percentiles.tsv", kPercentilesHeader},
    {"topology.tsv", kTopologyHeader},
    {"resources.tsv", kResourcesHeader},
    {"callouts.tsv", kCalloutsHeader},
    {"traces.tsv", kTracesHeader},
    {"headers.tsv", kHeadersHeader},
    {"exceptions.tsv", kExceptionsHeader},
    {"method_monitor.tsv", kMethodMonitorHeader},
    {"exception_monitor.tsv", kExceptionMonitorHeader},
    {"queries.tsv", kQueriesHeader},
    {"discovery.tsv", kDiscoveryHeader},
};
static_assert(std::size(kTableFiles) == RunStore::kTables, "one file for each table");

}  // namespace

ConnectionSeen* Counts::connection(unsigned id)
{
    auto it = seen.find(id);
    if (it != seen.end()) return &it->second;
    if (seen.size() >= kMaxConnectionsListed) return nullptr;
    return &seen[id];
}

int RunStore::open(const std::string& dir, std::string* error)
{
    close();
    if (make_dirs(dir) != 0) {
        if (error) *error = "cannot create run directory " + dir + ": " + strerror(errno);
        return -1;
    }
    dir_ = dir;
    log_ = fopen((dir_ + "/vxc-lite.log").c_str(), "a");
    malformed_ = fopen((dir_ + "/malformed.txt").c_str(), "w");
    undeclared_ = fopen((dir_ + "/undeclared.txt").c_str(), "w");
    bool tables_open = true;
    for (size_t i = 0; i < kTables; ++i) {
        tables_[i] = fopen((dir_ + "/" + kTableFiles[i].name).c_str(), "w");
        tables_open = tables_open && tables_[i];
    }
    if (!log_ || !malformed_ || !undeclared_ || !tables_open) {
        if (error) *error = "cannot open files in " + dir + ": " + strerror(errno);
        close();
        return -1;
    }
    /* The header stands before any row: readers find the file at once. */
    for (size_t i = 0; i < kTables; ++i) append_row(tables_[i], kTableFiles[i].header);
    return 0;
}

void RunStore::close()
{
    if (log_) fclose(log_);
    if (malformed_) fclose(malformed_);
    if (undeclared_) fclose(undeclared_);
    for (FILE*& f : tables_) {
        if (f) fclose(f);
        f = nullptr;
    }
    log_ = nullptr;
    malformed_ = nullptr;
    undeclared_ = nullptr;
}

FILE* RunStore::open_connection_file(unsigned id, const char* kind)
{
    char name[64];
    snprintf(name, sizeof name, "/conn-%04u-%s.lines", id, kind);
    FILE* f = fopen((dir_ + name).c_str(), "w");
    if (!f) log("cannot open %s%s: %s", dir_.c_str(), name, strerror(errno));
    return f;
}

void RunStore::log(const char* fmt, ...)
{
    char msg[1024];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(msg, sizeof msg, fmt, ap);
    va_end(ap);
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    struct tm tm;
    localtime_r(&tv.tv_sec, &tm);
    char stamp[32];
    strftime(stamp, sizeof stamp, "%H:%M:%S", &tm);
    if (log_) {
        fprintf(log_, "%s.%03ld %s\n", stamp, static_cast<long>(tv.tv_usec / 1000), msg);
        fflush(log_);
    }
    if (echo_to_stderr)
        fprintf(stderr, "vxc-lite %s.%03ld %s\n", stamp, static_cast<long>(tv.tv_usec / 1000), msg);
}

void RunStore::malformed(unsigned conn, std::string_view reason, std::string_view line)
{
    ++counts.malformed;
    const size_t shown = line.size() < 200 ? line.size() : 200;
    log("conn %u: malformed record: %.*s", conn, static_cast<int>(reason.size()), reason.data());
    if (!malformed_) return;
    fprintf(malformed_, "%u %.*s | %.*s\n", conn, static_cast<int>(reason.size()), reason.data(),
            static_cast<int>(shown), line.data());
    fflush(malformed_);
}

void RunStore::undeclared(unsigned conn, std::string_view reason, std::string_view line)
{
    if (!undeclared_) return;
    const size_t shown = line.size() < 200 ? line.size() : 200;
    fprintf(undeclared_, "%u %.*s | %.*s\n", conn, static_cast<int>(reason.size()), reason.data(),
            static_cast<int>(shown), line.data());
    fflush(undeclared_);
}

void RunStore::row(Table t, std::string_view row)
{
    append_row(tables_[static_cast<size_t>(t)], row);
}

int RunStore::write_links(const std::vector<std::string>& rows)
{
    if (dir_.empty()) return -1;
    FILE* f = fopen((dir_ + "/links.tsv").c_str(), "w");
    if (!f) {
        log("cannot write %s/links.tsv: %s", dir_.c_str(), strerror(errno));
        return -1;
    }
    fprintf(f, "%s\n", kLinksHeader);
    for (const std::string& r : rows) fprintf(f, "%s\n", r.c_str());
    return fclose(f) == 0 ? 0 : -1;
}

int RunStore::write_summary()
{
    if (dir_.empty()) return -1;
    const std::string tmp = dir_ + "/summary.txt.tmp";
    FILE* f = fopen(tmp.c_str(), "w");
    if (!f) return -1;
    const Counts& c = counts;
    fprintf(f,
            "connections=%llu\nconnections_refused=%llu\ncontrol_connections=%llu\n"
            "data_connections=%llu\nunknown_connections=%llu\n"
            "control_requests_with_problems=%llu\ndata_openings_with_problems=%llu\n"
            "agent_control_lines=%llu\nheartbeats_sent=%llu\ndata_heartbeats=%llu\n"
            "records=%llu\nmalformed=%llu\noverlong=%llu\nnul_bytes=%llu\n",
            c.connections, c.connections_refused, c.control_connections, c.data_connections,
            c.unknown_connections, c.control_requests_with_problems, c.data_openings_with_problems,
            c.agent_control_lines, c.heartbeats_sent, c.data_heartbeats, c.records, c.malformed,
            c.overlong, c.nul_bytes);
    fprintf(f,
            "starts_sent=%llu\nmodifies_sent=%llu\nstops_sent=%llu\nstart_answers=%llu\n"
            "modify_answers=%llu\nstop_answers=%llu\nerror_answers=%llu\nfile_requests=%llu\n"
            "profile_requests=%llu\nfiles_sent=%llu\nfailed_file_replies=%llu\n"
            "fetches_dropped=%llu\n",
            c.starts_sent, c.modifies_sent, c.stops_sent, c.start_answers, c.modify_answers,
            c.stop_answers, c.error_answers, c.file_requests, c.profile_requests, c.files_sent,
            c.failed_file_replies, c.fetches_dropped);
    fprintf(f, "replay_requests_sent=%llu\nreplay_answers=%llu\nleftover_records=%llu\n",
            c.replay_requests_sent, c.replay_answers, c.leftover_records);
    fprintf(f, "bt_declarations=%llu\nundeclared_bt=%llu\n", c.bt_declarations, c.undeclared_bt);
    fprintf(f,
            "records_91=%llu\nrecords_91_repeated=%llu\nrecords_26=%llu\n"
            "chained_flowpaths=%llu\nchained_unresolved=%llu\n",
            c.records_91, c.records_91_repeated, c.records_26, c.chained_flowpaths,
            c.chained_unresolved);
    fprintf(f, "query_ids_reused=%llu\nquery_texts_reused=%llu\n", c.query_ids_reused,
            c.query_texts_reused);
    fprintf(f,
            "undeclared_methods=%llu\nundeclared_headers=%llu\nundeclared_queries=%llu\n"
            "undeclared_resources=%llu\nundeclared_exception_texts=%llu\n",
            c.undeclared_methods, c.undeclared_headers, c.undeclared_queries,
            c.undeclared_resources, c.undeclared_exception_texts);
    fprintf(f,
            "as_connections=%llu\nas_bad_opening=%llu\nas_records_74=%llu\n"
            "as_overall_lines=%llu\nas_records_53=%llu\nas_records_52=%llu\nas_gc_reports=%llu\n"
            "as_records_75=%llu\nas_records_other=%llu\nas_records_96=%llu\nas_records_121=%llu\n"
            "as_digest_malformed=%llu\nas_malformed=%llu\nas_unread_connections=%llu\n"
            "as_closed_by_collector=%llu\nas_state_zero_heartbeats=%llu\n"
            "data_closed_by_collector=%llu\n",
            c.as_connections, c.as_bad_opening, c.as_records_74, c.as_overall_lines,
            c.as_records_53, c.as_records_52, c.as_gc_reports, c.as_records_75, c.as_records_other,
            c.as_records_96, c.as_records_121, c.as_digest_malformed, c.as_malformed,
            c.as_unread_connections, c.as_closed_by_collector, c.as_state_zero_heartbeats,
            c.data_closed_by_collector);
    fprintf(f,
            "discovery_requests=%llu\ndiscovery_answers=%llu\ndiscovery_connections=%llu\n"
            "discovery_bad_opening=%llu\ndiscovery_results=%llu\ndiscovery_summaries=%llu\n",
            c.discovery_requests, c.discovery_answers, c.discovery_connections,
            c.discovery_bad_opening, c.discovery_results, c.discovery_summaries);
    fprintf(f, "agent_heartbeats=%llu\nhosted_replies=%llu\nreroutes_sent=%llu\n",
            c.agent_heartbeats, c.hosted_replies, c.reroutes_sent);
    for (const auto& [number, n] : c.per_record) fprintf(f, "record.%d=%llu\n", number, n);
    for (const auto& [id, name] : c.bts.names())
        fprintf(f, "bt.%lld=%.*s\n", id, static_cast<int>(name.size()), name.data());
    for (const auto& [id, k] : c.seen)
        fprintf(f,
                "conn.%u=%s peer=%s appName=%s agentName=%s pid=%s lines=%llu records=%llu "
                "malformed=%llu state=%s\n",
                id, k.kind.c_str(), k.peer.c_str(), k.app_name.c_str(), k.agent_name.c_str(),
                k.pid.c_str(), k.lines, k.records, k.malformed,
                k.closed.empty() ? "open" : ("closed: " + k.closed).c_str());
    for (const auto& [id, k] : c.seen)
        if (!k.request.empty())
            fprintf(f, "control.%u=request=%s requestType=%s connDestination=%s heartbeats=%llu\n",
                    id, k.request.c_str(), k.request_type.c_str(), k.conn_destination.c_str(),
                    k.agent_heartbeats);
    const bool ok = fclose(f) == 0;
    /* Readers see the old summary or the new one, never half of one. */
    return ok && rename(tmp.c_str(), (dir_ + "/summary.txt").c_str()) == 0 ? 0 : -1;
}

}  // namespace vxc
