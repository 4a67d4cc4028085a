/*
 * The URL pattern state machine: building the trie (parser thread) and
 * walking it (request threads). See the header for the table layout.
 */
#include "bt/vx_url_state_machine.h"

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "core/vx_limits.h"

namespace {

using vx::kStateMachineColumns;

/* Columns of a row besides the transitions 32..127. */
constexpr int kMethodFollows = 20;
constexpr int kPrefixId = 128;
constexpr int kExactId = 129;
constexpr int kWildCard = 130;

constexpr size_t kRowBytes = sizeof(int) * kStateMachineColumns;

/* 32..127 with the character taken as signed: bytes from 128 up are
 * negative and so refused. A signed char never exceeds 127. */
inline bool is_printable(char ch)
{
    return static_cast<signed char>(ch) >= 32;
}

inline int col(char ch)
{
    return static_cast<signed char>(ch);
}

inline int* row(int* table, int state)
{
    return table + static_cast<size_t>(state) * kStateMachineColumns;
}

inline const int* row(const int* table, int state)
{
    return table + static_cast<size_t>(state) * kStateMachineColumns;
}

template <class Machine>
int init_machine(Machine* sm, int size)
{
    if (sm == nullptr) return -1;
    int rows = size > 0 ? size : vx::kStateMachineDefaultRows;
    sm->state_machine = static_cast<int*>(calloc(static_cast<size_t>(rows), kRowBytes));
    sm->delta_state = vx::kStateMachineDelta;
    if (sm->state_machine == nullptr) {
        sm->state_count = 0;
        sm->max_state = 0;
        return -1;
    }
    sm->state_count = 1;
    sm->max_state = rows;
    return 0;
}

template <class Machine>
int free_machine(Machine* sm)
{
    if (sm == nullptr) return -1;
    free(sm->state_machine);
    sm->state_machine = nullptr;
    sm->state_count = 0;
    sm->max_state = 0;
    return 0;
}

/* Makes room for a text that can add `need` states, before anything of it
 * is written, so an insertion never runs out of rows. On failure the old
 * block is untouched and the earlier rules stay readable. */
template <class Machine>
int grow(Machine* sm, long long need)
{
    if (sm->state_count + need < sm->max_state) return 0;
    long long rows = static_cast<long long>(sm->max_state) + sm->delta_state;
    if (sm->delta_state < need) rows += need;
    if (rows > INT_MAX || static_cast<unsigned long long>(rows) > SIZE_MAX / kRowBytes) return -1;
    void* block = realloc(sm->state_machine, static_cast<size_t>(rows) * kRowBytes);
    if (block == nullptr) return -1;
    int* table = static_cast<int*>(block);
    memset(row(table, sm->max_state), 0, static_cast<size_t>(rows - sm->max_state) * kRowBytes);
    sm->state_machine = table;
    sm->max_state = static_cast<int>(rows);
    return 0;
}

/* Step from `state` on `ch`, making the state if there is none. */
inline int step_or_make(int* table, int* state_count, int state, char ch)
{
    int* r = row(table, state);
    if (r[col(ch)] == 0) r[col(ch)] = (*state_count)++;
    return r[col(ch)];
}

/* Inserts a pattern from the root. A '*' inside marks the state before it
 * as a wild card and leaves no state of its own; the character after it is
 * inserted as is, so "**" is one wild card and one literal '*'. A '*' at
 * the end only ends the text. With id_at_end the rule's id is written on
 * its last state. The state reached, or -1 at a character outside 32..127
 * (what was inserted before it stays). */
int insert_pattern(int* table, int* state_count, const char* text, int len, int id, int match_type,
                   bool id_at_end)
{
    int state = 0;
    for (int i = 0; i < len; ++i) {
        char ch = text[i];
        if (!is_printable(ch)) return -1;
        if (ch == '*') {
            if (i == len - 1) {
                if (id_at_end) {
                    row(table, state)[kExactId] = id;
                    if (match_type == 1) row(table, state)[kPrefixId] = id;
                }
                continue;
            }
            row(table, state)[kWildCard] = 1;
            ch = text[++i];
            if (!is_printable(ch)) return -1;
        }
        state = step_or_make(table, state_count, state, ch);
        if (i == len - 1 && id_at_end) {
            row(table, state)[match_type != 0 ? kPrefixId : kExactId] = id;
        }
    }
    return state;
}

/* The method text behind a pattern: plain characters, the id on the last
 * one (exact for match_type 0, prefix for 1). */
int insert_method(int* table, int* state_count, int state, const char* method, int len, int id,
                  int match_type)
{
    for (int i = 0; i < len; ++i) {
        if (!is_printable(method[i])) return -1;
        state = step_or_make(table, state_count, state, method[i]);
        if (i == len - 1) {
            if (match_type == 0) row(table, state)[kExactId] = id;
            if (match_type == 1) row(table, state)[kPrefixId] = id;
        }
    }
    return 0;
}

/* Whole, case-sensitive match of the method from state `value`. With
 * type 1 (a wild card was used) only prefix ids count. */
int matchMethod(const int* table, int value, const char* httpMethod, int lastTxID, int type)
{
    if (httpMethod == nullptr || httpMethod[0] == '\0') return lastTxID;
    int state = value;
    for (size_t i = 0; httpMethod[i] != '\0'; ++i) {
        if (!is_printable(httpMethod[i])) return -1;
        int next = row(table, state)[col(httpMethod[i])];
        if (next == 0) return lastTxID;
        if (httpMethod[i + 1] == '\0') {
            const int* r = row(table, next);
            if (r[kExactId] != 0 && type == 0) return r[kExactId];
            if (r[kPrefixId] != 0) return r[kPrefixId];
            return lastTxID;
        }
        state = next;
    }
    return lastTxID;
}

/* The ids a state offers once a parameter (or its name) ended on it: a
 * method rule first, then the exact id (not behind a wild card), then the
 * prefix id; 0 for none. `result` takes the method's answer. */
int parameter_end(const int* table, int state, const char* httpMethod, int* result, int type)
{
    const int* r = row(table, state);
    if (r[kMethodFollows] != 0) {
        *result = matchMethod(table, state, httpMethod, *result, type);
        if (*result != -1) return *result;
    }
    if (r[kExactId] != 0 && type == 0) return r[kExactId];
    return r[kPrefixId];
}

/* Walks the query string from state `value`, starting a match only at the
 * beginning of a parameter, and takes a rule only where its text reaches
 * the end of a parameter ('&' or the end). A rule on a parameter's name
 * alone hits whatever its value. */
int matchSingleParameter(const int* table, int value, const char* parameters, int lastTxID,
                         const char* httpMethod, int type)
{
    int state = value;
    int result = lastTxID;
    int nameState = 0;
    size_t i = 0;
    while (parameters[i] != '\0') {
        char ch = parameters[i];
        if (!is_printable(ch)) return -1;
        int next = row(table, state)[col(ch)];
        if (next == 0) {
            if (nameState != 0) {
                int id = parameter_end(table, nameState, httpMethod, &result, type);
                if (id != 0) return id;
            }
            state = value;
            ++i;
            continue;
        }
        if (i != 0 && parameters[i - 1] != '&' && state == value) {
            ++i;
            continue;
        }
        char after = parameters[i + 1];
        if (after == '=') nameState = next;
        if (after == '\0' || after == '&') {
            int id = parameter_end(table, next, httpMethod, &result, type);
            if (id != 0) return id;
        }
        state = next;
        ++i;
    }
    return result;
}

/* A URL-and-method rule still matches when the URL's state also carries
 * parameter rules and none of them hit. */
int checkMethodFallbackAfterParam(const int* table, int lastTxID, int value, const char* httpMethod,
                                  int type)
{
    if (lastTxID != -1) return lastTxID;
    if (row(table, value)[kMethodFollows] != 0) {
        return matchMethod(table, value, httpMethod, lastTxID, type);
    }
    return lastTxID;
}

/* A plain URL rule applies when its state also serves longer rules (with
 * parameters or a method) that did not hit. */
int checkIfURLOnlyPatternExists(const int* table, int lastTxID, int value, int type)
{
    if (lastTxID != -1) return lastTxID;
    const int* r = row(table, value);
    if (r[kExactId] != 0 && type == 0) return r[kExactId];
    if (r[kPrefixId] != 0) return r[kPrefixId];
    return -1;
}

/* The whole token from the state of an id's last digit. */
int matchHeader(const int* table, int state, const char* header, int len)
{
    for (int i = 0; i < len; ++i) {
        if (!is_printable(header[i])) return -1;
        state = row(table, state)[col(header[i])];
        if (state == 0) return -1;
    }
    const int* r = row(table, state);
    if (r[kExactId] != 0) return r[kExactId];
    if (r[kPrefixId] != 0) return r[kPrefixId];
    return -1;
}

/* Decimal text of `id` into `out` (at least 12 bytes); its length. */
int decimal(int id, char* out)
{
    char tmp[12];
    int n = 0;
    long long v = id;
    bool negative = v < 0;
    if (negative) v = -v;
    do {
        tmp[n++] = static_cast<char>('0' + v % 10);
        v /= 10;
    } while (v != 0);
    int len = 0;
    if (negative) out[len++] = '-';
    while (n > 0) out[len++] = tmp[--n];
    return len;
}

}  // namespace

