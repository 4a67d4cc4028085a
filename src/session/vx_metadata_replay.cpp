#include "session/vx_metadata_replay.h"

#include <apr_hash.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "agent/vx_instance.h"
#include "bt/vx_bt_object.h"
#include "core/vx_atomic.h"
#include "core/vx_limits.h"
#include "core/vx_record_door.h"
#include "core/vx_text.h"
#include "core/vx_thread.h"
#include "core/vx_trace_log.h"
#include "diag/vx_exception_capture.h"
#include "diag/vx_sql_processor.h"
#include "flowpath/vx_method_announce.h"
#include "flowpath/vx_method_table.h"
#include "flowpath/vx_resource_ids.h"
#include "http/vx_header_ids.h"
#include "link/vx_control_link.h"
#include "monitor/vx_bt_monitor.h"

namespace {

constexpr int kRequestWordsField = 4;
constexpr int kRequestDestinationField = 5;
constexpr int kRequestTraceLevelField = 6;
constexpr int kSummarySize = 2048;
constexpr int kQueryRecordType = 21; /* the word that asks for record 22 */
constexpr int kPagesRecordType = 41; /* no such records in this system */

/* The value of a field given as "key=value", or the field itself. */
char* value_of(char* field)
{
    char* eq = strchr(field, '=');
    return eq ? eq + 1 : field;
}

/* Control-connection output made while a table's lock is held waits here
 * and is sent once the lock is released: a collector slow to read must not
 * hold host threads that want the table. Per thread: a request on the
 * control thread and a connection's replay on the data thread run at once
 * (the data thread's replay writes nothing there). */
thread_local std::string g_controlPending;
thread_local bool g_deferControl = false;

/* A record line to the control connection, unless a send failed before in
 * this replay. */
void send_on_control(VXClientManager_t* mgr, const char* text, int len)
{
    if (mgr->onDataThread || mgr->controlBroken || len <= 0) return;
    if (g_deferControl) {
        try {
            g_controlPending.append(text, static_cast<size_t>(len));
        } catch (...) {
            VX_ERROR("META_DATA", "Metadata replay: out of memory; a record is not sent");
        }
        return;
    }
    if (controlConnectionSendBuffer(const_cast<char*>(text), len) < 0) {
        mgr->controlBroken = 1;
        VX_ERROR("META_DATA",
                 "Metadata replay: the control connection refused a record; the "
                 "rest of this request is not sent there");
    }
}

/* One replayed record to where the request asked. */
void emit(VXClientManager_t* mgr, char* record, size_t len)
{
    if (len == 0) return;
    if (mgr->destination > 0) dumpOnDataConnection(mgr, record, static_cast<int>(len));
    if (mgr->destination == 0 || mgr->destination == 2)
        send_on_control(mgr, record, static_cast<int>(len));
}

/* snprintf of one record into `buf`, cut with its line feed kept. */
size_t format_record(char* buf, size_t cap, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
size_t format_record(char* buf, size_t cap, const char* format, ...)
{
    va_list ap;
    va_start(ap, format);
    const int n = vsnprintf(buf, cap, format, ap);
    va_end(ap);
    if (n <= 0) return 0;
    return vx::end_line(buf, static_cast<size_t>(n) < cap ? static_cast<size_t>(n) : cap, cap);
}

/* Whether an entry of `id` is asked for; *stop tells the walk to end after
 * it (the one id was found). */
bool wanted(long long id, long long index, char isMultiple, bool* stop)
{
    if (isMultiple) return id >= index;
    *stop = id == index;
    return *stop;
}

void collectAndSendOnlyCached5Records(VXClientManager_t* mgr, long long index, char isMultiple)
{
    VXProxyInstance_t* app = vx_app();
    vx::VXLockGuard guard(app->methodTable.methodEntryLock);
    node_t* node = app->methodTable.methodHashMapNode;
    if (!node || !node->ptr) return;
    char buf[vx::kMethodKeySize];
    for (apr_hash_index_t* hi = apr_hash_first(nullptr, node->ptr); hi; hi = apr_hash_next(hi)) {
        auto* m = static_cast<methodPropProperties*>(apr_hash_this_val(hi));
        bool stop = false;
        if (!wanted(m->methodId, index, isMultiple, &stop)) continue;
        const size_t len = m->methodRetType ? vx::method_signature_record(m, buf, sizeof buf)
                                            : format_record(buf, sizeof buf, "5,%s,%d\n",
                                                            m->methodName, m->methodId);
        emit(mgr, buf, len);
        if (stop) return;
    }
}

void collectAndSendOnlyCached6Records(VXClientManager_t* mgr, long long index, char isMultiple)
{
    VXProxyInstance_t* app = vx_app();
    if (!app->httpEntryLock) return;
    vx::VXLockGuard guard(app->httpEntryLock);
    auto* map = static_cast<apr_hash_t*>(vx::load_acquire(app->httpHashMapNode));
    if (!map) return;
    char buf[vx::kMetaRecordSize];
    for (apr_hash_index_t* hi = apr_hash_first(nullptr, map); hi; hi = apr_hash_next(hi)) {
        auto* h = static_cast<httpHeaderInfo*>(apr_hash_this_val(hi));
        bool stop = false;
        if (!wanted(h->id, index, isMultiple, &stop)) continue;
        emit(mgr, buf, format_record(buf, sizeof buf, "6,%s,%d\n", h->name, h->id));
        if (stop) return;
    }
}

void collectAndSendOnlyCached7Records(VXClientManager_t* mgr, long long index, char isMultiple)
{
    VXProxyInstance_t* app = vx_app();
    if (!app->manager.bt_obj_map_lock) return;
    vx::VXLockGuard guard(app->manager.bt_obj_map_lock);
    if (!app->manager.bt_obj_map.hash) return;
    char buf[vx::kMetaRecordSize];
    for (apr_hash_index_t* hi = apr_hash_first(nullptr, app->manager.bt_obj_map.hash); hi;
         hi = apr_hash_next(hi)) {
        auto* bt = static_cast<BTObject*>(apr_hash_this_val(hi));
        const int id = vx::load_relaxed(bt->bt_id);
        bool stop = false;
        if (!wanted(id, index, isMultiple, &stop)) continue;
        emit(mgr, buf, format_record(buf, sizeof buf, "7,%d,%s\n", id, bt->bt_name));
        if (stop) return;
    }
}

void collectAndSendOnlyCached22Records(VXClientManager_t* mgr, long long index, char isMultiple)
{
    char buf[vx::kMetaRecordSize];
    vx::sql_query_for_each([&](long long id, const char* text) {
        bool stop = false;
        if (!wanted(id, index, isMultiple, &stop)) return true;
        /* The flowpath field is 0: the query is not tied to one here. */
        emit(mgr, buf, format_record(buf, sizeof buf, "22,0,%lld,%s\n", id, text));
        return !stop;
    });
}

void collectAndSendOnlyCached26Records(VXClientManager_t* mgr, long long index, char isMultiple)
{
    char buf[vx::kMetaRecordSize];
    vx::resource_for_each([&](long long id, const char* name) {
        bool stop = false;
        if (!wanted(id, index, isMultiple, &stop)) return true;
        emit(mgr, buf, format_record(buf, sizeof buf, "26,%d,%s\n", static_cast<int>(id), name));
        return !stop;
    });
}

/* Records 32 to 36, one dictionary each. */
void collectAndSendOnlyCachedExceptionRecords(VXClientManager_t* mgr, int record, long long index,
                                              char isMultiple)
{
    char buf[vx::kMetaRecordSize];
    vx::exception_dictionary_for_each(record, [&](int id, const char* text) {
        bool stop = false;
        if (!wanted(id, index, isMultiple, &stop)) return true;
        emit(mgr, buf, format_record(buf, sizeof buf, "%d,%d,%s\n", record, id, text));
        return !stop;
    });
}

/* Records 112. Tag sequences keep their ids for the instance's life, so a
 * new collector, or a new session, knows the ids record 74 uses only from
 * here. */
void sendCachedTagSequences(VXClientManager_t* mgr)
{
    char buf[vx::kTagRecordSize];
    vx::tag_sequence_for_each([&](int id, const char* text) {
        emit(mgr, buf, format_record(buf, sizeof buf, "112,%d,%s\n", id, text));
        return true;
    });
}

int method_count(VXProxyInstance_t* app)
{
    vx::VXLockGuard guard(app->methodTable.methodEntryLock);
    node_t* node = app->methodTable.methodHashMapNode;
    return node && node->ptr ? static_cast<int>(apr_hash_count(node->ptr)) : 0;
}

int header_count(VXProxyInstance_t* app)
{
    if (!app->httpEntryLock) return 0;
    vx::VXLockGuard guard(app->httpEntryLock);
    auto* map = static_cast<apr_hash_t*>(vx::load_acquire(app->httpHashMapNode));
    return map ? static_cast<int>(apr_hash_count(map)) : 0;
}

int bt_count(VXProxyInstance_t* app)
{
    if (!app->manager.bt_obj_map_lock) return 0;
    vx::VXLockGuard guard(app->manager.bt_obj_map_lock);
    return app->manager.bt_obj_map.hash
               ? static_cast<int>(apr_hash_count(app->manager.bt_obj_map.hash))
               : 0;
}

}  // namespace

extern "C" void initVXClientManager(VXClientManager_t* mgr)
{
    if (mgr) *mgr = VXClientManager_t{};
}

extern "C" int dumpOnDataConnection(VXClientManager_t* mgr, char* record, int len)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !mgr || !record || len <= 0) return -1;
    if (vx::load_relaxed(app->Server.controlCommunicationBusyFlag)) {
        dumpData(record, len);
        return 0;
    }
    ++mgr->refusedCount;
    /* The record ends with its line feed; the refusal quotes it without. */
    const int shown = record[len - 1] == '\n' ? len - 1 : len;
    char line[vx::kMethodKeySize + 256];
    const int n =
        snprintf(line, sizeof line,
                 "vx_meta_data_rep:action=send_meta_data;result=Error :<Unable to write current "
                 "Cached Record = %.*s , on data connection, because currently there is no test "
                 "running.>\n",
                 shown, record);
    if (n <= 0) return -1;
    const int sent = n < static_cast<int>(sizeof line) ? n : static_cast<int>(sizeof line) - 1;
    if (mgr->onDataThread) {
        /* The control connection belongs to the control thread: the data
         * thread's refusals go to the trace log, the first one only (the
         * session ended under the replay; the rest would say the same). */
        if (mgr->refusedCount == 1) VX_ERROR("META_DATA", "%.*s", sent - 1, line);
        return -1;
    }
    send_on_control(mgr, line, sent);
    return -1;
}

