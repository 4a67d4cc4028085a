#include "bt_registry.h"

#include <charconv>
#include <climits>

namespace vxc {

namespace {

constexpr size_t kMaxRuleLine = 1023;
constexpr size_t kMaxRuleFields = 64;
constexpr size_t kMaxBtName = 255;
constexpr size_t kMinPatternFields = 6;

/* What atoi makes of a field: leading blanks, a sign, digits, and nothing
 * after them counts; 0 when no digit comes. Kept within an int. */
long long atoi_like(std::string_view s)
{
    size_t i = 0;
    while (i < s.size() && (s[i] == ' ' || (s[i] >= '\t' && s[i] <= '\r'))) ++i;
    bool negative = false;
    if (i < s.size() && (s[i] == '+' || s[i] == '-')) negative = s[i++] == '-';
    long long v = 0;
    for (; i < s.size() && s[i] >= '0' && s[i] <= '9'; ++i) {
        v = v * 10 + (s[i] - '0');
        if (v > static_cast<long long>(INT_MAX) + 1) v = static_cast<long long>(INT_MAX) + 1;
    }
    if (negative) return -v;
    return v > INT_MAX ? INT_MAX : v;
}

/* Fields between '|', empty ones skipped, at most kMaxRuleFields. */
std::vector<std::string_view> rule_fields(std::string_view line)
{
    std::vector<std::string_view> out;
    while (!line.empty() && out.size() < kMaxRuleFields) {
        const size_t bar = line.find('|');
        const std::string_view field = line.substr(0, bar);
        if (!field.empty()) out.push_back(field);
        if (bar == std::string_view::npos) break;
        line.remove_prefix(bar + 1);
    }
    return out;
}

}  // namespace

std::vector<BtDeclaration> rule_file_declarations(std::string_view text)
{
    std::vector<BtDeclaration> out;
    bool accepted_any = false;
    while (!text.empty()) {
        const size_t nl = text.find('\n');
        const std::string_view line = text.substr(0, nl).substr(0, kMaxRuleLine);
        text.remove_prefix(nl == std::string_view::npos ? text.size() : nl + 1);
        if (line.substr(0, 2) != "7|") continue;
        const std::vector<std::string_view> f = rule_fields(line);
        if (f.size() < kMinPatternFields) continue;
        if (f.size() == 8 && atoi_like(f[6]) == 3) continue; /* mode 3 needs a method field */
        if (!accepted_any) out.push_back({kOthersId, "Others"});
        accepted_any = true;
        const long long id = atoi_like(f[2]);
        if (id > 0) out.push_back({id, std::string(f[1].substr(0, kMaxBtName))});
    }
    return out;
}

const std::string* record_bt_id(const Record& r)
{
    if (r.number == 2 && r.fields.size() > 4) return &r.fields[4];
    if (r.number == 4 && r.fields.size() > 5) return &r.fields[5];
    return nullptr;
}

bool parse_bt_id(std::string_view text, long long* id)
{
    const char* end = text.data() + text.size();
    const auto [ptr, ec] = std::from_chars(text.data(), end, *id);
    return ec == std::errc() && ptr == end;
}

bool BtRegistry::declare(long long id, std::string name)
{
    auto it = names_.find(id);
    if (it != names_.end()) {
        it->second = std::move(name);
        return true;
    }
    if (names_.size() >= kMaxIds) return false;
    names_.emplace(id, std::move(name));
    return true;
}

bool BtRegistry::declared(std::string_view id) const
{
    long long v = 0;
    return parse_bt_id(id, &v) && declared_id(v);
}

}  // namespace vxc
