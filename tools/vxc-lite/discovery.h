/*
 * discovery: loaded-class discovery as the collector runs it, as texts.
 *
 * The collector asks on the control connection
 *   "vxc_req:action=discover_loaded_classes;Id=<id>;classFilters=<c>;methodFilters=<m>;"
 * and the agent answers there
 *   "vxc_rep:action=discover_loaded_classes;Id=<id>;result=Success;".
 * The results come on a connection of their own, which opens with
 *   "agent_post_data_req:action=discover_loaded_classes;Id=%s;Tier=%s;Server=%s;Instance=%s;"
 * then one result line each (their format is the host's; bare line feeds
 * are passed over), and ends with the summary
 *   "agent_post_data_req:<text holding totalTimeTaken=>".
 *
 * discovery.tsv has one row per result or summary line: "conn id kind text"
 * (tabs between), kind "result" or "summary", the id of the connection's
 * opening line. Pure functions, except read_discovery.
 */
#ifndef VXC_LITE_DISCOVERY_H
#define VXC_LITE_DISCOVERY_H

#include <string>
#include <string_view>
#include <vector>

namespace vxc {

constexpr std::string_view kDiscoveryOpeningHead =
    "agent_post_data_req:action=discover_loaded_classes;";

/* The request, with its line feed. */
std::string discovery_request_line(const std::string& id, const std::string& class_filters,
                                   const std::string& method_filters);

/* True for the agent's answer to a request; its Id goes to id. */
bool discovery_answer(std::string_view line, std::string* id);

/* The names an opening line gives. */
struct DiscoveryOpening {
    std::string id, tier, server, instance;
};

/* Checks an opening line (without its line feed) against the form above,
 * field by field and in order. 0, or -1 with the first difference in why. */
int check_discovery_opening(std::string_view line, DiscoveryOpening* out, std::string* why);

/* True for the summary line. */
bool discovery_summary(std::string_view line);

constexpr const char* kDiscoveryHeader = "conn\tid\tkind\ttext";

struct DiscoveryRow {
    unsigned conn = 0;
    std::string id, kind, text;
};

std::string discovery_row(unsigned conn, const std::string& id, bool summary,
                          std::string_view line);
std::vector<DiscoveryRow> read_discovery(const std::string& path);

}  // namespace vxc

#endif
