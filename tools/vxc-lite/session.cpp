#include "session.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include "discovery.h"
#include "record_parser.h"

namespace vxc {

namespace {

constexpr std::string_view kProfileKey = "instrProfile";
constexpr std::string_view kProfileCountKey = "numInstrProfile";
constexpr long long kMicrosPerSecond = 1000000;

std::string_view trim(std::string_view s)
{
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r'))
        s.remove_suffix(1);
    return s;
}

bool has_control_char(std::string_view s)
{
    for (const char ch : s)
        if (static_cast<unsigned char>(ch) < 0x20 && ch != '\t') return true;
    return false;
}

/* Why a file name after "@" cannot be served, or null when it can. */
const char* bad_file_name(std::string_view name)
{
    if (name.empty()) return "empty file name after @";
    if (name == "." || name == "..") return "file name is a directory";
    if (name.find_first_of("/%;=") != std::string_view::npos)
        return "file name holds one of / % ; =";
    if (has_control_char(name) || name.find(' ') != std::string_view::npos ||
        name.find('\t') != std::string_view::npos)
        return "file name holds a blank or a control character";
    return nullptr;
}

bool starts_with(std::string_view s, std::string_view prefix)
{
    return s.substr(0, prefix.size()) == prefix;
}

}  // namespace

int parse_keywords(std::string_view text, std::vector<Keyword>* out, std::string* error)
{
    out->clear();
    int number = 0;
    auto fail = [&](const char* why) {
        if (error) *error = "line " + std::to_string(number) + ": " + why;
        return -1;
    };
    while (!text.empty()) {
        ++number;
        const size_t nl = text.find('\n');
        const std::string_view raw = text.substr(0, nl);
        text.remove_prefix(nl == std::string_view::npos ? text.size() : nl + 1);
        const std::string_view line = trim(raw);
        if (line.empty() || line.front() == '#') continue;
        const size_t eq = line.find('=');
        if (eq == std::string_view::npos) return fail("no \"=\"");
        const std::string_view key = trim(line.substr(0, eq));
        const std::string_view value = trim(line.substr(eq + 1));
        if (key.empty()) return fail("empty key");
        if (line.find(';') != std::string_view::npos)
            return fail("\";\" would split the field in two");
        if (has_control_char(line)) return fail("control character");
        if (!value.empty() && value.front() == '@') {
            if (const char* why = bad_file_name(value.substr(1))) return fail(why);
        }
        out->push_back({std::string(key), std::string(value)});
    }
    return 0;
}

int read_keyword_file(const std::string& path, std::vector<Keyword>* out, std::string* error)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        if (error) *error = "cannot read " + path + ": " + strerror(errno);
        return -1;
    }
    std::stringstream ss;
    ss << in.rdbuf();
    if (parse_keywords(ss.str(), out, error) != 0) {
        if (error) *error = path + ", " + *error;
        return -1;
    }
    return 0;
}

bool names_files(const std::vector<Keyword>& keywords)
{
    for (const Keyword& k : keywords)
        if (!k.value.empty() && k.value.front() == '@') return true;
    return false;
}

ServedFile load_served_file(const std::string& dir, const std::string& name)
{
    ServedFile f;
    f.name = name;
    const std::string path = dir + "/" + name;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return f;
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) ||
        static_cast<unsigned long long>(st.st_size) > kMaxServedFile) {
        close(fd);
        return f;
    }
    std::string content;
    content.reserve(static_cast<size_t>(st.st_size));
    char buf[65536];
    for (;;) {
        const ssize_t n = read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            close(fd);
            return f;
        }
        if (n == 0) break;
        content.append(buf, static_cast<size_t>(n));
        if (content.size() > kMaxServedFile) { /* grew while read */
            close(fd);
            return f;
        }
    }
    close(fd);
    f.present = true;
    f.content = std::move(content);
    f.mtime = static_cast<long long>(st.st_mtime);
    return f;
}

