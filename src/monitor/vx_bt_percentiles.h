/*
 * Percentiles of business transactions: the digests the BT monitor's fold
 * feeds, one per BT id in its report array (reportArr), and their records
 * 96 (t-digest) and 121 (c-digest) with the overall "AllTransactions".
 *
 * A digest belongs to the BT it was fed for (reportArr[id].tlBTObj): when
 * the id is bound to another BT (a rule file may give a discovered BT's id
 * to a new one), the digest is freed before it takes the new BT's values,
 * and a digest whose id was bound anew before its dump is freed unsent.
 * Digests are released at each session's start.
 *
 * Locks: the BT monitor's reportLock, then VXPercentiles_t.lock; the dumps
 * hand records to the auto-sensor channel under both.
 */
#ifndef VX_BT_PERCENTILES_H
#define VX_BT_PERCENTILES_H

#include "monitor/vx_percentiles.h"

struct BTObject;
struct VXBTMonitorDataCounters;

extern "C" {
/* Record 96 for each BT whose t-digest has data, then "AllTransactions"
 * when there was one; the digests are destroyed. The number of BT records.
 * Caller holds reportLock and the percentiles' lock. */
int generateAndDumpTDigestDataForBT(char* buff, int* len, int bufLen);

/* Record 121 for each BT with a c-digest (a head alone when nothing came in
 * since the last dump), then "AllTransactions" with series id 0; the digests
 * are reset and stay. Same contract. */
int generateAndDumpCDigestDataForBT(char* buff, int* len, int bufLen);

/* What the digests hold now, sent at once (both kinds; a kind no longer
 * chosen is then released), and the next periodic dump a period away.
 * Control thread; takes the locks. */
void generateAndDumpPartialDigestBTRecords(void);
}

namespace vx {

/* Feeds the fold's values into the BTs' digests (reportArr grown to hold
 * every id already). Caller holds reportLock; takes the percentiles' lock. */
void bt_digests_feed(const DigestFeed* feeds, int n);

/* Frees every BT digest. Session start; takes the locks. */
void bt_digests_release_all();

/* The keyword tDigestPercentileBT: settings, then during a session the
 * partial dump. Control thread. */
void bt_percentiles_keyword(const char* keyword, char* value);

/* The first periodic dump a period after `now`, unless one is pending
 * already. Auto-sensor connection. */
void bt_percentiles_schedule(long long now);

/* The periodic dump when due, with the work buffer (handed on before
 * returning). The reporting thread. */
void bt_percentiles_dump_due(char* buf, int bufLen, long long now);

}  // namespace vx

#endif
