/*
 * The collector list: the addresses an agent may connect to, and the retry
 * policy of the connection. The settings reader fills vxc_server_arr (entry 0
 * the primary, entries 1.. the backups); the control thread moves between the
 * entries on failover.
 */
#ifndef VX_COLLECTOR_LIST_H
#define VX_COLLECTOR_LIST_H

#include <apr_time.h>

/* One entry of vxc_server_arr. */
struct vxc_servers_t {
    char state; /* 1 in use, 0 not */
    unsigned int vxc_port;
    char* vxc_host; /* heap copy owned by the entry, or null */
    int saasServer; /* 1: hosted entry point (klv_saas_auth_agent_msg_req form) */
};

/* How the control connection retries (retry_policy). */
struct retryPolicy_t {
    signed char num_retry;             /* failed socket creations before giving up on a target */
    int count;                         /* socket creations that failed */
    int reply_unsuccessful_count;      /* heartbeats without answer before a switch-over */
    int heartbeat_reply_timeout_check; /* idle poll ticks between two heartbeats */
    apr_interval_time_t time_interval; /* wait between attempts, microseconds */
};

#endif
