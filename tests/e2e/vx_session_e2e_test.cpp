/*
 * Sessions the collector drives: vxc-lite sends the start, modify and stop
 * lines and serves the files they name; the host (vx_e2e_host methods) runs
 * transactions through instrumented methods, so that what a session captures
 * shows in the records of its data connection.
 */
#include <apr_general.h>
#include <apr_time.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <map>
#include <memory>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "vx_e2e_support.h"
#include "vx_test_support.h"

namespace {

constexpr long long kEpochSeconds = 1388534400; /* the session's time origin */

/* The keywords of a plain session: every transaction captured, a profile of
 * the host's methods, and a blob small enough to be flushed in record 3. */
std::string session_keywords(int test_idx, int pct = 100)
{
    return "testIdx=" + std::to_string(test_idx) + "\nbciInstrSessionPct=" + std::to_string(pct) +
           "\nmaxCharInSeqBlob=100\nenableCpuTime=1\nklvEpochDiff=" +
           std::to_string(kEpochSeconds) +
           "\nVXEntryPointsFile=@entry.txt\nBTRuleConfig=@bt_rules.txt\n"
           "instrProfile=@profile.txt\n";
}

const std::map<std::string, std::string> kFiles = {
    {"entry.txt", "e2e|Shop.handle|-|1\n"},
    {"bt_rules.txt", "# one business transaction per URL path\n"},
    {"profile.txt", "e2e|Shop|handle|0|1\ne2e|Shop|loadCart|0|0\n"},
};

void write_file(const std::string& path, const std::string& text)
{
    std::ofstream(path) << text;
}

/* Collector options for a session from `keywords` with `files` to serve. */
vxc::Options session_options(const std::string& keywords,
                             const std::map<std::string, std::string>& files = kFiles, int port = 0)
{
    vxc::Options o = e2e::collector_options(port);
    /* No heartbeats: one the agent reads while it waits for a profile holds
     * the start for 5 s more, which would make the sessions' times uneven. */
    o.heartbeat_ms = 0;
    o.files_dir = vx_test::make_temp_dir("vx_e2e_files_");
    for (const auto& [name, text] : files) write_file(o.files_dir + "/" + name, text);
    o.session_file = o.files_dir + "/session.kw";
    write_file(o.session_file, keywords);
    return o;
}

/* Runs the host with `args` and `env` against `vxc` until it exits, then
 * stops vxc; null, with a failure, when vxc did not start or the host failed. */
std::unique_ptr<e2e::Host> run_host(e2e::Collector& vxc, const std::vector<std::string>& args,
                                    const std::vector<std::string>& env = {})
{
    if (vxc.start() != 0) {
        ADD_FAILURE() << "vxc-lite did not start";
        return nullptr;
    }
    auto host = std::make_unique<e2e::Host>(args, vxc.port(), env);
    const int rc = host->wait(60);
    vxc.stop();
    if (rc != 0) {
        ADD_FAILURE() << "the host ended with " << rc;
        return nullptr;
    }
    return host;
}

/* What vxc-lite said ("> ...") and heard ("< ...") on control connections, in
 * order, without time and connection. */
std::vector<std::string> control_talk(const e2e::Collector& vxc)
{
    std::vector<std::string> out;
    std::ifstream in(vxc.run_dir() + "/vxc-lite.log");
    std::string line;
    while (std::getline(in, line)) {
        const size_t at = line.find(": ", line.find(" conn "));
        if (line.find(" conn ") == std::string::npos || at == std::string::npos) continue;
        const std::string said = line.substr(at + 2);
        if (said.rfind("> ", 0) == 0 || said.rfind("< ", 0) == 0) out.push_back(said);
    }
    return out;
}

/* Index of the first line at or after `from` that begins with `prefix`, or
 * lines.size(). */
size_t find_from(const std::vector<std::string>& lines, size_t from, const std::string& prefix)
{
    for (size_t i = from; i < lines.size(); ++i)
        if (lines[i].rfind(prefix, 0) == 0) return i;
    return lines.size();
}

bool said(const e2e::Collector& vxc, const std::string& prefix)
{
    const auto talk = control_talk(vxc);
    return find_from(talk, 0, prefix) < talk.size();
}

/* The fields of a record; the last one takes the rest of the line. */
std::vector<std::string> fields(const std::string& line, size_t count)
{
    std::vector<std::string> out;
    size_t at = 0;
    while (out.size() + 1 < count) {
        const size_t comma = line.find(',', at);
        if (comma == std::string::npos) break;
        out.push_back(line.substr(at, comma - at));
        at = comma + 1;
    }
    out.push_back(line.substr(at));
    return out;
}

bool is_record(const std::string& line, int number)
{
    return line.rfind(std::to_string(number) + ",", 0) == 0;
}

int count_records(const std::vector<std::string>& lines, int number)
{
    int n = 0;
    for (const std::string& l : lines) n += is_record(l, number);
    return n;
}

/* The lines of the data connection of session `test_idx`, checked to begin
 * with the opening line, its line feed and record 99, and to end with record
 * 10; empty when there is none. */
std::vector<std::string> session_data(const e2e::Collector& vxc, int test_idx,
                                      const std::string& version = "1.0")
{
    for (const auto& lines : vxc.data_connections()) {
        if (lines.empty() ||
            lines[0].find(";testIdx=" + std::to_string(test_idx) + ";") == std::string::npos)
            continue;
        EXPECT_EQ(lines[0].rfind("vx_data_msg_req:", 0), 0u) << lines[0];
        EXPECT_TRUE(lines.size() > 4 && lines[1].empty() && lines[2].empty() &&
                    lines[3] == "99,NewConnection,FPGVersion:" + version)
            << (lines.size() > 3 ? lines[3] : "");
        EXPECT_EQ(lines.back(), "10,");
        return lines;
    }
    ADD_FAILURE() << "no data connection of session " << test_idx;
    return {};
}

/* Method events of a sequence blob: (method id, 0 entry or 1 exit), from
 * every "<id>:<time>_<0|1>_" in it. */
std::vector<std::pair<int, int>> events(const std::string& blob)
{
    static const std::regex token(R"((?:^|\D)(\d+):-?\d+_([01])_)");
    std::vector<std::pair<int, int>> out;
    for (std::sregex_iterator it(blob.begin(), blob.end(), token), end; it != end; ++it)
        out.emplace_back(std::stoi((*it)[1]), (*it)[2] == "1");
    return out;
}

/* A data connection read as a collector reads it: the names of its ids and,
 * per flowpath, its records 2, 3 and 4. Inconsistencies are test failures:
 * an id used before it was declared (methods only when `methods_declared`),
 * a record of a flowpath that is not open. */
struct Stream {
    std::map<int, std::string> methods; /* records 5 */
    std::map<int, std::string> bts;     /* records 7 */
    struct Flowpath {
        std::vector<std::string> header; /* record 2 */
        std::vector<std::pair<int, int>> events;
        int partials = 0;             /* records 3 */
        std::vector<std::string> end; /* record 4 */
    };
    std::map<std::string, Flowpath> flowpaths;
};

Stream read_stream(const std::vector<std::string>& lines, bool methods_declared = true)
{
    Stream s;
    std::vector<std::string> problems;
    for (const std::string& l : lines) {
        if (is_record(l, 5)) {
            const size_t comma = l.rfind(',');
            const int id = atoi(l.c_str() + comma + 1);
            if (!s.methods.emplace(id, l.substr(2, comma - 2)).second)
                problems.push_back("method id declared twice: " + l);
        } else if (is_record(l, 7)) {
            const auto f = fields(l, 3);
            s.bts[atoi(f[1].c_str())] = f[2];
        } else if (is_record(l, 2)) {
            const auto f = fields(l, 17);
            if (f.size() < 6 || !s.bts.count(atoi(f[5].c_str())))
                problems.push_back("business transaction undeclared: " + l);
            Stream::Flowpath& fp = s.flowpaths[f[1]];
            if (!fp.header.empty()) problems.push_back("record 2 twice: " + l);
            fp.header = f;
        } else if (is_record(l, 3) || is_record(l, 4)) {
            const bool end = is_record(l, 4);
            const auto f = fields(l, end ? 11 : 3);
            auto it = s.flowpaths.find(f[1]);
            if (it == s.flowpaths.end() || !it->second.end.empty()) {
                problems.push_back("no open flowpath for: " + l);
                continue;
            }
            for (const auto& e : events(f.back())) {
                it->second.events.push_back(e);
                if (methods_declared && !s.methods.count(e.first))
                    problems.push_back("method " + std::to_string(e.first) + " undeclared: " + l);
            }
            if (end)
                it->second.end = f;
            else
                ++it->second.partials;
        }
    }
    for (size_t i = 0; i < problems.size() && i < 5; ++i) ADD_FAILURE() << problems[i];
    if (problems.size() > 5) ADD_FAILURE() << problems.size() - 5 << " more like these";
    return s;
}

/* Checks every transaction of the host that ended in the session: status
 * 200, normal, its ten method events whatever records 3 and 4 carried them,
 * and `partials` records 3 when given. The count of them. */
int check_whole_transactions(const Stream& s, int partials = -1)
{
    std::map<std::string, int> id;
    for (const auto& [i, name] : s.methods) id[name] = i;
    const int root = id["Profiler.Kelvane.BeginRequest"], handle = id["Shop.handle"],
              load = id["Shop.loadCart"];
    EXPECT_TRUE(root && handle && load && handle != load) << "methods of the profile";
    const std::vector<std::pair<int, int>> whole = {{root, 0},   {handle, 0}, {load, 0}, {load, 1},
                                                    {load, 0},   {load, 1},   {load, 0}, {load, 1},
                                                    {handle, 1}, {root, 1}};
    int finished = 0;
    for (const auto& [fpi, fp] : s.flowpaths) {
        if (fp.end.empty() || fp.end[7] == "7") continue; /* open when the session stopped */
        ++finished;
        EXPECT_EQ(fp.end[2], "200") << fpi;
        EXPECT_EQ(fp.end[3], "10") << fpi;
        EXPECT_EQ(fp.events, whole) << fpi;
        if (partials >= 0) {
            EXPECT_EQ(fp.partials, partials) << fpi;
        }
    }
    return finished;
}

}  // namespace

