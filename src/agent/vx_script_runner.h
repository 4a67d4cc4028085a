/*
 * Runs a tag script outside the process and keeps the last line it prints.
 *
 * The script gets an argument vector, never a shell line built from values,
 * so a tag value cannot inject commands. Its standard output comes back
 * through a pipe (no shared temporary file), at most kTagScriptOutputMax
 * bytes are read, and a script still running after the time limit, or one
 * printing more than that, is killed with its whole process group.
 *
 * Threads: the thread that resolves tags at start-up (agent_init or the
 * control thread). Blocks for at most the time limit.
 */
#ifndef VX_SCRIPT_RUNNER_H
#define VX_SCRIPT_RUNNER_H

#include <cstddef>

namespace vx {

enum class ScriptResult : int {
    Ok = 0,           /* exited; `out` holds its last line */
    NotRunnable = -1, /* no such program, or spawn failed */
    TimedOut = -2,    /* killed after the time limit */
    TooLong = -3,     /* killed after printing more than the bound */
    Failed = -4,      /* pipe or wait failed */
};

/* Runs the program `exe` with argv (null-terminated); `out` (cap bytes)
 * receives the last non-empty line of standard output without its line
 * end, cut at cap - 1, or "" when there is none. Standard input and error
 * are /dev/null. Every failure is logged. */
ScriptResult run_script(const char* exe, const char* const* argv, char* out, size_t cap,
                        int timeoutMs);

}  // namespace vx

#endif
