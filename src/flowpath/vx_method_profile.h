/*
 * The profiles that fill the method table: the instrumentation profile
 * (module|class|method|isProfiled|isEntryPoint|kind) and the entry-point file
 * (module|method|type[:param]|isEntryPoint). Each applies to the current
 * generation, or makes a new one when hosts may be running on it.
 *
 * Thread: the control thread (session start and modify), under the method
 * lock, which each function takes itself. Buffers are the caller's and are
 * only read. Bad lines are skipped and logged.
 */
#ifndef VX_METHOD_PROFILE_H
#define VX_METHOD_PROFILE_H

#include <apr_pools.h>

extern "C" {

/* Apply an instrumentation profile (null: none was sent): a new generation
 * when a table exists. */
void setMethodHashMapNode(char* buffer);
/* The lines of an instrumentation profile into the current generation. */
void readInstrProfFileRTC(char* buffer);
/* The same profile read at start-up (the older format); 0, or -1 without an
 * instance, a buffer or memory. */
int readInstrProfFile(apr_pool_t* pool, char* buffer);

/* Apply an entry-point file (null: none was sent). */
void parseEntryFile(char* buffer);
/* Method monitor file (module|alias|method|rest): marks the listed methods
 * with flag 4, adding those not yet known, and binds them to the method
 * monitor. Takes the method lock. */
void parseMethodMonitor(char* buffer);

/* Keep a copy of a received file for a Go host in <home>/.cache/
 * <fileName>_<process>_<pid>; only when the agent type is "go". */
void dumpFileforGoAgent(char* fileName, char* fileData);
/* The process's name (from /proc/<pid>/comm), kept once read; null when it
 * cannot be read. */
char* get_proces_name(void);
}

#endif