TEST(Session, ATransactionOnTheWireFromTheStartLineToRecord10)
{
    vxc::Options opts = session_options(session_keywords(7));
    opts.stop_after_ms = 6000;
    e2e::Collector vxc(opts);
    ASSERT_EQ(vxc.start(), 0);
    const long long before = time(nullptr);
    e2e::Host host({"methods", "9"}, vxc.port());
    ASSERT_EQ(host.wait(60), 0);
    const long long after = time(nullptr);
    vxc.stop();

    vxc.expect_counts(
        "start_answers=1 stop_answers=1 file_requests=2 profile_requests=1 "
        "failed_file_replies=0 malformed=0");

    /* The control connection: start, the fetches in keyword order, the
     * answer, then stop and its answer. */
    const auto talk = control_talk(vxc);
    size_t at = 0;
    for (const char* step :
         {"> start: vx_control_req:action=start_instrumentation;status=running;testIdx=7;"
          "bciInstrSessionPct=100;maxCharInSeqBlob=100;",
          "< vx_control_req:action=send_file;keyword=VXEntryPointsFile;", "> file",
          "< vx_control_req:action=send_file;keyword=BTRuleConfig;", "> file",
          "< vx_control_req:action=send_instrumentation_profile;status=running;"
          "instrProfile=profile.txt",
          "> profile", "< vx_control_rep:action=start_instrumentation;status=starting;result=Ok;",
          "> stop: vx_control_req:action=stop_instrumentation;",
          "< vx_control_rep:action=stop_instrumentation;status=stopping;result=Ok;"}) {
        at = find_from(talk, at, step);
        ASSERT_LT(at, talk.size()) << "missing, or out of order: " << step;
    }

    /* The data connection opens for session 7, then record 99, then the
     * method table (records 5) ahead of anything of a flowpath. */
    EXPECT_EQ(vxc.data_connections().size(), 1u);
    const auto lines = session_data(vxc, 7);
    bool flowpath_seen = false;
    for (const std::string& l : lines) {
        flowpath_seen = flowpath_seen || is_record(l, 2) || is_record(l, 7);
        EXPECT_FALSE(flowpath_seen && is_record(l, 5)) << "a method of the start, late: " << l;
    }

    const Stream s = read_stream(lines);
    ASSERT_EQ(s.bts.size(), 1u);
    EXPECT_EQ(s.bts.begin()->second, "/shop/cart");
    for (const auto& [fpi, fp] : s.flowpaths) {
        ASSERT_EQ(fp.header.size(), 17u) << fpi;
        EXPECT_EQ(fp.header[5], std::to_string(s.bts.begin()->first)) << fpi;
        EXPECT_EQ(fp.header[6], "/shop/cart?item=7") << fpi;
        const long long start_s = atoll(fp.header[2].c_str());
        EXPECT_GE(start_s, before - kEpochSeconds - 1) << "seconds from the session's origin";
        EXPECT_LE(start_s, after - kEpochSeconds + 1) << "seconds from the session's origin";
        EXPECT_EQ(fp.header[16], "") << "no trace context";
        if (fp.end.empty()) continue;
        EXPECT_EQ(fp.end[6], fp.header[5]) << fpi;
        EXPECT_GE(atoll(fp.end[4].c_str()), 0) << fpi;
        if (fp.end[7] != "7") {
            EXPECT_GE(fp.partials, 1) << "a blob past 100 characters: " << fpi;
        }
    }
    EXPECT_GT(check_whole_transactions(s), 50);
    EXPECT_EQ(count_records(lines, 4), static_cast<int>(s.flowpaths.size())) << "all flowpaths end";
    EXPECT_EQ(count_records(lines, 4), host.number("transactions")) << "none taken is lost";
}

