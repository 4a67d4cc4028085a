/*
 * VXBCISetting: who this agent is (tier, server, instance), where its
 * collector is, and the request lines every connection opens with. Filled
 * from the environment and "vxsettings.conf" before the first connection.
 */
#ifndef VX_BCI_SETTING_H
#define VX_BCI_SETTING_H

#include <apr_hash.h>

#include "core/vx_limits.h"

inline constexpr int kVXRequestMessageSize = 2048;

struct VXBCISetting_t {
    char* agentType;
    char* tierName;
    char* appServerName;
    char* appName;
    char* encodedtierName;
    char* encodedappServerName;
    char* encodedappName;
    char* vxcHost;
    int KLV_INSTANCE_AS_TIER;
    char btErrorArray[vx::kStatusCodeCount]; /* 'F': this status is an error */
    char machineType[vx::kMachineTypeSize];
    char fileBasedKeywordMode;
    char data_thread_running;
    char log_thread_running;
    char autoSensor_thread_running;
    char serverIp[vx::kServerIpSize];
    char controlConnectionReqMessage[kVXRequestMessageSize];
    char control_conn_heartbeat_msg[kVXRequestMessageSize];
    char controlDataReqMessage[kVXRequestMessageSize];
    char controlAutoSensorReqMessage[kVXRequestMessageSize];
    int tierID;
    int serverID;
    int appID;
    int vxcPort;
    int num_vxc_config;
    int bciPort;
    int pastLog;
    int controlConnectionReqMessage_len;
    int controlDataReqMessage_len;
    int controlAutoSensorReqMessage_len;
    int control_conn_heartbeat_msg_len;
    int autoScalingMode;
    int flagForHandlingProxy;
    long long lastModifiedDate;
    long long prevFileSize;
    char* tierAttr;
    char* agentAppName;
    char* endPointPrefix;
    char saasMode;
    char* saasHost;
    int saasPort;
    char* projectKey;
    char* authToken;
    int ProtoVer;
    char isEnableEnvVar;
    int vxc_TCP_Port;
    int vxc_WS_Port;
    int vxc_WSS_Port;
    int stackSize; /* KiB */
    apr_hash_t* taglist;
    apr_hash_t* attributelist;
    char* json_tag;
    char* tagnew;
    char* agentVersion;
    /* agentType, classified once for the hot paths: "php" (any case) and "go". */
    char agentIsPhp;
    char agentIsGo;
};

extern "C" {

/* Start values of VXBCISetting; the error table marks 400..599. */
void VXBCISettingInit(void);
void VXBTErrorArrayInit(void);

/* Heap copies of the host's identity texts; null keeps the old value. */
void setAgentType(char* agentType);
void setAgentVersion(char* agentVersion);
void setAppName(char* name, int fromEnv, int length);
}

#endif
