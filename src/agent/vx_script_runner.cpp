#include "agent/vx_script_runner.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "core/vx_limits.h"
#include "core/vx_trace_log.h"

extern char** environ;

namespace {

long long now_ms()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

/* The last non-empty line of a stream, seen in pieces. */
struct LastLine {
    LastLine(char* o, size_t c) : out(o), cap(c) {}
    char* out;
    size_t cap;
    char cur[vx::kTagScriptLineSize];
    size_t curLen = 0;

    void feed(const char* p, size_t n)
    {
        for (size_t i = 0; i < n; ++i) {
            if (p[i] == '\n') {
                end_line();
            } else if (curLen + 1 < sizeof cur) {
                cur[curLen++] = p[i];
            }
        }
    }
    void end_line()
    {
        while (curLen && cur[curLen - 1] == '\r') --curLen;
        if (curLen == 0) return;
        const size_t n = curLen < cap - 1 ? curLen : cap - 1;
        memcpy(out, cur, n);
        out[n] = '\0';
        curLen = 0;
    }
};

/* Ends the child and its group, and collects it. */
void kill_and_reap(pid_t pid)
{
    kill(-pid, SIGKILL);
    kill(pid, SIGKILL);
    int status;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
}

}  // namespace

vx::ScriptResult vx::run_script(const char* exe, const char* const* argv, char* out, size_t cap,
                                int timeoutMs)
{
    if (!out || cap == 0) return ScriptResult::Failed;
    out[0] = '\0';
    if (!exe || !argv || !argv[0] || access(exe, X_OK) != 0) return ScriptResult::NotRunnable;
    /* Log lines name the script (argv[1] of an interpreter) rather than it. */
    const char* name = argv[1] ? argv[1] : exe;
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        VX_ERROR("CONTROL_THREAD", "pipe for tag script '%s' failed: %s", name, strerror(errno));
        return ScriptResult::Failed;
    }
    posix_spawn_file_actions_t fa;
    posix_spawnattr_t attr;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&fa, fds[1], 1);
    posix_spawn_file_actions_addopen(&fa, 2, "/dev/null", O_WRONLY, 0);
    posix_spawnattr_init(&attr);
    /* Its own group, so that a timeout also ends what the script started. */
    posix_spawnattr_setpgroup(&attr, 0);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETPGROUP);
    pid_t pid;
    const int rc = posix_spawn(&pid, exe, &fa, &attr, const_cast<char* const*>(argv), environ);
    posix_spawn_file_actions_destroy(&fa);
    posix_spawnattr_destroy(&attr);
    close(fds[1]);
    if (rc != 0) {
        close(fds[0]);
        VX_ERROR("CONTROL_THREAD", "posix_spawn of tag script '%s' failed: %s", name, strerror(rc));
        return ScriptResult::NotRunnable;
    }
    LastLine last(out, cap);
    const long long deadline = now_ms() + timeoutMs;
    long total = 0;
    ScriptResult result = ScriptResult::Ok;
    for (;;) {
        const long long left = deadline - now_ms();
        if (left <= 0) {
            result = ScriptResult::TimedOut;
            break;
        }
        pollfd p{fds[0], POLLIN, 0};
        const int n = poll(&p, 1, static_cast<int>(left));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            result = ScriptResult::Failed;
            break;
        }
        if (n == 0) continue; /* the deadline check ends it */
        char buf[4096];
        const ssize_t got = read(fds[0], buf, sizeof buf);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break; /* end of output */
        total += got;
        if (total > vx::kTagScriptOutputMax) {
            result = ScriptResult::TooLong;
            break;
        }
        last.feed(buf, static_cast<size_t>(got));
    }
    close(fds[0]);
    if (result != ScriptResult::Ok) {
        kill_and_reap(pid);
        out[0] = '\0';
        VX_ERROR("CONTROL_THREAD", "Tag script '%s' was killed: %s", name,
                 result == ScriptResult::TimedOut ? "time limit passed" : "too much output");
        return result;
    }
    last.end_line();
    /* Output closed: the script is ending; wait for it within what is left
     * of the limit. */
    int status = 0;
    for (;;) {
        const pid_t w = waitpid(pid, &status, WNOHANG);
        if (w == pid) break;
        if (w < 0 && errno != EINTR) {
            VX_ERROR("CONTROL_THREAD", "waitpid for tag script '%s' failed: %s", name,
                     strerror(errno));
            return ScriptResult::Failed;
        }
        if (now_ms() >= deadline) {
            kill_and_reap(pid);
            out[0] = '\0';
            VX_ERROR("CONTROL_THREAD", "Tag script '%s' was killed: time limit passed", name);
            return ScriptResult::TimedOut;
        }
        usleep(5000);
    }
    return ScriptResult::Ok;
}
