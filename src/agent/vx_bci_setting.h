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

/* Identity setters, shaped as keyword handlers (the last two arguments are
 * ignored). Each stores a heap copy and rebuilds its encoded twin; null keeps
 * the old value. setAppName with a name equal to the current one sets
 * Server.sameAppNameOccur. The id setters take the number as text. */
void setTierName(char* tier, char* keyword, int kwIdx);
void setAppServerName(char* server, char* keyword, int kwIdx);
void setAppName(char* instance, char* keyword, int kwIdx);
void setTierAttr(char* attr, char* keyword, int kwIdx);
void setTierID(char* id, char* keyword, int kwIdx);
void setServerID(char* id, char* keyword, int kwIdx);
void setAppID(char* id, char* keyword, int kwIdx);

void setAgentAppName(char* name);
void setEndPointPrefix(char* prefix);
void setProjKey(char* key);
/* "host:port" into saasHost and saasPort; without a colon 127.0.0.1:443. */
void setSaasHostPort(char* hostPort);
void setPastLogTime(int days);
void setAuthtoken(char* token); /* null becomes "NA" */
void setProtoVer(int ver);

/* Accepts only a dotted quad (four fields of digits, each 0..255); anything
 * else logs "Invalid VXC IP - %s" and keeps vxcHost. 0 accepted, -1 refused. */
int setVXCHost(char* host);
/* 1..65535; anything else logged and refused. 0 accepted, -1 refused. */
int setVXCPort(int port);
/* Port 0 (a protocol named without a port) keeps the configured port.
 * setVXC_TCP_Port writes vxcPort: TCP is the primary port's protocol. */
void setVXC_TCP_Port(int port);
void setVXC_WS_Port(int port);
void setVXC_WSS_Port(int port);
/* A power of two from 256 to 1024 (KiB). */
int isValidStackSize(int n);
void setStackSize(int kib);        /* invalid values ignored */
void setAutoScalingMode(int mode); /* 0..3; others logged, value kept */
void setBCIPort(int port);

char* getTierName(void);
char* getencodedTierName(void);
char* getAppServerName(void);
char* getencodedAppServerName(void);
char* getAppName(void);
char* getencodedAppName(void);
int getTierID(void);
int getServerID(void);
int getAppID(void);
char* getVXHost(void);
int getVXCPort(void);
int getBCIPort(void);
char* getServerIP(void);
long long getLastModifiedDate(void);
long long getPrevEditedSize(void);

/* Frees vxcHost and puts the port back to 443. */
void resetVXCHostAndPort(void);
}

#endif
