/*
 * Files the collector serves: configuration too large for a line.
 *
 * A start or modify message names each file in a file keyword, its value the
 * path, size and time ("path%3Bsize%3D<n>%3Blmd%3D<t>": ";" and "=" are
 * percent-encoded because they separate the message's own fields). The
 * control thread asks for the file on the control connection while it
 * applies the keyword, reads it, and hands the text to the keyword's parser
 * before it goes on with the next field. Instrumentation profiles come as
 * triples (instrProfile, lmd, size); several are joined before the method
 * table is built.
 *
 * Whatever goes wrong is logged and reported back in startInstrRespBuffer;
 * only a critical file (VXEntryPointsFile and BTRuleConfig by default) that
 * cannot be had closes the connection, which stops the session's start.
 */
#ifndef VX_FILE_KEYWORDS_H
#define VX_FILE_KEYWORDS_H

#include "core/vx_limits.h"

/* One slot of kywdInfo, by keyword index. */
struct keywordInfo {
    char fileName[vx::kFileNameSize];
    char* content; /* the file's text, terminated, owned by the slot */
    long long lmd;
    long long size;
};

/* One entry of Server.InstrProfileTable. */
struct instrProfile {
    char filepath[vx::kFileNameSize];
    int index;
    int size;
    long long lmd;
};

extern "C" {

void handleFileBasedKeyword(char* line, char* keyword, int kwIdx);

/* "name%3Bsize%3D<n>%3Blmd%3D<t>": 0, or -1 when a mark is missing or the
 * size lies outside 0..kFileSizeMax (logged; *size and *lmd untouched).
 * `name` gets what precedes the first "%3B" (at most kFileNameSize - 1
 * bytes). */
int getFileSizeAndLmd(char* line, char* name, long long* size, long long* lmd);

/* Fetch a file or a profile over the control connection; the slot's text,
 * or null. */
char* get_file_from_VXC_wrapper(char* keyword, int kwIdx);
char* get_instr_profile_wrapper(char* keyword, int kwIdx);

/* Store the text in the slot and hand it to the keyword's consumer. */
void useFileBasedKeyword(char* text, char* keyword, int kwIdx);

/* Rows instrProfile, lmd and size. */
void setInstProfile(char* value, char* keyword, int kwIdx);
void handleInstrProfileKeyword(instrProfile* profile, char* keyword, int kwIdx);
void init_instrprof_table(int* flag);
void makeInstrProfTableFree(void);

/* Critical files: without them no session starts. */
int isCriticalFile(char* keyword);
void setDefaultCriticalFile(void);
void setvxCriticalFileList(char* text);

/* The status codes of "0|1|..|..|lower|upper" lines into the error table. */
void parseBtError(char* text);

/* A proxy server keeps a copy of each file for its agents. */
void dumpDataInFile(char* name, char* text);

/* Append a warning to startInstrRespBuffer (the start answer's second
 * line), within its 1024 bytes. */
void appendStartInstrResp(const char* format, ...) __attribute__((format(printf, 1, 2)));
}

#endif
