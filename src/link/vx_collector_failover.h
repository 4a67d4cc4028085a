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

/* Read a reroute line "vx_control_req:action=reroute_ctrl_con;key=value;..."
 * (cut in place; at most 10 fields): vxcHost, vxcPort, tier, server,
 * instance and clusterMode, each unless its value is "ALL" (any case;
 * clusterMode takes it as a value). The caller has run resetVXCHostAndPort.
 * Refused values (a host that is no address, a port out of 1..65535, a name
 * of kRerouteNameSize bytes or more, a clusterMode other than 0 or 1) are
 * logged and skipped; a refused port refuses the whole target, so vxcHost
 * is unset again. 0 when the line named a target (vxcHost is set), 1 when
 * it did not, -1 when it has fewer than 2 fields. */
int parseReRouteMessageAndUpdateClientInfo(char* msg);

/* The reroute's target into the collector list, as owned copies: entry 1 in
 * cluster mode, else the active entry, so that the next connection reaches
 * it. Nothing changes without a vxcHost. 0, or -1 when nothing changed. */
int vx_collector_take_reroute_target(void);

/* Rewrite "<vxHomePath>/config/vxsettings.conf" line by line: a line that
 * begins (any case) with tier, server, vxcHost or vxcPort gets the current
 * value; a value that is unset keeps its line (vxcPort counts as unset
 * while vxcHost is, since the two name one target). Other lines stay as
 * they are. 0, or -1 (logged) when the file cannot be opened or written;
 * the reroute goes on either way. */
int updateVXSettingFile(void);

/* The hosted entry point's "klv_saas_auth_agent_msg_rep:status=OK;..." (cut
 * in place): host, port, authtoken and protoVer (case-blind prefixes, with
 * a non-empty value). host and port become vxcHost, vxcPort and entry 0,
 * which stops being the hosted entry. 0, or 1 when the reply has no fields,
 * no host, or a value that is refused. */
int parseSAASClientMsg(char* msg);
}

#endif
