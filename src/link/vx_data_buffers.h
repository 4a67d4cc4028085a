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
 * transfer of a node takes bufferMoveLock inside it (both nested).
 */
#ifndef VX_DATA_BUFFERS_H
#define VX_DATA_BUFFERS_H

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

extern "C" {

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
