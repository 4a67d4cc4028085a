#include "exceptions.h"

#include <cstdlib>
#include <fstream>

#include "record_parser.h"
#include "tsv.h"

namespace vxc {

bool ExceptionTexts::add(int number, long long id, const std::string& text, size_t max)
{
    if (number < 32 || number > 36) return false;
    auto& m = by_record[number - 32];
    if (m.size() >= max && !m.count(id)) return false;
    m[id] = text;
    return true;
}

std::string ExceptionTexts::resolve(int number, const std::string& id) const
{
    if (id == "-1") return "-";
    const auto& m = by_record[number - 32];
    const auto it = m.find(strtoll(id.c_str(), nullptr, 10));
    return it == m.end() ? "#" + id : it->second;
}

std::string exception_row(unsigned conn, const std::vector<std::string>& f, const ExceptionTexts& texts)
{
    if (f.size() < 13) return "";
    std::string row = std::to_string(conn);
    for (size_t i : {0, 1, 2, 3}) row += "\t" + f[i];
    row += "\t" + tsv_text(texts.resolve(32, f[6]));
    row += "\t" + tsv_text(texts.resolve(33, f[7]));
    row += "\t" + tsv_text(texts.resolve(34, f[8]));
    row += "\t" + f[9];
    row += "\t" + tsv_text(texts.resolve(35, f[10]));
    row += "\t" + tsv_text(texts.resolve(36, f[11]));
    row += "\t" + tsv_text(join(f, 12, f.size()));
    return row;
}

std::vector<ExceptionRow> read_exceptions(const std::string& path)
{
    std::vector<ExceptionRow> out;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        const std::vector<std::string> f = tsv_fields(line);
        if (f.size() != 12 || line == kExceptionsHeader) continue;
        ExceptionRow r;
        r.conn = static_cast<unsigned>(strtoul(f[0].c_str(), nullptr, 10));
        r.fpi = strtoll(f[1].c_str(), nullptr, 10);
        r.seconds = strtoll(f[2].c_str(), nullptr, 10);
        r.method_id = strtoll(f[3].c_str(), nullptr, 10);
        r.seq = strtoll(f[4].c_str(), nullptr, 10);
        r.exception_class = f[5];
        r.throwing_class = f[6];
        r.throwing_method = f[7];
        r.line = f[8];
        r.message = f[9];
        r.cause = f[10];
        r.stack = f[11];
        out.push_back(std::move(r));
    }
    return out;
}

}  // namespace vxc
