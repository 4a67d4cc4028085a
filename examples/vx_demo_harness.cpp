/*
 * The demo around the example host: it plays the collector's part until the
 * agent talks to a real one, and shows what the agent produced.
 *
 * The agent registers with the collector named in its settings (vxc-lite in
 * the demo) and streams its records there.
 *
 * STAND-IN (issue #5): the session is opened here through the engine's
 * session hook, with the profile a collector would send; once the collector
 * starts sessions itself this part goes away.
 *
 * "--report FILE" prints a readable account of the records in FILE, the data
 * lines vxc-lite stored.
 */
#include <apr_time.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "core/vx_instance.h"
#include "core/vx_platform.h"
#include "core/vx_sdk_api_private.h"
#include "flowpath/vx_method_table.h"
#include "link/vx_data_dispatcher.h"
#include "link/vx_session.h"
#include "vx_example_host.h"

namespace {

std::vector<std::string> g_records;

constexpr char kProfile[] =
    "example|Shop|handle|0|1\n"
    "example|Shop|loadCart|0|0\n"
    "example|Shop|pay|0|0\n"
    "example|Db|query|0|2\n"
    "example|Http|post|0|2\n";

constexpr char kEntryPoints[] =
    "example|Db.query|SQL_CALLOUT|2\n"
    "example|Http.post|HTTP_CALLOUT|2\n";

/* A record's fields (the blob, the last field, may hold no commas). */
std::vector<std::string> fields(const std::string& line, int count)
{
    std::vector<std::string> out;
    size_t at = 0;
    for (int i = 0; i < count - 1; ++i) {
        size_t comma = line.find(',', at);
        if (comma == std::string::npos) break;
        out.push_back(line.substr(at, comma - at));
        at = comma + 1;
    }
    out.push_back(line.substr(at, line.find('\n', at) - at));
    return out;
}

/* The tokens of a blob, as a person reads them. */
void print_blob(const std::string& blob, const std::map<std::string, std::string>& names)
{
    auto name_of = [&names](const std::string& id) {
        auto it = names.find(id);
        return it == names.end() ? "#" + id : it->second;
    };
    size_t i = 0;
    while (i < blob.size()) {
        char c = blob[i];
        if (c == 'T' || c == 'E' || c == 'e' || c == 't') {
            size_t end = blob.find('_', i);
            std::string tok = blob.substr(i, end - i);
            if (c == 'T' || c == 'E') {
                /* <seq>:<mid>:<duration>:... */
                size_t a = tok.find(':'), b = tok.find(':', a + 1), d = tok.find(':', b + 1);
                printf("      %s call to %s, %s ms\n", c == 'T' ? "ok" : "failed",
                       name_of(tok.substr(a + 1, b - a - 1)).c_str(), tok.substr(b + 1, d - b - 1).c_str());
            } else {
                printf("      %s at event %s\n", c == 'e' ? "exception" : "thread", tok.substr(1).c_str());
            }
            i = end == std::string::npos ? blob.size() : end + 1;
            continue;
        }
        /* mid:tid[:1:url]_event[:seq]_value[_cpu]__ */
        size_t colon = blob.find(':', i);
        size_t us = blob.find('_', colon);
        size_t us2 = blob.find('_', us + 1);
        if (colon == std::string::npos || us == std::string::npos || us2 == std::string::npos) break;
        std::string mid = blob.substr(i, colon - i);
        std::string event = blob.substr(us + 1, us2 - us - 1);
        size_t value_end = blob.find('_', us2 + 1);
        std::string value = blob.substr(us2 + 1, value_end - us2 - 1);
        size_t next = value_end;
        std::string cpu;
        if (event[0] == '0') {
            printf("      enter %s at +%s ms\n", name_of(mid).c_str(), value.c_str());
            next = value_end + 2;
        } else {
            if (blob.compare(value_end, 4, "____") == 0) {
                next = value_end + 4;
            } else {
                size_t cpu_end = blob.find('_', value_end + 1);
                cpu = blob.substr(value_end + 1, cpu_end - value_end - 1);
                next = cpu_end + 3;
            }
            printf("      leave %s after %s ms%s\n", name_of(mid).c_str(), value.c_str(),
                   cpu.empty() ? "" : (", cpu " + cpu + " ns").c_str());
        }
        i = next;
    }
}

/* Records of a data connection as vxc-lite stored them, one a line. */
bool load_records(const char* path)
{
    std::ifstream in(path);
    if (!in) return false;
    std::string line;
    while (std::getline(in, line))
        if (!line.empty() && line.rfind("vx_data_msg_req:", 0) != 0) g_records.push_back(line + "\n");
    return true;
}

/* Wait up to `seconds` for `done`; false on time-out. */
template <typename Pred>
bool wait_for(Pred done, int seconds)
{
    for (int i = 0; i < seconds * 10; ++i) {
        if (done()) return true;
        apr_sleep(apr_time_from_msec(100));
    }
    return done();
}

void print_report()
{
    std::map<std::string, std::string> names;
    std::map<int, int> per_type;
    for (const std::string& r : g_records) {
        per_type[atoi(r.c_str())]++;
        if (r.rfind("5,", 0) == 0) {
            size_t last = r.rfind(',');
            names[r.substr(last + 1, r.size() - last - 2)] = r.substr(2, last - 2);
        }
    }
    printf("\nrecords the collector received:\n");
    for (const std::string& r : g_records) printf("  %s", r.c_str());
    printf("\ntransactions:\n");
    for (const std::string& r : g_records) {
        if (r.rfind("2,", 0) == 0) {
            auto f = fields(r, 8);
            printf("  flowpath %s  url %s  business transaction %s\n", f[1].c_str(), f[6].c_str(), f[5].c_str());
        } else if (r.rfind("4,", 0) == 0) {
            auto f = fields(r, 12);
            printf("    status %s, category %s, %s ms:\n", f[2].c_str(), f[3].c_str(), f[5].c_str());
            print_blob(f[11], names);
        }
    }
    printf("\nrecord counts:");
    for (auto [type, n] : per_type) printf("  %d: %d", type, n);
    printf("\n");
}

void no_wait(int) {}

}  // namespace

