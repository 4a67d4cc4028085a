/*
 * Resources: with enableIPResourceURL on, the URL of each HTTP callout is
 * named as a resource and given an id, announced once with record 26
 * "26,<id>,<name>" and carried by the callout's token. The keyword
 * formatIPResourceURL "mode%20offset%20length" shapes the name: a non-zero
 * mode cuts the query off, and an offset and length take a part of the URL.
 *
 * Threads: ids are given on the host's callout path under the resource lock,
 * which also covers the settings the control thread writes. Ids (the
 * instance's resourceMetaID, from 1) keep rising for the instance's life.
 */
#ifndef VX_RESOURCE_IDS_H
#define VX_RESOURCE_IDS_H

#include <apr_hash.h>
#include <apr_thread_mutex.h>

#include <functional>

inline constexpr int kResourceNameSize = 1024;
inline constexpr int kResourceMax = 10000; /* distinct resources kept */
inline constexpr int kDefaultMaxURLChar = 50;

/* How a URL becomes a resource name. Under the resource lock. */
struct VXEnableResource_t {
    int formatIPResourceURLCaptureMode;
    int urlOffsetValue;
    int maxUrlLength;
    int maxURLChar;
};

struct VXResources_t {
    VXEnableResource_t getenableResource;
    apr_hash_t* resourceHashMap;        /* name -> id; under the lock */
    apr_pool_t* pool;                   /* the entries; under the lock */
    apr_thread_mutex_t* vxenableResourceLock;
    int count;
};

extern "C" {
/* Make the map and its lock. Agent start. */
void initResourceIds(void);
/* The id of the URL in an HTTP callout's description `buffer` (the URL
 * position, or the whole text without "|"); a new one is announced with
 * record 26. 0 when none can be given. */
long long getIDForIPResourceURL(char* buffer);
/* The resource name of `url` by the settings, into `out` of `len` bytes.
 * Under the resource lock. */
char* getFormattedUrlIpResource(const char* url, char* out, int len);
/* Keyword formatIPResourceURL: "mode%20offset%20length". */
void parseFormatIPResourceURL(char* val, char* keyword, int index);
void dumpResourceMetaRecord(long long id, char* resourceName);
void getenableResourceLock(void);
void releaseenableResourceLock(void);
}

namespace vx {
/* Calls `fn` with each resource's id and name under the resource lock
 * (callouts naming a new resource wait meanwhile; `fn` must not call into
 * this unit); stops when `fn` returns false. */
void resource_for_each(const std::function<bool(long long id, const char* name)>& fn);
}  // namespace vx

#endif
