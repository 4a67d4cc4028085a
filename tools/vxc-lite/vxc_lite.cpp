#include "vxc_lite.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace vxc {

namespace {

bool to_ll(const char* s, long long lo, long long hi, long long* out)
{
    if (!s || !*s) return false;
    errno = 0;
    char* end = nullptr;
    const long long v = strtoll(s, &end, 10);
    if (errno != 0 || *end != '\0' || v < lo || v > hi) return false;
    *out = v;
    return true;
}

/* Values go into one reply line: a line feed or a ";" would make another
 * line or another field. */
bool safe_field(const std::string& v)
{
    return v.find('\n') == std::string::npos && v.find('\r') == std::string::npos &&
           v.find(';') == std::string::npos;
}

}  // namespace

std::string usage()
{
    return "usage: vxc-lite [options]\n"
           "Stand-in collector: answers an agent's control connection, stores and checks\n"
           "what its data and auto-sensor connections carry. Listens on 127.0.0.1 only.\n"
           "\n"
           "  --port N                 port to listen on; 0 picks one (default 0)\n"
           "  --run-dir DIR            where lines and the summary go (default vxc-run)\n"
           "  --duration SECONDS       stop after this long; 0 runs until SIGINT/SIGTERM\n"
           "  --heartbeat-ms N         collector heartbeat period on control connections;\n"
           "                           0 sends none (default 30000)\n"
           "  --first-line-ms N        close a connection that sends no first line in time\n"
           "                           (default 10000)\n"
           "  --max-connections N      connections held at once (default 64)\n"
           "  --max-line N             longest line accepted, in bytes (default 131072)\n"
           "  --status TEXT            reply status: NOT_RUNNING or RUNNING (default NOT_RUNNING)\n"
           "  --state N                reply state (default 1)\n"
           "  --retry-policy TEXT      reply retryPolicy, count%interval%misses%heartbeat\n"
           "                           (default 3%60%10%30)\n"
           "  --proto-version TEXT     reply ProtoVersion (default 1)\n"
           "  --protocols TEXT         reply supportedProtocols (default TCP:<listening port>)\n"
           "  --reply TEXT             send this line as the reply instead\n"
           "  --after-reply TEXT       send this line on the control connection after the reply\n"
           "  --reroute FIELDS         send vx_control_req:action=reroute_ctrl_con;FIELDS; on\n"
           "                           each control connection (e.g. vxcHost=127.0.0.1;vxcPort=N)\n"
           "  --reroute-after-ms N     ... N ms after the reply (default 1000)\n"
           "  --hosted HOST:PORT       answer the hosted sign-in request as the entry point,\n"
           "                           naming HOST:PORT, then serve the connection\n"
           "  --hosted-authtoken TEXT  authtoken of that answer (default NA)\n"
           "  --data-read-rate N       read each data connection at N bytes a second\n"
           "                           (a slow collector); 0 reads at once (default 0)\n"
           "  --data-close-after-ms N  close the first data connection N ms after it opened\n"
           "  --verbose                log every line received, heartbeats and records too\n"
           "\n"
           "Auto-sensor connections, for tests of an agent under stress (0: off):\n"
           "  --as-stop-reading-after-ms N\n"
           "                           stop reading each one N ms after it opened, keep it open\n"
           "  --as-close-after-ms N    close the first one of the run N ms after it opened\n"
           "  --as-conn-state-zero-after-ms N\n"
           "                           heartbeats carry AutosensorConnState=0 from N ms after\n"
           "                           their control connection opened\n"
           "\n"
           "Instrumentation session, run on every control connection:\n"
           "  --session FILE           keywords of the start line, one key=value a line\n"
           "                           (blank lines and lines starting with # ignored);\n"
           "                           a value @name announces file name of --files-dir\n"
           "  --files-dir DIR          files served to the agent (default: none)\n"
           "  --start-after-ms N       send the start N ms after the reply (default 500)\n"
           "  --start-once             only the first control connection gets a start\n"
           "  --modify FILE            keywords of a modify line, as for --session\n"
           "  --modify-after-ms N      send the modify N ms after the start (default 1000)\n"
           "  --stop-after-ms N        send the stop N ms after the start; 0 never (default 0)\n"
           "                           (a modify or stop waits for the agent's answer to\n"
           "                           the message before it)\n"
           "  --refuse-file KEYWORD    answer every fetch of KEYWORD with a refusal\n"
           "                           (instrProfile for the profile; may be repeated)\n"
           "  --drop-during-fetch KEYWORD\n"
           "                           close the control connection at the first fetch of\n"
           "                           KEYWORD instead of answering\n"
           "  --replay-request FIELDS  ask for a metadata replay: FIELDS follow\n"
           "                           \"vx_meta_data_req:action=send_meta_data;\"\n"
           "  --replay-after-ms N      N ms after the start line (default 1000)\n"
           "\n"
           "Loaded-class discovery, asked on every control connection:\n"
           "  --discover-after-ms N    send the request N ms after the reply; 0 never\n"
           "                           (default 0)\n"
           "  --discover-id TEXT       the request's Id (default 1)\n"
           "  --discover-classes TEXT  classFilters: * , NA or a,b,c (default *)\n"
           "  --discover-methods TEXT  methodFilters, the same (default NA)\n"
           "  --help                   this text\n"
           "\n"
           "On start it prints \"listening on 127.0.0.1:<port>\". Files in the run directory:\n"
           "conn-<n>-control.lines, conn-<n>-data.lines, conn-<n>-autosensor.lines (lines as\n"
           "received), malformed.txt, bt_monitor.tsv (records 74), backend_monitor.tsv\n"
           "(records 75), method_monitor.tsv (records 61), exception_monitor.tsv (records 63),\n"
           "percentiles.tsv (records 96 and 121), topology.tsv (records 91),\n"
           "resources.tsv (records 26), callouts.tsv (callout tokens of records 3 and 4,\n"
           "with a database call's query id), queries.tsv (query texts of records 22),\n"
           "traces.tsv (trace context of records 2), links.tsv (chained records 2, at the end),\n"
           "conn-<n>-discovery.lines, discovery.tsv (discovery results and summaries),\n"
           "summary.txt (counts), vxc-lite.log\n"
           "(also every session line sent).\n";
}