int main(int argc, char** argv)
{
    if (argc == 3 && strcmp(argv[1], "--report") == 0) {
        if (!load_records(argv[2])) {
            fprintf(stderr, "cannot read %s\n", argv[2]);
            return 1;
        }
        print_report();
        return 0;
    }
    vx::sdk_sleep_set(no_wait); /* the session is opened right below */
    example_host_start();
    VXProxyInstance_t* app = tlvxApplication;
    if (!app) {
        fprintf(stderr, "the agent did not start: is VXHOME set to an existing directory?\n");
        return 1;
    }
    if (!wait_for([app] { return app->ctrlServing == 1; }, 20)) {
        fprintf(stderr, "the agent did not register with a collector (see its trace log)\n");
        example_host_stop();
        return 1;
    }
    printf("host: the agent registered with %s\n", app->Server.connDestination);

    long long now = my_gettimeofday();
    vx::session_start(1, now - now % 86400000LL, vx::SessionData::kDataThread);
    wait_for([app] { return app->VXSys.dataConnState == 1 && app->dataSkt.skt; }, 10);
    char profile[sizeof kProfile];
    memcpy(profile, kProfile, sizeof kProfile);
    setMethodHashMapNode(profile);
    char entries[sizeof kEntryPoints];
    memcpy(entries, kEntryPoints, sizeof kEntryPoints);
    parseEntryFile(entries);
    app->VXSys.bciInstrSessionPct = 100;

    int served = example_host_serve();
    vx::session_stop();
    printf("host: %d requests reported; waiting for the data channel to drain\n", served);
    wait_for([app] { return app->VXBCISetting.data_thread_running == 0; }, 20);
    example_host_stop();
    return 0;
}
