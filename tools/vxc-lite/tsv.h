/*
 * tsv: the tab-separated files of a run directory (bt_monitor.tsv and its
 * kin). A row is one line; a field never holds a tab or a line feed, so
 * text from the wire is written through tsv_text. Pure functions.
 */
#ifndef VXC_LITE_TSV_H
#define VXC_LITE_TSV_H

#include <string>
#include <vector>

namespace vxc {

/* The fields of one row, split on tabs; a row of n tabs has n + 1. */
inline std::vector<std::string> tsv_fields(const std::string& line)
{
    std::vector<std::string> f;
    for (size_t from = 0;;) {
        const size_t tab = line.find('\t', from);
        f.push_back(line.substr(from, tab - from));
        if (tab == std::string::npos) break;
        from = tab + 1;
    }
    return f;
}

/* Text as a field: tabs, carriage returns and line feeds become blanks. */
inline std::string tsv_text(std::string s)
{
    for (char& c : s)
        if (c == '\t' || c == '\r' || c == '\n') c = ' ';
    return s;
}

}  // namespace vxc

#endif
