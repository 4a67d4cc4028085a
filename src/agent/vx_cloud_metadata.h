/*
 * Asks a cloud's instance metadata service for one value, for the "aws",
 * "gcp" and "azure" tags when no resolver script is installed.
 *
 * The service is reached at VX_CLOUD_METADATA_ADDR ("host:port", IPv4
 * dotted form) or, unset, at 169.254.169.254:80, the address the three
 * clouds share. The connect waits at most kCloudConnectTimeoutMs and the
 * whole answer at most kCloudReadTimeoutMs. Once the service has failed to
 * connect or to answer in time it is taken as down until
 * cloud_metadata_reset, so that a machine outside a cloud pays one timeout
 * per start, not one per tag.
 *
 * Threads: the thread that resolves tags at start-up.
 */
#ifndef VX_CLOUD_METADATA_H
#define VX_CLOUD_METADATA_H

#include <cstddef>

namespace vx {

enum class Cloud : int { Aws, Gcp, Azure };

/* The first line of the answer's body for metadata `name` (letters,
 * digits, '-', '_', '.', '/' only) into `out`, cut at cap - 1. 0 on a 200
 * answer with a non-empty body; -1 otherwise, with a log line. */
int cloud_metadata_get(Cloud cloud, const char* name, char* out, size_t cap);

/* Forgets an earlier failure: the next call tries the service again. */
void cloud_metadata_reset();

}  // namespace vx

#endif