TEST(Session, ASecondRegistrationRunsTheNextSessionWithItsOwnTestIdxAndIds)
{
    /* vxc-lite starts one session per control connection: the next session
     * comes with the next registration, after the collector restarted. */
    vxc::Options first_opts = session_options(session_keywords(11));
    first_opts.stop_after_ms = 3000;
    e2e::Collector first(first_opts);
    ASSERT_EQ(first.start(), 0);
    const int port = first.port();
    e2e::Host host({"methods", "22"}, port);
    ASSERT_TRUE(e2e::eventually(
        [&] {
            const auto data = first.data_connections();
            return !data.empty() && !data[0].empty() && data[0].back() == "10,";
        },
        20));
    first.stop();

    vxc::Options second_opts = session_options(session_keywords(12), kFiles, port);
    second_opts.stop_after_ms = 9000; /* the start waits 5 s for the last session's events */
    e2e::Collector second(second_opts);
    ASSERT_EQ(second.start(), 0);
    ASSERT_EQ(host.wait(60), 0);
    second.stop();

    second.expect_counts("start_answers=1 stop_answers=1 malformed=0 undeclared_methods=0");
    EXPECT_EQ(second.data_connections().size(), 1u);
    const auto lines = session_data(second, 12);
    /* The new collector learns every id it is sent on its own connection:
     * the method table and the business transaction again, whatever the
     * first one was told. */
    const Stream s = read_stream(lines);
    EXPECT_GT(check_whole_transactions(s), 20);
}

TEST(Session, ModifyRaisesTheCaptureShareOfTheRunningSession)
{
    vxc::Options opts = session_options(session_keywords(21, 0));
    opts.modify_file = opts.files_dir + "/modify.kw";
    write_file(opts.modify_file, "bciInstrSessionPct=100\n");
    opts.modify_after_ms = 4000;
    opts.stop_after_ms = 7000;
    e2e::Collector vxc(opts);
    ASSERT_EQ(vxc.start(), 0);
    e2e::Host host({"methods", "10"}, vxc.port());

    /* Transactions run (their business transaction is announced) but none is
     * captured until the modify. */
    ASSERT_TRUE(e2e::eventually(
        [&] {
            const auto data = vxc.data_connections();
            return !data.empty() && count_records(data[0], 7) > 0;
        },
        15));
    apr_sleep(apr_time_from_sec(1));
    const auto early = vxc.data_connections().at(0);
    const bool modified_early = said(vxc, "> modify");
    ASSERT_EQ(host.wait(60), 0);
    vxc.stop();

    ASSERT_FALSE(modified_early) << "the first look must come before the modify";
    EXPECT_EQ(count_records(early, 2) + count_records(early, 3) + count_records(early, 4), 0);
    vxc.expect_counts("modify_answers=1 stop_answers=1");
    const auto talk = control_talk(vxc);
    size_t at = find_from(talk, 0, "> modify: vx_control_req:action=modify;bciInstrSessionPct=100");
    at = find_from(talk, at, "< vx_control_rep:action=modify;result=Ok;");
    EXPECT_LT(find_from(talk, at, "> stop"), talk.size());

    /* After it, every transaction is captured from its start. */
    const Stream s = read_stream(vxc.data_connections().at(0));
    EXPECT_GT(check_whole_transactions(s), 30);
}

TEST(Session, ACriticalFileTheCollectorRefusesEndsTheConnectionWithoutAStartAnswer)
{
    vxc::Options opts = session_options(session_keywords(31));
    opts.refuse_files = {"VXEntryPointsFile"};
    opts.start_once = true; /* the next connection only registers */
    e2e::Collector vxc(opts);
    ASSERT_EQ(vxc.start(), 0);
    e2e::Host host({"methods", "90"}, vxc.port());
    /* The agent asks twice, then waits out its 60-second fetch time-out. */
    ASSERT_TRUE(e2e::eventually([&] { return vxc.control_requests().size() >= 2; }, 80));
    const std::string log = host.trace_log();
    const vxc::Counts& counts = vxc.stop();

    vxc.expect_counts("start_answers=0 file_requests=2 failed_file_replies=2");
    EXPECT_EQ(counts.profile_requests, 0u) << "nothing after the critical file is applied";
    EXPECT_EQ(counts.data_connections, 0u) << "no session, no data";
    const auto talk = control_talk(vxc);
    EXPECT_LT(find_from(talk, 0,
                        "< Expecting response for 'VXEntryPointsFile' but Timeout has occured "
                        "while reading data from VXC. Closing control connection."),
              talk.size());
    EXPECT_NE(log.find("Response from VXC: File Not Present at Time 'VXEntryPointsFile'. Going to "
                       "read again."),
              std::string::npos);
    EXPECT_NE(log.find("Timeout has occured while reading response from VXC for "
                       "'VXEntryPointsFile' file based keyword."),
              std::string::npos);
}

TEST(Session, AConnectionDroppedInTheMiddleOfAFetchIsFollowedByANewOneAndItsSession)
{
    vxc::Options opts = session_options(session_keywords(41));
    opts.drop_during_fetch = "BTRuleConfig"; /* the first fetch of it only */
    opts.stop_after_ms = 9000;
    e2e::Collector vxc(opts);
    const auto host = run_host(vxc, {"methods", "20"});
    ASSERT_TRUE(host);
    const std::string log = host->trace_log();

    vxc.expect_counts(
        "control_connections=2 fetches_dropped=1 starts_sent=2 start_answers=1 "
        "stop_answers=1 malformed=0");
    EXPECT_NE(log.find("Control connection lost while reading a file"), std::string::npos);
    EXPECT_EQ(vxc.data_connections().size(), 1u);
    const auto lines = session_data(vxc, 41);
    /* The broken start had taken testIdx 41 already, so the session that
     * follows counts as the same test run: its method table is not sent
     * again, and only business transactions are checked here. */
    read_stream(lines, false);
    EXPECT_GT(count_records(lines, 4), 20);
}

TEST(Session, AStartWhoseConnectionBrokeRaisesNoSession)
{
    vxc::Options opts = session_options("ControlThreadTraceLevel=1\n" + session_keywords(42));
    opts.drop_during_fetch = "BTRuleConfig";
    opts.start_once = true; /* the next connection only registers */
    e2e::Collector vxc(opts);
    ASSERT_EQ(vxc.start(), 0);
    e2e::Host host({"methods", "20"}, vxc.port());
    ASSERT_TRUE(e2e::eventually([&] { return vxc.control_requests().size() >= 2; }, 10));
    apr_sleep(apr_time_from_sec(1));
    const vxc::Counts& counts = vxc.stop();
    const std::string log = host.trace_log();
    EXPECT_EQ(log.find("Creating Data thread"), std::string::npos) << log;
    EXPECT_EQ(counts.connections, counts.control_connections) << "no data connection is opened";
}