extern "C" void dump11Record(VXClientManager_t* mgr, const char* text)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !mgr || mgr->destination <= 0) return;
    char buf[vx::kMetaRecordSize];
    const size_t len =
        format_record(buf, sizeof buf, "%d,%lld,%s\n", 11, vx_agent_now(app), text ? text : "");
    if (len) dumpOnDataConnection(mgr, buf, static_cast<int>(len));
}

extern "C" void findRecordTypeAndSendCachedData(VXClientManager_t* mgr, int type, long long index,
                                                char isMultiple)
{
    if (!vx_app() || !mgr) return;
    g_deferControl = !mgr->onDataThread;
    switch (type) {
        case 5:
            collectAndSendOnlyCached5Records(mgr, index, isMultiple);
            break;
        case 6:
            collectAndSendOnlyCached6Records(mgr, index, isMultiple);
            break;
        case 7:
            collectAndSendOnlyCached7Records(mgr, index, isMultiple);
            break;
        case kQueryRecordType:
        case 22:
            collectAndSendOnlyCached22Records(mgr, index, isMultiple);
            break;
        case 26:
            collectAndSendOnlyCached26Records(mgr, index, isMultiple);
            break;
        case 32:
        case 33:
        case 34:
        case 35:
        case 36:
            collectAndSendOnlyCachedExceptionRecords(mgr, type, index, isMultiple);
            break;
        default:
            break; /* 41: no cached pages in this system */
    }
    /* The table's lock is released: what the control connection gets goes
     * now. */
    if (g_deferControl) {
        g_deferControl = false;
        std::string pending;
        pending.swap(g_controlPending);
        send_on_control(mgr, pending.data(), static_cast<int>(pending.size()));
    }
}

