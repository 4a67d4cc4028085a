/*
 * Correlation with a calling tier.
 *
 * An incoming correlation header "first_previous_sequence_backend_..." ties
 * this flowpath into the caller's chain.
 *
 * STAND-IN (issue: callouts and backends): the chain fields are taken; the
 * caller/backend map and record 91 come with the callout work.
 */
#ifndef VX_CALLOUT_H
#define VX_CALLOUT_H

struct VXPerThreadData_t;

extern "C" {
/* Parse an incoming header, cut in place. 0, or -1 on a bad one. */
int setTierCallOut(VXPerThreadData_t* vxTD, char* str);
}

#endif
