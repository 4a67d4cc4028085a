/*
 * Settings of HTTP header capture: one block for requests and one for
 * responses (keywords captureHTTPReqFullFp and captureHTTPRespFullFp), and
 * the last value of hdrListForValueAsId.
 *
 * Written by the control thread while it applies keywords; read by host
 * threads during capture without a lock, through atomic loads (a capture
 * that overlaps a change sees the old or the new value of each field).
 */
#ifndef VX_HTTP_CAPTURE_SETTINGS_H
#define VX_HTTP_CAPTURE_SETTINGS_H

#include "vx_sdk.h"

inline constexpr int kHdrNameListSize = 15;          /* names of a mode list */
inline constexpr int kHdrListForValueAsIdMax = 1024; /* names of hdrListForValueAsId */

struct VXHttpReqRespCaptureSettings {
    int captureLevel;                    /* 0 off; requests record at 3, responses at 2 */
    char hdrMode;                        /* 0 all headers, 1 those of hdrNameList, 2 none */
    char hdrValueLengthMode;             /* not 0: values are cut at 1023 bytes */
    int hdrValueMaxLength;               /* stored and logged; the text does not depend on it */
    char* hdrNameList[kHdrNameListSize]; /* owned (malloc) */
    int hdrNameListCount;
    /* The list before the last change, freed at the next one: a capture
     * in flight may still be reading it. */
    char* hdrNameListRetired[kHdrNameListSize];
};

struct VXHttpCapture_t {
    char* hdrListValue; /* owned (malloc); last hdrListForValueAsId */
};

struct VXHttpSettings_t {
    VXHttpReqRespCaptureSettings vxHttpReqCaptureSettings;
    VXHttpReqRespCaptureSettings vxHttpRespCaptureSettings;
    VXHttpCapture_t vxHttpCapture;
};

extern "C" {
/* Clears level, modes and maximum length; hdrNameListCount becomes 15. The
 * names are not freed (see setHdrMode). */
void initVXHttpReqRespCaptureSettings(VXHttpReqRespCaptureSettings* s);

/* Keyword handlers (control thread). A refused value logs an error and
 * keeps the old one. */
void setHttpReqRespCaptureSettings(char* value, char* keyword, int kwIdx);
void sethdrListForValueAsId(char* value, char* keyword, int kwIdx);

/* 0 when the value was taken, -1 when refused. */
int setCaptureLevel(VXHttpReqRespCaptureSettings* s, const char* value, bool isRequest,
                    const char* keyword);
int setHdrMode(VXHttpReqRespCaptureSettings* s, const char* value);
int setHdrValueLengthMode(VXHttpReqRespCaptureSettings* s, const char* value, bool isRequest);
int sethdrValueMaxLength(VXHttpReqRespCaptureSettings* s, const char* value);

/* Frees the names of a mode list and of the one before it; no capture may
 * run on these settings. */
void freeHdrNameList(VXHttpReqRespCaptureSettings* s);

int getHttpReqCaptureLevel(void);
int getHttpRespCaptureLevel(void);
}

#endif