extern "C" void handleAllMetaDataSending(VXClientManager_t* mgr)
{
    if (!mgr) return;
    dump11Record(mgr, "All");
    for (int type : {5, 6, 7, 22, 26, 32, 33, 34, 35, 36})
        findRecordTypeAndSendCachedData(mgr, type, -1, 1);
    sendCachedTagSequences(mgr);
}

extern "C" void sendSummaryReport(VXClientManager_t* mgr)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !mgr) return;
    char report[kSummarySize];
    int n = snprintf(report, sizeof report,
                     "-------------------SummaryReport(CachedRecords)---------------------: \n"
                     "Total no. of instrumented Methods(5 Records) : %d \n"
                     "Total no. of Cached Pages(41 Records) : %d, \n"
                     "Total Number of Cached URLs(7 Records) : %d, \n"
                     "Total Number of cached SQL Query(22 Records) : %d, \n"
                     "Total Number of Cached Headers(6 Records) : %d, \n"
                     "Total Number of Cached Exception Classes(32 Records) : %d, \n"
                     "Total Number of Cached ThrowingClasses(33 Records) : %d, \n"
                     "Total Number of Cached ThrowingMethods(34 Records) : %d, \n"
                     "Total Number of Cached Exception Messages (35 Records): %d \n"
                     "Total Number of Cached Exception Cause (36 Records): %d \n"
                     "-------------------SummaryReport(CachedRecords)---------------------",
                     method_count(app), 0, bt_count(app), static_cast<int>(vx::sql_query_count()),
                     header_count(app), vx::exception_dictionary_size(32),
                     vx::exception_dictionary_size(33), vx::exception_dictionary_size(34),
                     vx::exception_dictionary_size(35), vx::exception_dictionary_size(36));
    if (n <= 0) return;
    if (n >= kSummarySize) n = kSummarySize - 1;
    send_on_control(mgr, report, n);
}

