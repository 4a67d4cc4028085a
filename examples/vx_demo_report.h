/*
 * The demo's account of what the agent sent, read back from vxc-lite's files.
 */
#ifndef VX_DEMO_REPORT_H
#define VX_DEMO_REPORT_H

/* Print the transactions per business transaction, a few flowpaths with
 * their method names and the record counts of `records`, a data connection's
 * lines as vxc-lite stored them; `summary` (vxc-lite's summary.txt, or null)
 * names the business transactions that rules named. 0, or -1 when `records`
 * cannot be read. Call once per process. */
int demo_report(const char* records, const char* summary);

#endif
