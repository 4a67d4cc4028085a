/*
 * The header-id table (httpHashMapNode): header names, and the header values
 * chosen to travel as ids, each with one number from httpid. Names and
 * values share the table and the counter, so a value id never equals a name
 * id. The collector learns each id from a record 6 "6,<name>,<id>".
 *
 * The table and its entries live in control_pool for the life of the
 * instance: host threads read a found entry after httpEntryLock is released,
 * so an entry is never freed under them; free_HttpHashMapNode only empties
 * the map. valueAsId is written under the lock and read atomically.
 */
#ifndef VX_HEADER_IDS_H
#define VX_HEADER_IDS_H

#include "vx_sdk.h"

struct VXPerThreadData_t;

struct httpHeaderInfo {
    char* name;    /* header name, or a header value that got an id */
    char* type;    /* "Req" or "Rep" from the list file, else null */
    int valueAsId; /* 1: this header's values go out as ids */
    int id;
};

inline constexpr int kHttpBlockScanMax = 4095;    /* bytes of a header block looked at */
inline constexpr int kHttpBlockEntriesMax = 1024; /* entries of a header block */

extern "C" {
/* Creates the table and httpEntryLock when missing. Control thread. */
void initHttpHashMapNode(void);
/* Empties the table (session start); entries stay in control_pool. */
void free_HttpHashMapNode(void);

/* The entry of `name`, looked up under httpEntryLock; when missing and
 * `updateFlag` is set it is added (updateHttpHashMapNode). Null when absent,
 * when `name` holds a line break or is too long for its record 6, or when
 * memory runs out. Any thread. */
httpHeaderInfo* searchAndUpdatehttpHashMapNode(char* name, void* httpHashMapNodeLocal,
                                               int updateFlag);

/* Adds `name` with the next id and valueAsId 0 and writes its record 6.
 * The caller holds httpEntryLock. Null on refusal (see above). */
httpHeaderInfo* updateHttpHashMapNode(char* name, void* httpHashMapNodeLocal);

/* The header list file served by the collector (vxHttpHdrCaptureFileList):
 * lines "name|type|...". Entries made here write no record 6. Both create
 * the table when missing; setHttpHashMapNode then applies the last
 * hdrListForValueAsId again. Control thread. */
void setHttpHashMapNode(char* fileData);
int readHttpHeaderListFile(char* fileData);

/* Marks the names of `headerslistForValueAsId` (","-separated, at most 1024)
 * valueAsId 1, adding unknown ones. Nothing when both capture levels are 0
 * or no table exists. Control thread. */
void updateHashMapForhdrListForValueAsId(char* headerslistForValueAsId);

/* Record 6 of every entry (the metadata replay walks the table). */
void dumpHttpHeaderMetaData(void);

/* parseBufferAndGenerateHttpHeaderValueid (vx_sdk.h): each value of a header
 * of type "Req" or "Rep" (any case) marked valueAsId gets an id, with its
 * record 6; the first 4095 bytes of `buffer` are read. */
}

#endif
