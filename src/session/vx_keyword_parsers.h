/*
 * Parsers of the keyword table: each interprets one keyword's value itself
 * (value, keyword, row index). Multi-valued keywords separate their
 * sub-values with "%20". A bad value is logged and the old one kept.
 * Features built in their own units keep their parsers there (the thread
 * reports' AS* keywords: diag/vx_thread_reports.h).
 */
#ifndef VX_KEYWORD_PARSERS_H
#define VX_KEYWORD_PARSERS_H

extern "C" {
void setFileBasedKeywd(char* value, char* keyword, int index);
void setvxFlowpathMasks(char* value, char* keyword, int index);
void setCurrentTR(char* value, char* keyword, int index);
void setKlvEpochDiff(char* value, char* keyword, int index);
void parseEnableCPUTime(char* value, char* keyword, int index);
void sethbWDir(char* value, char* keyword, int index);
void setVXMonitorInterval(char* value, char* keyword, int index);
void parseBTMonitorKeyword(char* value, char* keyword, int index);
void parseMaxBTCount(char* value, char* keyword, int index);
void parseDoNotDiscardVal(char* value, char* keyword, int index);
void parseBTMonitorErrorLevel(char* value, char* keyword, int index);
void parseBTAggDataArraySize(char* value, char* keyword, int index);
void parseMaxIPCount(char* value, char* keyword, int index);
void setBackendMonitorEnabled(char* value, char* keyword, int index);
void setASData(char* value, char* keyword, int index);
void setVXVectorSeperator(char* value, char* keyword, int index);
void setMonitorEnabledForID(char* value, char* keyword, int index);
void setEnableVXSession(char* value, char* keyword, int index);
void setKPCookie(char* value, char* keyword, int index);
void setCorrelationID(char* value, char* keyword, int index);
void setClassWeight(char* value, char* keyword, int index);
void setAutoInstrSessionInterval(char* value, char* keyword, int index);
void setRetainAutoInstrMethods(char* value, char* keyword, int index);
void setDebugSessionMode(char* value, char* keyword, int index);
void setMinStackDepthForDebugSession(char* value, char* keyword, int index);
void setEnableExceptionInSeqBlob(char* value, char* keyword, int index);
void setEnableDDKeywd(char* value, char* keyword, int index);
void setenableVXLQDataTransfer(char* value, char* keyword, int index);
void setbciVXLQDataBufferSetting(char* value, char* keyword, int index);
void setVXLQLogPath(char* value, char* keyword, int index);
void setDigestPercentileBT(char* value, char* keyword, int index);
void setDigestPercentileIP(char* value, char* keyword, int index);
void setvxAgentDebugLogging(char* value, char* keyword, int index);
void setEnableCaptureDataOutsideTxn(char* value, char* keyword, int index);
void setpropheadcheck(char* value, char* keyword, int index);
void checkgcmonitor(char* value, char* keyword, int index);
void checkgoroutinemonitor(char* value, char* keyword, int index);
}

/* Split `value` on "%20" into at most `max` sub-values; the count. */
int split_sub_values(char* value, char** out, int max);

#endif
