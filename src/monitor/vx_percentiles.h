/*
 * Percentiles of response times, computed by the collector from digests the
 * agent keeps per series (business transactions, backends) and sends whole:
 * a t-digest in record 96, or a c-digest in record 121, chosen per family by
 * the keywords tDigestPercentileBT and tDigestPercentileIP.
 *
 * What a digest is fed: at each interval's fold, one value per host thread
 * and series, that thread's summed duration of the series in the interval;
 * not each transaction.
 *
 * The two kinds keep their own life cycles: a t-digest is made at the first
 * value after a dump and destroyed by the dump; a c-digest stays for the
 * session and is reset by each dump of a business transaction (a backend's
 * is never reset: it is cumulative).
 *
 * Locks: both families' settings and digests, and the scratch buffer, are
 * guarded by VXPercentiles_t.lock, which the keyword handlers (control
 * thread) and the reporting thread take. A monitor folds into its digests
 * under its own report lock first: order reportLock, then this lock, then
 * the auto-sensor channel's and the counter slots' locks. The c-digest
 * tables are built once and read-only.
 */
#ifndef VX_PERCENTILES_H
#define VX_PERCENTILES_H

#include <apr_thread_mutex.h>

#include "monitor/vx_cdigest.h"
#include "monitor/vx_tdigest.h"

/* One family's settings; the same layout for business transactions and
 * backends. */
struct VXTDigestPercentileBT_t {
    char is_enabled;       /* 0 off, 1 t-digest, 2 c-digest */
    long aggregate_time;   /* period, ms */
    long long nextLogTime; /* next dump, ms on the agent's clock */
    char serialization;    /* t-digest form: 1 verbose, 2 small */
    double delta;
    unsigned k;
    long group_id;
    int graph_id;
};
using VXTDigestPercentileIP_t = VXTDigestPercentileBT_t;

struct VXPercentiles_t {
    apr_thread_mutex_t* lock;
    VXTDigestPercentileBT_t TDigestPercentileBT;
    VXTDigestPercentileIP_t TDigestPercentileIP;
    char enableCdigest;                  /* the c-digest tables are built */
    tslb_cdigest_t* overallCDigestBT;    /* "AllTransactions", kept and reset */
    char* scratch;                       /* a t-digest's serialised bytes (malloc) */
    int scratchLen;
};

namespace vx {

/* The digest handles of one series, as its monitor's aggregate keeps them. */
struct DigestSlot {
    td_histogram_t*& tdigest_key;
    char& tdigestDataExist;
    tslb_cdigest_t*& cdigest_key;
    char& cdigestDataExist;
};

/* One value of a fold: a thread's summed duration (ms) of one series (a BT
 * or backend id) in the interval. */
struct DigestFeed {
    int id;
    long long duration;
};

/* A fold's values, noted while a model's lock is held and fed to the
 * digests once every model lock is released: a digest's first value may map
 * a large block, which a host thread waiting on its model's lock should not
 * pay for. Grown, never shrunk; a monitor's own, under its report lock. */
struct DigestFeeds {
    DigestFeed* at = nullptr;
    int n = 0;
    int cap = 0;

    /* Notes a value; without memory it is logged and dropped. */
    void add(int id, long long duration);
};

/* Feeds one thread's summed duration (ms) of a series: a t-digest takes it
 * when at least 1, a c-digest when above 0; negative values count as 0. The
 * digest is made when absent; a digest that cannot be made is not fed. Caller
 * holds the lock. */
void digest_feed(const VXTDigestPercentileBT_t& cfg, DigestSlot slot, long long duration);

/* Frees both digests of a series and clears its flags. Caller holds the
 * lock. */
void digest_release(DigestSlot slot);

/* Appends record 96 of the t-digest `h` (merged and serialised in the
 * family's form) to buff (*len used of bufLen), handing the buffer to the
 * auto-sensor channel first when the record would not fit; a record larger
 * than bufLen goes to the channel on its own. Also logs the percentiles at
 * trace levels above 1 (`family` "BT" or "IP"). 1 when written. Caller holds
 * the lock (the scratch buffer is shared). */
int write_record_96(char* buff, int* len, int bufLen, const VXTDigestPercentileBT_t& cfg,
                    const char* vectorPrefixID, const char* vectorPrefix, const char* name,
                    td_histogram_t* h, const char* family, int traceLevel);

/* The same for record 121 of a c-digest with its series id (0: overall). */
int write_record_121(char* buff, int* len, int bufLen, const VXTDigestPercentileBT_t& cfg,
                     const char* vectorPrefixID, int seriesId, const char* vectorPrefix,
                     const char* name, const tslb_cdigest_t* d, const char* family,
                     int traceLevel);

/* The keyword's value ("%20"-separated fields, each optional from the
 * right: kind, period in minutes or with an 'h' in hours, form, 1/delta, K,
 * group id, graph id) into cfg. A kind of 0 leaves everything as it is; a
 * field out of its range is logged and keeps its value. Builds the c-digest
 * tables when kind 2 is chosen. True when the fields were taken (the caller
 * then dumps what was gathered, during a session). Caller holds the
 * lock. */
bool percentile_settings_parse(VXTDigestPercentileBT_t& cfg, const char* keyword, char* value);

/* The first periodic dump a period after `now`, unless one is pending
 * already: a reconnect of the stream does not put a pending dump off, and
 * one already due stays due. A time further away than a period belongs to
 * another clock base and is replaced. Caller holds the lock. */
void percentile_schedule(VXTDigestPercentileBT_t& cfg, long long now);

/* True when the family is on and its dump is due at `now`; the due time
 * then moves ahead by whole periods past now. Caller holds the family's
 * lock. */
bool percentile_due(VXTDigestPercentileBT_t& cfg, long long now);

/* One family's series (BTs, backends) as the dumps below see them: its
 * settings, the lock of its report array, the two record writers (called
 * under both locks, contract of write_record_96/121) and what frees every
 * c-digest of the family. */
struct DigestFamily {
    VXTDigestPercentileBT_t& cfg;
    apr_thread_mutex_t* reportLock;
    int (*write_tdigests)(char* buff, int* len, int bufLen);
    int (*write_cdigests)(char* buff, int* len, int bufLen);
    void (*drop_cdigests)();
};

/* What the family's digests hold now, sent at once (both kinds; a kind no
 * longer chosen is then released), and the next periodic dump a period
 * away. Control thread; takes the locks. */
void percentiles_dump_now(const DigestFamily& f);

/* The family's keyword: settings, then during a session the dump of what
 * was gathered. Control thread. */
void percentiles_keyword(const DigestFamily& f, const char* keyword, char* value);

/* The first periodic dump a period after `now`; takes the lock. */
void percentiles_schedule(VXTDigestPercentileBT_t& cfg, long long now);

/* The periodic dump when due, with the work buffer (handed on before
 * returning). The reporting thread. */
void percentiles_dump_due(const DigestFamily& f, char* buf, int bufLen, long long now);

}  // namespace vx

extern "C" {
/* Defaults of both families (off, 5 minutes, small form, 0.01, 100, groups
 * 793 and 794, graph 1) and the lock. Agent start. */
void VXDigestPercentileInit(void);

/* Builds the c-digest tables once and marks them built. */
void cDigest_Init(void);
}

#endif
