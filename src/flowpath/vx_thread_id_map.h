/*
 * Records by host thread id, for thread callouts: a child thread's work is
 * kept in a heap record of its own, found by the thread's id. Keys are the
 * id's decimal text cut to 7 digits, so two long ids may share an entry.
 */
#ifndef VX_THREAD_ID_MAP_H
#define VX_THREAD_ID_MAP_H

struct VXPerThreadData_t;

extern "C" {
void initVXManageTIdToTLocal(void);
/* A new zeroed record for `threadId`; null on failure. */
void* setThreadIdToThreadLocal(long long threadId);
void* getThreadIdToThreadLocal(long long threadId);
void cleanThreadIdToThreadLocal(long long threadId);
}

#endif
