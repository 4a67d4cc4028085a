/*
 * topology: how the tiers of a run call each other, as their data
 * connections tell it.
 *
 * Four things, each a file of the run directory:
 *
 *   topology.tsv   one row per record 91: a caller of another tier, named by
 *                  its backend, tier, server and instance, seen by this tier
 *   resources.tsv  one row per record 26: a resource URL and its id
 *   links.tsv      one row per record 2 whose ids are the triple
 *                  "<instance>:<first>:<previous>", with the connection and
 *                  URL of the caller's own record 2, found by its instance
 *                  on any data connection of the run; written at the end
 *   traces.tsv     one row per record 2: its ids and the trace id, parent
 *                  id and flags it carries
 *   callouts.tsv   one row per callout token (T or E) of a sequence blob in
 *                  records 3 and 4, with the backend's name from the
 *                  records 5 of the same connection and, for a database
 *                  call, the id of its query
 *
 * Records handed in here have passed parse_record. Nothing touches a socket
 * or a file except the read_* functions, which read the files back for
 * tests. LinkTable is one per run, used by the server's thread only.
 */
#ifndef VXC_LITE_TOPOLOGY_H
#define VXC_LITE_TOPOLOGY_H

#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "record_parser.h"

namespace vxc {

/* topology.tsv: the record 91's fields in their order, NA left out. */
constexpr const char* kTopologyHeader =
    "conn\tcaller_backend\tcaller_tier\ttier\tcaller_server\tcaller_instance\tserver\tinstance";

struct TopologyRow {
    unsigned conn = 0;
    std::string caller_backend, caller_tier, tier, caller_server, caller_instance, server, instance;
};

std::string topology_row(unsigned conn, const Record& r91);
std::vector<TopologyRow> read_topology(const std::string& path);

/* What makes a caller distinct for the agent: backend, tier, server and
 * instance of the caller. An agent sends one record 91 for each. */
std::string topology_key(const Record& r91);

/* resources.tsv: "conn id name". */
constexpr const char* kResourcesHeader = "conn\tid\tname";

struct ResourceRow {
    unsigned conn = 0;
    long long id = 0;
    std::string name;
};

std::string resource_row(unsigned conn, const Record& r26);
std::vector<ResourceRow> read_resources(const std::string& path);

/* links.tsv: a chained flowpath and its caller. tier_seq is record 2's
 * sequence without its ".1"; caller_conn is -1 and caller_url "-" when no
 * record 2 of the previous instance arrived in the run. */
constexpr const char* kLinksHeader =
    "conn\tfpi\tfirst\tprev\tforced\ttier_seq\tcaller_conn\tcaller_url";

struct LinkRow {
    unsigned conn = 0;
    long long fpi = 0, first = 0, prev = 0;
    bool forced = false;
    std::string tier_seq;
    long long caller_conn = -1;
    std::string caller_url = "-";
};

std::string link_row(const LinkRow& row);
std::vector<LinkRow> read_links(const std::string& path);

/*
 * The records 2 of a run: every flowpath's instance with its connection and
 * URL (the first record 2 of an instance counts), and the chained ones in
 * arrival order. Bounded: past kMaxKept instances or chained flowpaths the
 * rest are not kept, and dropped() says how many were not.
 */
class LinkTable {
public:
    static constexpr size_t kMaxKept = 1u << 18;

    /* A record 2 of connection conn; true when its ids are the triple. */
    bool add(unsigned conn, const Record& r2);
    /* The chained flowpaths with their callers looked up. */
    std::vector<LinkRow> resolve() const;
    unsigned long long dropped() const { return dropped_; }

private:
    struct Flowpath {
        unsigned conn = 0;
        std::string url;
    };
    std::unordered_map<long long, Flowpath> by_instance_;
    std::vector<LinkRow> chained_;
    unsigned long long dropped_ = 0;
};

/* traces.tsv: the trace context of every record 2, as it arrives: its
 * instance (without "F"), the first instance of its chain (0 outside one),
 * and the last three fields, trace id, parent id and flags, as sent (empty
 * when the agent sent none). */
constexpr const char* kTracesHeader = "conn\tfpi\tfirst\ttrace_id\tparent_id\tflags";

struct TraceRow {
    unsigned conn = 0;
    long long fpi = 0, first = 0;
    std::string trace_id, parent_id, flags;
};

/* The row of a record 2 that passed parse_record; empty for any other. */
std::string trace_row(unsigned conn, const Record& r2);
std::vector<TraceRow> read_traces(const std::string& path);

/* A callout token of a sequence blob: "T" (the call went well) or "E", then
 * "<seq>:<backend id>:<duration>:<kind>:" and the rest of its form, which
 * ends at the next "_". A database call's rest begins with the id of its
 * query (a record 22's): "<query id>:<start>::::<status>:<parameters>", or
 * "<query id>:<start>:<status>" behind kind 10 in the "E" token of a call
 * left by an exception. */
struct CalloutToken {
    char kind = 'T';
    long long seq = 0;
    long long backend_id = 0;
    long long duration = 0;
    long long query_id = 0; /* 0 for a call that is not a database call */
    /* An HTTP call's resource (a record 26's id) when resources are named:
     * "<start>[:<status>]:<resource id>" ends its form. 0 for none. */
    long long resource_id = 0;
};

/* The callout tokens of a blob, in order. A token begins the blob or
 * follows the "_" that ends the one before it; one cut by the end of the
 * blob is left out. */
std::vector<CalloutToken> callout_tokens(std::string_view blob);

/* The flowpath instance (without "F") and sequence blob of a record 3 or 4;
 * false for any other record. */
bool record_blob(const Record& r, long long* fpi, std::string* blob);

/* The method id and name a record 5 declares; false for any other record. */
bool method_declaration(const Record& r, long long* id, std::string* name);

/* callouts.tsv: "conn fpi kind seq backend_id backend_name duration
 * query_id", the name "-" when no record 5 of the connection named the id.
 * query_id came last so that readers of the older columns keep their
 * positions. */
constexpr const char* kCalloutsHeader =
    "conn\tfpi\tkind\tseq\tbackend_id\tbackend_name\tduration\tquery_id";

struct CalloutRow {
    unsigned conn = 0;
    long long fpi = 0;
    char kind = 'T';
    long long seq = 0;
    long long backend_id = 0;
    std::string backend_name;
    long long duration = 0;
    long long query_id = 0;
};

std::string callout_row(const CalloutRow& row);
std::vector<CalloutRow> read_callouts(const std::string& path);

}  // namespace vxc

#endif
