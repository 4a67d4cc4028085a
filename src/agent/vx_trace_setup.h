/*
 * The agent's trace log: its file names under "<home>/logs/", the levels the
 * host's variants compare with, the forwarding of a proxy-mode agent's lines
 * through agentLogBuffer, and the cleaning of old logs.
 */
#ifndef VX_TRACE_SETUP_H
#define VX_TRACE_SETUP_H

extern "C" {

/* Create the process's log under the home directory's "logs/" and make the
 * agent its owner. */
void VXTraceInit(char* process_name, char* pool_name_local);

/* Delete trace and SDK logs older than VXBCISetting.pastLog days. */
void vx_check_log_file(void);

/* Today minus pastLog days as YYYYMMDD, local time. */
int get_Previous_Date(void);

int getTraceLevel(void);
}

#endif