int parse_args(int argc, const char* const* argv, Options* opts, std::string* out,
               std::string* error)
{
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i] ? argv[i] : "";
        if (a == "--help" || a == "-h") {
            if (out) *out = usage();
            return 1;
        }
        if (a == "--verbose") {
            opts->verbose = true;
            continue;
        }
        if (a == "--start-once") {
            opts->start_once = true;
            continue;
        }
        if (i + 1 >= argc) {
            if (error)
                *error = a.rfind("--", 0) == 0 ? a + " needs a value" : "unknown argument " + a;
            return -1;
        }
        const char* v = argv[++i];
        long long n = 0;
        bool ok = true;
        if (a == "--port") {
            ok = to_ll(v, 0, 65535, &n);
            opts->port = static_cast<int>(n);
        } else if (a == "--run-dir") {
            ok = *v != '\0';
            opts->run_dir = v;
        } else if (a == "--duration") {
            ok = to_ll(v, 0, 86400 * 365, &n);
            opts->duration_ms = n * 1000;
        } else if (a == "--heartbeat-ms") {
            ok = to_ll(v, 0, 86400000, &n) && (n == 0 || n >= 10);
            opts->heartbeat_ms = n;
        } else if (a == "--first-line-ms") {
            ok = to_ll(v, 10, 86400000, &n);
            opts->idle_first_line_ms = n;
        } else if (a == "--max-connections") {
            ok = to_ll(v, 1, 4096, &n);
            opts->max_connections = static_cast<int>(n);
        } else if (a == "--max-line") {
            ok = to_ll(v, 64, 64 * 1024 * 1024, &n);
            opts->max_line = static_cast<size_t>(n);
        } else if (a == "--status") {
            opts->status = v;
            ok = safe_field(opts->status) && !opts->status.empty();
        } else if (a == "--state") {
            ok = to_ll(v, -128, 127, &n);
            opts->state = static_cast<int>(n);
        } else if (a == "--retry-policy") {
            opts->retry_policy = v;
            ok = safe_field(opts->retry_policy);
        } else if (a == "--proto-version") {
            opts->proto_version = v;
            ok = safe_field(opts->proto_version);
        } else if (a == "--protocols") {
            opts->supported_protocols = v;
            ok = safe_field(opts->supported_protocols);
        } else if (a == "--data-read-rate") {
            ok = to_ll(v, 0, 1LL << 40, &n);
            opts->data_read_rate = n;
        } else if (a == "--data-close-after-ms") {
            ok = to_ll(v, 0, 86400000, &n);
            opts->data_close_after_ms = n;
        } else if (a == "--as-stop-reading-after-ms") {
            ok = to_ll(v, 0, 86400000, &n);
            opts->as_stop_reading_after_ms = n;
        } else if (a == "--as-close-after-ms") {
            ok = to_ll(v, 0, 86400000, &n);
            opts->as_close_after_ms = n;
        } else if (a == "--as-conn-state-zero-after-ms") {
            ok = to_ll(v, 0, 86400000, &n);
            opts->as_conn_state_zero_after_ms = n;
        } else if (a == "--reply") {
            opts->reply_line = v;
            ok = opts->reply_line.find('\n') == std::string::npos && !opts->reply_line.empty();
        } else if (a == "--after-reply") {
            opts->after_reply_line = v;
            ok = opts->after_reply_line.find('\n') == std::string::npos;
        } else if (a == "--reroute") {
            opts->reroute_fields = v;
            ok = *v != '\0' && opts->reroute_fields.find('\n') == std::string::npos &&
                 opts->reroute_fields.find('\r') == std::string::npos;
        } else if (a == "--reroute-after-ms") {
            ok = to_ll(v, 0, 86400000, &n);
            opts->reroute_after_ms = n;
        } else if (a == "--hosted") {
            const std::string hp = v;
            const size_t colon = hp.rfind(':');
            ok = colon != std::string::npos && colon > 0 &&
                 to_ll(hp.substr(colon + 1).c_str(), 1, 65535, &n) &&
                 safe_field(hp.substr(0, colon));
            opts->hosted_host = ok ? hp.substr(0, colon) : "";
            opts->hosted_port = static_cast<int>(n);
        } else if (a == "--hosted-authtoken") {
            opts->hosted_authtoken = v;
            ok = *v != '\0' && safe_field(v);
        } else if (a == "--session") {
            opts->session_file = v;
            ok = *v != '\0';
        } else if (a == "--modify") {
            opts->modify_file = v;
            ok = *v != '\0';
        } else if (a == "--files-dir") {
            opts->files_dir = v;
            ok = *v != '\0';
        } else if (a == "--start-after-ms") {
            ok = to_ll(v, 0, 86400000, &n);
            opts->start_after_ms = n;
        } else if (a == "--modify-after-ms") {
            ok = to_ll(v, 0, 86400000, &n);
            opts->modify_after_ms = n;
        } else if (a == "--stop-after-ms") {
            ok = to_ll(v, 0, 86400000, &n);
            opts->stop_after_ms = n;
        } else if (a == "--refuse-file") {
            ok = *v != '\0' && safe_field(v);
            opts->refuse_files.insert(v);
        } else if (a == "--replay-request") {
            opts->replay_request = v;
            ok = opts->replay_request.find_first_of("\r\n") == std::string::npos;
        } else if (a == "--replay-after-ms") {
            ok = to_ll(v, 0, 86400000, &n);
            opts->replay_after_ms = n;
        } else if (a == "--discover-after-ms") {
            ok = to_ll(v, 0, 86400000, &n);
            opts->discover_after_ms = n;
        } else if (a == "--discover-id") {
            opts->discover_id = v;
            ok = safe_field(v);
        } else if (a == "--discover-classes") {
            opts->discover_classes = v;
            ok = safe_field(v);
        } else if (a == "--discover-methods") {
            opts->discover_methods = v;
            ok = safe_field(v);
        } else if (a == "--drop-during-fetch") {
            opts->drop_during_fetch = v;
            ok = *v != '\0' && safe_field(v);
        } else {
            if (error) *error = "unknown argument " + a;
            return -1;
        }
        if (!ok) {
            if (error) *error = "bad value for " + a + ": " + v;
            return -1;
        }
    }
    if (opts->session_file.empty() &&
        (!opts->modify_file.empty() || opts->stop_after_ms > 0 || opts->start_once)) {
        if (error) *error = "--modify, --stop-after-ms and --start-once need --session";
        return -1;
    }
    return 0;
}

