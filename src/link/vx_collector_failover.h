/*
 * Which collector to talk to, and the retry policy the collector hands out.
 *
 * The list vxc_server_arr comes from the settings (entry 0 the master,
 * entries 1.. the backups). Failover is on (vx_dr_state) while a backup is
 * configured and the collector's reply keeps it on. Everything here runs on
 * the control thread.
 */
#ifndef VX_COLLECTOR_FAILOVER_H
#define VX_COLLECTOR_FAILOVER_H

#include "link/vx_collector_list.h"

extern "C" {

/* retry_policy to its defaults: 3 retries, 60 s apart, 10 missed heartbeats,
 * 6 idle ticks between heartbeats. */
void init_vxc_server_config(void);

/* Zero every entry of the list; failover off, no entries configured. */
void clear_vxc_server_setting(void);

/* The entry at active_vxc_idx (null without a list). */
vxc_servers_t* get_active_vxc(void);

/* Advance active_vxc_idx to the next configured entry, circularly. 0. */
int lookup_for_next_vxc(void);

/* The retries on the current entry ran out: with failover mark it down and
 * move on, otherwise go back to the master. */
void connection_retry_failed(void);

/* Read state, retryPolicy and ProtoVersion from a reply line (only its first
 * five ";" fields are looked at). 0, or 1 to abandon this collector: a null
 * or empty line, no fields, or state=0 (is_switch_over is then set). */
int parse_policy_from_clientMsg(char* msg);
}

#endif