SessionMessage build_message(std::string_view head, const std::vector<Keyword>& keywords,
                             const std::string& files_dir)
{
    SessionMessage m;
    size_t profiles = 0;
    bool count_given = false;
    for (const Keyword& k : keywords) {
        if (k.key == kProfileKey) ++profiles;
        if (k.key == kProfileCountKey) count_given = true;
    }
    m.line = head;
    bool count_placed = count_given;
    for (const Keyword& k : keywords) {
        const bool is_profile = k.key == kProfileKey;
        if (is_profile && !count_placed) {
            m.line += std::string(kProfileCountKey) + "=" + std::to_string(profiles) + ";";
            count_placed = true;
        }
        if (k.value.empty() || k.value.front() != '@') {
            m.line += k.key + "=" + k.value + ";";
            continue;
        }
        ServedFile f = load_served_file(files_dir, k.value.substr(1));
        /* An absent file is announced so that the agent asks for it. */
        const size_t size = f.present ? f.content.size() : 1;
        if (is_profile) {
            const long long lmd = f.present ? f.mtime : 1;
            m.line += k.key + "=" + f.name + ";lmd=" + std::to_string(lmd) +
                      ";size=" + std::to_string(size) + ";";
            m.profiles.insert_or_assign(f.name, std::move(f));
        } else {
            const long long lmd = f.present ? f.mtime : 0;
            m.line += k.key + "=" + f.name + "%3Bsize%3D" + std::to_string(size) + "%3Blmd%3D" +
                      std::to_string(lmd) + ";";
            m.files.insert_or_assign(k.key, std::move(f));
        }
    }
    m.line += "\n";
    return m;
}

std::string stop_line()
{
    return "vx_control_req:action=stop_instrumentation;status=stopping;setthresholdTime=0;\n";
}

/* The replies are the proxy's file store's, byte for byte: the size right
 * behind the keyword, and the time in microseconds. */
std::string file_reply(const std::string& keyword, const ServedFile& file)
{
    std::string r = "vx_control_rep:action=file;keyword=" + keyword + "%3Bsize%3D" +
                    std::to_string(file.content.size()) + "%3Blmd%3D" +
                    std::to_string(file.mtime * kMicrosPerSecond) + ";\n";
    r += file.content;
    return r;
}

std::string file_refused_line(const std::string& keyword, const std::string& path)
{
    return "vx_control_rep:action=Failed" + keyword + " - " + path + "\n";
}

std::string profile_reply(const ServedFile& file)
{
    return "vx_control_rep:action=instrumentation_profile;instrProfile=" + file.name +
           ";size=" + std::to_string(file.content.size()) +
           ";lmd=" + std::to_string(file.mtime * kMicrosPerSecond) + ";\n" + file.content;
}

std::string profile_refused_line(const std::string& path)
{
    return "vx_control_rep:action=FailedInstrumentationProfile - " + path + "\n";
}

AgentLine classify_agent_line(std::string_view line, std::string* argument)
{
    argument->clear();
    const bool file = starts_with(line, "vx_control_req:action=send_file;");
    const bool profile = starts_with(line, "vx_control_req:action=send_instrumentation_profile;");
    if (file || profile) {
        ControlLine req;
        std::string error;
        if (parse_control_line(line, &req, &error) == 0) {
            if (const std::string* v = req.find(file ? "keyword" : kProfileKey)) *argument = *v;
        }
        return file ? AgentLine::FileRequest : AgentLine::ProfileRequest;
    }
    if (starts_with(line, "vx_control_req:action=reconnect;")) return AgentLine::Heartbeat;
    if (starts_with(line, "vx_control_rep:action=start_instrumentation"))
        return AgentLine::StartAnswer;
    if (starts_with(line, "vx_control_rep:action=stop_instrumentation"))
        return AgentLine::StopAnswer;
    if (starts_with(line, "vx_control_rep:action=modify")) return AgentLine::ModifyAnswer;
    if (starts_with(line, "vx_control_rep:result=Error")) return AgentLine::ErrorAnswer;
    if (discovery_answer(line, argument)) return AgentLine::DiscoveryAnswer;
    if (starts_with(line, "vx_meta_data_rep:status=complete;")) return AgentLine::ReplayAnswer;
    return AgentLine::Other;
}

}  // namespace vxc
