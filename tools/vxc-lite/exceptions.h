/*
 * exceptions: the exceptions a run's agents reported, as records 32 to 36
 * (one text each: class, throwing class, throwing method, message, cause,
 * "<n>,<id>,<text>") and record 38 (one occurrence naming those ids).
 *
 * exceptions.tsv has one row per record 38 with its texts resolved through
 * the connection's records 32 to 36: "-" for id -1, "#<id>" for an id no
 * metadata record announced before it.
 */
#ifndef VXC_LITE_EXCEPTIONS_H
#define VXC_LITE_EXCEPTIONS_H

#include <map>
#include <string>
#include <vector>

namespace vxc {

/* A connection's texts of records 32 to 36, by record then id. */
struct ExceptionTexts {
    std::map<long long, std::string> by_record[5];
    /* Record `number` (32 to 36) announced `id` as `text`; false when the
     * table of that record holds `max` texts already. */
    bool add(int number, long long id, const std::string& text, size_t max);
    std::string resolve(int number, const std::string& id) const;
};

constexpr const char* kExceptionsHeader =
    "conn\tfpi\tseconds\tmethod_id\tseq\tclass\tthrowing_class\tthrowing_method\tline\tmessage\tcause\tstack";

struct ExceptionRow {
    unsigned conn = 0;
    long long fpi = 0;
    long long seconds = 0;
    long long method_id = 0;
    long long seq = 0;
    std::string exception_class, throwing_class, throwing_method, line, message, cause, stack;
};

/* The row of one record 38 that passed parse_record. */
std::string exception_row(unsigned conn, const std::vector<std::string>& fields, const ExceptionTexts& texts);
std::vector<ExceptionRow> read_exceptions(const std::string& path);

}  // namespace vxc

#endif
