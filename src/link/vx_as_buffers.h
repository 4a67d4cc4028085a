/*
 * The buffer lists of the auto-sensor channel.
 *
 * Same design as the data channel's lists (link/vx_data_buffers.h), with
 * its own sizes, and buffers that grow on demand: the ring starts with
 * ASDataBuffMinCount buffers of bciASDataBufferMaxSize bytes and gains a
 * batch of as many whenever the free list has run fully empty, up to
 * ASDataBuffMaxCount buffers in all. Buffers are never released; they
 * belong to the instance for the life of the process.
 *
 * Producers are the auto-sensor thread and host threads reporting through
 * it; the sender drains the read list. Locks: bufferWriteLockAS orders
 * producers, bufferMoveLockAS guards each transfer of a node; the order is
 * write lock, then move lock (both nested APR mutexes, created once with
 * the channel's pool before the first record).
 */
#ifndef VX_AS_BUFFERS_H
#define VX_AS_BUFFERS_H

#include <apr_pools.h>
#include <apr_thread_mutex.h>

#include "link/vx_data_buffers.h"

/* A node is on exactly one list. VXBCIAgentBBAS is the head of
 * writeListAS (null once it ran empty), VXCollectorBBAS the head of
 * readListAS. */
struct VXAutoSensorChannel_t {
    nioSettings_t* writeListAS;
    nioSettings_t* writeListLastAS;
    int writeListSizeAS;
    nioSettings_t* VXBCIAgentBBAS;
    nioSettings_t* readListAS;
    nioSettings_t* readListLastAS;
    int readListSizeAS;
    nioSettings_t* VXCollectorBBAS;
    int curBuffers;       /* buffers ever built for this channel */
    int maxBuffersAS;     /* size of the last batch built */
    int dataBufferSizeAS; /* bytes of each buffer */
    apr_thread_mutex_t* bufferWriteLockAS;
    apr_thread_mutex_t* bufferMoveLockAS;
    apr_pool_t* autoSensor_pool; /* the locks; made once and kept */
};

extern "C" {

/* The producers' door. Copies a record into the buffers under
 * bufferWriteLockAS, first adding a batch of buffers when none is free.
 * Unlike dumpData it runs whether or not a test run is on, so reports keep
 * accumulating during a reconnect. 0 when the record was taken or dropped
 * for want of room (counted in discardCount); 1 for no data, no locks yet,
 * or no buffer to be had (also counted). */
int dumpASData(char* data, int len);

/* The six cases of addDataInSendBuffer, with the same results, except that
 * a record longer than a whole buffer keeps its head and ends there, with
 * no line feed added. Caller holds bufferWriteLockAS. */
int addDataInASSendBuffer(char* data, int bytesToWrite);

/* Add a batch of buffers, only when the free list is empty: 0 at once when
 * it is not. The batch is ASDataBuffMinCount, cut so that curBuffers stays
 * within ASDataBuffMaxCount. 1 when no batch is left (or it is below 1) or
 * memory ran out (what was built stays). Takes bufferMoveLockAS. */
int buff_list_init_as(void);

/* Head of the write list to the tail of the read list (takes the move
 * lock), and back (takes both locks, in their order). */
void moveToASReadList(void);
void moveToASWriteList(void);

/* Publish a partly filled current buffer (takes bufferWriteLockAS). */
void moveCommonPartialToReadList(void);
}

#endif
