#include "server.h"

#include <apr_network_io.h>
#include <apr_poll.h>
#include <apr_pools.h>
#include <apr_strings.h>
#include <apr_time.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "auto_sensor.h"
#include "bt_registry.h"
#include "digest_decode.h"
#include "discovery.h"
#include "exceptions.h"
#include "http_headers.h"
#include "id_ledger.h"
#include "queries.h"
#include "record_parser.h"
#include "session.h"
#include "topology.h"

namespace vxc {

namespace {

constexpr apr_interval_time_t kPollStep = 100 * 1000; /* 100 ms */
constexpr size_t kReadChunk = 65536;
constexpr int kReadsPerWake = 16; /* fairness among connections */
constexpr int kAcceptsPerWake = 64;
constexpr size_t kMaxPendingSend = 1024 * 1024; /* a peer that never reads */
/* File contents queued on top of kMaxPendingSend, all requests together. */
constexpr size_t kMaxPendingFiles = 4 * kMaxServedFile;
constexpr size_t kCompactOutAt = 1024 * 1024; /* sent bytes dropped from the queue's front */
constexpr apr_interval_time_t kSummaryEvery = 1000 * 1000; /* 1 s */
/* Method names and record 91 callers kept per data connection; an agent
 * has a few thousand methods at most. */
constexpr size_t kMaxNamesPerConn = 1u << 16;
/* Lines of undeclared.txt per data connection: an agent that never declares
 * a table would write one for nearly every record. */
constexpr unsigned long long kMaxUndeclaredLines = 1000;

enum class Kind { Unknown, Control, Data, AutoSensor, Discovery };

const char* kind_name(Kind k)
{
    switch (k) {
        case Kind::Control:
            return "control";
        case Kind::Data:
            return "data";
        case Kind::AutoSensor:
            return "autosensor";
        case Kind::Discovery:
            return "discovery";
        default:
            return "unknown";
    }
}

/* The session of one control connection. A time of 0 means "not planned". */
struct ConnSession {
    apr_time_t start_at = 0;
    apr_time_t reroute_at = 0;
    apr_time_t modify_at = 0;
    apr_time_t replay_at = 0;
    apr_time_t stop_at = 0;
    /* The message whose answer is still awaited; a modify or stop waits for
     * it, since an agent busy with a start drops the lines it reads while
     * it fetches files. Null when none is. */
    const char* awaiting = nullptr;
    bool wait_logged = false;
    bool after_start_answer = false; /* the next unknown line carries its warnings */
    /* What the start and later modifies announced. */
    std::map<std::string, ServedFile> files;
    std::map<std::string, ServedFile> profiles;
};

struct Conn {
    unsigned id = 0;
    apr_pool_t* pool = nullptr;
    apr_socket_t* skt = nullptr;
    apr_pollfd_t pfd{};
    Kind kind = Kind::Unknown;
    std::unique_ptr<LineSplitter> splitter;
    FILE* file = nullptr;
    std::string out;
    size_t out_sent = 0;     /* bytes at the front of out that are gone */
    size_t file_bytes = 0;   /* file contents in out, allowed past kMaxPendingSend */
    bool want_write = false; /* APR_POLLOUT is asked for */
    ConnSession session;
    apr_time_t opened = 0;
    apr_time_t next_heartbeat = 0;
    apr_time_t discover_at = 0; /* the discovery request is due; 0: not planned */
    std::string discovery_id;   /* a discovery connection's Id, from its opening line */
    unsigned long long heartbeats = 0;
    bool closing = false;
    bool throttled = false; /* a data connection read at data_read_rate, out of the pollset */
    bool unread = false;    /* an auto-sensor connection no longer read, out of the pollset */
    /* An auto-sensor connection's opening line, when it was good; its
     * records must name the same tier, server and instance. */
    AsOpening as_opening;
    bool as_opening_ok = false;
    unsigned long long as_interval = 0; /* overall record 74 lines so far */
    ExactTotals as_exact;               /* for the exact columns of percentiles.tsv */
    /* The digest head whose body is being read; a refused head's body is
     * only passed over. */
    AsRecord as_digest;
    bool as_digest_ok = false;
    std::string as_digest_line;
    /* A data connection's records 5 (method id to name), for the names of
     * callout tokens, and the callers its records 91 named. */
    std::map<long long, std::string> method_names;
    std::map<long long, std::string> header_ids; /* records 6 */
    ExceptionTexts exception_texts;              /* records 32 to 36 */
    QueryTable queries;                          /* records 22 */
    std::set<std::string> callers_91;
    IdLedger ids; /* what the connection declared, for the ids its records use */
    /* Until its record 99, an agent's later data connection carries what
     * the last one left unsent, whose ids were declared there. */
    bool leftovers = false;
    unsigned long long undeclared_lines = 0;
    apr_time_t last_read = 0;
    char peer[64] = "";
    ConnectionSeen* seen = nullptr; /* null when the summary's list is full */
};

std::string printable(std::string_view s, size_t max = 120)
{
    std::string out;
    for (size_t i = 0; i < s.size() && i < max; ++i) {
        const unsigned char c = static_cast<unsigned char>(s[i]);
        out += (c >= 0x20 && c < 0x7f) ? static_cast<char>(c) : '?';
    }
    if (s.size() > max) out += "...";
    return out;
}

}  // namespace

struct Server {
    Options opts;
    apr_pool_t* pool = nullptr;
    apr_socket_t* listener = nullptr;
    apr_pollset_t* pollset = nullptr;
    apr_pollfd_t listen_pfd{};
    int port = 0;
    std::atomic<bool> stop{false};
    RunStore store;
    std::map<unsigned, std::unique_ptr<Conn>> conns;
    unsigned next_id = 1;
    bool summary_dirty = true;
    apr_time_t next_summary = 0;
    std::vector<char> read_buf = std::vector<char>(kReadChunk);
    std::vector<Keyword> session_keywords;
    std::vector<Keyword> modify_keywords;
    bool start_given = false; /* for --start-once */
    bool fetch_dropped = false;
    bool as_closed = false;   /* --as-close-after-ms has closed one */
    bool data_closed = false; /* --data-close-after-ms has closed one */
    std::set<std::string> data_agents; /* pids that opened a data connection */
    LinkTable links;        /* the run's records 2, for links.tsv */
};

namespace {

void close_conn(Server* s, Conn* c, const char* why)
{
    if (c->closing) return;
    c->closing = true;
    s->store.log("conn %u (%s, %s) closed: %s", c->id, kind_name(c->kind), c->peer, why);
    if (c->seen) c->seen->closed = why;
    s->summary_dirty = true;
}

void free_conn(Server* s, Conn* c)
{
    apr_pollset_remove(s->pollset, &c->pfd);
    if (c->file) fclose(c->file);
    c->file = nullptr;
    apr_socket_close(c->skt);
    apr_pool_destroy(c->pool);
}

/* Asks the pollset to report the connection writable, or stops asking. */
void set_want_write(Server* s, Conn* c, bool want)
{
    if (c->want_write == want || c->throttled || c->unread || c->closing) return;
    apr_pollset_remove(s->pollset, &c->pfd);
    c->pfd.reqevents = APR_POLLIN | (want ? APR_POLLOUT : 0);
    if (apr_pollset_add(s->pollset, &c->pfd) != APR_SUCCESS) {
        close_conn(s, c, "cannot watch the connection");
        return;
    }
    c->want_write = want;
}

/* Sends what is queued, as far as the socket takes it now; the pollset
 * reports when it takes more. */
void flush_out(Server* s, Conn* c)
{
    while (c->out_sent < c->out.size() && !c->closing) {
        apr_size_t len = c->out.size() - c->out_sent;
        const apr_status_t rv = apr_socket_send(c->skt, c->out.data() + c->out_sent, &len);
        c->out_sent += len;
        if (APR_STATUS_IS_EAGAIN(rv)) break;
        if (rv != APR_SUCCESS) {
            char err[128];
            close_conn(s, c, apr_strerror(rv, err, sizeof err));
            return;
        }
    }
    if (c->out_sent == c->out.size()) {
        c->out.clear();
        c->out_sent = 0;
        c->file_bytes = 0;
    } else if (c->out_sent >= kCompactOutAt && c->out_sent * 2 >= c->out.size()) {
        c->out.erase(0, c->out_sent);
        c->out_sent = 0;
    }
    set_want_write(s, c, !c->out.empty());
}

/* Queues text and sends what the socket takes. file_bytes of text are file
 * content, which may exceed the bound on what a peer leaves unread. */
void queue_send(Server* s, Conn* c, const std::string& text, size_t file_bytes = 0)
{
    const size_t pending = c->out.size() - c->out_sent;
    if (c->file_bytes + file_bytes > kMaxPendingFiles ||
        pending + text.size() > kMaxPendingSend + c->file_bytes + file_bytes) {
        close_conn(s, c, "peer does not read what is sent");
        return;
    }
    c->file_bytes += file_bytes;
    c->out += text;
    flush_out(s, c);
}

/* Lines stored are the lines the summary counts for the connection. */
void write_line(Conn* c, std::string_view line)
{
    if (c->seen) ++c->seen->lines;
    if (!c->file) return;
    fwrite(line.data(), 1, line.size(), c->file);
    fputc('\n', c->file);
}

/* Logs a line vxc-lite sends on a control connection, then sends it. */
void send_logged(Server* s, Conn* c, const char* what, const std::string& line,
                 size_t file_bytes = 0)
{
    const std::string_view shown = std::string_view(line).substr(0, line.find('\n'));
    s->store.log("conn %u: > %s: %s", c->id, what, printable(shown, 300).c_str());
    queue_send(s, c, line, file_bytes);
}

/* Sends the start, modify and stop lines of the connection when they are
 * due. */
void run_session(Server* s, Conn* c, apr_time_t now)
{
    ConnSession& ss = c->session;
    Counts& counts = s->store.counts;
    if (ss.start_at && now >= ss.start_at) {
        ss.start_at = 0;
        if (s->opts.start_once && s->start_given) {
            s->store.log("conn %u: no start: --start-once, and a start was sent before", c->id);
            return;
        }
        s->start_given = true;
        SessionMessage m = build_message(kStartHead, s->session_keywords, s->opts.files_dir);
        ss.files = std::move(m.files);
        ss.profiles = std::move(m.profiles);
        ss.awaiting = "start";
        ss.wait_logged = false;
        if (!s->opts.modify_file.empty())
            ss.modify_at = now + apr_time_from_msec(s->opts.modify_after_ms);
        if (s->opts.stop_after_ms > 0) ss.stop_at = now + apr_time_from_msec(s->opts.stop_after_ms);
        if (!s->opts.replay_request.empty())
            ss.replay_at = now + apr_time_from_msec(s->opts.replay_after_ms);
        ++counts.starts_sent;
        s->summary_dirty = true;
        send_logged(s, c, "start", m.line);
        return;
    }
    if (ss.replay_at && now >= ss.replay_at && !ss.awaiting) {
        /* Its answer is not awaited: the agent answers it at once, and a
         * modify or stop behind it is read in order. */
        ss.replay_at = 0;
        ++counts.replay_requests_sent;
        s->summary_dirty = true;
        send_logged(s, c, "replay request",
                    "vx_meta_data_req:action=send_meta_data;" + s->opts.replay_request + "\n");
    }
    const bool modify_due = ss.modify_at && now >= ss.modify_at;
    const bool stop_due = ss.stop_at && now >= ss.stop_at;
    if (!modify_due && !stop_due) return;
    const bool modify_first = modify_due && (!stop_due || ss.modify_at <= ss.stop_at);
    if (ss.awaiting) {
        if (!ss.wait_logged)
            s->store.log("conn %u: the %s is due, held until the agent answers the %s", c->id,
                         modify_first ? "modify" : "stop", ss.awaiting);
        ss.wait_logged = true;
        return;
    }
    ss.wait_logged = false;
    s->summary_dirty = true;
    if (modify_first) {
        ss.modify_at = 0;
        SessionMessage m = build_message(kModifyHead, s->modify_keywords, s->opts.files_dir);
        /* A modify names new files; the others stay as the start named them. */
        for (auto& [k, f] : m.files) ss.files.insert_or_assign(k, std::move(f));
        for (auto& [n, f] : m.profiles) ss.profiles.insert_or_assign(n, std::move(f));
        ss.awaiting = "modify";
        ++counts.modifies_sent;
        send_logged(s, c, "modify", m.line);
    } else {
        ss.stop_at = 0;
        ss.awaiting = "stop";
        ++counts.stops_sent;
        send_logged(s, c, "stop", stop_line());
    }
}

/* The ids of the rule file just served are known to the collector from now
 * on, for every connection of the run. */
void declare_served_rules(Server* s, Conn* c, std::string_view rules)
{
    const std::vector<BtDeclaration> found = rule_file_declarations(rules);
    size_t kept = 0;
    for (const BtDeclaration& d : found) kept += s->store.counts.bts.declare(d.id, d.name);
    s->store.log("conn %u: the served rules declare %zu business transactions%s", c->id,
                 found.size(), kept < found.size() ? ", not all kept: the table is full" : "");
    s->summary_dirty = true;
}

/* Closes the connection instead of answering the first fetch of the keyword
 * named by --drop-during-fetch. True when it did. */
bool drop_fetch(Server* s, Conn* c, const std::string& keyword)
{
    if (s->fetch_dropped || keyword != s->opts.drop_during_fetch) return false;
    s->fetch_dropped = true;
    ++s->store.counts.fetches_dropped;
    close_conn(s, c, "dropped at a fetch (--drop-during-fetch)");
    return true;
}

void answer_file_request(Server* s, Conn* c, const std::string& keyword)
{
    Counts& counts = s->store.counts;
    ++counts.file_requests;
    s->summary_dirty = true;
    if (drop_fetch(s, c, keyword)) return;
    const auto it = c->session.files.find(keyword);
    const char* refusal = s->opts.refuse_files.count(keyword) ? "refused (--refuse-file)"
                          : it == c->session.files.end()      ? "no such file keyword"
                          : !it->second.present               ? "file missing"
                                                              : nullptr;
    if (refusal) {
        ++counts.failed_file_replies;
        s->store.log("conn %u: fetch of %s: %s", c->id, printable(keyword).c_str(), refusal);
        const std::string name = it == c->session.files.end() ? keyword : it->second.name;
        send_logged(s, c, "refusal", file_refused_line(keyword, s->opts.files_dir + "/" + name));
        return;
    }
    ++counts.files_sent;
    const ServedFile& f = it->second;
    char what[96];
    snprintf(what, sizeof what, "file (%zu bytes behind the header)", f.content.size());
    send_logged(s, c, what, file_reply(keyword, f), f.content.size());
    if (keyword == kBtRulesKeyword) declare_served_rules(s, c, f.content);
}

void answer_profile_request(Server* s, Conn* c, const std::string& name)
{
    Counts& counts = s->store.counts;
    ++counts.profile_requests;
    s->summary_dirty = true;
    if (drop_fetch(s, c, "instrProfile")) return;
    auto& profiles = c->session.profiles;
    auto it = profiles.find(name);
    /* An agent behind a proxy asks by the part after the last "/". */
    if (it == profiles.end() && name.find('/') != std::string::npos)
        it = profiles.find(name.substr(name.rfind('/') + 1));
    const char* refusal = s->opts.refuse_files.count("instrProfile") ? "refused (--refuse-file)"
                          : it == profiles.end()                     ? "no such profile"
                          : !it->second.present                      ? "file missing"
                                                                     : nullptr;
    if (refusal) {
        ++counts.failed_file_replies;
        s->store.log("conn %u: fetch of profile %s: %s", c->id, printable(name).c_str(), refusal);
        send_logged(s, c, "refusal", profile_refused_line(s->opts.files_dir + "/" + name));
        return;
    }
    ++counts.files_sent;
    const ServedFile& f = it->second;
    char what[96];
    snprintf(what, sizeof what, "profile (%zu bytes behind the header)", f.content.size());
    send_logged(s, c, what, profile_reply(f), f.content.size());
}

/* A line the agent sent on its control connection after the request. */
void on_agent_line(Server* s, Conn* c, std::string_view line)
{
    Counts& counts = s->store.counts;
    ConnSession& ss = c->session;
    std::string argument;
    const AgentLine kind = classify_agent_line(line, &argument);
    const bool warnings = kind == AgentLine::Other && ss.after_start_answer;
    ss.after_start_answer = kind == AgentLine::StartAnswer;
    if (kind == AgentLine::Heartbeat) {
        ++counts.agent_heartbeats;
        if (c->seen) ++c->seen->agent_heartbeats;
        s->summary_dirty = true;
        if (s->opts.verbose) s->store.log("conn %u: < %s", c->id, printable(line, 300).c_str());
        return;
    }
    s->store.log("conn %u: < %s%s", c->id, warnings ? "warnings of the start answer: " : "",
                 printable(line, 300).c_str());
    unsigned long long* answers = nullptr;
    switch (kind) {
        case AgentLine::FileRequest:
            answer_file_request(s, c, argument);
            return;
        case AgentLine::ProfileRequest:
            answer_profile_request(s, c, argument);
            return;
        case AgentLine::StartAnswer:
            answers = &counts.start_answers;
            break;
        case AgentLine::ModifyAnswer:
            answers = &counts.modify_answers;
            break;
        case AgentLine::StopAnswer:
            answers = &counts.stop_answers;
            break;
        case AgentLine::ErrorAnswer:
            answers = &counts.error_answers;
            break;
        case AgentLine::ReplayAnswer:
            ++counts.replay_answers;
            s->summary_dirty = true;
            return;
        case AgentLine::DiscoveryAnswer:
            /* Not an answer a session message waits for. */
            ++counts.discovery_answers;
            s->summary_dirty = true;
            return;
        default:
            return;
    }
    ++*answers;
    ss.awaiting = nullptr;
    s->summary_dirty = true;
}

/* The opening line of an auto-sensor connection; the collector sends
 * nothing back, neither a reply nor a record 99. */
void first_auto_sensor_line(Server* s, Conn* c, std::string_view line)
{
    Counts& counts = s->store.counts;
    ++counts.as_connections;
    s->summary_dirty = true;
    std::string why;
    c->as_opening_ok = check_as_opening(line, &c->as_opening, &why) == 0;
    if (c->as_opening_ok) {
        s->store.log("conn %u: auto-sensor connection from %s, appName=%s pid=%lld", c->id, c->peer,
                     printable(c->as_opening.app_name).c_str(), c->as_opening.pid);
        return;
    }
    ++counts.as_bad_opening;
    s->store.log("conn %u: auto-sensor connection from %s, opening line refused: %s: \"%s\"", c->id,
                 c->peer, printable(why, 300).c_str(), printable(line, 300).c_str());
}

/* Expects the body a digest head announced. */
void await_digest_body(Conn* c, AsRecord r, bool ok, std::string_view line)
{
    if (c->splitter->take_raw(static_cast<size_t>(r.digest.bytes)) != 0) return;
    c->as_digest = std::move(r);
    c->as_digest_ok = ok;
    c->as_digest_line = std::string(line);
}

/* A line of an auto-sensor connection after its opening line. A record 74
 * names a declared business transaction, as records 2 and 4 do, except with
 * tags, where its id is a series id. A digest head is counted with its body,
 * in on_digest_body. */
void on_auto_sensor_line(Server* s, Conn* c, std::string_view line)
{
    Counts& counts = s->store.counts;
    s->summary_dirty = true;
    AsRecord r;
    std::string error;
    if (parse_as_record(line, c->as_opening_ok ? &c->as_opening : nullptr, &r, &error) != 0) {
        ++counts.as_malformed;
        if (c->seen) ++c->seen->malformed;
        s->store.malformed(c->id, error, line);
        /* Pass over the body of a refused head, so the lines behind it are
         * read as lines. */
        const long long body = digest_body_length(line);
        if (body >= 0) {
            r.digest.bytes = body;
            await_digest_body(c, std::move(r), false, line);
        }
        return;
    }
    if (c->seen) ++c->seen->records;
    if (s->opts.verbose) s->store.log("conn %u: auto-sensor record %d", c->id, r.number);
    switch (r.kind) {
        case AsKind::ThreadSummary:
            ++counts.as_records_53;
            return;
        case AsKind::HotSpot:
            ++counts.as_records_52;
            return;
        case AsKind::GcReport:
            ++counts.as_gc_reports;
            return;
        case AsKind::Other:
            ++counts.as_records_other;
            return;
        case AsKind::Digest:
            await_digest_body(c, std::move(r), true, line);
            return;
        case AsKind::MethodMonitor:
            ++counts.as_records_other;
            s->store.row(RunStore::Table::MethodMonitor,
                         method_monitor_row(c->id, c->as_interval, r.method));
            return;
        case AsKind::ExceptionMonitor:
            ++counts.as_records_other;
            s->store.row(RunStore::Table::ExceptionMonitor,
                         exception_monitor_row(c->id, c->as_interval, r.exception));
            return;
        case AsKind::BackendMonitor:
            ++counts.as_records_75;
            s->store.row(RunStore::Table::BackendMonitor,
                         backend_monitor_row(c->id, c->as_interval, r.backend));
            return;
        case AsKind::BtMonitor:
            break;
    }
    ++counts.as_records_74;
    s->store.row(RunStore::Table::BtMonitor, bt_monitor_row(c->id, c->as_interval, r.bt));
    c->as_exact.add(r.bt);
    if (r.bt.id == 0) {
        ++counts.as_overall_lines;
        ++c->as_interval;
        return;
    }
    if (r.bt.tagged || counts.bts.declared_id(r.bt.id)) return;
    ++counts.undeclared_bt;
    if (c->seen) ++c->seen->malformed;
    s->store.malformed(c->id,
                       "record 74: business transaction id " + std::to_string(r.bt.id) +
                           " not declared by a record 7 or the served rules",
                       line);
}

/* The body behind a digest head. The connection's file gets a placeholder
 * line instead of the bytes, so it stays readable as lines. */
void on_digest_body(Server* s, Conn* c, std::string_view body, bool line_feed_behind)
{
    const AsRecord& r = c->as_digest;
    write_line(c, "<" + std::to_string(body.size()) + " bytes of digest" +
                      (line_feed_behind ? ">" : ", no line feed behind>"));
    if (!c->as_digest_ok) return; /* counted with its head */
    Counts& counts = s->store.counts;
    s->summary_dirty = true;
    /* The reconstruction restarts with every digest of the name, good or not. */
    std::vector<double> exact = c->as_exact.take(r.number, r.digest.name);
    PercentileRow row;
    std::string error;
    if (!line_feed_behind) {
        error = "no line feed behind the body";
    } else if (r.number == 96) {
        TDigest d;
        if (decode_tdigest(body, &d, &error) == 0) {
            row.count = d.count;
            row.p50 = tdigest_quantile(d, 0.5);
            row.p90 = tdigest_quantile(d, 0.9);
            row.p99 = tdigest_quantile(d, 0.99);
        }
    } else {
        CDigest d;
        if (decode_cdigest(body, &d, &error) == 0) {
            row.count = d.count;
            row.p50 = cdigest_quantile(d, 0.5);
            row.p90 = cdigest_quantile(d, 0.9);
            row.p99 = cdigest_quantile(d, 0.99);
        }
    }
    if (!error.empty()) {
        ++counts.as_digest_malformed;
        if (c->seen) ++c->seen->malformed;
        s->store.malformed(c->id, "record " + std::to_string(r.number) + ": " + error,
                           c->as_digest_line);
        return;
    }
    ++(r.number == 96 ? counts.as_records_96 : counts.as_records_121);
    std::sort(exact.begin(), exact.end());
    row.conn = c->id;
    row.record = r.number;
    row.series = r.digest.series;
    row.name = r.digest.name;
    row.ts = r.digest.ts;
    row.bytes = r.digest.bytes;
    row.exact_n = exact.size();
    /* Each digest is held to the quantile rule it is read by. */
    const auto quantile = r.number == 96 ? exact_quantile : exact_rank_quantile;
    row.exact_p50 = quantile(exact, 0.5);
    row.exact_p90 = quantile(exact, 0.9);
    row.exact_p99 = quantile(exact, 0.99);
    s->store.row(RunStore::Table::Percentiles, percentiles_row(row));
}

/* The opening line of a discovery connection; nothing is sent back. */
void first_discovery_line(Server* s, Conn* c, std::string_view line)
{
    Counts& counts = s->store.counts;
    c->kind = Kind::Discovery;
    if (c->seen) c->seen->kind = kind_name(c->kind);
    c->file = s->store.open_connection_file(c->id, kind_name(c->kind));
    write_line(c, line);
    ++counts.discovery_connections;
    s->summary_dirty = true;
    DiscoveryOpening o;
    std::string why;
    if (check_discovery_opening(line, &o, &why) != 0) {
        ++counts.discovery_bad_opening;
        s->store.log("conn %u: discovery connection from %s, opening line refused: %s: \"%s\"",
                     c->id, c->peer, why.c_str(), printable(line, 300).c_str());
        return;
    }
    c->discovery_id = o.id;
    s->store.log("conn %u: discovery connection from %s, Id=%s Tier=%s Server=%s Instance=%s",
                 c->id, c->peer, printable(o.id).c_str(), printable(o.tier).c_str(),
                 printable(o.server).c_str(), printable(o.instance).c_str());
}

void first_line(Server* s, Conn* c, std::string_view line)
{
    Counts& counts = s->store.counts;
    const FirstLine what = classify_first_line(line);
    const bool hosted = what == FirstLine::HostedRequest && !s->opts.hosted_host.empty();
    if ((what == FirstLine::HostedRequest && !hosted) || what == FirstLine::Unknown) {
        ++counts.unknown_connections;
        s->store.log("conn %u: first line is %s: \"%s\"", c->id,
                     what == FirstLine::HostedRequest
                         ? "a hosted sign-in request, not served here"
                         : "no control request, data or auto-sensor opening",
                     printable(line).c_str());
        close_conn(s, c, "unrecognised first line");
        return;
    }
    if (what == FirstLine::DiscoveryOpening) {
        first_discovery_line(s, c, line);
        return;
    }
    ControlLine req;
    std::string error;
    parse_control_line(line, &req, &error);
    const bool control = what == FirstLine::ControlRequest || hosted;
    c->kind = control                                ? Kind::Control
              : what == FirstLine::AutoSensorOpening ? Kind::AutoSensor
                                                     : Kind::Data;
    if (c->seen) {
        c->seen->kind = kind_name(c->kind);
        if (const std::string* v = req.find("appName")) c->seen->app_name = printable(*v, 64);
        if (const std::string* v = req.find("agentName")) c->seen->agent_name = printable(*v, 64);
        if (const std::string* v = req.find("pid")) c->seen->pid = printable(*v, 24);
        if (control) {
            c->seen->request = printable(req.head, 64);
            if (const std::string* v = req.find("requestType"))
                c->seen->request_type = printable(*v, 24);
            if (const std::string* v = req.find("connDestination"))
                c->seen->conn_destination = printable(*v, 64);
        }
    }
    c->file = s->store.open_connection_file(c->id, kind_name(c->kind));
    write_line(c, line);
    if (c->kind == Kind::AutoSensor) {
        first_auto_sensor_line(s, c, line);
        return;
    }
    const std::vector<std::string> problems = hosted    ? check_hosted_request(req)
                                              : control ? check_control_request(req)
                                                        : check_data_opening(req);
    const std::string* app = req.find("appName");
    const std::string* pid = req.find("pid");
    if (c->kind == Kind::Data && pid) c->leftovers = !s->data_agents.insert(*pid).second;
    s->store.log("conn %u: %s connection from %s, appName=%s pid=%s", c->id, kind_name(c->kind),
                 c->peer, app ? printable(*app).c_str() : "?", pid ? printable(*pid).c_str() : "?");
    if (!problems.empty()) {
        std::string all;
        for (const std::string& p : problems) all += (all.empty() ? "" : "; ") + p;
        s->store.log("conn %u: %s has %zu problems: %s", c->id,
                     control ? "control request" : "data opening line", problems.size(),
                     printable(all, 600).c_str());
    }
    s->summary_dirty = true;
    if (!control) {
        ++counts.data_connections;
        if (!problems.empty()) ++counts.data_openings_with_problems;
        return;
    }
    ++counts.control_connections;
    if (!problems.empty()) ++counts.control_requests_with_problems;
    if (hosted) ++counts.hosted_replies;
    const std::string reply = hosted ? hosted_reply_line(s->opts) : reply_line(s->opts, s->port);
    s->store.log("conn %u: reply %s", c->id,
                 printable(std::string_view(reply).substr(0, reply.size() - 1), 300).c_str());
    queue_send(s, c, reply);
    if (!s->opts.after_reply_line.empty())
        send_logged(s, c, "after the reply", s->opts.after_reply_line + "\n");
    const apr_time_t now = apr_time_now();
    c->next_heartbeat = now + apr_time_from_msec(s->opts.heartbeat_ms);
    if (s->opts.discover_after_ms > 0)
        c->discover_at = now + apr_time_from_msec(s->opts.discover_after_ms);
    if (!s->opts.reroute_fields.empty())
        c->session.reroute_at = now + apr_time_from_msec(s->opts.reroute_after_ms);
    if (!s->opts.session_file.empty()) {
        c->session.start_at = now + apr_time_from_msec(s->opts.start_after_ms);
        run_session(s, c, now);
    }
}

/* A record 7 names its transaction in the summary; whether records 2 and 4
 * name a declared one is check_declared_ids's. */
void note_business_transaction(Server* s, Conn* c, const Record& r)
{
    if (r.number != 7) return;
    Counts& counts = s->store.counts;
    ++counts.bt_declarations;
    long long id = 0;
    std::string name;
    for (size_t i = 1; i < r.fields.size(); ++i) name += (i > 1 ? "," : "") + r.fields[i];
    if (!parse_bt_id(r.fields[0], &id) || !counts.bts.declare(id, std::move(name)))
        s->store.log("conn %u: record 7 for id %s not kept", c->id, printable(r.fields[0]).c_str());
}

/* The counter of uses of undeclared ids of a table, and what the table
 * holds, for the line that reports one. */
unsigned long long* undeclared_count(Counts& k, int table, const char** what)
{
    switch (table) {
        case 5:
            return *what = "method id", &k.undeclared_methods;
        case 6:
            return *what = "header id", &k.undeclared_headers;
        case 7:
            return *what = "business transaction id", &k.undeclared_bt;
        case 22:
            return *what = "query id", &k.undeclared_queries;
        case 26:
            return *what = "resource id", &k.undeclared_resources;
        default:
            return *what = "exception text id", &k.undeclared_exception_texts;
    }
}

/* Whether the id a record uses was declared before it: on the same
 * connection, except a business transaction's, which the run's registry
 * knows from a record 7 of any connection or the served rules (an agent
 * that reconnects does not declare its transactions again). */
bool id_known(const Server* s, const Conn* c, const IdRef& use)
{
    return use.table == 7 ? s->store.counts.bts.declared_id(use.id) : c->ids.declared(use);
}

/* Enters the id a metadata record declares, then counts each id the record
 * uses that was not declared before it. The record stays counted as a
 * record. A business transaction is reported as malformed (as it always
 * was), the rest in undeclared.txt. */
void check_declared_ids(Server* s, Conn* c, const Record& r, std::string_view line)
{
    if (r.number == 99) c->leftovers = false;
    if (c->leftovers) {
        ++s->store.counts.leftover_records;
        s->summary_dirty = true;
    }
    if (c->ids.full()) return;
    IdRef declared;
    if (id_declaration(r, &declared) && declared.table != 7 && !c->ids.declare(declared)) {
        /* Ids declared from now on are not kept: their uses would count
         * falsely, so none is counted any more. */
        s->store.log("conn %u: %zu ids declared, later uses of ids are not checked", c->id,
                     IdLedger::kMaxIds);
        return;
    }
    Counts& counts = s->store.counts;
    for (const IdRef& use : id_uses(r)) {
        if (id_known(s, c, use) || (c->leftovers && use.table != 7)) continue;
        const char* what = "";
        ++*undeclared_count(counts, use.table, &what);
        s->summary_dirty = true;
        const std::string reason =
            "record " + std::to_string(r.number) + ": " + what + " " + std::to_string(use.id) +
            " not declared by a record " + std::to_string(use.table) +
            (use.table == 7 ? " or the served rules" : " of this connection");
        if (use.table == 7) {
            if (c->seen) ++c->seen->malformed;
            s->store.malformed(c->id, reason, line);
            continue;
        }
        if (c->undeclared_lines++ < kMaxUndeclaredLines) {
            s->store.undeclared(c->id, reason, line);
            if (c->undeclared_lines == kMaxUndeclaredLines)
                s->store.log(
                    "conn %u: %llu uses of undeclared ids written, later ones only counted", c->id,
                    kMaxUndeclaredLines);
        }
    }
}

/* A record 22 is a row of queries.tsv. Its id and text must not clash with
 * those the connection announced before: the agent sends a text once a
 * session, under one id, and flowpaths name it by that id alone. A clash is
 * counted and reported as malformed; the record stays counted as a record. */
void check_query(Server* s, Conn* c, const Record& r, std::string_view line)
{
    QueryRecord q;
    if (r.number != 22 || parse_query_record(r.fields, &q, nullptr) != 0) return;
    s->store.row(RunStore::Table::Queries, query_row(c->id, q));
    const unsigned long long dropped = c->queries.dropped();
    const QueryTable::Verdict v = c->queries.add(q);
    if (c->queries.dropped() != dropped && dropped == 0)
        s->store.log("conn %u: query table full, later queries are not checked", c->id);
    if (v != QueryTable::Verdict::IdReused && v != QueryTable::Verdict::TextReused) return;
    Counts& counts = s->store.counts;
    ++(v == QueryTable::Verdict::IdReused ? counts.query_ids_reused : counts.query_texts_reused);
    if (c->seen) ++c->seen->malformed;
    s->store.malformed(
        c->id,
        v == QueryTable::Verdict::IdReused
            ? "record 22: query id " + std::to_string(q.id) + " announced before with another text"
            : "record 22: query text announced before with another id",
        line);
}

/* What a data record tells of tiers, resources, callouts and captured
 * headers (records 6, 12 and 13): records 91,
 * 26 and 5 for the names, records 2 for the links, and the callout tokens
 * of records 3 and 4. */
void follow_topology(Server* s, Conn* c, const Record& r)
{
    Counts& counts = s->store.counts;
    switch (r.number) {
        case 91: {
            ++counts.records_91;
            std::string key = topology_key(r);
            if (c->callers_91.count(key)) {
                ++counts.records_91_repeated;
                s->store.log("conn %u: record 91 repeats the caller %s of backend %s", c->id,
                             printable(r.fields[1]).c_str(), printable(r.fields[0]).c_str());
            } else if (c->callers_91.size() < kMaxNamesPerConn) {
                c->callers_91.insert(std::move(key));
            }
            s->store.row(RunStore::Table::Topology, topology_row(c->id, r));
            return;
        }
        case 26:
            ++counts.records_26;
            s->store.row(RunStore::Table::Resources, resource_row(c->id, r));
            return;
        case 5: {
            long long id = 0;
            std::string name;
            if (method_declaration(r, &id, &name) &&
                (c->method_names.size() < kMaxNamesPerConn || c->method_names.count(id)))
                c->method_names[id] = std::move(name);
            return;
        }
        case 2: {
            if (s->links.add(c->id, r)) ++counts.chained_flowpaths;
            const std::string row = trace_row(c->id, r);
            if (!row.empty()) s->store.row(RunStore::Table::Traces, row);
            return;
        }
        case 6: {
            long long id = 0;
            printf_int(r.fields.back(), 1, INT32_MAX, &id);
            if (c->header_ids.size() < kMaxNamesPerConn || c->header_ids.count(id))
                c->header_ids[id] = join(r.fields, 0, r.fields.size() - 1);
            return;
        }
        case 32:
        case 33:
        case 34:
        case 35:
        case 36: {
            long long id = 0;
            printf_int(r.fields[0], 1, INT32_MAX, &id);
            c->exception_texts.add(r.number, id, join(r.fields, 1, r.fields.size()), kMaxNamesPerConn);
            return;
        }
        case 38: {
            const std::string row = exception_row(c->id, r.fields, c->exception_texts);
            if (!row.empty()) s->store.row(RunStore::Table::Exceptions, row);
            return;
        }
        case 12:
        case 13:
            for (const std::string& row : header_rows(c->id, r.number, r.fields, c->header_ids))
                s->store.row(RunStore::Table::Headers, row);
            return;
        case 3:
        case 4: {
            CalloutRow row;
            std::string blob;
            if (!record_blob(r, &row.fpi, &blob)) return;
            row.conn = c->id;
            for (const CalloutToken& t : callout_tokens(blob)) {
                row.kind = t.kind;
                row.seq = t.seq;
                row.backend_id = t.backend_id;
                row.duration = t.duration;
                row.query_id = t.query_id;
                const auto it = c->method_names.find(t.backend_id);
                row.backend_name = it == c->method_names.end() ? "-" : it->second;
                s->store.row(RunStore::Table::Callouts, callout_row(row));
            }
            return;
        }
        default:
            return;
    }
}

/* links.tsv and its counts, once every record 2 of the run is in. */
void write_links(Server* s)
{
    std::vector<std::string> rows;
    unsigned long long unresolved = 0;
    for (const LinkRow& r : s->links.resolve()) {
        if (r.caller_conn < 0) ++unresolved;
        rows.push_back(link_row(r));
    }
    s->store.counts.chained_unresolved = unresolved;
    if (s->links.dropped())
        s->store.log("%llu records 2 not kept for links.tsv: the table is full",
                     s->links.dropped());
    s->store.write_links(rows);
}

void on_line(Server* s, Conn* c, std::string_view line)
{
    if (c->closing) return;
    Counts& counts = s->store.counts;
    switch (c->kind) {
        case Kind::Unknown:
            if (line.empty()) return; /* a line feed ahead of the first line closes nothing */
            first_line(s, c, line);
            return;
        case Kind::Control:
            write_line(c, line);
            if (line.empty()) return;
            ++counts.agent_control_lines;
            on_agent_line(s, c, line);
            return;
        case Kind::Data: {
            write_line(c, line);
            if (line.empty()) {
                ++counts.data_heartbeats;
                return;
            }
            Record r;
            std::string error;
            if (parse_record(line, &r, &error) != 0) {
                s->store.malformed(c->id, error, line);
                if (c->seen) ++c->seen->malformed;
                return;
            }
            ++counts.records;
            ++counts.per_record[r.number];
            if (c->seen) ++c->seen->records;
            note_business_transaction(s, c, r);
            check_declared_ids(s, c, r, line);
            check_query(s, c, r, line);
            follow_topology(s, c, r);
            if (s->opts.verbose) s->store.log("conn %u: record %d", c->id, r.number);
            return;
        }
        case Kind::AutoSensor:
            write_line(c, line);
            on_auto_sensor_line(s, c, line);
            return;
        case Kind::Discovery: {
            write_line(c, line);
            if (line.empty()) return; /* the summary's leading line feed */
            const bool summary = discovery_summary(line);
            ++(summary ? counts.discovery_summaries : counts.discovery_results);
            s->summary_dirty = true;
            s->store.row(RunStore::Table::Discovery,
                         discovery_row(c->id, c->discovery_id, summary, line));
            return;
        }
    }
}

/* Reads what the connection has, at most `budget` bytes. */
void read_some(Server* s, Conn* c, size_t budget)
{
    char* buf = s->read_buf.data();
    for (int i = 0; i < kReadsPerWake && !c->closing && budget > 0; ++i) {
        apr_size_t len = std::min(s->read_buf.size(), budget);
        const apr_status_t rv = apr_socket_recv(c->skt, buf, &len);
        budget -= len;
        if (len > 0) {
            const unsigned long long nul_before = c->splitter->nul_bytes();
            c->splitter->feed(
                buf, len, [&](std::string_view line) { on_line(s, c, line); },
                [&](size_t seen) {
                    ++s->store.counts.overlong;
                    s->store.log("conn %u: line longer than %zu bytes (%zu seen), dropped", c->id,
                                 s->opts.max_line, seen);
                },
                [&](std::string_view body, bool line_feed_behind) {
                    on_digest_body(s, c, body, line_feed_behind);
                });
            s->store.counts.nul_bytes += c->splitter->nul_bytes() - nul_before;
        }
        if (APR_STATUS_IS_EAGAIN(rv)) break;
        if (APR_STATUS_IS_EOF(rv) || (rv == APR_SUCCESS && len == 0)) {
            /* The agent ends a discovery connection with its summary and
             * no line feed behind it. */
            if (c->kind == Kind::Discovery) {
                const std::string last = c->splitter->take_partial();
                if (!last.empty()) on_line(s, c, last);
            }
            close_conn(s, c, c->splitter->pending() ? "peer closed inside a line" : "peer closed");
            break;
        }
        if (rv != APR_SUCCESS) {
            char err[128];
            close_conn(s, c, apr_strerror(rv, err, sizeof err));
            break;
        }
    }
    if (c->file) fflush(c->file);
}

void on_readable(Server* s, Conn* c)
{
    read_some(s, c, SIZE_MAX);
    /* A data connection of a slow collector leaves the pollset: tick reads
     * it at the configured rate. */
    if (c->kind == Kind::Data && s->opts.data_read_rate > 0 && !c->throttled && !c->closing) {
        apr_pollset_remove(s->pollset, &c->pfd);
        c->throttled = true;
        c->last_read = apr_time_now();
    }
}

/* Reads a throttled connection for the time since its last read. */
void read_throttled(Server* s, Conn* c, apr_time_t now)
{
    const long long elapsed_us = now - c->last_read;
    const size_t budget = static_cast<size_t>(s->opts.data_read_rate * elapsed_us / 1000000);
    if (budget == 0) return;
    c->last_read = now;
    read_some(s, c, budget);
}

void accept_all(Server* s)
{
    for (int i = 0; i < kAcceptsPerWake; ++i) {
        apr_pool_t* pool = nullptr;
        if (apr_pool_create(&pool, s->pool) != APR_SUCCESS) return;
        apr_socket_t* skt = nullptr;
        const apr_status_t rv = apr_socket_accept(&skt, s->listener, pool);
        if (rv != APR_SUCCESS) {
            apr_pool_destroy(pool);
            if (!APR_STATUS_IS_EAGAIN(rv)) {
                char err[128];
                s->store.log("accept failed: %s", apr_strerror(rv, err, sizeof err));
            }
            return;
        }
        if (s->conns.size() >= static_cast<size_t>(s->opts.max_connections)) {
            ++s->store.counts.connections_refused;
            s->store.log("connection refused: %d connections are open already",
                         s->opts.max_connections);
            apr_socket_close(skt);
            apr_pool_destroy(pool);
            s->summary_dirty = true;
            continue;
        }
        auto c = std::make_unique<Conn>();
        c->id = s->next_id++;
        c->pool = pool;
        c->skt = skt;
        c->opened = apr_time_now();
        c->splitter = std::make_unique<LineSplitter>(s->opts.max_line);
        apr_socket_opt_set(skt, APR_SO_NONBLOCK, 1);
        apr_socket_timeout_set(skt, 0);
        apr_sockaddr_t* peer = nullptr;
        char* ip = nullptr;
        if (apr_socket_addr_get(&peer, APR_REMOTE, skt) == APR_SUCCESS &&
            apr_sockaddr_ip_get(&ip, peer) == APR_SUCCESS)
            snprintf(c->peer, sizeof c->peer, "%s:%d", ip, peer->port);
        c->pfd.p = pool;
        c->pfd.desc_type = APR_POLL_SOCKET;
        c->pfd.reqevents = APR_POLLIN;
        c->pfd.desc.s = skt;
        c->pfd.client_data = c.get();
        if (apr_pollset_add(s->pollset, &c->pfd) != APR_SUCCESS) {
            s->store.log("cannot watch a new connection; closed");
            apr_socket_close(skt);
            apr_pool_destroy(pool);
            continue;
        }
        ++s->store.counts.connections;
        s->summary_dirty = true;
        s->store.log("conn %u accepted from %s", c->id, c->peer);
        c->seen = s->store.counts.connection(c->id);
        if (c->seen) c->seen->peer = c->peer;
        s->conns.emplace(c->id, std::move(c));
    }
}

/* What --as-close-after-ms and --as-stop-reading-after-ms ask of an
 * auto-sensor connection, each timed from its opening. */
void stress_auto_sensor(Server* s, Conn* c, apr_time_t now)
{
    const Options& o = s->opts;
    if (o.as_close_after_ms > 0 && !s->as_closed &&
        now - c->opened >= apr_time_from_msec(o.as_close_after_ms)) {
        s->as_closed = true;
        ++s->store.counts.as_closed_by_collector;
        close_conn(s, c, "closed by the collector (--as-close-after-ms)");
        return;
    }
    if (o.as_stop_reading_after_ms > 0 && !c->unread &&
        now - c->opened >= apr_time_from_msec(o.as_stop_reading_after_ms)) {
        /* Out of the pollset: the agent's sends fill the socket, then its
         * buffers. The connection stays open until the run ends. */
        apr_pollset_remove(s->pollset, &c->pfd);
        c->unread = true;
        ++s->store.counts.as_unread_connections;
        s->summary_dirty = true;
        s->store.log("conn %u: auto-sensor connection no longer read (--as-stop-reading-after-ms)",
                     c->id);
    }
}

/* What --data-close-after-ms asks of the first data connection. */
void close_data_early(Server* s, Conn* c, apr_time_t now)
{
    const long long after = s->opts.data_close_after_ms;
    if (after <= 0 || s->data_closed || now - c->opened < apr_time_from_msec(after)) return;
    s->data_closed = true;
    ++s->store.counts.data_closed_by_collector;
    close_conn(s, c, "closed by the collector (--data-close-after-ms)");
}

void tick(Server* s, apr_time_t now)
{
    const long long hb = s->opts.heartbeat_ms;
    for (auto& [id, c] : s->conns) {
        if (c->closing) continue;
        if (c->kind == Kind::Unknown &&
            now - c->opened >= apr_time_from_msec(s->opts.idle_first_line_ms)) {
            ++s->store.counts.unknown_connections;
            close_conn(s, c.get(), "no first line in time");
            continue;
        }
        if (c->throttled) read_throttled(s, c.get(), now);
        if (c->kind == Kind::AutoSensor) stress_auto_sensor(s, c.get(), now);
        if (c->kind == Kind::Data) close_data_early(s, c.get(), now);
        if (c->closing) continue;
        if (c->kind == Kind::Control) run_session(s, c.get(), now);
        if (c->kind == Kind::Control && c->discover_at && now >= c->discover_at && !c->closing) {
            c->discover_at = 0;
            ++s->store.counts.discovery_requests;
            s->summary_dirty = true;
            send_logged(s, c.get(), "discovery request",
                        discovery_request_line(s->opts.discover_id, s->opts.discover_classes,
                                               s->opts.discover_methods));
        }
        if (c->closing) continue;
        if (c->kind == Kind::Control && c->session.reroute_at && now >= c->session.reroute_at) {
            c->session.reroute_at = 0;
            ++s->store.counts.reroutes_sent;
            s->summary_dirty = true;
            send_logged(s, c.get(), "reroute", reroute_line(s->opts.reroute_fields));
        }
        if (c->kind == Kind::Control && hb > 0 && now >= c->next_heartbeat) {
            ++s->store.counts.heartbeats_sent;
            const long long zero_after = s->opts.as_conn_state_zero_after_ms;
            const bool as_off = zero_after > 0 && now - c->opened >= apr_time_from_msec(zero_after);
            if (as_off) ++s->store.counts.as_state_zero_heartbeats;
            queue_send(s, c.get(), heartbeat_line(c->heartbeats++, as_off ? 0 : 1));
            c->next_heartbeat = now + apr_time_from_msec(hb);
        }
        flush_out(s, c.get());
    }
    for (auto it = s->conns.begin(); it != s->conns.end();) {
        if (it->second->closing) {
            free_conn(s, it->second.get());
            it = s->conns.erase(it);
        } else {
            ++it;
        }
    }
    if (s->summary_dirty && now >= s->next_summary) {
        s->store.write_summary();
        s->summary_dirty = false;
        s->next_summary = now + kSummaryEvery;
    }
}

/* Reads the keyword files of --session and --modify. */
int load_session(Server* s, std::string* error)
{
    const Options& o = s->opts;
    if (!o.files_dir.empty()) {
        struct stat st;
        if (stat(o.files_dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
            if (error) *error = "--files-dir " + o.files_dir + " is not a directory";
            return -1;
        }
    }
    const std::pair<const std::string*, std::vector<Keyword>*> files[] = {
        {&o.session_file, &s->session_keywords}, {&o.modify_file, &s->modify_keywords}};
    for (const auto& [path, keywords] : files) {
        if (path->empty()) continue;
        if (read_keyword_file(*path, keywords, error) != 0) return -1;
        if (names_files(*keywords) && o.files_dir.empty()) {
            if (error) *error = *path + " names files (@name), but no --files-dir is given";
            return -1;
        }
        s->store.log("session: %zu keywords from %s", keywords->size(), path->c_str());
    }
    return 0;
}

}  // namespace

int server_create(const Options& opts, Server** out, std::string* error)
{
    auto s = std::make_unique<Server>();
    s->opts = opts;
    char err[128];
    auto fail = [&](const char* what, apr_status_t rv) {
        if (error) *error = std::string(what) + ": " + apr_strerror(rv, err, sizeof err);
        server_destroy(s.release());
        return -1;
    };
    apr_status_t rv = apr_pool_create(&s->pool, nullptr);
    if (rv != APR_SUCCESS) return fail("pool", rv);
    if (s->store.open(opts.run_dir, error) != 0) {
        server_destroy(s.release());
        return -1;
    }
    apr_sockaddr_t* sa = nullptr;
    rv = apr_sockaddr_info_get(&sa, "127.0.0.1", APR_INET, static_cast<apr_port_t>(opts.port), 0,
                               s->pool);
    if (rv != APR_SUCCESS) return fail("address 127.0.0.1", rv);
    rv = apr_socket_create(&s->listener, APR_INET, SOCK_STREAM, APR_PROTO_TCP, s->pool);
    if (rv != APR_SUCCESS) return fail("socket", rv);
    apr_socket_opt_set(s->listener, APR_SO_REUSEADDR, 1);
    if ((rv = apr_socket_bind(s->listener, sa)) != APR_SUCCESS) return fail("bind", rv);
    if ((rv = apr_socket_listen(s->listener, 64)) != APR_SUCCESS) return fail("listen", rv);
    apr_socket_opt_set(s->listener, APR_SO_NONBLOCK, 1);
    apr_socket_timeout_set(s->listener, 0);
    apr_sockaddr_t* local = nullptr;
    if ((rv = apr_socket_addr_get(&local, APR_LOCAL, s->listener)) != APR_SUCCESS)
        return fail("local address", rv);
    s->port = local->port;
    rv = apr_pollset_create(&s->pollset, static_cast<apr_uint32_t>(opts.max_connections) + 1,
                            s->pool, 0);
    if (rv != APR_SUCCESS) return fail("pollset", rv);
    s->listen_pfd.p = s->pool;
    s->listen_pfd.desc_type = APR_POLL_SOCKET;
    s->listen_pfd.reqevents = APR_POLLIN;
    s->listen_pfd.desc.s = s->listener;
    s->listen_pfd.client_data = nullptr;
    if ((rv = apr_pollset_add(s->pollset, &s->listen_pfd)) != APR_SUCCESS)
        return fail("pollset add", rv);
    if (load_session(s.get(), error) != 0) {
        server_destroy(s.release());
        return -1;
    }
    s->store.log("listening on 127.0.0.1:%d, run directory %s", s->port, opts.run_dir.c_str());
    *out = s.release();
    return 0;
}

int server_port(const Server* s)
{
    return s ? s->port : -1;
}

const Counts& server_counts(const Server* s)
{
    return s->store.counts;
}

void server_request_stop(Server* s)
{
    if (s) s->stop.store(true, std::memory_order_relaxed);
}

int server_run(Server* s)
{
    if (!s || !s->pollset) return -1;
    const apr_time_t start = apr_time_now();
    const apr_time_t end =
        s->opts.duration_ms > 0 ? start + apr_time_from_msec(s->opts.duration_ms) : 0;
    int result = 0;
    int poll_errors = 0;
    while (!s->stop.load(std::memory_order_relaxed)) {
        if (end && apr_time_now() >= end) {
            s->store.log("duration of %lld s is over", s->opts.duration_ms / 1000);
            break;
        }
        apr_int32_t n = 0;
        const apr_pollfd_t* ready = nullptr;
        const apr_status_t rv = apr_pollset_poll(s->pollset, kPollStep, &n, &ready);
        if (rv == APR_SUCCESS) {
            poll_errors = 0;
            for (apr_int32_t i = 0; i < n; ++i) {
                if (!ready[i].client_data) {
                    accept_all(s);
                    continue;
                }
                Conn* c = static_cast<Conn*>(ready[i].client_data);
                if (!c->closing && (ready[i].rtnevents & APR_POLLOUT)) flush_out(s, c);
                if (!c->closing && (ready[i].rtnevents & ~APR_POLLOUT)) on_readable(s, c);
            }
        } else if (!APR_STATUS_IS_TIMEUP(rv) && !APR_STATUS_IS_EINTR(rv)) {
            char err[128];
            s->store.log("poll failed: %s", apr_strerror(rv, err, sizeof err));
            /* A pollset that keeps failing will not recover; end the run. */
            if (++poll_errors >= 10) {
                result = -1;
                break;
            }
        }
        tick(s, apr_time_now());
    }
    for (auto& [id, c] : s->conns) {
        close_conn(s, c.get(), "collector stops");
        free_conn(s, c.get());
    }
    s->conns.clear();
    write_links(s);
    s->store.write_summary();
    const Counts& k = s->store.counts;
    s->store.log("stopped: %llu connections, %llu records, %llu malformed, %llu overlong",
                 k.connections, k.records, k.malformed, k.overlong);
    return result;
}

void server_destroy(Server* s)
{
    if (!s) return;
    for (auto& [id, c] : s->conns) free_conn(s, c.get());
    s->conns.clear();
    s->store.close();
    if (s->pool) apr_pool_destroy(s->pool);
    delete s;
}

}  // namespace vxc
