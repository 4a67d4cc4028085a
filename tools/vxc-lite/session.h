/*
 * session: the instrumentation session vxc-lite runs on a control
 * connection, as texts: keyword files, the start, modify and stop lines, the
 * answers to the agent's file and profile requests, and what an agent line
 * on the control connection is.
 *
 * Nothing here touches a socket; the server decides when each text goes out.
 * Files of the files directory are read when a message is built, and the
 * message keeps what it read, so that every later request is answered with
 * exactly the bytes, size and time the message announced.
 */
#ifndef VXC_LITE_SESSION_H
#define VXC_LITE_SESSION_H

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace vxc {

/* One "key=value" line of a keyword file. A value "@name" stands for the
 * file name of the files directory. */
struct Keyword {
    std::string key;
    std::string value;
};

/* Parses the text of a keyword file: one "key=value" a line, blanks around
 * key and value dropped, blank lines and lines starting with "#" ignored.
 * A key must be non-empty; neither may hold a ";" (it would split the field).
 * "@name" must name a file directly in the files directory: no "/", no
 * "%", ";" or "=". Returns 0, or -1 with the line number and reason in error. */
int parse_keywords(std::string_view text, std::vector<Keyword>* out, std::string* error);

/* parse_keywords on the file at path. */
int read_keyword_file(const std::string& path, std::vector<Keyword>* out, std::string* error);

/* True when some value names a file ("@name"). */
bool names_files(const std::vector<Keyword>& keywords);

/* Files larger than this are treated as missing. */
constexpr size_t kMaxServedFile = 64 * 1024 * 1024;

/* A file as a message announced it. */
struct ServedFile {
    std::string name;
    bool present = false;
    std::string content;
    long long mtime = 0; /* seconds */
};

/* Reads dir/name. A file that is absent, unreadable, not a regular file or
 * larger than kMaxServedFile comes back with present false. */
ServedFile load_served_file(const std::string& dir, const std::string& name);

/* A start or modify message and the files it announced. */
struct SessionMessage {
    std::string line;                           /* with its line feed */
    std::map<std::string, ServedFile> files;    /* file keywords, by keyword */
    std::map<std::string, ServedFile> profiles; /* instrumentation profiles, by name */
};

constexpr std::string_view kStartHead =
    "vx_control_req:action=start_instrumentation;status=running;";
constexpr std::string_view kModifyHead = "vx_control_req:action=modify;";

/* The file keyword of the business transaction rules: the ids its pattern
 * lines carry are declared once the file is served. */
constexpr std::string_view kBtRulesKeyword = "BTRuleConfig";

/*
 * Builds head + "<key>=<value>;" for each keyword in order, then the line
 * feed. Values are sent as given, except:
 *   - "@name" of a file keyword: "<name>%3Bsize%3D<bytes>%3Blmd%3D<mtime>";
 *     an absent file is announced with size 1 and lmd 0, so that the agent
 *     asks for it and is refused.
 *   - "@name" of instrProfile: "instrProfile=<name>;lmd=<mtime>;size=<bytes>";
 *     an absent profile with lmd 1 and size 1 (the agent asks for a profile
 *     only when both are non-zero).
 *   - "numInstrProfile=<n>", n the number of instrProfile keywords, goes
 *     ahead of the first of them, unless the keywords give it themselves.
 */
SessionMessage build_message(std::string_view head, const std::vector<Keyword>& keywords,
                             const std::string& files_dir);

/* The stop line, with its line feed. */
std::string stop_line();

/* The answers to file and profile requests, as the proxy's file store
 * writes them (the collector's own are not written down further than the
 * agent reads them):
 *   "vx_control_rep:action=file;keyword=<k>%3Bsize%3D<bytes>%3Blmd%3D<us>;\n"
 *   "vx_control_rep:action=instrumentation_profile;instrProfile=<name>;
 *    size=<bytes>;lmd=<us>;\n"
 * each followed by exactly the file's bytes (<us>: mtime in microseconds);
 * refusals "vx_control_rep:action=Failed<k> - <path>\n" and
 * "vx_control_rep:action=FailedInstrumentationProfile - <path>\n", where
 * path is the file the answer would have been read from. */
std::string file_reply(const std::string& keyword, const ServedFile& file);
std::string file_refused_line(const std::string& keyword, const std::string& path);
std::string profile_reply(const ServedFile& file);
std::string profile_refused_line(const std::string& path);

/* What a line of the agent on the control connection is. */
enum class AgentLine {
    Heartbeat,
    FileRequest,    /* argument: the keyword */
    ProfileRequest, /* argument: the profile's name */
    StartAnswer,
    StopAnswer,
    ModifyAnswer,
    ErrorAnswer,
    DiscoveryAnswer, /* argument: the Id */
    ReplayAnswer,    /* "vx_meta_data_rep:status=complete;", a replay done */
    Other,
};

/* Classifies line (without its line feed) and puts the keyword or profile
 * name of a request into argument (empty when the request names none). */
AgentLine classify_agent_line(std::string_view line, std::string* argument);

}  // namespace vxc

#endif