extern "C" {

int vxlb_state_machine_init(vxlbStateMachine* sm, int size) noexcept
{
    return init_machine(sm, size);
}

int vxlb_state_machine_init_for_header(vxlbStateMachineforHeader* sm, int size) noexcept
{
    return init_machine(sm, size);
}

int vxlb_state_machine_free(vxlbStateMachine* sm) noexcept
{
    return free_machine(sm);
}

int vxlb_state_machine_free_for_header(vxlbStateMachineforHeader* sm) noexcept
{
    return free_machine(sm);
}

int vxlb_state_machine_add(vxlbStateMachine* sm, const char* entry, int len, const char* httpMethod,
                           int method_len, int id, int match_type, int patternMode,
                           int /*skip_count*/) noexcept
{
    if (sm == nullptr || sm->state_machine == nullptr || entry == nullptr || len <= 0) return -1;
    if (method_len < 0) method_len = 0;
    if (grow(sm, static_cast<long long>(len) + method_len) != 0) return -1;
    bool id_at_end = patternMode < 2;
    int state =
        insert_pattern(sm->state_machine, &sm->state_count, entry, len, id, match_type, id_at_end);
    if (state < 0) return -1;
    if (id_at_end) return 0;
    row(sm->state_machine, state)[kMethodFollows] = 1;
    if (httpMethod == nullptr) return 0;
    return insert_method(sm->state_machine, &sm->state_count, state, httpMethod, method_len, id,
                         match_type);
}

int vxlb_state_machine_add_for_header(vxlbStateMachineforHeader* sm, const char* buffer, int len,
                                      int id, int match_type, int /*skip_count*/) noexcept
{
    if (sm == nullptr || sm->state_machine == nullptr || buffer == nullptr || len <= 0) return -1;
    char key[vx::kStateMachineHeaderKeyMax + 1];
    int key_len = decimal(id, key);
    size_t room = static_cast<size_t>(vx::kStateMachineHeaderKeyMax - key_len);
    size_t take = strnlen(buffer, static_cast<size_t>(len));
    if (take > room) take = room;
    memcpy(key + key_len, buffer, take);
    key_len += static_cast<int>(take);
    if (grow(sm, key_len) != 0) return -1;
    int state =
        insert_pattern(sm->state_machine, &sm->state_count, key, key_len, id, match_type, true);
    return state < 0 ? -1 : 0;
}

int vxlb_state_machine_get(const vxlbStateMachine* sm, const char* entry, int len,
                           const char* parameters, int /*param_len*/, const char* httpMethod,
                           int /*method_len*/, int /*vx_skipCount*/) noexcept
{
    if (sm == nullptr || sm->max_state == 0 || sm->state_machine == nullptr) return 1;
    if (entry == nullptr || len <= 0) return 1;
    const int* table = sm->state_machine;
    int state = 0;
    int lastTxID = -1; /* longest prefix so far */
    int wildState = 0; /* last state with a wild-card mark; 0 for none */
    int matched = 0;   /* characters matched since wildState */
    int wildUsed = 0;  /* once set, exact ids no longer count in the parameter and method phases */
    int i = 0;
    while (i < len) {
        char ch = entry[i];
        if (!is_printable(ch)) return -1;
        int next = row(table, state)[col(ch)];
        if (next == 0) {
            wildUsed = 1;
            const int* r = row(table, state);
            if (r[kWildCard] == 0 && wildState == 0) {
                if (r[kMethodFollows] == 0) return lastTxID;
                int id = matchMethod(table, state, httpMethod, lastTxID, 1);
                return checkIfURLOnlyPatternExists(table, id, state, 1);
            }
            /* One-star glob: the character where the failed attempt began is
             * taken by the star, and the attempt restarts one later. */
            if (r[kWildCard] != 0) wildState = state;
            if (wildState != state) i -= matched;
            state = wildState;
            if (i != len - 1) {
                matched = 0;
                ++i;
                continue;
            }
            if (parameters == nullptr) return lastTxID;
            int id = matchSingleParameter(table, state, parameters, lastTxID, httpMethod, 1);
            return checkIfURLOnlyPatternExists(table, id, state, 1);
        }
        const int* n = row(table, next);
        if (i == len - 1) {
            if (n[kWildCard] != 0 && parameters != nullptr) {
                int id =
                    matchSingleParameter(table, next, parameters, lastTxID, httpMethod, wildUsed);
                id = checkMethodFallbackAfterParam(table, id, next, httpMethod, wildUsed);
                return checkIfURLOnlyPatternExists(table, id, next, wildUsed);
            }
            if (n[kMethodFollows] != 0) {
                int id = matchMethod(table, next, httpMethod, lastTxID, wildUsed);
                return checkIfURLOnlyPatternExists(table, id, next, wildUsed);
            }
            /* The exact id counts here even after a wild card. */
            if (n[kExactId] != 0) return n[kExactId];
            if (n[kPrefixId] != 0) return n[kPrefixId];
            return lastTxID;
        }
        if (n[kPrefixId] != 0) lastTxID = n[kPrefixId];
        if (wildState != 0) ++matched;
        state = next;
        if (n[kWildCard] != 0) wildState = next;
        ++i;
    }
    return lastTxID;
}

int vxlb_state_machine_get_for_header(const vxlbStateMachineforHeader* sm, const char* header,
                                      int len, int /*vx_skipCount*/, int id) noexcept
{
    if (sm == nullptr || sm->max_state == 0 || sm->state_machine == nullptr) return id;
    const int* table = sm->state_machine;
    char digits[12];
    int n = decimal(id, digits);
    int state = 0;
    for (int k = 0; k < n; ++k) {
        state = row(table, state)[col(digits[k])];
        if (state == 0) return id;
    }
    if (header == nullptr) return -1;
    return matchHeader(table, state, header, len);
}
}
