/*
 * The data channel's door: every producer hands complete record lines to
 * dumpData, which never blocks and never fails the caller.
 *
 * STAND-IN (issue #4): the ring buffers, the data thread and the connection
 * are not built yet. dumpData keeps its contract (drops everything while no
 * session runs) and hands each line to a replaceable sink; the default sink
 * discards.
 */
#ifndef VX_DATA_DISPATCHER_H
#define VX_DATA_DISPATCHER_H

extern "C" {
/* Offer one record line of `len` bytes. Any thread; never blocks. */
void dumpData(char* data, int len);

/* Send what the data channel holds for a session that is closing. */
void flushCommonData(void);
}

namespace vx {

/* Receives each line dumpData accepts, on the producer's thread. */
using DataSinkFn = void (*)(const char* data, int len, void* ctx);

/* Replace the sink; nullptr restores the discarding one. */
void data_sink_set(DataSinkFn fn, void* ctx);

}  // namespace vx

#endif
