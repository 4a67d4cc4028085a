/*
 * The data channel's door and its sender.
 *
 * Producers on any thread hand complete record lines to dumpData, which
 * copies them into the buffer lists and returns at once: it never blocks on
 * the network and never fails the caller. The data thread drains filled
 * buffers onto the data connection with processData (TCP) and keeps the
 * connection alive with bare line feeds (handleHeartBeat).
 *
 * Records are text lines: a record number, a comma, fields, a line feed.
 */
#ifndef VX_DATA_DISPATCHER_H
#define VX_DATA_DISPATCHER_H

#include <string>

#include "core/vx_record_door.h"

extern "C" {

/* Drain the read list onto the data connection. 0 when it is empty, 1 when
 * the socket took nothing (try again later), -1 when the connection broke:
 * the unsent rest stays in its buffer and goes first on the next one. */
int processData(void);
/* The last connection's leftovers (markDataLeftovers), alone, before the
 * records that open this one. 0, or -1 when the connection broke. */
int sendDataLeftovers(void);
/* The WebSocket twin of processData: -1 or 0. */
int processDataLws(void);
/* processData or processDataLws by the transport in use. */
int dataConnService(void);


/* One tick of the data connection's heartbeat (a bare line feed every
 * vxcBciDataConnectionHeartBeat ticks). */
void handleHeartBeat(void);

/* Frames of an agent behind a proxy go straight to the socket. 0, or `len`
 * when the send fell short. */
int sendBufferDataCon(char* buf, int len);

/* The records that open a data connection and close a session. */
void dumpNewConnectionRecord(void); /* 99 */
void tag_record(void);              /* 110 */
void attr_record(void);             /* 111 */
void dumpVxDataOverRecord(void);    /* 10 */
}

namespace vx {

/* Sees each record dumpData accepts, on the producer's thread, before it
 * goes into the buffers. For tests and the demo harness; null removes it. */
using DataTapFn = void (*)(const char* data, int len, void* ctx);
void data_tap_set(DataTapFn fn, void* ctx);

/* The records that open a data connection. While one lives on the data
 * thread, what that thread hands to dumpData goes straight onto the new
 * connection, ahead of the records queued while there was none: the
 * collector reads every declaration of the connection before any record
 * that uses its id. Sent in slices, so a long replay needs little memory.
 * WebSocket connections keep the buffers' order. */
class DataOpening {
public:
    DataOpening();
    ~DataOpening(); /* sends the rest */
    DataOpening(const DataOpening&) = delete;
    DataOpening& operator=(const DataOpening&) = delete;

    /* False when the text could not be kept: the caller queues it. */
    bool add(const char* data, int len) noexcept;

private:
    void flush() noexcept;
    std::string text_;
    bool broken_ = false; /* a send fell short: the connection is going */
};

}  // namespace vx

#endif
