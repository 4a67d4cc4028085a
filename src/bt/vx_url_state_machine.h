/*
 * The URL pattern state machine: pattern rules compiled into one character
 * trie held as a flat table, so that classifying a request costs one table
 * read per character of its URL, parameters and method, whatever the number
 * of rules. A second machine of the same shape refines an id by header
 * tokens. The machines map text to integers and know nothing of BTs; -2
 * ("exclude") and 1 ("Others") get their meaning from the BT layer.
 *
 * Layout. One heap block of max_state rows, row-major: row s holds the
 * kStateMachineColumns (131) ints of state s, so a look-up step reads one
 * row. Columns of a row:
 *   32..127  transition on that character; 0 for none (state 0, the root,
 *            is never a target)
 *   20       method-follows: 1 where a method text must be matched next
 *            (a control character, so never a transition)
 *   128      prefix id: a rule with match_type 1 ends here; also taken as
 *            the best candidate on the way through
 *   129      exact id: a rule with match_type 0 ends here
 *   130      wild-card: 1 where a '*' followed inside a pattern
 * The other columns stay 0. Memory is 131 * max_state ints; 0 is never an
 * id. Only characters 32..127 (taken as signed char) are usable: a byte of
 * 128 or more is refused by add and by get.
 *
 * Ownership and threads. The agent instance owns the machines; the block is
 * the machine's, freed by vxlb_state_machine_free. init, add and free are
 * for the rule parser's thread only. get and get_for_header take no lock,
 * write nothing, allocate nothing and make no system call: any number of
 * threads may call them on a machine nobody is writing. A new rule set is
 * built in a machine aside and swapped in by the caller.
 *
 * Failures are silent (no log): -1 from the functions below, with earlier
 * rules left readable.
 */
#ifndef VX_URL_STATE_MACHINE_H
#define VX_URL_STATE_MACHINE_H

/* Fields in this order for both machines.
 *   state_machine  max_state rows of 131 ints (see above); null when not set up
 *   state_count    next free state; 1 after set-up, state 0 is the root
 *   max_state      rows allocated; 0 means not set up
 *   delta_state    growth step, kStateMachineDelta */
struct vxlbStateMachine {
    int* state_machine;
    int state_count;
    int max_state;
    int delta_state;
};

struct vxlbStateMachineforHeader {
    int* state_machine;
    int state_count;
    int max_state;
    int delta_state;
};

extern "C" {

/* Sets up an empty machine of `size` rows (kStateMachineDefaultRows if size
 * <= 0), all zero. A machine already set up must be freed first. 0, or -1
 * with a null machine or when the block can't be allocated (the machine is
 * then left not set up). */
int vxlb_state_machine_init(vxlbStateMachine* sm, int size) noexcept;
int vxlb_state_machine_init_for_header(vxlbStateMachineforHeader* sm, int size) noexcept;

/* Frees the block; max_state and state_count become 0, so a look-up answers
 * as on a machine never set up. 0, or -1 with a null machine. */
int vxlb_state_machine_free(vxlbStateMachine* sm) noexcept;
int vxlb_state_machine_free_for_header(vxlbStateMachineforHeader* sm) noexcept;

/* Adds a pattern rule. `entry` (len characters, not copied) is the URL
 * pattern: a '*' inside it is a wild card that marks the state before it, a
 * '*' at its end only ends the text. match_type 0 is exact, 1 prefix.
 * patternMode >= 2 means `httpMethod` (method_len characters) must follow
 * and carries the id; below 2 the id goes at the end of the pattern. A rule
 * ending on the state of an earlier one overwrites its id. Before writing,
 * the table grows by delta_state rows (and by len + method_len more when
 * the delta is smaller) once state_count + len + method_len reaches
 * max_state. 0, or -1 for a null or not set-up machine, a null or empty
 * entry, a character outside 32..127 (what came before it stays) or failed
 * growth. skip_count has no effect. */
int vxlb_state_machine_add(vxlbStateMachine* sm, const char* entry, int len, const char* httpMethod,
                           int method_len, int id, int match_type, int patternMode,
                           int skip_count) noexcept;

/* Adds a header rule: the key is the decimal id followed by the `len`
 * characters of `buffer`, cut at kStateMachineHeaderKeyMax, inserted as a
 * pattern of patternMode 0. Results as vxlb_state_machine_add. */
int vxlb_state_machine_add_for_header(vxlbStateMachineforHeader* sm, const char* buffer, int len,
                                      int id, int match_type, int skip_count) noexcept;

/* The id for a URL of `len` characters, its query string `parameters`
 * (NUL-terminated, may be null) and `httpMethod` (NUL-terminated, may be
 * null). -1 for no match or a character outside 32..127; 1 when the machine
 * is not set up or the URL is null or empty. param_len, method_len and
 * vx_skipCount have no effect. */
int vxlb_state_machine_get(const vxlbStateMachine* sm, const char* entry, int len,
                           const char* parameters, int param_len, const char* httpMethod,
                           int method_len, int vx_skipCount) noexcept;

/* Refines BT `id` by one header token of `len` characters. `id` unchanged
 * when it has no header rule (or the machine is not set up); otherwise the
 * id of the rule whose token is `header` whole, else -1 (also for a null
 * header or a character outside 32..127). vx_skipCount has no effect. */
int vxlb_state_machine_get_for_header(const vxlbStateMachineforHeader* sm, const char* header,
                                      int len, int vx_skipCount, int id) noexcept;
}

#endif
