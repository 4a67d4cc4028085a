/*
 * A readable account of the records vxc-lite stored for one data connection.
 *
 * Business transactions are named by the records 7 in the file and, when
 * given, by the "bt.<id>=<name>" lines of vxc-lite's summary.txt: under
 * pattern rules the names come from the rule file the collector served, and
 * the agent sends no record 7 for them.
 */
#include "vx_demo_report.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <string>
#include <vector>

namespace {

std::vector<std::string> g_records;

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
                       name_of(tok.substr(a + 1, b - a - 1)).c_str(),
                       tok.substr(b + 1, d - b - 1).c_str());
            } else {
                printf("      %s at event %s\n", c == 'e' ? "exception" : "thread",
                       tok.substr(1).c_str());
            }
            i = end == std::string::npos ? blob.size() : end + 1;
            continue;
        }
        /* mid:tid[:1:url]_event[:seq]_value[_cpu]__ */
        size_t colon = blob.find(':', i);
        size_t us = blob.find('_', colon);
        size_t us2 = blob.find('_', us + 1);
        if (colon == std::string::npos || us == std::string::npos || us2 == std::string::npos)
            break;
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
        if (!line.empty() && line.rfind("vx_data_msg_req:", 0) != 0)
            g_records.push_back(line + "\n");
    return true;
}

/* "bt.<id>=<name>" lines of a vxc-lite summary into `bt_names`. */
bool load_bt_names(const char* path, std::map<std::string, std::string>* bt_names)
{
    std::ifstream in(path);
    if (!in) return false;
    std::string line;
    while (std::getline(in, line)) {
        const size_t eq = line.find('=');
        if (line.rfind("bt.", 0) == 0 && eq != std::string::npos)
            (*bt_names)[line.substr(3, eq - 3)] = line.substr(eq + 1);
    }
    return true;
}

const char* category_name(const std::string& c)
{
    if (c == "10") return "normal";
    if (c == "11") return "slow";
    if (c == "12") return "very slow";
    if (c == "13") return "error";
    return "other";
}

void print_records(std::map<std::string, std::string> bt_names /* BT id -> name */)
{
    std::map<std::string, std::string> names;     /* method id -> name (record 5) */
    std::map<std::string, std::string> bt_of;     /* flowpath -> BT id (record 2) */
    std::map<std::string, std::string> url_of;    /* flowpath -> URL (record 2) */
    std::map<std::string, std::string> caller_of; /* flowpath -> calling flowpath (record 2) */
    std::map<std::string, std::map<std::string, int>> per_bt; /* BT -> category -> count */
    std::map<int, int> per_type;
    for (const std::string& r : g_records) {
        per_type[atoi(r.c_str())]++;
        if (r.rfind("5,", 0) == 0) {
            size_t last = r.rfind(',');
            names[r.substr(last + 1, r.size() - last - 2)] = r.substr(2, last - 2);
        } else if (r.rfind("7,", 0) == 0) {
            auto f = fields(r, 3);
            bt_names[f[1]] = f[2];
        } else if (r.rfind("2,", 0) == 0) {
            auto f = fields(r, 8);
            /* A callee's id is "<own>:<first>:<caller>". */
            const size_t colon = f[1].find(':');
            const std::string own = f[1].substr(0, colon);
            if (colon != std::string::npos) caller_of[own] = f[1].substr(f[1].rfind(':') + 1);
            bt_of[own] = f[5];
            url_of[own] = f[6];
        } else if (r.rfind("4,", 0) == 0) {
            auto f = fields(r, 12);
            per_bt[bt_of[f[1]]][category_name(f[3])]++;
        }
    }
    printf("\ntransactions per business transaction:\n");
    for (const auto& [bt, cats] : per_bt) {
        printf("  %-4s %-22s", bt.c_str(), bt_names.count(bt) ? bt_names[bt].c_str() : "?");
        for (const auto& [cat, n] : cats) printf("  %s %d", cat.c_str(), n);
        printf("\n");
    }
    printf("\na few flowpaths, method names from record 5:\n");
    int shown = 0;
    for (const std::string& r : g_records) {
        if (r.rfind("4,", 0) != 0 || shown == 3) continue;
        auto f = fields(r, 12);
        const auto caller = caller_of.find(f[1]);
        const std::string called_by =
            caller == caller_of.end() ? "" : ", called by flowpath " + caller->second;
        printf("  flowpath %s  %s  status %s, %s, %s ms%s:\n", f[1].c_str(), url_of[f[1]].c_str(),
               f[2].c_str(), category_name(f[3]), f[5].c_str(), called_by.c_str());
        print_blob(f[11], names);
        ++shown;
    }
    printf("\nrecord counts:");
    for (auto [type, n] : per_type) printf("  %d: %d", type, n);
    printf("\n");
}

}  // namespace

int demo_report(const char* records, const char* summary)
{
    if (!load_records(records)) {
        fprintf(stderr, "cannot read %s\n", records);
        return -1;
    }
    std::map<std::string, std::string> bt_names;
    if (summary && !load_bt_names(summary, &bt_names))
        fprintf(stderr, "cannot read %s; names from records 7 only\n", summary);
    print_records(bt_names);
    return 0;
}