TEST(Session, HostileSessionInputIsAnsweredAndTheConnectionKeepsServing)
{
    /* Keywords the agent must live with: unknown, empty, out of range, too
     * long, malformed sub-values, files with garbage lines. */
    const std::string keywords =
        "testIdx=51\nnoSuchKeyword=1\nbciInstrSessionPct=100\nmaxCharInSeqBlob=\n"
        "enableCpuTime=abc%20%20-7\nvxMonitorInterval=-5\nmaxIPCount=-3\nmaxBTCount=0\n"
        "fpVersionID=12345678901234567890\nklvEpochDiff=abc\nklvEpochDiff=1388534400\n"
        "correlationIDHeader=\nvxVectorSeparator=\nenableOTELStandard=1%201\n"
        "BTErrorRules=@bt_errors.txt\nVXEntryPointsFile=@entry.txt\nBTRuleConfig=@bt_rules.txt\n"
        "instrProfile=@profile.txt\n";
    std::map<std::string, std::string> files = kFiles;
    files["bt_errors.txt"] = "garbage without columns\n";
    files["profile.txt"] = "garbage without columns\n|||\ne2e|Shop|handle|0|1\n\n\r\ne2e|Shop|\n" +
                           std::string(3000, 'x') + "\ne2e|Shop|loadCart|0|0\n";
    vxc::Options opts = session_options(keywords, files);
    /* Right after the reply, raw lines: a modify with no session running, a
     * start with a field without "=" in its middle, and its stop. The
     * collector's own session follows on the same connection. */
    opts.after_reply_line =
        "vx_control_req:action=modify;bciInstrSessionPct=100;\n"
        "vx_control_req:action=start_instrumentation;status=running;ControlThreadTraceLevel=2;"
        "testIdx=50;fieldWithoutValue;testIdx=52;\n"
        "vx_control_req:action=stop_instrumentation;status=stopping;setthresholdTime=0;";
    opts.start_after_ms = 1000;
    opts.stop_after_ms = 10000; /* the start waits 5 s for the last session's events */
    e2e::Collector vxc(opts);
    const auto host = run_host(vxc, {"methods", "16"});
    ASSERT_TRUE(host);
    const std::string log = host->trace_log();
    const vxc::Counts& counts = vxc.stop();

    EXPECT_EQ(counts.control_connections, 1u);
    EXPECT_EQ(counts.error_answers, 1u) << "a modify with no session is refused";
    vxc.expect_counts("start_answers=2 stop_answers=2 malformed=0");
    /* The raw start was applied up to the field without "=" and no further. */
    EXPECT_NE(log.find("keyword testIdx=50"), std::string::npos);
    EXPECT_EQ(log.find("keyword testIdx=52"), std::string::npos);
    for (const char* line :
         {"Invalid value -5 of keyword vxMonitorInterval", "Invalid value -3 of keyword maxIPCount",
          "Invalid value 0 of keyword maxBTCount",
          "Content 'garbage without columns' is not in proper format."})
        EXPECT_NE(log.find(line), std::string::npos) << line;

    /* fpVersionID is cut to the nine characters its field holds. */
    const auto lines = session_data(vxc, 51, "123456789");
    /* The profile's good lines made their methods; with an empty blob limit
     * every event goes out in a record 3 of its own. */
    const Stream s = read_stream(lines);
    EXPECT_GT(check_whole_transactions(s, 10), 20);
}

TEST(Session, OutOfRangeValuesNeverReachTheWireOrItsArithmetic)
{
    std::map<std::string, std::string> files = kFiles;
    files["profile.txt"] += "e2e|||||\n";
    vxc::Options opts =
        session_options("klvEpochDiff=99999999999999999999\n" + session_keywords(61), files);
    opts.stop_after_ms = 3000;
    e2e::Collector vxc(opts);
    const auto host = run_host(vxc, {"methods", "6"});
    ASSERT_TRUE(host) << "the host lives";
    const vxc::Counts& counts = vxc.stop();
    EXPECT_EQ(counts.start_answers, 1u);
    EXPECT_EQ(counts.malformed, 0u) << "no record 5 without a name";
}

namespace {

/* Business transactions on a data connection under pattern rules, read as a
 * collector reads them. `declared` holds the ids and names the served rule
 * files give; a record 7 adds or renames its own. Failures: a record 2 or 4
 * whose id was declared neither way before it arrived, a record 7 with an
 * (id, name) sent before. */
struct BtTraffic {
    std::vector<std::pair<int, std::string>> announced;         /* records 7, in order */
    std::set<std::pair<int, std::string>> replayed; /* records 7 of a replay ("11,<t>,All") */
    std::map<std::string, std::set<int>> ids_of_path;           /* record 2: path -> ids */
    std::map<std::string, std::set<std::string>> names_of_path; /* the names then */
    std::set<std::string> categories;                           /* records 4 that ended */
    int ends = 0;
};

BtTraffic read_bt_traffic(const std::vector<std::string>& lines,
                          std::map<int, std::string> declared)
{
    BtTraffic t;
    std::set<std::pair<int, std::string>> seen;
    std::vector<std::string> problems;
    auto check = [&](const std::vector<std::string>& f, size_t id_at, const std::string& line) {
        if (f.size() <= id_at || !declared.count(atoi(f[id_at].c_str())))
            problems.push_back("business transaction undeclared: " + line);
        return f.size() > id_at + 1;
    };
    /* A replay: the metadata records behind a record 11 "All". */
    constexpr int kMetadata[] = {5, 6, 22, 26, 32, 33, 34, 35, 36};
    bool replay = false;
    for (const std::string& l : lines) {
        if (is_record(l, 11)) {
            replay = l.size() > 4 && l.compare(l.size() - 4, 4, ",All") == 0;
        } else if (is_record(l, 7)) {
            const auto f = fields(l, 3);
            const std::pair<int, std::string> bt(atoi(f[1].c_str()), f.back());
            if (replay) {
                t.replayed.insert(bt);
            } else {
                if (!seen.insert(bt).second) problems.push_back("announced twice: " + l);
                t.announced.push_back(bt);
            }
            declared[bt.first] = bt.second;
        } else if (std::none_of(std::begin(kMetadata), std::end(kMetadata),
                                [&l](int n) { return is_record(l, n); })) {
            replay = false;
        }
        if (is_record(l, 2)) {
            const auto f = fields(l, 17);
            if (check(f, 5, l)) {
                const std::string path = f[6].substr(0, f[6].find('?'));
                const int id = atoi(f[5].c_str());
                t.ids_of_path[path].insert(id);
                t.names_of_path[path].insert(declared[id]);
            }
        } else if (is_record(l, 4)) {
            const auto f = fields(l, 11);
            ++t.ends;
            if (check(f, 6, l) && f[7] != "7") t.categories.insert(f[3]); /* not open at the stop */
        }
    }
    for (size_t i = 0; i < problems.size() && i < 5; ++i) ADD_FAILURE() << problems[i];
    if (problems.size() > 5) ADD_FAILURE() << problems.size() - 5 << " more like these";
    return t;
}

const char kPatternRules[] =
    "# shop pages\n"
    "7|ItemPage|5|1|/shop/item/|0|-\n"
    "7|Cart|6|0|/shop/cart|0|-\n"
    "7|Private|9|0|/shop/private|1|-\n";

/* Options for a session whose rule and threshold files are `rules` and
 * `thresholds`, and the ids the collector learns from the rules. */
vxc::Options pattern_session(int test_idx, const std::string& rules, const std::string& thresholds)
{
    std::map<std::string, std::string> files = kFiles;
    files["rules.txt"] = rules;
    files["thresholds.txt"] = thresholds;
    return session_options(
        "testIdx=" + std::to_string(test_idx) +
            "\nbciInstrSessionPct=100\nklvEpochDiff=" + std::to_string(kEpochSeconds) +
            "\nVXEntryPointsFile=@entry.txt\nBTRuleConfig=@rules.txt\n"
            "BTTConfig=@thresholds.txt\ninstrProfile=@profile.txt\n",
        files);
}

}  // namespace

