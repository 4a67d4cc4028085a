/*
 * The record door: how every subsystem hands records to the collector link
 * without including it, and how the link calls back up at its own moments.
 *
 * A record is one text line: its number, a comma, fields, a line feed. The
 * link implements dumpData and flushCommonData; flowpath, bt and the monitors
 * see only this header.
 *
 * Hooks: the data thread runs, at a new data connection and at the end of a
 * session's data, what the layers above registered (metadata replay, busy
 * flowpaths written out, session tables retired). Registration happens once
 * at start-up, before any data thread runs; the table is process-wide code,
 * not per-instance state, and hooks act on vx_app() like any other call.
 */
#ifndef VX_RECORD_DOOR_H
#define VX_RECORD_DOOR_H

#include <cstdarg>
#include <cstddef>

#include "core/vx_limits.h"
#include "core/vx_text_writer.h"

extern "C" {
/* Offer one record line of `len` bytes. Any thread; never blocks on the
 * network and never fails the caller. Dropped while no session runs. */
void dumpData(char* data, int len);

/* Best effort before a stop: publish what is buffered and let the data
 * thread send it. */
void flushCommonData(void);
}

namespace vx {

enum class DataHook {
    kConnected,   /* data thread: a data connection opened (after record 99) */
    kStopping,    /* data thread: the session's data ends; open flowpaths go out */
    kSessionFree, /* the session's tables are retired (data thread stop, new start) */
    kCount,
};
using DataHookFn = void (*)();

/* Add `fn` to the hooks of `when`, once: a second registration of the same
 * function is ignored. Up to kDataHookMax per moment; false past that. */
bool data_hook_register(DataHook when, DataHookFn fn);
/* Run the hooks of `when` in the order registered. */
void data_hooks_run(DataHook when);

/* The length of a record of `n` bytes in a buffer of `cap`, cut so that its
 * last byte is the line feed: when the text filled the buffer, the byte
 * before the terminator becomes '\n'. */
inline size_t end_line(char* buf, size_t n, size_t cap)
{
    if (n + 1 < cap || cap < 2) return n;
    buf[cap - 2] = '\n';
    buf[cap - 1] = '\0';
    return cap - 1;
}

/*
 * A record formatted into a buffer of N bytes. Output past the end is cut,
 * which is how every record is bounded, and a cut record still ends with its
 * line feed: the next record must start a line of its own on the wire.
 */
template <size_t N>
class RecordBuffer : public TextWriter {
public:
    RecordBuffer() : TextWriter(buf_, N) {}
    /* Close the line and hand it to dumpData. */
    void send()
    {
        put('\n');
        finish();
        dumpData(buf_, static_cast<int>(end_line(buf_, stored(), N)));
    }

private:
    char buf_[N];
};

/* snprintf of one record line into `buf` (the format ends with "\n"), cut
 * with its line feed kept, then offered to dumpData. */
void dump_record(char* buf, size_t cap, const char* format, ...) __attribute__((format(printf, 3, 4)));

}  // namespace vx

#endif
