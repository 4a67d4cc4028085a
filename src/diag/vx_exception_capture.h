/*
 * Exception capture: exceptions the host reports in a flowpath, the five
 * dictionaries that number their texts (records 32 to 36), and record 38.
 *
 * Each dictionary has its own lock; a text's metadata record goes out inside
 * that lock, so it always precedes any record 38 naming its id. Texts are
 * made safe for a record line (line feeds rewritten, length bounded) in a
 * stack buffer before the look-up: a text seen before costs no allocation.
 */
#ifndef VX_EXCEPTION_CAPTURE_H
#define VX_EXCEPTION_CAPTURE_H

#include <cstddef>
#include <functional>

#include "vx_sdk.h"

struct VXPerThreadData_t;
struct methodPropProperties;

/* Settings of the instance (vxException). The per-text pairs of fields are
 * kept for the layout's sake; the dictionaries hold text and id themselves. */
struct VXException_t {
    int exceptionCaptureMode;      /* 0 off; 1 and 2 on */
    int stackTraceCaptureMode;     /* 0 or 1 */
    int exceptionCauseCaptureMode; /* 0 or 1 */
    int exceptionType;             /* 0, 1 or 3; read by the host */
    int stackTraceMaxDepth;        /* read by the host */
    int exceptionCaptureTraceLevel;
    char enableLogger;
    char enableTrycatch;
    int traceLevel;
    /* Filter list of exception class names, ended by a null. Host threads
     * read it without a lock: a change publishes a new array and retires
     * the old one, so a reader's array and names outlive its look-up. */
    char** currElement;
    int filterSizeCount;
    int currSize; /* pointers allocated in currElement, the null included */
    char isFilteringEnabled;
};

/* Next id of each dictionary; 1 at a session's start. */
struct VXExceptionIDS_t {
    int exceptionClassNameID;
    int throwingClassNameID;
    int throwingMethodNameID;
    int msgID;
    int causeID;
};

namespace vx {
/* The five dictionaries of an instance; made on first use. */
struct ExceptionDictionaries;

/* Longest text a dictionary keeps (bytes after rewriting); longer texts are
 * cut, so a metadata record always fits its 1024-byte buffer. */
inline constexpr size_t kExceptionTextMax = 1000;
/* Texts per dictionary and session; past it a new text gets id -1. */
inline constexpr int kExceptionDictionaryMax = 16384;
/* Bytes of a message kept before it is numbered. */
inline constexpr size_t kExceptionMessageMax = 50;
/* Most names in the filter list. */
inline constexpr int kExceptionFilterMax = 1024;

/* The dictionary of `record` (32 to 36): calls `fn` with each text and its
 * id under that dictionary's lock (host threads numbering a text of it wait
 * meanwhile; `fn` must not call into this unit); stops when `fn` returns
 * false. Nothing for another record or before the dictionaries exist. */
void exception_dictionary_for_each(int record, const std::function<bool(int id, const char* text)>& fn);
/* Texts in the dictionary of `record`; 0 for another record. */
int exception_dictionary_size(int record);

}  // namespace vx

extern "C" {
/* getstacktracearray, the host's entry, is declared with the C API. */

/* Number the texts and send record 38; also the proxy's entry for forwarded
 * data, with a null `mPP`. `starttime` is wall-clock ms. */
void handleExceptionParameters(VXPerThreadData_t* vxTD, methodPropProperties* mPP,
                               long long starttime, char* exceptionClassName,
                               char* exceptionMessage, char* throwingClassName,
                               char* throwingMethodName, char* getexceptionCause,
                               int exceptionLineNum, char* stackTraceArr);

/* One per dictionary: the id of a text, made and announced (records 32 to
 * 36) on first sight; -1 for an empty text or a full dictionary. */
int checkAndgenerateIDForDiscoveredExceptions(char* exceptnName);
int getIDAndDumpThrowingClassName(char* name);
int getIDAndDumpThrowingMethodName(char* name);
int getIDAndDumpExceptionMessage(char* message);
int getIDAndDumpExceptionCause(char* cause);

/* "<record>,<id>,<text>\n" cut to 1023 bytes; nothing for an empty text. */
void dumpExceptionMetaRecord(int record_Id, int exceptionStatId, char* exceptionRecord);

/* A session starts: counters to 1, dictionaries emptied. */
void exceptionMapInit(void);
/* Start values of the settings; the filter list is freed. */
void setdefaultValuesForException(void);

/* Keywords. */
void setExceptionCaptureSettings(char* value, char* keyword, int index);
void parseExceptionFilteringList(char* value, char* keyword, int index);
void setBackendErrorDetectionMode(char* value, char* keyword, int index);

/* The host's getters are declared with the C API. */
}

#endif
