#include "discovery.h"

#include <cstdlib>
#include <fstream>

#include "tsv.h"

namespace vxc {

namespace {

constexpr std::string_view kAnswerHead = "vxc_rep:action=discover_loaded_classes;Id=";
constexpr std::string_view kAnswerTail = ";result=Success;";

/* Takes "<key>=<value>;" from the front of rest; the value runs to the next
 * ";". False when the key is not there or no ";" ends the value. */
bool take_field(std::string_view* rest, std::string_view key, std::string* value)
{
    if (rest->substr(0, key.size()) != key || rest->substr(key.size(), 1) != "=") return false;
    rest->remove_prefix(key.size() + 1);
    const size_t semi = rest->find(';');
    if (semi == std::string_view::npos) return false;
    *value = std::string(rest->substr(0, semi));
    rest->remove_prefix(semi + 1);
    return true;
}

}  // namespace

std::string discovery_request_line(const std::string& id, const std::string& class_filters,
                                   const std::string& method_filters)
{
    return "vxc_req:action=discover_loaded_classes;Id=" + id + ";classFilters=" + class_filters +
           ";methodFilters=" + method_filters + ";\n";
}

bool discovery_answer(std::string_view line, std::string* id)
{
    if (line.substr(0, kAnswerHead.size()) != kAnswerHead) return false;
    line.remove_prefix(kAnswerHead.size());
    if (line.size() < kAnswerTail.size() ||
        line.substr(line.size() - kAnswerTail.size()) != kAnswerTail)
        return false;
    *id = std::string(line.substr(0, line.size() - kAnswerTail.size()));
    return true;
}

int check_discovery_opening(std::string_view line, DiscoveryOpening* out, std::string* why)
{
    if (line.substr(0, kDiscoveryOpeningHead.size()) != kDiscoveryOpeningHead) {
        *why = "does not begin \"" + std::string(kDiscoveryOpeningHead) + "\"";
        return -1;
    }
    std::string_view rest = line.substr(kDiscoveryOpeningHead.size());
    const struct {
        const char* key;
        std::string* value;
    } fields[] = {{"Id", &out->id},
                  {"Tier", &out->tier},
                  {"Server", &out->server},
                  {"Instance", &out->instance}};
    for (const auto& f : fields) {
        if (!take_field(&rest, f.key, f.value)) {
            *why = std::string("field ") + f.key + " missing or out of place";
            return -1;
        }
    }
    if (!rest.empty()) {
        *why = "text after the Instance field";
        return -1;
    }
    return 0;
}

bool discovery_summary(std::string_view line)
{
    return line.substr(0, 20) == "agent_post_data_req:" &&
           line.find("totalTimeTaken=") != std::string_view::npos;
}

std::string discovery_row(unsigned conn, const std::string& id, bool summary, std::string_view line)
{
    return std::to_string(conn) + "\t" + tsv_text(id) + "\t" + (summary ? "summary" : "result") +
           "\t" + tsv_text(std::string(line));
}

std::vector<DiscoveryRow> read_discovery(const std::string& path)
{
    std::vector<DiscoveryRow> out;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        std::vector<std::string> f = tsv_fields(line);
        if (f.size() != 4 || line == kDiscoveryHeader) continue;
        out.push_back(
            {static_cast<unsigned>(strtoul(f[0].c_str(), nullptr, 10)), f[1], f[2], f[3]});
    }
    return out;
}

}  // namespace vxc
