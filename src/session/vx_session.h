/*
 * A session without a collector's command.
 *
 * Tests and benchmarks open and close a session with these calls; they raise
 * and lower the same flags the start and stop sequences do, with or without
 * a data thread.
 */
#ifndef VX_SESSION_H
#define VX_SESSION_H

namespace vx {

enum class SessionData {
    kTapOnly,    /* records reach the data tap (and are counted as discarded) */
    kDataThread, /* the data thread starts and streams to the collector */
};

/* Open session `testIdx` whose record times count from `klvEpochDiffTime`
 * (ms since the epoch). The method table is made (without a profile) when
 * none was loaded. */
void session_start(int testIdx, long long klvEpochDiffTime,
                   SessionData data = SessionData::kTapOnly);

/* Close the session. With the data thread: record 10 goes out, an
 * auto-sensor thread is asked to stop and the flags fall; the data thread
 * writes what is still open, flushes, frees the session's tables and ends by
 * itself. Without: every open flowpath is closed (type 7), the flags fall
 * and the method table is retired here. */
void session_stop();

}  // namespace vx

#endif
