/*
 * Correlation with a calling tier.
 *
 * An incoming correlation header "first_previous_sequence_backend_..." ties
 * this flowpath into the caller's chain.
 *
 * STAND-IN(callouts): the chain fields are taken; the
 * caller/backend map and record 91 come with the callout work.
 */
#ifndef VX_CALLOUT_H
#define VX_CALLOUT_H

struct VXPerThreadData_t;

extern "C" {
/* Parse an incoming header, cut in place. 0, or -1 on a bad one. */
int setTierCallOut(VXPerThreadData_t* vxTD, char* str);

/* The backend's name from its "|"-separated description by `rule`, into
 * `out` of `len` bytes. STAND-IN(callouts): the description as given. */
void settingBackendName(char* buffer, char* rule, char* out, int len);

/* The id of an HTTP callout's URL. STAND-IN(callouts): 0. */
long long getIDForIPResourceURL(char* buffer);
}

#endif
