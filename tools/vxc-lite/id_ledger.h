/*
 * id_ledger: the ids a data connection declared, and the ids its records
 * use.
 *
 * A collector reads a data connection's records in order and knows an id
 * only from a metadata record that came before on the same connection:
 *
 *   5,<name>,<id>      a method (also a callout's backend)
 *   6,<name>,<id>      an HTTP header name or value
 *   7,<id>,<name>      a business transaction
 *   22,<fpi>,<id>,...  a query text
 *   26,<id>,<url>      a resource
 *   32 to 36,<id>,...  an exception's class, throwing class, throwing
 *                      method, message and cause text, one table each
 *
 * Uses: record 2's and 4's business transaction; the method ids of the
 * method tokens and callout tokens of records 3 and 4, a database call's
 * query id and an HTTP call's resource id; record 38's method id and its
 * five text ids; the name and value ids of records 12 and 13. Ids that
 * mean "none" are no use: -1 wherever it stands for none, record 38's
 * method id 0 (the throwing method was not in the table), a query id of 0
 * (a call without its query) and resource id 0 (the agent names 10,000
 * resources at most and gives later URLs 0).
 *
 * Pure functions and one small class; the server keeps one IdLedger per
 * data connection, on its own thread. Business transactions are the
 * exception: the run's BtRegistry knows them across connections, with the
 * served rules' ids, so the server looks table 7 up there.
 */
#ifndef VXC_LITE_ID_LEDGER_H
#define VXC_LITE_ID_LEDGER_H

#include <cstddef>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "record_parser.h"

namespace vxc {

/* An id and the table it belongs to, named by the record that declares
 * ids of that table (5, 6, 7, 22, 26, 32 to 36). */
struct IdRef {
    int table = 0;
    long long id = 0;
    bool operator==(const IdRef&) const = default;
};

/* The id a record of 5, 6, 7, 22, 26 or 32 to 36 declares; false for any
 * other record. The record has passed parse_record. */
bool id_declaration(const Record& r, IdRef* out);

/* The ids a record that passed parse_record uses, in the order they stand,
 * one entry per use; the "none" ids above left out. */
std::vector<IdRef> id_uses(const Record& r);

/* The method ids of a sequence blob's method tokens ("<mid>:<thread>_..."
 * up to the run of two to four "_" that ends it) and callout tokens, in
 * order. A token cut by the end of the blob is left out. */
std::vector<long long> blob_method_ids(std::string_view blob);

/* The ids one connection declared. Bounded: past kMaxIds ids in all its
 * tables no more are kept, and full() says so. */
class IdLedger {
public:
    static constexpr size_t kMaxIds = 1000000;

    /* False when the id is new and the ledger is full. */
    bool declare(const IdRef& ref);
    bool declared(const IdRef& ref) const;
    bool full() const { return full_; }

private:
    /* Tables 5, 6, 7, 22, 26, 32 to 36 in this order. */
    static constexpr size_t kTables = 10;
    static int slot(int table);
    std::unordered_set<long long> ids_[kTables];
    size_t count_ = 0;
    bool full_ = false;
};

}  // namespace vxc

#endif