std::string reply_line(const Options& opts, int listening_port)
{
    if (!opts.reply_line.empty()) return opts.reply_line + "\n";
    const std::string protocols = opts.supported_protocols.empty()
                                      ? "TCP:" + std::to_string(listening_port)
                                      : opts.supported_protocols;
    return "vx_ctrl_msg_rep:result=Ok;status=" + opts.status +
           ";state=" + std::to_string(opts.state) + ";retryPolicy=" + opts.retry_policy +
           ";ProtoVersion=" + opts.proto_version + ";supportedProtocols=" + protocols + ";\n";
}

std::string hosted_reply_line(const Options& opts)
{
    return "klv_saas_auth_agent_msg_rep:status=OK;host=" + opts.hosted_host +
           ";port=" + std::to_string(opts.hosted_port) + ";authtoken=" + opts.hosted_authtoken +
           ";protoVer=" + opts.proto_version + ";\n";
}

std::string reroute_line(const std::string& fields)
{
    const bool closed = !fields.empty() && fields.back() == ';';
    return "vx_control_req:action=reroute_ctrl_con;" + fields + (closed ? "" : ";") + "\n";
}

std::string heartbeat_line(unsigned long long count, int as_conn_state)
{
    return "vx_control_req:action=reconnect;heartBeat " + std::to_string(count) +
           ";dataConnState=1;AutosensorConnState=" + std::to_string(as_conn_state) + ";\n";
}

}  // namespace vxc
