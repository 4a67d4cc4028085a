/*
 * The one path into the host's code.
 *
 * A host registers callbacks (session state, cookie settings, GC and
 * goroutine monitors, discovery, ...); the agent calls them from its own
 * threads. Every such call goes through vx::call_host: a pointer that is not
 * registered is skipped, the pointer is read atomically (a host may register
 * while the control thread runs), and an exception thrown by a host written
 * in C++ is caught and logged here, so it never unwinds through the agent's
 * threads or back into the host.
 */
#ifndef VX_HOST_CALL_H
#define VX_HOST_CALL_H

#include <atomic>

namespace vx {

/* Log that the host's callback `what` threw. */
void host_call_threw(const char* what) noexcept;

/* Read a registered callback; null when none is. */
template <typename Fn>
Fn host_callback(Fn& slot) noexcept
{
    return std::atomic_ref<Fn>(slot).load(std::memory_order_acquire);
}

/* Register (or clear, with null) a callback. */
template <typename Fn>
void host_callback_set(Fn& slot, Fn fn) noexcept
{
    std::atomic_ref<Fn>(slot).store(fn, std::memory_order_release);
}

/* Call the callback in `slot` with `args`. true when it was registered and
 * returned normally. */
template <typename Fn, typename... Args>
bool call_host(const char* what, Fn& slot, Args... args) noexcept
{
    Fn fn = host_callback(slot);
    if (!fn) return false;
    try {
        fn(args...);
        return true;
    } catch (...) {
        host_call_threw(what);
        return false;
    }
}

}  // namespace vx

#endif
