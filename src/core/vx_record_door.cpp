#include "core/vx_record_door.h"

#include <atomic>
#include <cstdio>

namespace vx {

namespace {

constexpr int kDataHookMax = 8;

/* Written at start-up before any data thread exists, read by data threads:
 * the slots are atomics so that a late registration is still race-free. */
std::atomic<DataHookFn> g_hooks[static_cast<int>(DataHook::kCount)][kDataHookMax];

}  // namespace

bool data_hook_register(DataHook when, DataHookFn fn)
{
    auto& row = g_hooks[static_cast<int>(when)];
    for (auto& slot : row) {
        DataHookFn cur = slot.load(std::memory_order_acquire);
        if (cur == fn) return true;
        if (!cur) {
            DataHookFn expected = nullptr;
            if (slot.compare_exchange_strong(expected, fn, std::memory_order_acq_rel)) return true;
            if (expected == fn) return true;
        }
    }
    return false;
}

void data_hooks_run(DataHook when)
{
    for (auto& slot : g_hooks[static_cast<int>(when)]) {
        DataHookFn fn = slot.load(std::memory_order_acquire);
        if (!fn) break;
        fn();
    }
}

void dump_record(char* buf, size_t cap, const char* format, ...)
{
    va_list ap;
    va_start(ap, format);
    const int n = vsnprintf(buf, cap, format, ap);
    va_end(ap);
    if (n <= 0) return;
    const size_t len = end_line(buf, static_cast<size_t>(n) < cap ? static_cast<size_t>(n) : cap, cap);
    dumpData(buf, static_cast<int>(len));
}

}  // namespace vx
