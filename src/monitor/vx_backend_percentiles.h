/*
 * Percentiles of backends: the digests the backend monitor's fold feeds, one
 * per backend id in its report array (reportArr), and their records 96
 * (t-digest) and 121 (c-digest). Backends have no overall record.
 *
 * A t-digest lives from the first value after a dump to the next dump; a
 * c-digest is cumulative for the session and never reset. A digest belongs
 * to the backend it was fed for (reportArr[id].mpp): should its id name
 * another backend, the digest is freed before it takes that one's values.
 * Digests are released at each session's start.
 *
 * Names: mon_methodName for an HTTP backend (type 1), else methodName; the
 * series id of record 121 is the backend id.
 *
 * Locks: the backend monitor's reportLock, then VXPercentiles_t.lock; the
 * dumps hand records to the auto-sensor channel under both.
 */
#ifndef VX_BACKEND_PERCENTILES_H
#define VX_BACKEND_PERCENTILES_H

#include "monitor/vx_percentiles.h"

extern "C" {
/* Record 96 for each backend whose t-digest has data; the digests are
 * destroyed. The number of records. Caller holds reportLock and the
 * percentiles' lock. */
int generateAndDumpTDigestDataForIP(char* buff, int* len, int bufLen);

/* Record 121 for each backend with a c-digest; the digests stay as they
 * are. Same contract. */
int generateAndDumpCDigestDataForIP(char* buff, int* len, int bufLen);

/* What the digests hold now, sent at once (both kinds; c-digests of a
 * family that no longer chooses them are then released), and the next
 * periodic dump a period away. Control thread; takes the locks. */
void generateAndDumpPartialDigestIPRecords(void);
}

namespace vx {

/* Feeds the fold's values into the backends' digests (reportArr grown to
 * hold every id already). Caller holds reportLock; takes the percentiles'
 * lock. */
void ip_digests_feed(const DigestFeed* feeds, int n);

/* Frees every backend digest and forgets whose it was. Session start;
 * takes the locks. */
void ip_digests_release_all();

/* The keyword tDigestPercentileIP: settings, then during a session the
 * partial dump. Control thread. */
void ip_percentiles_keyword(const char* keyword, char* value);

/* The first periodic dump a period after `now`, unless one is pending
 * already. Auto-sensor connection. */
void ip_percentiles_schedule(long long now);

/* The periodic dump when due, with the work buffer (handed on before
 * returning). The reporting thread. */
void ip_percentiles_dump_due(char* buf, int bufLen, long long now);

}  // namespace vx

#endif
