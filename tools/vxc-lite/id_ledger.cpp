#include "id_ledger.h"

#include <climits>
#include <cstdint>

#include "bt_registry.h"
#include "http_headers.h"
#include "topology.h"

namespace vxc {

namespace {

constexpr int kTableNumbers[] = {5, 6, 7, 22, 26, 32, 33, 34, 35, 36};

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

/* Record 38's text ids: field, then the record that declares them. */
constexpr std::pair<size_t, int> kExceptionTextFields[] = {
    {6, 32}, {7, 33}, {8, 34}, {10, 35}, {11, 36}};

}  // namespace

bool id_declaration(const Record& r, IdRef* out)
{
    const std::vector<std::string>& f = r.fields;
    if (f.empty()) return false;
    long long id = 0;
    bool ok = false;
    switch (r.number) {
        case 5:
        case 6: /* the name may hold commas: the id is last */
            ok = printf_int(f.back(), LLONG_MIN, LLONG_MAX, &id);
            break;
        case 7:
            ok = parse_bt_id(f[0], &id);
            break;
        case 22:
            ok = f.size() > 1 && printf_int(f[1], LLONG_MIN, LLONG_MAX, &id);
            break;
        case 26:
        case 32:
        case 33:
        case 34:
        case 35:
        case 36:
            ok = printf_int(f[0], LLONG_MIN, LLONG_MAX, &id);
            break;
        default:
            return false;
    }
    if (ok) *out = {r.number, id};
    return ok;
}

std::vector<long long> blob_method_ids(std::string_view blob)
{
    std::vector<long long> out;
    size_t i = 0;
    while (i < blob.size()) {
        const char c = blob[i];
        if (c == 'T' || c == 'E') {
            /* The callout's own parser reads it; its backend is a method. */
            const size_t end = blob.find('_', i);
            if (end == std::string_view::npos) break;
            const std::vector<CalloutToken> t = callout_tokens(blob.substr(i, end + 1 - i));
            if (!t.empty()) out.push_back(t.front().backend_id);
            i = end + 1;
            continue;
        }
        const size_t colon = blob.find(':', i);
        long long mid = 0;
        if (is_digit(c) && colon != std::string_view::npos &&
            printf_int(blob.substr(i, colon - i), 0, INT32_MAX, &mid)) {
            /* Entry "_0_<start>__", exit "_<event>_<start>_<cpu>___" or
             * "_<event>_<start>____": the first "__" is the token's end. */
            const size_t end = blob.find("__", colon);
            if (end == std::string_view::npos) break; /* cut */
            out.push_back(mid);
            i = blob.find_first_not_of('_', end);
            if (i == std::string_view::npos) break;
            continue;
        }
        /* An exception marker "e<seq>_", or something unknown: on to the
         * next token. */
        const size_t end = blob.find('_', i);
        if (end == std::string_view::npos) break;
        i = end + 1;
    }
    return out;
}

std::vector<IdRef> id_uses(const Record& r)
{
    std::vector<IdRef> out;
    const std::vector<std::string>& f = r.fields;
    long long id = 0;
    if (const std::string* bt = record_bt_id(r); bt && parse_bt_id(*bt, &id))
        out.push_back({7, id});
    long long fpi = 0;
    std::string blob;
    if (record_blob(r, &fpi, &blob)) {
        for (long long mid : blob_method_ids(blob)) out.push_back({5, mid});
        for (const CalloutToken& t : callout_tokens(blob)) {
            if (t.query_id > 0) out.push_back({22, t.query_id});
            if (t.resource_id > 0) out.push_back({26, t.resource_id});
        }
        return out;
    }
    if (r.number == 38 && f.size() >= 13) {
        if (printf_int(f[2], 1, LLONG_MAX, &id)) out.push_back({5, id});
        for (const auto& [field, table] : kExceptionTextFields)
            if (printf_int(f[field], 1, LLONG_MAX, &id)) out.push_back({table, id});
        return out;
    }
    if (r.number == 12 || r.number == 13) {
        std::vector<CaptureItem> items;
        if (f.empty() || parse_capture_text(f.back(), &items, nullptr) != 0) return out;
        for (const CaptureItem& item : items) {
            out.push_back({6, item.name_id});
            if (item.value_is_id) out.push_back({6, item.value_id});
        }
    }
    return out;
}

int IdLedger::slot(int table)
{
    for (size_t i = 0; i < kTables; ++i)
        if (kTableNumbers[i] == table) return static_cast<int>(i);
    return -1;
}

bool IdLedger::declare(const IdRef& ref)
{
    const int s = slot(ref.table);
    if (s < 0) return false;
    auto& ids = ids_[s];
    if (ids.count(ref.id)) return true;
    if (count_ >= kMaxIds) {
        full_ = true;
        return false;
    }
    ids.insert(ref.id);
    ++count_;
    return true;
}

bool IdLedger::declared(const IdRef& ref) const
{
    const int s = slot(ref.table);
    return s >= 0 && ids_[s].count(ref.id) != 0;
}

}  // namespace vxc
