/*
 * Atomic access to plain fields shared between threads.
 *
 * The flags and pointers that the host's threads, the control thread and the
 * data thread share (testRunRunning, closeCtrlConFlag, dataConnState, the
 * current method table, ...) keep their own types in their structs; every
 * read and write of one from more than one thread goes through these, so
 * that it is atomic and ThreadSanitizer sees it as such.
 *
 * The orders:
 *   relaxed   a flag polled on its own (a stop request, a state shown in
 *             logs): its value is all the reader takes from it.
 *   release/  a flag or pointer that publishes other memory: the writer
 *   acquire   makes the memory whole, then stores with release; a reader
 *             that loads with acquire and sees the new value sees that
 *             memory whole too.
 *
 * Thread: any. The field must be suitably aligned for its type (any struct
 * member or global is).
 */
#ifndef VX_ATOMIC_H
#define VX_ATOMIC_H

#include <atomic>

namespace vx {

/* Loads take const fields too: a load never writes the fields used here
 * (all of them a machine word or smaller). */
template <typename T>
inline T load_relaxed(const T& field) noexcept
{
    return std::atomic_ref<T>(const_cast<T&>(field)).load(std::memory_order_relaxed);
}

template <typename T>
inline T load_acquire(const T& field) noexcept
{
    return std::atomic_ref<T>(const_cast<T&>(field)).load(std::memory_order_acquire);
}

template <typename T, typename V>
inline void store_relaxed(T& field, V value) noexcept
{
    std::atomic_ref<T>(field).store(static_cast<T>(value), std::memory_order_relaxed);
}

template <typename T, typename V>
inline void store_release(T& field, V value) noexcept
{
    std::atomic_ref<T>(field).store(static_cast<T>(value), std::memory_order_release);
}

/* The value before the add; for counters read by other threads. */
template <typename T, typename V>
inline T fetch_add_relaxed(T& field, V delta) noexcept
{
    return std::atomic_ref<T>(field).fetch_add(static_cast<T>(delta), std::memory_order_relaxed);
}

}  // namespace vx

#endif