TEST(Session, PatternRulesOfTheStartNameTransactionsByTheIdsOfTheServedFile)
{
    /* Thresholds of 1 and 2 ms: a transaction held 5 ms is very slow only if
     * the served threshold file was read; the per-BT line is read before the
     * rules and must not disturb them. */
    vxc::Options opts =
        pattern_session(71, kPatternRules, "# thresholds\nALL|1|2\nItemPage|100|200\n");
    opts.stop_after_ms = 2000;
    e2e::Collector vxc(opts);
    const auto host = run_host(
        vxc, {"urls", "3", "2", "5", "/shop/item/42|GET", "/shop/item/7?x=1|GET", "/shop/cart|POST",
              "/shop/private/a|GET", "/shop/private|GET", "/elsewhere|GET"});
    ASSERT_TRUE(host);

    vxc.expect_counts(
        "start_answers=1 stop_answers=1 failed_file_replies=0 malformed=0 undeclared_bt=0 "
        "bt.1=Others bt.5=ItemPage bt.6=Cart");
    const std::map<int, std::string> served = {{1, "Others"}, {5, "ItemPage"}, {6, "Cart"}};
    const BtTraffic t = read_bt_traffic(session_data(vxc, 71), served);
    EXPECT_TRUE(t.announced.empty()) << "the collector knows the rules' names from the file";
    EXPECT_EQ(t.replayed, (std::set<std::pair<int, std::string>>(served.begin(), served.end())))
        << "the data connection's replay declares the file's own ids and names";
    using Ids = std::set<int>;
    const std::map<std::string, Ids> want = {
        {"/shop/item/42", {5}},   {"/shop/item/7", {5}}, {"/shop/cart", {6}},
        {"/shop/private/a", {1}}, {"/elsewhere", {1}},
    };
    EXPECT_EQ(t.ids_of_path, want) << "an exact rule holds for its URL alone; /shop/private is "
                                      "excluded";
    EXPECT_EQ(t.categories, std::set<std::string>{"12"}) << "judged by the served ALL line";
    EXPECT_GT(t.ends, 100);
}

TEST(Session, ARuleFileModifiedUnderLoadAnnouncesItsNewIdsBeforeTheirUse)
{
    /* While four host threads run transactions, the modify replaces the
     * rules of the start: pattern rules (it moves ItemPage and Cart to new
     * ids and adds Search), or the default rule, under which each path was
     * discovered and announced. A rule's id is the collector's to choose and
     * may equal an id discovered earlier in the session; the new rules keep
     * clear of the four discovered here (2 to 5), so that every id names one
     * BT in this stream. */
    using Names = std::set<std::string>;
    using Announced = std::set<std::pair<int, std::string>>;
    struct Case {
        const char* start_rules;
        std::map<int, std::string> served;  /* what the start's rules declare */
        Announced by_modify;                /* records 7 of rule names */
        std::map<std::string, Names> names; /* names a path had, before and after */
    };
    const Case cases[] = {
        {kPatternRules,
         {{1, "Others"}, {5, "ItemPage"}, {6, "Cart"}},
         {{15, "ItemPage"}, {16, "Cart"}, {17, "Search"}},
         {{"/shop/item/3", {"ItemPage"}},
          {"/shop/cart", {"Cart"}},
          {"/shop/search", {"Others", "Search"}},
          {"/elsewhere", {"Others"}}}},
        {"# one business transaction per URL path\n",
         {},
         {{1, "Others"}, {15, "ItemPage"}, {16, "Cart"}, {17, "Search"}},
         {{"/shop/item/3", {"/shop/item", "ItemPage"}},
          {"/shop/cart", {"/shop/cart", "Cart"}},
          {"/shop/search", {"/shop/search", "Search"}},
          {"/elsewhere", {"/elsewhere", "Others"}}}},
    };
    int test_idx = 72;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.start_rules);
        vxc::Options opts = pattern_session(test_idx, c.start_rules, "ALL|1000|3000\n");
        write_file(opts.files_dir + "/rules2.txt",
                   "7|ItemPage|15|1|/shop/item/|0|-\n7|Cart|16|0|/shop/cart|0|-\n"
                   "7|Search|17|1|/shop/search|0|-\n");
        opts.modify_file = opts.files_dir + "/modify.kw";
        write_file(opts.modify_file, "BTRuleConfig=@rules2.txt\n");
        opts.modify_after_ms = 1500;
        opts.stop_after_ms = 3300;
        e2e::Collector vxc(opts);
        const auto host =
            run_host(vxc, {"urls", "4", "4", "0", "/shop/item/3|GET", "/shop/cart|GET",
                           "/shop/search?q=a|GET", "/elsewhere|GET"});
        ASSERT_TRUE(host);

        vxc.expect_counts(
            "start_answers=1 modify_answers=1 stop_answers=1 failed_file_replies=0 malformed=0 "
            "undeclared_bt=0 bt.15=ItemPage bt.16=Cart bt.17=Search");
        const BtTraffic t = read_bt_traffic(session_data(vxc, test_idx++), c.served);
        Announced by_rules;
        for (const auto& bt : t.announced)
            if (bt.second[0] != '/') by_rules.insert(bt);
        EXPECT_EQ(by_rules, c.by_modify) << "what the modify made new or moved, once";
        for (const auto& [id, name] : t.replayed)
            if (!c.served.empty()) {
                EXPECT_EQ(c.served.count(id) ? c.served.at(id) : "", name) << "replayed as served";
            }
        /* The session kept serving across the modify: both rule sets named
         * transactions. */
        EXPECT_EQ(t.names_of_path, c.names);
        EXPECT_EQ(t.categories, std::set<std::string>{"10"});
    }
}

namespace {

/* The response times of the completed transactions (records 4) by BT id. */
std::map<long long, std::vector<long long>> response_times(const std::vector<std::string>& lines)
{
    std::map<long long, std::vector<long long>> out;
    for (const std::string& l : lines) {
        if (!is_record(l, 4)) continue;
        const auto f = fields(l, 11);
        if (f.size() > 7 && f[7] != "7") out[atoll(f[6].c_str())].push_back(atoll(f[5].c_str()));
    }
    return out;
}

/* A pattern-rule session whose monitors report every second, on an agent
 * whose auto-sensor thread ticks every 200 ms. */
vxc::Options monitor_session(int test_idx)
{
    vxc::Options o = pattern_session(test_idx, kPatternRules, "ALL|20|40\n");
    std::ofstream(o.session_file, std::ios::app)
        << "ASReportInterval=1000\nvxMonitorInterval=1000\n";
    return o;
}

const std::vector<std::string> kMonitorEnv = {"VX_AS_TICK_MS=200", "VX_AS_RETRY_MS=300"};

}  // namespace

