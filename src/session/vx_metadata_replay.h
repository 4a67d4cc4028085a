/*
 * Metadata replay: the records that say what an id means (5, 6, 7, 22, 26,
 * 32 to 36) rebuilt from the live tables that give the ids out, either for a
 * collector that asks ("vx_meta_data_req:action=send_meta_data;...") or for
 * a new test run at its data connection.
 *
 * A request names record words in field 4 of its ";"-separated fields, as
 * "key=w1,w2" or as a bare "w1,w2": "ALL", "Summary", or a type (5, 6, 7,
 * 21 for the queries of record 22, 32 to 35, 41) followed by "_<index>"
 * (that id), "_+<index>" (that id and above) and ":<time>" (ms). Field 5 is
 * the destination (0 control connection, 1 data connection, 2 both), field
 * 6 a trace level. A refused word leaves its reason in errorMessage, sent on
 * the control connection once every word is done.
 *
 * Threads: processClientMessage runs on the control thread with the
 * instance's VXClientManager; dumpALLMetaDataOnTestStart runs on the data
 * thread with a manager of its own (dataClientManager), so a request that
 * arrives while a data connection opens never changes where the other's
 * records go. Each table is walked under its own lock (method lock,
 * httpEntryLock, bt_obj_map_lock, the query dictionary's, the resource lock,
 * each exception dictionary's), one at a time, never two together. Records
 * for the data connection go through dumpData, which never blocks; those
 * for the control connection are gathered while the lock is held and sent
 * after it is released, so a slow collector never holds a table's lock. A
 * control-connection send that fails ends the control output of that
 * request.
 */
#ifndef VX_METADATA_REPLAY_H
#define VX_METADATA_REPLAY_H

inline constexpr int kClientMsgFieldsMax = 12;
inline constexpr int kClientRecordWordsMax = 7;
inline constexpr int kClientErrorMessageSize = 1024;

/* One replay's state; reset by initVXClientManager. */
struct VXClientManager_t {
    long long targetTimeStamp; /* the word's ":" time, 0 if none */
    char* allFieldsOfClientMessage[kClientMsgFieldsMax];
    int allFieldsOfClientMessageLength;
    char* allRecords[kClientRecordWordsMax];
    int allRecordsLength;
    char* typeOfRecord; /* the word in hand */
    int destination;    /* 0 control, 1 data, 2 both */
    int traceLevel;
    char errorMessage[kClientErrorMessageSize];
    /* Owned by the data thread: no control-connection output, refusals go
     * to the trace log. */
    int onDataThread;
    /* A control send failed: nothing more goes there in this replay. */
    int controlBroken;
    /* Records refused by dumpOnDataConnection in this replay. */
    int refusedCount;
};

/* The instance's replay state. */
struct VXMetadataReplay_t {
    VXClientManager_t VXClientManager;   /* control thread's requests */
    VXClientManager_t dataClientManager; /* data thread's replay at connect */
    /* A request's ":" time below this one is refused. Atomic access. */
    long long lastSentMetadataTimeStamp;
};

extern "C" {
/* A send_meta_data line (may be cut in place). Control thread, during a
 * session; dispatch answers "complete" afterwards. */
void processClientMessage(char* clientMsg);
/* Every metadata record on the data connection, record 11 "All" first.
 * Data thread, at a new data connection. */
void dumpALLMetaDataOnTestStart(void);

void initVXClientManager(VXClientManager_t* mgr);
/* Fields, words, destination and trace level from `clientMsg` into `mgr`;
 * then every word is handled. */
void parseCurrentRequestMessage(VXClientManager_t* mgr, char* clientMsg);
void handleCurrRecord(VXClientManager_t* mgr, char* word);
void checkAndSendCachedRecord(VXClientManager_t* mgr, int type, char* word);
/* Records of `type` with id `index` (isMultiple 0) or id >= `index`
 * (isMultiple 1). Type 21 is the query dictionary (record 22); 41 has none. */
void findRecordTypeAndSendCachedData(VXClientManager_t* mgr, int type, long long index,
                                     char isMultiple);
/* Record 11 "All", then 5, 6, 7, 22, 26, 32 to 36. */
void handleAllMetaDataSending(VXClientManager_t* mgr);
/* The tables' sizes on the control connection. */
void sendSummaryReport(VXClientManager_t* mgr);
/* Record 11 "11,<now>,<text>" to the data connection (destination > 0). */
void dump11Record(VXClientManager_t* mgr, const char* text);
/* One record to the data connection while a data thread runs; otherwise
 * the refusal line on the control connection (data thread: trace log).
 * 0 when offered to dumpData, -1 when refused. */
int dumpOnDataConnection(VXClientManager_t* mgr, char* record, int len);
}

#endif
