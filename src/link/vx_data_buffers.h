/*
 * The buffer lists of the data channel.
 *
 * Every buffer is allocated before the first record and kept for the life of
 * the process: filled buffers survive a reconnect and a new session. A buffer
 * sits on one of two lists: the write list, whose head producers fill, and
 * the read list, whose head the data thread drains. A producer never waits
 * for the network: when no free buffer is left the record is dropped and
 * counted in discardCount.
 *
 * Locks: producers hold bufferWriteLock around addDataInSendBuffer; every
 * transfer of a node takes bufferMoveLock inside it (both nested). The
 * order is bufferWriteLock, then bufferMoveLock: the sender's return of a
 * buffer (moveToWriteList) takes both, since it may set VXBCIAgentBB, and
 * it reads VXCollectorBB under bufferMoveLock.
 */
#ifndef VX_DATA_BUFFERS_H
#define VX_DATA_BUFFERS_H

#include <apr_pools.h>
#include <apr_thread_mutex.h>
#include <apr_thread_proc.h>

#include "link/vx_socket.h"

/* One buffer of a list. send_len <= use_len <= buff_size. */
struct nioSettings_t {
    char* buff;
    int use_len;   /* bytes written by producers */
    int send_len;  /* bytes handed to the transport */
    int buff_size; /* bciDataBufferMaxSize at allocation */
    nioSettings_t* next;
};

/* Results of addDataInSendBuffer. */
enum {
    kBufferStored = 0,
    kBufferNoRoom = -1,      /* no free buffer after the current one: dropped whole */
    kBufferNoneFree = -2,    /* no current buffer while the sender holds some */
    kBufferRecordCut = -3,   /* longer than a buffer: head kept, line closed, tail dropped */
    kBufferNotReady = -99,   /* no buffers at all */
};

/* The data channel of an instance: its connection and the two buffer lists.
 * A node is on exactly one list; VXBCIAgentBB is always writeList (producers
 * fill it), VXCollectorBB always readList (the data thread drains it). */
struct VXDataChannel_t {
    socketInfo_t dataSkt;
    nioSettings_t* VXCollectorBB;
    nioSettings_t* VXBCIAgentBB;
    nioSettings_t* writeList;
    nioSettings_t* writeListLast;
    nioSettings_t* readList;
    nioSettings_t* readListLast;
    int writeListSize;
    int readListSize;
    apr_thread_mutex_t* bufferWriteLock; /* producers, and the partial move */
    int doorTurn;                        /* producers' turnstile before bufferWriteLock */
    apr_thread_mutex_t* bufferMoveLock;  /* each transfer of a node between lists */
    apr_thread_t* data_thread_id;
    apr_pool_t* data_pool;               /* made on first use and kept */
    apr_pool_t* dataConnPool;            /* the open data connection's socket */
    int dumpHeartBeat;      /* heartbeats since the last trace line */
    int heartBeatExpiryCnt; /* ticks since the last heartbeat; kept across sessions */
    /* Buffers the last connection left unsent: they go first on the next
     * one, ahead of its record 99. Data thread only. */
    int leftoverBuffers;
};

extern "C" {

/* What the closing connection left unsent becomes the next connection's
 * leftovers: the partial buffer joins the read list, which is counted. */
void markDataLeftovers(void);

/* Build the buffers once: dataBuffMaxCount of bciDataBufferMaxSize bytes (a
 * 32nd of the count for a PHP agent that is no proxy server). At once when
 * they exist. 0, or 1 when memory ran out (what was built stays). */
int buff_list_init(void);

/* Copy a record into the current buffer, spilling into the next when it
 * does not fit. Caller holds bufferWriteLock. One of the results above. */
int addDataInSendBuffer(char* data, int bytesToWrite);

/* Head of the write list to the tail of the read list, and back. */
void moveToReadList(void);
void moveToWriteList(void);

/* Publish a partly filled current buffer (takes bufferWriteLock). */
void movePartialToReadList(void);
}

#endif
