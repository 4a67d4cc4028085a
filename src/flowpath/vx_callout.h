/*
 * The calling tier, seen from the called one.
 *
 * A call from another tier carries the caller's correlation header (see
 * vx_callout_header.h): nine "_"-separated fields, the first flowpath of the
 * chain, the caller's flowpath, its sequence text, the backend name it gave
 * the call ("NA" for none), the time of the call, "NA", and the caller's
 * tier, server and instance names with "_" written as "&#95;". The header ties
 * this tier's flowpath into the chain; each distinct caller and backend is
 * announced once with a topology record 91.
 *
 * Threads: host threads at startFP; the caller map is made at agent start,
 * lives as long as the instance and is guarded by its map lock. At most
 * kATDMax callers are kept, so hostile headers cannot grow it without end.
 */
#ifndef VX_CALLOUT_H
#define VX_CALLOUT_H

#include <apr_hash.h>

#include "core/vx_limits.h"

struct VXPerThreadData_t;

inline constexpr int kATDKeySize = 4096;
inline constexpr int kATDNameSize = 1024;

/* One distinct caller and backend. */
struct ATD_Struct {
    char uniqueKey[kATDKeySize];  /* backend, tier, server, instance fields joined */
    char tier[kATDNameSize];
    char server[kATDNameSize];
    char instance[kATDNameSize];
    char backendname[kATDNameSize];
};

/* Callers seen by this instance; entries live as long as the instance. */
struct VXTierCallers_t {
    apr_hash_t* mapATD; /* uniqueKey -> ATD_Struct, made at agent start */
    int count;          /* entries, bounded by kATDMax */
};

extern "C" {
/* Make the caller map. Agent start, before any host call. */
void initTierCallers(void);
/* Take the chain from an incoming header `str`, which is cut in place: the
 * first and previous flowpath and the caller's sequence go into `vxTD`, and a
 * caller not seen before is announced with record 91. 0, or -1 on a header
 * of fewer than four fields or when the caller map cannot be made. */
int setTierCallOut(VXPerThreadData_t* vxTD, char* str);
/* "91,<caller backend>,<caller tier>,<own tier>,<caller server>,<caller
 * instance>,<own server>,<own instance>,NA". */
void dumpRecord91(ATD_Struct* temp);
}

#endif
