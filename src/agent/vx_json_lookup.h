/*
 * Finds one value in a JSON document, for "json" tags when no resolver
 * script is installed: a key of the top-level object, or a dotted path
 * ("placement.zone") through nested objects.
 *
 * A reader, not a full parser: it walks the text once, never past `len`,
 * and gives up (returns -1) on anything malformed or nested deeper than 32.
 * No state; any thread.
 */
#ifndef VX_JSON_LOOKUP_H
#define VX_JSON_LOOKUP_H

#include <cstddef>

namespace vx {

/* The value at `path` into `out` (cap bytes, cut at cap - 1): a string
 * unescaped (\uXXXX above 0x7F becomes '?'), a number, true or false as
 * written. 0 when found; -1 when absent, null, an object or an array. */
int json_lookup(const char* text, size_t len, const char* path, char* out, size_t cap);

}  // namespace vx

#endif