TEST(Monitors, EachIntervalReportsTheTransactionsOfEveryBTOnTheAutoSensorStream)
{
    /* Two seconds of traffic on three BTs (one excluded), then quiet until
     * the stop: every transaction has been folded by then, so the intervals'
     * records 74 add up to the records 4 of the data stream, BT by BT. */
    vxc::Options opts = monitor_session(81);
    opts.stop_after_ms = 5000;
    e2e::Collector vxc(opts);
    const auto host = run_host(vxc,
                               {"urls", "2", "3", "10", "/shop/item/42|GET", "/shop/cart|POST",
                                "/shop/item/7|GET", "/shop/private|GET", "/shop/item/9|GET"},
                               kMonitorEnv);
    ASSERT_TRUE(host);

    vxc.expect_counts(
        "as_connections=1 as_bad_opening=0 as_malformed=0 malformed=0 "
        "undeclared_bt=0");
    const auto as = vxc.auto_sensor_connections();
    ASSERT_EQ(as.size(), 1u);
    EXPECT_NE(as[0][0].find(";VXCollectorPort=" + std::to_string(vxc.port()) + ",testIdx=81;"),
              std::string::npos)
        << as[0][0];
    const auto times = response_times(session_data(vxc, 81));
    ASSERT_EQ(times.size(), 2u) << "ItemPage and Cart; the excluded BT counts nowhere";

    struct Sum {
        long long count = 0, errors = 0, max = 0;
        double min = 1e18, total = 0;
    };
    std::map<std::string, Sum> bt; /* by name: with tags on, a line's id is its series id */
    std::map<unsigned long long, long long> bt_count_of, overall_count_of;
    for (const vxc::BtMonitorRow& r : vxc.bt_monitor()) {
        if (r.id == 0) {
            EXPECT_EQ(r.name, "AllTransactions");
            overall_count_of[r.interval] += r.count;
            continue;
        }
        EXPECT_GT(r.count, 0) << "a BT has a line only in an interval it served: " << r.name;
        EXPECT_NEAR(r.tps, static_cast<double>(r.count), 1e-6) << "rates per 1 s interval";
        Sum& s = bt[r.name];
        s.count += r.count;
        s.errors += r.errors;
        s.max = std::max(s.max, r.max);
        s.min = std::min(s.min, r.min);
        s.total += r.avg * static_cast<double>(r.count);
        bt_count_of[r.interval] += r.count;
    }
    EXPECT_GE(overall_count_of.size(), 3u) << "an overall line every interval, also idle ones";
    for (const auto& [interval, n] : bt_count_of)
        EXPECT_EQ(overall_count_of[interval], n) << "interval " << interval;
    const std::map<long long, std::string> name_of = {{5, "ItemPage"}, {6, "Cart"}};
    for (const auto& [id, durations] : times) {
        SCOPED_TRACE("BT " + std::to_string(id));
        ASSERT_TRUE(name_of.count(id));
        const Sum& s = bt[name_of.at(id)];
        long long total = 0;
        for (long long d : durations) total += d;
        EXPECT_EQ(s.count, static_cast<long long>(durations.size()));
        EXPECT_EQ(s.errors, 0);
        EXPECT_EQ(s.min,
                  static_cast<double>(*std::min_element(durations.begin(), durations.end())));
        EXPECT_EQ(s.max, *std::max_element(durations.begin(), durations.end()));
        EXPECT_NEAR(s.total, static_cast<double>(total),
                    0.01 * static_cast<double>(durations.size()));
    }
}

TEST(Monitors, AStreamTheCollectorClosesIsOpenedAgainAndGoesOnReporting)
{
    vxc::Options opts = monitor_session(82);
    opts.stop_after_ms = 5000;
    opts.as_close_after_ms = 1500;
    e2e::Collector vxc(opts);
    const auto host =
        run_host(vxc, {"urls", "4", "2", "5", "/shop/item/1|GET", "/shop/cart|GET"}, kMonitorEnv);
    ASSERT_TRUE(host);

    vxc.expect_counts("as_connections=2 as_closed_by_collector=1 as_bad_opening=0 as_malformed=0");
    std::set<unsigned> with_traffic;
    for (const vxc::BtMonitorRow& r : vxc.bt_monitor())
        if (r.id != 0 && r.count > 0) with_traffic.insert(r.conn);
    EXPECT_EQ(with_traffic.size(), 2u) << "both connections carried BT lines";
    EXPECT_EQ(session_data(vxc, 82).back(), "10,") << "the data stream is untouched";
}

TEST(Monitors, ACollectorThatStopsReadingTheStreamHoldsUpNeitherHostNorDataStream)
{
    /* The collector stops reading the auto-sensor stream early; the host's
     * transactions, the data stream and the stop go on as before. */
    vxc::Options opts = monitor_session(83);
    opts.stop_after_ms = 4000;
    opts.as_stop_reading_after_ms = 300;
    e2e::Collector vxc(opts);
    const auto host = run_host(vxc, {"urls", "2", "2", "0", "/shop/item/1|GET", "/shop/cart|GET"},
                               {"VX_AS_TICK_MS=50"});
    ASSERT_TRUE(host);

    vxc.expect_counts("as_connections=1 as_unread_connections=1 malformed=0 stop_answers=1");
    const auto lines = session_data(vxc, 83);
    EXPECT_EQ(count_records(lines, 4), host->number("transactions"));
}

TEST(Percentiles, EachBTsDigestHoldsWhatItsIntervalsServedAndAModifySendsIt)
{
    /* One host thread alternates two BTs, each transaction held 700 ms, so a
     * BT ends at most once in any one-second interval: each interval's value
     * a digest is fed (a record's total of the BT) is then that interval's
     * record 74 total, from which vxc-lite rebuilds the exact quantiles. The
     * modify repeats the keyword, which sends what was gathered at once. */
    struct Case {
        const char* kind;
        int record;
        double tolerance; /* relative */
    };
    int test_idx = 84;
    for (const Case& c : {Case{"1", 96, 1e-9}, Case{"2", 121, 1.0 / 32}}) {
        SCOPED_TRACE(std::string("kind ") + c.kind);
        vxc::Options opts = monitor_session(test_idx);
        std::ofstream(opts.session_file, std::ios::app)
            << "tDigestPercentileBT=" << c.kind << "%205%202%20100%20100%20793%201\n";
        opts.modify_file = opts.files_dir + "/modify.kw";
        write_file(opts.modify_file, std::string("tDigestPercentileBT=") + c.kind + "\n");
        opts.modify_after_ms = 6200;
        opts.stop_after_ms = 7000;
        e2e::Collector vxc(opts);
        const auto host = run_host(
            vxc, {"urls", "5", "1", "700", "/shop/item/42|GET", "/shop/cart|GET"}, kMonitorEnv);
        ASSERT_TRUE(host);

        vxc.expect_counts("as_connections=1 as_malformed=0 as_digest_malformed=0 modify_answers=1");
        std::map<std::string, vxc::PercentileRow> by_name;
        for (const vxc::PercentileRow& r : vxc.percentiles()) {
            EXPECT_EQ(r.record, c.record);
            EXPECT_TRUE(by_name.emplace(r.name, r).second) << "one record per series: " << r.name;
        }
        ASSERT_EQ(by_name.size(), 3u) << "ItemPage, Cart and AllTransactions";
        /* Record 121 names a series as record 74 does (with tags on, by its
         * counter slot). */
        std::map<std::string, long long> series = {{"AllTransactions", 0}};
        for (const vxc::BtMonitorRow& r : vxc.bt_monitor()) series[r.name] = r.id;
        for (const auto& [name, r] : by_name) {
            SCOPED_TRACE(name);
            ASSERT_TRUE(series.count(name));
            if (c.record == 121) {
                EXPECT_EQ(r.series, series.at(name));
            }
            EXPECT_GE(r.count, name == "AllTransactions" ? 6u : 3u);
            EXPECT_EQ(r.count, r.exact_n) << "one value per interval served";
            for (auto [got, want] :
                 {std::pair{r.p50, r.exact_p50}, {r.p90, r.exact_p90}, {r.p99, r.exact_p99}})
                EXPECT_NEAR(got, want, want * c.tolerance + 1e-6);
        }
        EXPECT_EQ(by_name["AllTransactions"].count,
                  by_name["ItemPage"].count + by_name["Cart"].count);
        ++test_idx;
    }
}