extern "C" void checkAndSendCachedRecord(VXClientManager_t* mgr, int type, char* word)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !mgr || !word) return;
    mgr->targetTimeStamp = 0;
    if (const char* colon = strchr(word, ':'))
        mgr->targetTimeStamp = strtoll(colon + 1, nullptr, 10);
    long long index = -1;
    char isMultiple = 1;
    const char* underscore = strchr(word, '_');
    if (underscore) {
        const char* digits = underscore + 1;
        isMultiple = *digits == '+';
        if (isMultiple) ++digits;
        index = strtoll(digits, nullptr, 10);
    }
    const long long last = vx::load_relaxed(app->metadataReplay.lastSentMetadataTimeStamp);
    if (mgr->targetTimeStamp > 0 && mgr->targetTimeStamp < last) {
        /* The system's wording, misspelling included: collectors match it. */
        snprintf(mgr->errorMessage, sizeof mgr->errorMessage,
                 "Wrong Timestamp : RecordField- %d Paased timeStamp- %lld Should be more than "
                 "last sent "
                 "metadata timestamp %lld",
                 type, mgr->targetTimeStamp, last);
        return;
    }
    if (!underscore) {
        char text[16];
        snprintf(text, sizeof text, "%d", type);
        dump11Record(mgr, text);
    }
    findRecordTypeAndSendCachedData(mgr, type, index, isMultiple);
}

