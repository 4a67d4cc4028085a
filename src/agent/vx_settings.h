/*
 * The settings sources: the environment, "vxsettings.conf", the proxy's
 * "proxysetting.conf" and "processes.conf". What they name lands in
 * VXBCISetting, VXSys, VXProxy and the collector list (vx_collector_servers.h).
 *
 * Precedence: read_env_var first; only when it returns non-zero is
 * read_conf_file applied on top of what the environment set (tags and
 * attributes from the environment are kept, and a tier from the instance name
 * stays). All of this runs on the thread of agent_init and on the control
 * thread; other threads read the values without a lock once they are set.
 */
#ifndef VX_SETTINGS_H
#define VX_SETTINGS_H

/* One line of processes.conf. */
struct processInfo_t {
    char* process_name; /* heap, cut at its first "." */
    int proxy_enabled;
};

extern "C" {

/* The processes.conf table (process-wide): total_process_entries of a table
 * of process_table_size entries. */
extern processInfo_t* processInfoStruct;
extern int total_process_entries;

/* 0 when KLV_APP_AGENT_VXCHOST was set and accepted (isEnableEnvVar becomes
 * 1 and the file is not to be read), 1 otherwise. */
int read_env_var(void);

/* Apply "<home>/config/vxsettings.conf". 0 on success (and at once in cluster
 * mode or when the environment configured the collector); 1 when the file is
 * missing or empty, or in the proxy process a mandatory field is absent; -1
 * when it cannot be opened. */
int read_conf_file(void);

/* Resolve conf_file. flag 0: record its mtime and size; 1 when it is missing
 * or empty. flag 1: 1 when mtime or size differ from the recorded ones. */
int check_file_size_of_vxsetting_files(int flag);

/* Proxy process only: "<home>/config/proxysetting.conf" into VXProxy. 0, or
 * -1 when the file is absent. */
int readVXProxyConfig(void);

/* "<home>/config/processes.conf" (lines "name|value") into processInfoStruct,
 * replacing the previous table. */
void readProcessConfFile(void);
/* The value of the first entry whose name begins with `pool_name_local`
 * (case-blind); 0 when none does or the name is null. */
int checkProcessNameInfo(char* pool_name_local);

/* The value of `buf` when it begins with `keyword` (case-blind) and has a
 * non-empty value after its first "="; null otherwise. */
char* search_keyword(char* buf, char* keyword);

/* machineType from /etc/os-release: "UNIX" for Solaris, Darwin, AIX, HP-UX,
 * else "LinuxEx" when the file cannot be read. */
void getMachineType(void);

/* The home the settings files are read from and the request lines name: the
 * proxy's in the proxy process, else the current instance's; "" without one,
 * never null. */
const char* vx_settings_home_path(void);
}

#endif
