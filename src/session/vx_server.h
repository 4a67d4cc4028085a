/*
 * Server: the session with the collector. testRunRunning is the master
 * switch: producers write only while it is 1, and no new flowpath starts while
 * gettingstopInstrumenatation is set.
 *
 * Host threads read both flags while the control thread writes them: every
 * access goes through vx_atomic.h. testRunRunning is raised with release
 * once what producers need (data buffers, their locks, the method table) is
 * made, and dumpData reads it with acquire.
 */
#ifndef VX_SERVER_H
#define VX_SERVER_H

struct instrProfile;

inline constexpr int kCriticalFileCount = 10;

struct Server_t {
    char isRuntimeApplied;
    char changeOriginalTime;
    char testRunRunning;
    char retryForDataConn;
    char retryForAutoSensorConn;
    char startAppLogCon;
    char InstrumentationBusy;
    char controlCommunicationBusyFlag;
    char noInstrumentProfileMode;
    char doNotDumpMetaData;
    char isModifiedInstrProf;
    char setInstrumentTraceLevel; /* stored by its keyword; nothing reads it */
    char statusValue[64];
    char fpgVID[10];
    char* instrProfFileData;
    instrProfile* InstrProfileTable; /* numInstrProfile entries, doubled when full */
    int numInstrProfile;
    int instrProfTableSize; /* entries allocated in InstrProfileTable */
    int InstrProfIdx;
    int instrProfBytesWritten;
    char* criticalFileList[kCriticalFileCount];
    int numcriticalFile;
    int numberOfTestRunsTillNow;
    int TestRunIDValue;
    long long klvEpochDiffTime;
    long long diffTimeFromVXC;
    long long originalKlvEpochDiffTime;
    long long lastHeartBeatRcvTime;
    int dumpremainingtstime;
    int gettingstopInstrumenatation;
    char startInstrRespBuffer[1024];
    int startInstrRespBufferCnt;
    int isTenRecordDump;
    int isClusterMode;
    int requestType;
    long long lastConnectionTime;
    long long connDuration;
    char connDestination[256];
    int sameAppNameOccur; /* the instance name equals the pool name */
};

#endif
