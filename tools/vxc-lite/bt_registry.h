/*
 * bt_registry: the business transactions a run has been told of, by id.
 *
 * A collector knows a business transaction from one of two sources: a
 * record 7 ("7,<id>,<name>") the agent sent on a data connection, or a
 * pattern line of the rule file the collector served itself, which carries
 * the id the collector chose. Records 2 and 4 name their transaction by id
 * only, so an id that neither source declared is a fault of the agent.
 *
 * The table lives for the whole run, across connections: an agent that
 * reconnects does not declare its transactions again. Used by the server's
 * thread only.
 */
#ifndef VXC_LITE_BT_REGISTRY_H
#define VXC_LITE_BT_REGISTRY_H

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "record_parser.h"

namespace vxc {

/* The id every agent gives the catch-all transaction. */
constexpr long long kOthersId = 1;

/* A transaction a rule file names. */
struct BtDeclaration {
    long long id = 0;
    std::string name;
};

/*
 * The transactions the pattern lines of a rule file's text declare, in file
 * order. The text is read as the agent reads it: lines cut to 1023
 * characters; only lines beginning "7|" are pattern lines; fields split on
 * '|' with empty fields skipped; a line of fewer than 6 fields, or one of
 * pattern mode 3 with exactly 8, is refused. An accepted line declares
 * field 2 (read as atoi does) under the name of field 1 (cut to 255
 * characters) when that id is above 0, whatever its exclude mode. Once any
 * line is accepted, "Others" is declared as id 1 ahead of the lines.
 */
std::vector<BtDeclaration> rule_file_declarations(std::string_view text);

/* The transaction id field of a record 2 or 4 (already checked by
 * parse_record), or null for any other record. */
const std::string* record_bt_id(const Record& r);

class BtRegistry {
public:
    /* Ids past this many are not kept; an agent keeps a few hundred. */
    static constexpr size_t kMaxIds = 65536;

    /* Declares id under name, replacing an earlier name. False when the id is
     * new and the table is full. */
    bool declare(long long id, std::string name);
    /* The id as it stands on a record line; false for text that is no id. */
    bool declared(std::string_view id) const;
    bool declared_id(long long id) const { return names_.count(id) != 0; }

    const std::map<long long, std::string>& names() const { return names_; }

private:
    std::map<long long, std::string> names_;
};

/* The id text of a record as a number; false when it is none or does not fit. */
bool parse_bt_id(std::string_view text, long long* id);

}  // namespace vxc

#endif
