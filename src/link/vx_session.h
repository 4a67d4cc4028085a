/*
 * The instrumentation session as the engine sees it.
 *
 * STAND-IN (issue #5): until the collector's start and stop commands are
 * dispatched, tests and the demo open and close a session with these calls.
 * They raise and lower the same flags the start and stop sequences will.
 */
#ifndef VX_SESSION_H
#define VX_SESSION_H

namespace vx {

/* Open session `testIdx` whose record times count from `klvEpochDiffTime`
 * (ms since the epoch). The method table is made (without a profile) when
 * none was loaded, and the data channel counts as running. */
void session_start(int testIdx, long long klvEpochDiffTime);

/* Close every open flowpath (type 7), lower the session flags and retire
 * the method table. */
void session_stop();

}  // namespace vx

#endif