extern "C" void handleCurrRecord(VXClientManager_t* mgr, char* word)
{
    if (!mgr || !word) return;
    mgr->typeOfRecord = word;
    VX_TRACE(mgr->traceLevel, 1, "META_DATA", "Metadata replay of '%s', destination %d", word,
             mgr->destination);
    if (vx::starts_with(word, "ALL")) {
        sendSummaryReport(mgr);
        handleAllMetaDataSending(mgr);
    } else if (vx::starts_with(word, "Summary")) {
        sendSummaryReport(mgr);
    } else if (word[0] == '5' || word[0] == '6' || word[0] == '7') {
        checkAndSendCachedRecord(mgr, word[0] - '0', word);
    } else if (vx::starts_with(word, "21") || vx::starts_with(word, "32") ||
               vx::starts_with(word, "33") || vx::starts_with(word, "34") ||
               vx::starts_with(word, "35") || vx::starts_with(word, "41")) {
        checkAndSendCachedRecord(mgr, (word[0] - '0') * 10 + (word[1] - '0'), word);
    } else {
        /* The system's wording, misspelling included. */
        snprintf(mgr->errorMessage, sizeof mgr->errorMessage,
                 "Invalid Request recieved from client : '%s'\n", word);
    }
}

extern "C" void parseCurrentRequestMessage(VXClientManager_t* mgr, char* clientMsg)
{
    if (!mgr || !clientMsg) return;
    mgr->allFieldsOfClientMessageLength = tokenize(clientMsg, mgr->allFieldsOfClientMessage,
                                                   const_cast<char*>(";"), kClientMsgFieldsMax);
    if (mgr->allFieldsOfClientMessageLength <= kRequestWordsField) {
        handleAllMetaDataSending(mgr); /* destination 0: all of it on the control connection */
        return;
    }
    char** fields = mgr->allFieldsOfClientMessage;
    const int count = mgr->allFieldsOfClientMessageLength;
    if (count > kRequestDestinationField)
        mgr->destination = atoi(value_of(fields[kRequestDestinationField]));
    if (count > kRequestTraceLevelField)
        mgr->traceLevel = atoi(value_of(fields[kRequestTraceLevelField]));
    char* list = fields[kRequestWordsField];
    char quoted[kClientErrorMessageSize / 2];   /* room for the text around it */
    vx::copy_text(quoted, sizeof quoted, list); /* tokenize cuts the list in place */
    char* words = value_of(list);
    mgr->allRecordsLength =
        tokenize(words, mgr->allRecords, const_cast<char*>(","), kClientRecordWordsMax);
    int used = 0;
    for (int i = 0; i < mgr->allRecordsLength; ++i)
        if (mgr->allRecords[i][0]) mgr->allRecords[used++] = mgr->allRecords[i];
    mgr->allRecordsLength = used;
    if (used == 0) {
        snprintf(mgr->errorMessage, sizeof mgr->errorMessage, "Invalid Request : '%s'\n", quoted);
        return;
    }
    for (int i = 0; i < used; ++i) handleCurrRecord(mgr, mgr->allRecords[i]);
}

extern "C" void processClientMessage(char* clientMsg)
{
    VXProxyInstance_t* app = vx_app();
    if (!app || !clientMsg) return;
    VXClientManager_t* mgr = &app->metadataReplay.VXClientManager;
    initVXClientManager(mgr);
    parseCurrentRequestMessage(mgr, clientMsg);
    if (mgr->errorMessage[0])
        send_on_control(mgr, mgr->errorMessage, static_cast<int>(strlen(mgr->errorMessage)));
}

extern "C" void dumpALLMetaDataOnTestStart(void)
{
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    VXClientManager_t* mgr = &app->metadataReplay.dataClientManager;
    initVXClientManager(mgr);
    mgr->onDataThread = 1;
    mgr->destination = 1;
    handleAllMetaDataSending(mgr);
}
