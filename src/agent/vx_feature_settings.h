/*
 * Settings of features whose code is not built yet, as the collector's
 * keywords set them.
 *
 * Each block is tagged with the feature it belongs to and moves to that
 * feature's own header when the feature is built. Until then the keywords
 * are parsed and stored here exactly as they will be, and nothing reads them.
 */
#ifndef VX_FEATURE_SETTINGS_H
#define VX_FEATURE_SETTINGS_H

inline constexpr int kFeatureTextSize = 256;

/* STAND-IN(auto-instrumentation): direct keywords fill the first six members. */
struct VXAutoInstrumentation_t {
    int autoInstrMapSize;
    int autoInstrTraceLevel;
    int autoInstrSampleThreshold;
    int autoInstrDurationThreshold;
    double autoInstrPct;
    double autoUnInstrPct;
    int classWeight;
    int sessionInterval;
    int retainChanges;
    int debugSessionMode;
    int minStackDepth;
};

/* STAND-IN(filter-lists) */
struct VXInterfaceProcessor_t {
    int interfaceTraceLevel;
};

/* STAND-IN(dynamic-diagnostics): up to five sub-values of enableDDAI. */
struct VXDynamicSettings_t {
    int enableDDAI[5];
    long long ddAIInterval; /* seconds of a BT's auto-instrumentation window */
};

/* The query dictionary's state; the dictionary itself and its lock live in
 * the SQL processor, process-wide. */
struct VXSQLProcessor_t {
    char isDefaultQueryRecordsDumped; /* the five fixed queries were sent */
    char DBIPName[1024];              /* "DB_SQLDB" for "-", "NA" or empty */
    int preparedQueryRecordID;        /* 22 */
    long long sqlQueryID;             /* last id given */
};

/* STAND-IN(log-forwarder): process-wide, vxAppLogStruct. */
struct vxAppLogStruct_t {
    long long flushInterval;
    int enableVXLQDataTransfer;
    char bufferSetting[kFeatureTextSize];
    char logPath[kFeatureTextSize];
};

extern "C" {
extern vxAppLogStruct_t vxAppLogStruct;
}

#endif
