/*
 * Every fixed size of the agent, in one place.
 *
 * Buffers whose size is part of the system's behaviour (a record is cut at
 * its buffer, a text field is truncated to its width) are named here and used
 * by name everywhere else.
 */
#ifndef VX_LIMITS_H
#define VX_LIMITS_H

#include <cstddef>

namespace vx {

/* Per-transaction record (VXPerThreadData_t). */
inline constexpr int kTLSBlockSize = 64;            /* records allocated per pool block */
inline constexpr int kSeqBlobSize = 16384;          /* sequenceBlob */
inline constexpr int kMethodCounterSize = 8192;     /* methodEntryExitCounter, ids >= this have none */
inline constexpr int kURLSize = 512;                /* tlURL, tlURLParameters */
inline constexpr int kCorrelationSize = 1024;       /* tlCorrelationIdHeader */
inline constexpr int kFPInstanceStrSize = 32;       /* flowpathInstanceStr */
inline constexpr int kDebugModeBufSize = 128;       /* debugModeBuf */
inline constexpr int kSpanIdSize = 32;              /* trans_span_id, callout_span_id */
inline constexpr int kOTLIdSize = 256;             /* OTL_traceID, OTL_parentID: longer ids are refused */
inline constexpr int kOTLTextSize = 2048;          /* OTL_tracestate; outgoing trace-context texts */
inline constexpr int kOTLBase64Size = 1024;        /* base64Encoder's result */
inline constexpr int kOTLHalfSize = 1024;          /* one half of a trace id in ValidateTraceId */
inline constexpr int kOTLBlockLook = 4096;         /* OTL_headers reads this much of a block, NUL included */
inline constexpr int kOTLBlockEntries = 1024;      /* and at most this many entries */
inline constexpr int kHttpMethodSize = 20;          /* HTTP method split off the URL */
inline constexpr int kHeaderBufferSize = 4096;      /* escaped BT header text at startFP */
inline constexpr int kIncomingFPISize = 1024;       /* copy of the caller's correlation text */
inline constexpr int kCalloutHeaderSize = 4096;     /* outgoing correlation header */
inline constexpr int kBackendCacheSize = 4;         /* backends remembered per record */
inline constexpr int kBackendCacheDescSize = 240;   /* longest description remembered */
inline constexpr size_t kTierSeqMax = 512;          /* caller's sequence text in a header */
inline constexpr int kATDMax = 1024;                /* distinct callers kept (8 KiB each) */
inline constexpr int kRecord91Size = 8192;          /* topology record: seven names */
inline constexpr int kCookieSize = 1024;            /* session and user-experience cookies */
inline constexpr int kCookieNameSize = 256;         /* session cookie name and domain */
inline constexpr int kThreadIdKeyDigits = 7;        /* thread-id map key */

/* Records. */
inline constexpr int kFlowpathRecordSize = 16384;   /* records 2, 3, 4: cut at 16,383 bytes */
inline constexpr int kMetaRecordSize = 1024;        /* metadata records: cut at 1,023 bytes */
inline constexpr int kTagRecordSize = 5120;         /* records 110 and 111 */

/* Method table and its profiles. */
inline constexpr int kMethodKeySize = 2048;         /* a method's key; record 5 with its signature */
inline constexpr int kProfileLineSize = 1024;       /* profile lines are cut to 1,023 bytes */
inline constexpr int kProfileArgsMax = 1024;        /* arguments read of one signature */

/* Collector link. */
inline constexpr int kFileKeywordSlots = 127;       /* kywdInfo: files by keyword index */
inline constexpr int kFileNameSize = 2048;          /* keywordInfo.fileName, instrProfile.filepath */
inline constexpr int kControlBufferSize = 131072;   /* ctrlBufInfo: the longest control line */
inline constexpr int kDataUtilSize = 131088;        /* WebSocket staging, 16 bytes of prefix included */
inline constexpr int kDataLoopTickMs = 100;         /* data thread: one tick of its loop */
inline constexpr int kDataRetrySeconds = 60;        /* data connection: wait before a retry */
inline constexpr int kDataHeartBeatTicks = 600;     /* vxcBciDataConnectionHeartBeat at session start */
inline constexpr int kControlPollSeconds = 5;       /* serving loop poll; the proxy's is 10 */
inline constexpr int kProxyControlPollSeconds = 10;
inline constexpr int kReplyCopySize = 512;          /* parse_policy_from_clientMsg copies this much */
inline constexpr int kRerouteFields = 10;           /* fields read of a reroute line */
inline constexpr int kRerouteNameSize = 256;        /* tier, server, instance of a reroute */
inline constexpr int kHostedReplyFields = 1024;     /* fields read of the hosted entry's reply */
inline constexpr int kMetaDrainSeconds = 5;         /* free_agent_data: in-flight method events drain */

/* Loaded-class discovery. */
inline constexpr int kDiscoveryIdSize = 256;        /* connId: the request's Id, 255 characters */
inline constexpr int kDiscoveryPatterns = 1024;     /* patterns of each list; fields of a request */
inline constexpr int kDiscoveryLineSize = 1024;     /* the worker's copy of the request, 1,023 bytes */
inline constexpr int kDiscoverySendSize = 2048;     /* opening and summary lines, 2,047 bytes */
inline constexpr int kDiscoverySendTimeoutMs = 1000; /* a host thread waits at most this per send */

/* Auto-sensor channel and its thread. */
inline constexpr int kASTickMs = 10000;             /* one pass of the thread's report loop */
inline constexpr int kASTickMinMs = 50;             /* VX_AS_TICK_MS is held to 50..10,000 */
inline constexpr int kASRetryMs = 60000;            /* wait before a new auto-sensor connection */
inline constexpr int kASSleepStepMs = 100;          /* the thread sees stop flags this often */
inline constexpr int kASStartWaitMs = 2000;         /* a start waits this long for a stopping thread */
inline constexpr int kASSendTimeoutSeconds = 5;     /* the thread's blocking sends give up after this */
inline constexpr int kASFlushPasses = 100;          /* flushData: sender passes at most */
inline constexpr int kASWorkBufferSize = 65536;     /* the monitors' rows of one pass */
inline constexpr int kASReportBufferSize = 4096;    /* record 53, the garbage-collection report */
inline constexpr int kHotSpotRecordSize = 131072;   /* record 52, cut at 131,071 bytes */
inline constexpr int kASVectorPrefixSize = 128;     /* vectorPrefix_ID, vectorPrefixHtsp */

/* Numbers the collector sends that size memory, a count or a time. Each is
 * checked where it is parsed; a value outside its range is refused with a
 * log line and the previous value kept. */

/* Fetched files: 64 MiB holds a profile of a million methods; all profiles
 * of a session joined stay within 256 MiB, and 256 files of them. */
inline constexpr long long kFileSizeMax = 67108864;
inline constexpr long long kInstrProfileBytesMax = 268435456;
inline constexpr int kInstrProfileCountMax = 256; /* numInstrProfile */

/* Data and auto-sensor buffers (bciDataBufferMaxSize, ASDataBufferSize and
 * their counts): a buffer holds a whole flowpath record, and a ring stays
 * within 1 GiB. */
inline constexpr int kDataBufferSizeMin = kFlowpathRecordSize;
inline constexpr int kDataBufferSizeMax = 1048576;
inline constexpr int kDataBufferCountMax = 1024;

/* BCITraceMaxSize: the trace log rolls over between 1 MiB and 1 GiB. */
inline constexpr long long kTraceRollSizeMin = 1048576;
inline constexpr long long kTraceRollSizeMax = 1073741824;

/* Sizes and counts of tables the agent or its host fills per entry. */
inline constexpr int kHttpBodySizeMax = 1048576;     /* maxHttpBodySize, bytes */
inline constexpr int kAutoInstrMapSizeMax = 1048576; /* autoInstrMapSize, entries */
inline constexpr int kBTCountMax = 65536;            /* maxBTCount, BTAggDataArraySize */
inline constexpr int kBackendCountMax = 65536;       /* maxIPCount */
inline constexpr int kThreadCountMax = 65536;        /* vxHotspotThreadLimit */
inline constexpr int kStackDepthMax = 1024;          /* call depths, stack comparisons */

/* Times. setthresholdTime is minutes the stop waits in 32 bits of
 * microseconds: 71 is the most that holds. Intervals stay within a day;
 * TimeStampDiff, of either sign, within 31 years; a heartbeat threshold
 * under a second would end every connection at once. */
inline constexpr int kStopWaitMinutesMax = 71;
inline constexpr long long kDayMs = 86400000;
inline constexpr long long kTimeStampDiffMaxMs = 1000000000000LL;
inline constexpr long long kHeartBeatThresholdMinMs = 1000;

/* maxCharInSeqBlob: the blob is flushed once it holds this much, so it may
 * hold one method event more (a URL of kURLSize and its numbers at most),
 * and record 3 puts its type and flowpath instance in front. The headroom
 * takes both, so the record fits kFlowpathRecordSize. */
inline constexpr int kSeqBlobFlushHeadroom = 1024;
inline constexpr int kMaxCharInSeqBlobMax = kFlowpathRecordSize - kSeqBlobFlushHeadroom;
static_assert(kMaxCharInSeqBlobMax <= kSeqBlobSize, "the flush comes before the blob is full");
static_assert(kSeqBlobFlushHeadroom > kURLSize + 256, "an event with a URL fits the headroom");

/* retryPolicy "count%interval%misses%heartbeat": num_retry is a signed
 * char; waits of at most an hour. */
inline constexpr int kRetryCountMax = 127;
inline constexpr long long kRetryIntervalMaxSeconds = 3600;
inline constexpr int kHeartBeatMissMax = 1000;
inline constexpr int kHeartBeatIntervalMaxSeconds = 3600;

/* Instance and process. */
inline constexpr int kProxyInstanceCount = 512;     /* instances in the proxy process */
inline constexpr int kNameSize = 256;               /* gPool, gProcessName */
inline constexpr int kPathSize = 1024;              /* conf_file, trace log paths */
inline constexpr int kAgentLogBufferSize = 131072;  /* agentLogBuffer */
inline constexpr int kBuildTextMax = 1023;          /* text read from the "version" file */
inline constexpr int kStatusCodeCount = 600;        /* btErrorArray: status codes 0..599 */
inline constexpr int kMachineTypeSize = 128;
inline constexpr int kServerIpSize = 1024;
inline constexpr int kCorrelationHeaderNameSize = 256;
inline constexpr int kDefaultStackSizeKiB = 512;
inline constexpr int kShutdownWaitSeconds = 6;      /* agent_shutdown waits at most this long */

/* Trace log. */
inline constexpr int kTraceLineSize = 10240;        /* one line, prefix included */
inline constexpr long long kTraceMaxSize = 104857600; /* roll-over at 100 MiB */
inline constexpr int kDefaultPastLogDays = 7;

/* SDK. */
inline constexpr int kSdkLogNameSize = 1025;              /* each of the SDK log's two file names */
inline constexpr long long kSdkLogMaxFileSize = 10485760; /* recorded, not enforced */
inline constexpr int kSdkLogLineSize = 10240;             /* one SDK log line, prefix included */
inline constexpr int kSdkStartWaitSeconds = 30;           /* vx_init2's wait for a session */
inline constexpr int kSdkHeaderBufferSize = 2048;         /* topology tag and propagation headers */
inline constexpr int kTopoTextSize = 1024;                /* the topology tag, terminator included */

/* Settings files and the collector list. */
inline constexpr int kConfLineSize = 2048;      /* vxsettings.conf: 2,047 characters a line */
inline constexpr int kProxyConfLineSize = 1024; /* proxysetting.conf: 1,023 characters a line */
inline constexpr int kCollectorListStep = 5;    /* vxc_server_arr: created with 5, grown by 5 */
inline constexpr int kProtocolSlots = 5;     /* supportedProtocolArray, supportedProtocolVXCArray */
inline constexpr int kProtocolsUsed = 3;     /* slots setSupportedProtocolArray fills */
inline constexpr int kProtocolListSize = 50; /* supportedProtocolsString */
inline constexpr int kProtocolItemsMax = 10; /* items of a protocol list */
inline constexpr int kDefaultVXCPort = 443;
inline constexpr int kDefaultTCPPort = 7892; /* vxcPort when TCP is the default protocol */
inline constexpr int kStackSizeMinKiB = 256;
inline constexpr int kStackSizeMaxKiB = 1024;
inline constexpr int kAutoScalingModeDefault = 2;
inline constexpr int kAutoScalingModeMax = 3;
inline constexpr int kProcessTableInitial = 50; /* processInfoStruct */
inline constexpr int kProcessTableStep = 10;

/* Business transactions. */
inline constexpr int kBTNameSize = 257;             /* BTObject.bt_name: 256 characters */
inline constexpr int kBTDefaultMaxCount = 256;      /* max_bt_count at set-up */
inline constexpr int kBTRuleLineSize = 1024;        /* rule and threshold lines: 1,023 characters */
inline constexpr int kBTRuleTextSize = 256;         /* text fields of a pattern rule */
inline constexpr int kBTGlobalParamSize = 257;      /* VXBTGlobalRule.parameter, header */
inline constexpr int kBTGlobalParamKeySize = 261;   /* parameter_at_start, parameter_at_end */
inline constexpr int kBTGlobalFieldsMax = 10;       /* fields read of a global rule line */
inline constexpr int kBTPatternFieldsMax = 64;      /* fields read of a pattern rule line */
inline constexpr int kBTUriSegMax = 32;             /* uri_seg_no_list, URL parts split */
inline constexpr int kBTParamValueSize = 256;       /* get_param_value: 255 characters */
inline constexpr int kBTHeaderTokensMax = 2048;     /* header tokens tried by getBTHeader */
inline constexpr int kBTCustomParamObjects = 256;   /* VXBTCustomRule.matchingURIParamObj */
inline constexpr int kBTCustomItemsMax = 10;        /* criteria items of a custom rule */
inline constexpr int kBTCustomPairsMax = 64;        /* key=value pairs of one item */
inline constexpr int kBTTagKeySize = 255;           /* tag key and inline value: 254 characters */
inline constexpr int kBTTagItemsMax = 256;          /* items of one tag list */
inline constexpr int kBTAggArrayInitial = 128;      /* aggBTDataArr, btTagArray at set-up */
inline constexpr int kBTRetireGraceSeconds = 60;    /* a retired rule set outlives its readers */
inline constexpr int kBTSlotMax = 1048576;          /* BT monitor counter slots: BTs and tag sets */

/* Tags. A resolved value is at most 254 characters in its own buffer. */
inline constexpr int kTagValueSize = 255;           /* resolvedValue of a tag, 254 characters */
inline constexpr int kTagQueryBufferSize = 2048;    /* decoded query string looked at for tags */
inline constexpr int kTagQueryItemsMax = 50;        /* query items looked at for tags */
inline constexpr int kTagSeqPairsMax = 128;         /* pairs of one flowpath's tag sequence */
inline constexpr int kTagJsonPairsMax = 127;        /* pairs of the agent's tags or attributes */
inline constexpr int kTagConfItemsMax = 1024;       /* items of a "tags" text, fields of an item */
inline constexpr int kTagPropFileMax = 1048575;     /* bytes read of a property file */
inline constexpr int kTagScriptLineSize = 1024;     /* last output line of a tag script kept */
inline constexpr long kTagScriptOutputMax = 1 << 20; /* bytes read of a script's output */
inline constexpr int kTagScriptTimeoutMs = 5000;    /* a tag script is killed after this */
inline constexpr int kCloudConnectTimeoutMs = 500;  /* metadata service: connect */
inline constexpr int kCloudReadTimeoutMs = 1000;    /* metadata service: whole answer */
inline constexpr int kCloudAnswerMax = 16384;       /* bytes read of a metadata answer */

/* Monitors. An interval record (74, 75, 61, 63) is cut at this many bytes;
 * the reporting buffer is handed on once it holds more than its size less
 * one record and its terminator, so the next record always fits. */
inline constexpr int kMonitorRecordMax = 4096;
inline constexpr int kIPAggArrayInitial = 128;   /* aggIPDataArr at set-up */
inline constexpr int kBackendIdMax = 1048576;    /* backend ids the backend monitor counts */
inline constexpr int kIPRetireGraceSeconds = 60; /* a retired aggIPDataArr outlives its readers */
inline constexpr int kFilterRetireGraceSeconds = 60; /* a replaced exception filter list outlives its readers */

/* Percentile digests. A t-digest's node block follows its compression
 * (K / delta, cap = compression * 6 + 10 nodes of 16 bytes), so the
 * keyword's K and 1/delta are held such that one digest spans at most about
 * 9.6 MB of address space (only the nodes in use are ever touched). A
 * record's head (ids, vector, name, time, length) fits kDigestHeadMax. */
inline constexpr int kDigestKMax = 1000;
inline constexpr double kDigestInvDeltaMax = 10000;
inline constexpr double kDigestCompressionMax = 100000;
inline constexpr int kDigestPeriodMaxMinutes = 1440; /* aggregate_time: a day at most */
inline constexpr int kDigestHeadMax = 2048;
inline constexpr int kDigestScratchInitial = 4096;   /* a t-digest's serialised bytes, grown */

/* URL pattern state machine: a row per state, a column per character 32 to
 * 127 and per mark; rows are added delta by delta (delta_state). A header
 * rule's key is its decimal id and its token, cut at 1,023 characters. */
inline constexpr int kStateMachineColumns = 131;
inline constexpr int kStateMachineDefaultRows = 128; /* max_state when set up with size <= 0 */
inline constexpr int kStateMachineDelta = 128;
inline constexpr int kStateMachineHeaderKeyMax = 1023;

/* Containers. */
inline constexpr int kStackGrowStep = 64;           /* HB_STACK grows by this many slots */
inline constexpr int kIntHashMapCount = 10;         /* hashArray */

}  // namespace vx

#endif