namespace {

/* A front tier calling a back tier: both agents register with one vxc-lite,
 * which runs a session for each. */
const std::map<std::string, std::string> kTierFiles = {
    {"entry.txt", "e2e|Http.post|HTTP_CALLOUT|2\n"},
    {"bt_rules.txt", "# one business transaction per URL path\n"},
    /* The profile keeps the entry file's callout: flag 2, callout kind 3. */
    {"profile.txt", "e2e|Http|post|3|2\n"},
};

}  // namespace

TEST(Tiers, TheBackTierReadsTheFrontsHeaderAndItsFlowpathsJoinTheFrontsChain)
{
    /* Monitors each second; traces in the W3C form; the back captures its
     * request headers. */
    vxc::Options opts = session_options(session_keywords(51) +
                                            "ASReportInterval=1000\n"
                                            "enableOTELStandard=1%201%200%200%200%200%200%200%200\n"
                                            "captureHTTPReqFullFp=3%20traceparent,Accept\n",
                                        kTierFiles);
    opts.stop_after_ms = 9000;
    e2e::Collector vxc(opts);
    ASSERT_EQ(vxc.start(), 0);
    const std::string headers = vx_test::make_temp_dir("vx_e2e_tiers_") + "/headers.txt";
    std::vector<std::string> front_env = kMonitorEnv, back_env = kMonitorEnv;
    front_env.push_back("KLV_APP_AGENT_TIER=Front_End");
    back_env.push_back("KLV_APP_AGENT_TIER=Back");
    e2e::Host front({"front", "10", headers}, vxc.port(), front_env);
    e2e::Host back({"back", "10", headers}, vxc.port(), back_env);
    ASSERT_EQ(front.wait(60), 0);
    ASSERT_EQ(back.wait(60), 0);
    vxc.stop();
    vxc.expect_counts(
        "start_answers=2 malformed=0 records_91=1 records_91_repeated=0 chained_unresolved=0");

    ASSERT_EQ(front.number("calls"), 10);
    EXPECT_EQ(back.number("transactions"), 13) << "hostile headers still run their transactions";
    const std::string log = back.trace_log();
    EXPECT_NE(log.find("Error in received string '1_2'"), std::string::npos);
    EXPECT_NE(log.find("not a caller's chain"), std::string::npos);

    /* Every header the front sent links a back flowpath to the front's. */
    std::set<long long> callers;
    std::ifstream in(headers);
    for (std::string line; std::getline(in, line);) callers.insert(atoll(line.c_str()));
    ASSERT_EQ(callers.size(), 10u);

    /* One trace across both tiers: a front flowpath keeps its upstream
     * caller's trace id or makes one of its instance number, and the back
     * flowpath it called carries the same id with the front's span as
     * parent. */
    std::map<long long, vxc::TraceRow> trace_of;
    for (const auto& t : vxc.traces()) trace_of[t.fpi] = t;
    int upstream = 0;
    for (long long fpi : callers) {
        ASSERT_TRUE(trace_of.count(fpi)) << fpi;
        const vxc::TraceRow& t = trace_of[fpi];
        char own[64];
        snprintf(own, sizeof own, "0000000000000000%llx", static_cast<unsigned long long>(fpi));
        EXPECT_TRUE(t.trace_id == own || t.trace_id == "4bf92f3577b34da6a3ce929d0e0e4736")
            << t.trace_id;
        upstream += t.trace_id != own;
    }
    EXPECT_EQ(upstream, 5) << "every other front transaction came with a traceparent";

    /* The back captured each traceparent the front sent, as sent. */
    std::set<std::string> sent_parents, captured;
    std::ifstream again(headers);
    for (std::string instance, header, parent; again >> instance >> header >> parent;)
        sent_parents.insert(parent);
    for (const auto& h : vxc.headers())
        if (h.direction == "req" && h.name == "traceparent" && !callers.count(h.fpi))
            captured.insert(h.value);
    EXPECT_EQ(captured, sent_parents);
    int linked = 0;
    for (const auto& l : vxc.links()) {
        EXPECT_TRUE(callers.count(l.prev)) << "a chain no header made: " << l.prev;
        EXPECT_EQ(l.first, l.prev) << "the front starts its chain";
        EXPECT_EQ(l.caller_url, "/front/pay");
        EXPECT_FALSE(l.forced);
        linked += callers.count(l.prev) ? 1 : 0;
        char front_span[32];
        snprintf(front_span, sizeof front_span, "%llx", static_cast<unsigned long long>(l.prev));
        EXPECT_EQ(trace_of[l.fpi].trace_id, trace_of[l.prev].trace_id) << "back fpi " << l.fpi;
        EXPECT_EQ(trace_of[l.fpi].parent_id, front_span);
    }
    EXPECT_EQ(linked, 10);

    /* One record 91 names the caller as the back tier saw it: the front's
     * tier with its underscore decoded, and the backend by the HTTP rule. */
    const auto topo = vxc.topology();
    ASSERT_EQ(topo.size(), 1u);
    EXPECT_EQ(topo[0].caller_backend, "HTTP_back");
    EXPECT_EQ(topo[0].caller_tier, "Front_End");
    EXPECT_EQ(topo[0].tier, "Back");

    /* The front's ten calls are counted on its backend, named by the HTTP
     * rule, once each, none in error. */
    long long calls = 0, last_cum = 0;
    for (const auto& row : vxc.backend_monitor()) {
        EXPECT_EQ(row.name, "HTTP_back") << "interval " << row.interval;
        EXPECT_EQ(row.errors, 0);
        EXPECT_GE(row.min, 5) << "each call slept 5 ms";
        calls += row.count;
        last_cum = row.cum_count;
    }
    EXPECT_EQ(calls, 10);
    EXPECT_EQ(last_cum, 10);
}

namespace {

/* An order handler that queries a database and throws: the method monitor
 * counts it, the exception monitor one class; one class is filtered out. */
const std::map<std::string, std::string> kDiagFiles = {
    {"entry.txt", "e2e|Shop.order|-|1\ne2e|Db.query|SQL_CALLOUT|2\n"},
    {"bt_rules.txt", "# one business transaction per URL path\n"},
    {"profile.txt", "e2e|Shop|order|0|1\n"},
    {"methods.txt", "e2e|OrderHandler|Shop.order|-\n"},
    {"exceptions.txt", "# alias|class|rest\nOutOfStock|shop.OutOfStock|-\nIgnored|shop.Ignored|-\n"},
};

/* The host's texts as the collector shows them (a line feed as a blank). */
const std::vector<std::string> kDiagQueries = {
    "SELECT * FROM items WHERE id = ?",
    "select * from items where id = ?",
    "SELECT * FROM items WHERE id = 7",
    "UPDATE stock SET n = n - 1, note = 'a|b', path = 'c:\\d' WHERE id = \"x\"  AND _ok",
};

}  // namespace

