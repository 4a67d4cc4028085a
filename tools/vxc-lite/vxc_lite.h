/*
 * vxc-lite: the project's own stand-in collector. It accepts an agent's
 * control connection, answers its request with a configured reply, keeps the
 * connection alive with heartbeats, accepts data and auto-sensor connections
 * and stores and checks every record they carry under a run directory.
 *
 * This header holds the settings of one run and the texts built from them.
 * The server itself is in server.h, the line and record checks in
 * record_parser.h, the files in run_store.h, the tiers and links in
 * topology.h.
 */
#ifndef VXC_LITE_H
#define VXC_LITE_H

#include <set>
#include <string>

namespace vxc {

/* Everything a run can be told on its command line. The defaults give an
 * agent a reply it accepts and stays with: protocol TCP on the port that
 * answered, state 1, and heartbeats well inside the agent's 90-second
 * silence limit. */
struct Options {
    int port = 0;                         /* 0: the system picks one */
    std::string run_dir = "vxc-run";      /* created if missing */
    long long duration_ms = 0;            /* 0: until a signal */
    long long heartbeat_ms = 30000;       /* 0: no collector heartbeats */
    long long idle_first_line_ms = 10000; /* a connection must identify itself within this */
    int max_connections = 64;
    size_t max_line = 131072;
    /* The reply's fields. */
    std::string status = "NOT_RUNNING";
    int state = 1;
    std::string retry_policy = "3%60%10%30";
    std::string proto_version = "1";
    std::string supported_protocols; /* empty: "TCP:<listening port>" */
    std::string reply_line;          /* non-empty: sent as given instead */
    /* A line sent on the control connection right after the reply, e.g. a
     * session start; empty: none. */
    std::string after_reply_line;
    /* A reroute order "vx_control_req:action=reroute_ctrl_con;<fields>;"
     * sent reroute_after_ms after the reply on every control connection;
     * fields such as "vxcHost=127.0.0.1;vxcPort=7000;tier=T2". Empty: none. */
    std::string reroute_fields;
    long long reroute_after_ms = 1000;
    /* Answer "klv_saas_auth_agent_msg_req" as the hosted entry point, naming
     * this collector; empty: such a request is refused. The connection then
     * goes on as a control connection. protoVer is proto_version. */
    std::string hosted_host;
    int hosted_port = 0;
    std::string hosted_authtoken = "NA";
    /* Bytes a second read from each data connection; 0 reads all at once.
     * A slow collector, for tests of an agent whose data backs up. */
    long long data_read_rate = 0;
    /* The first data connection of the run is closed this long after it
     * opened, so the agent reconnects in the middle of its session; 0: off. */
    long long data_close_after_ms = 0;
    bool verbose = false;

    /* For tests of an agent under stress; 0 turns each off. An auto-sensor
     * connection is no longer read this long after it opened (it stays
     * open, so the agent's buffers fill); the first one of the run is closed
     * this long after it opened (so the agent must reconnect); heartbeats
     * carry AutosensorConnState=0 from this long after their control
     * connection opened. */
    long long as_stop_reading_after_ms = 0;
    long long as_close_after_ms = 0;
    long long as_conn_state_zero_after_ms = 0;

    /* The instrumentation session run on every control connection (see
     * session.h). Keyword files; empty: no session. */
    std::string session_file;
    std::string modify_file;
    std::string files_dir;              /* where "@name" values are read from */
    long long start_after_ms = 500;     /* from the reply to the start line */
    long long modify_after_ms = 1000;   /* from the start line to the modify line */
    long long stop_after_ms = 0;        /* from the start line to the stop line; 0: never */
    bool start_once = false;            /* only the first control connection gets a start */
    std::set<std::string> refuse_files; /* keywords whose fetch is always refused */
    std::string drop_during_fetch;      /* keyword whose first fetch closes the connection */
    /* A metadata replay request: the fields behind
     * "vx_meta_data_req:action=send_meta_data;", sent this long after the
     * start line (the agent answers one only during a session); empty: none. */
    std::string replay_request;
    long long replay_after_ms = 1000;

    /* Loaded-class discovery (see discovery.h): the request goes on every
     * control connection this long after the reply; 0: never. */
    long long discover_after_ms = 0;
    std::string discover_id = "1";
    std::string discover_classes = "*";
    std::string discover_methods = "NA";
};

/* Parses argv into opts (which keeps its defaults for what is not given).
 * Returns 0 to run, 1 when --help was asked (usage goes to out), -1 on a bad
 * argument with the reason in error. */
int parse_args(int argc, const char* const* argv, Options* opts, std::string* out,
               std::string* error);

/* The usage text of the command. */
std::string usage();

/* The reply to a control request, with its line feed:
 * "vx_ctrl_msg_rep:result=Ok;status=...;state=...;retryPolicy=...;
 * ProtoVersion=...;supportedProtocols=...;". The policy fields come right
 * after status, because the agent reads only the first five fields of the
 * reply for them. */
std::string reply_line(const Options& opts, int listening_port);

/* The hosted entry point's answer, with its line feed:
 * "klv_saas_auth_agent_msg_rep:status=OK;host=...;port=...;authtoken=...;
 * protoVer=...;". */
std::string hosted_reply_line(const Options& opts);

/* The reroute order with its line feed: the head
 * "vx_control_req:action=reroute_ctrl_con;", the fields, a closing ";". */
std::string reroute_line(const std::string& fields);

/* The collector's heartbeat on the control connection, with its line feed.
 * The data connection state is 1, so that the agent keeps its data
 * connection; the auto-sensor state is as given: 1 keeps that connection,
 * 0 closes it. */
std::string heartbeat_line(unsigned long long count, int as_conn_state = 1);

}  // namespace vxc

#endif