TEST(Diagnostics, QueriesAndExceptionsReachTheCollectorOnceEachAndTheMonitorsCountThem)
{
    vxc::Options opts = session_options(session_keywords(91) +
                                            "ASReportInterval=1000\nvxMonitorInterval=1000\n"
                                            "vxMethodMonFile=@methods.txt\n"
                                            "vxExceptionMonFile=@exceptions.txt\n"
                                            "instrExceptions=1%201%200%2030%201\n"
                                            "enableExceptionInSeqBlob=1\n"
                                            "vxExceptionFilterList=shop.Ignored\n",
                                        kDiagFiles);
    opts.stop_after_ms = 6000;
    e2e::Collector vxc(opts);
    const auto host = run_host(vxc, {"diag", "10"}, kMonitorEnv);
    ASSERT_TRUE(host);
    vxc.expect_counts("start_answers=1 malformed=0 as_malformed=0 query_ids_reused=0 query_texts_reused=0");
    ASSERT_EQ(host->number("transactions"), 24);

    /* One record 22 per text (vxc-lite counts an id or text given twice and
     * refuses raw separators): the five fixed ones, then one id per text. */
    std::map<std::string, long long> id_of;
    for (const vxc::QueryRow& q : vxc.queries()) {
        EXPECT_TRUE(id_of.emplace(q.decoded, q.id).second) << "announced twice: " << q.decoded;
        EXPECT_EQ(q.fpi == 0, q.id <= 5) << q.decoded;
    }
    ASSERT_EQ(id_of.size(), 5 + kDiagQueries.size() + 1) << "the nested query has its own id";
    EXPECT_EQ(id_of["Unknown"], 1);

    /* Each outermost call names its query; the nested one adds no token. */
    std::map<long long, int> calls_of;
    for (const vxc::CalloutRow& c : vxc.callouts())
        if (c.query_id) ++calls_of[c.query_id];
    for (size_t q = 0; q < kDiagQueries.size(); ++q) {
        SCOPED_TRACE(kDiagQueries[q]);
        ASSERT_TRUE(id_of.count(kDiagQueries[q]));
        EXPECT_EQ(calls_of[id_of[kDiagQueries[q]]], host->number("runs" + std::to_string(q)));
    }
    EXPECT_EQ(calls_of.count(id_of["SELECT 1"]), 0u);

    /* Exceptions by class, with their texts resolved through records 32-36;
     * the filtered class sends nothing, the hostile one keeps its record. */
    std::map<std::string, int> thrown;
    for (const vxc::ExceptionRow& e : vxc.exceptions()) {
        ++thrown[e.exception_class];
        EXPECT_EQ(e.throwing_class, "Shop");
        EXPECT_EQ(e.throwing_method, "order");
        EXPECT_GT(e.seq, 0) << "the blob carries the exception";
        EXPECT_NE(e.stack.find("Main.run"), std::string::npos);
    }
    EXPECT_EQ(thrown["shop.OutOfStock"], host->number("thrown0"));
    EXPECT_EQ(thrown["shop.Bad,Class|38,1,2"], host->number("thrown2"));
    EXPECT_EQ(thrown.size(), 2u) << "nothing of the filtered class shop.Ignored";

    /* The monitors: the handler once per transaction, the listed class once
     * per throw; the session's totals in the last line. */
    long long handled = 0, handled_cum = 0;
    for (const vxc::MethodMonitorRow& m : vxc.method_monitor()) {
        EXPECT_EQ(m.name, "OrderHandler");
        handled += m.count;
        handled_cum = std::max(handled_cum, m.cum_count);
        if (m.count) {
            EXPECT_GE(m.max, 2) << "each order waits for its query";
        }
    }
    EXPECT_EQ(handled, 24);
    EXPECT_EQ(handled_cum, 24);
    std::map<std::string, long long> cum;
    for (const vxc::ExceptionMonitorRow& e : vxc.exception_monitor())
        cum[e.name] = std::max(cum[e.name], e.cum_count);
    EXPECT_EQ(cum["OutOfStock"], host->number("thrown0"));
    EXPECT_EQ(cum["OverAll"], host->number("thrown0"));
    EXPECT_EQ(cum.count("Ignored"), 0u) << "a filtered class is not counted";
}

/* Every id a record uses on a data connection was declared before on that
 * connection, whatever the timing: the host starts transactions the instant
 * a session rises; each session's first data connection is dropped midway;
 * the second session has the same testIdx, so its ids are written as they
 * are made, before its connection opens, and none is due for a replay. */
TEST(Replay, EveryDataConnectionIsToldEveryIdItsRecordsUse)
{
    const std::string keywords = session_keywords(61) + "instrExceptions=1%201%200%2030%201\n";
    const auto ended = [](const e2e::Collector& vxc, size_t connections) {
        const auto data = vxc.data_connections();
        return data.size() >= connections && !data.back().empty() && data.back().back() == "10,";
    };
    vxc::Options first_opts = session_options(keywords, kDiagFiles);
    first_opts.data_close_after_ms = 1500;
    first_opts.stop_after_ms = 4000;
    e2e::Collector first(first_opts);
    ASSERT_EQ(first.start(), 0);
    e2e::Host host({"mixed", "2"}, first.port(), {"VX_DATA_RETRY_MS=300"});
    ASSERT_TRUE(e2e::eventually([&] { return ended(first, 2); }, 30));
    first.stop();
    vxc::Options second_opts = session_options(keywords, kDiagFiles, first.port());
    second_opts.data_close_after_ms = 1500;
    second_opts.stop_after_ms = 9000; /* the start waits 5 s for the last session's events */
    /* And the collector asks for methods on both connections, the summary,
     * and a type that does not exist. */
    second_opts.replay_request = "a;b;c;records=5,Summary,99;destination=2;traceLevel=0";
    e2e::Collector second(second_opts);
    ASSERT_EQ(second.start(), 0);
    ASSERT_TRUE(e2e::eventually([&] { return ended(second, 2); }, 40));
    second.stop();
    EXPECT_EQ(host.wait(20), 0);

    const std::string declared =
        "malformed=0 undeclared_methods=0 undeclared_headers=0 undeclared_queries=0 "
        "undeclared_resources=0 undeclared_exception_texts=0 undeclared_bt=0 "
        "query_ids_reused=0 query_texts_reused=0";
    for (const auto* vxc : {&first, &second})
        vxc->expect_counts(declared + " data_closed_by_collector=1");
    second.expect_counts("replay_requests_sent=1 replay_answers=1");
    const auto talk = control_talk(second);
    const auto heard = [&](const std::string& text) {
        return std::any_of(talk.begin(), talk.end(), [&](const std::string& l) {
            return l.rfind("< ", 0) == 0 && l.find(text) != std::string::npos;
        });
    };
    EXPECT_TRUE(heard("5,Shop.order,")) << "methods on the control connection";
    EXPECT_TRUE(heard("Total no. of instrumented Methods(5 Records) : "));
    /* The summary ends without a line feed, so the refusal follows on its line. */
    EXPECT_TRUE(heard("Invalid Request recieved from client : '99'"));
    int replays_of_5 = 0;
    for (const auto& lines : second.data_connections())
        for (size_t i = 0; i + 1 < lines.size(); ++i)
            replays_of_5 += std::regex_match(lines[i], std::regex(R"(11,\d+,5)")) &&
                            is_record(lines[i + 1], 5);
    EXPECT_EQ(replays_of_5, 1) << "record 11 \"5\" and the methods on the data connection";
    /* Nothing is lost to the drop: each connection carries transactions. */
    for (const auto* vxc : {&first, &second})
        for (const auto& lines : vxc->data_connections())
            EXPECT_GT(count_records(lines, 2), 0);
}
