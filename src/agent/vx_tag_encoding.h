/*
 * The text form shared by the agent's own tags and attributes and by
 * transaction tags: separator characters become "_", pairs are sorted by
 * key, and the pairs are written as one compact JSON object.
 *
 * All functions work on the caller's buffers and keep no state; any thread.
 */
#ifndef VX_TAG_ENCODING_H
#define VX_TAG_ENCODING_H

#include <cstddef>
#include <string>

extern "C" {
/* Maps every byte of `str` in place through VXSys.arTagEncode (the ten
 * separator characters become "_"). Nothing without an instance. */
void EncodeTagsandAttributes(char* str);
void swapTags(char** a, char** b);
/* Keys ascending, compared over the shorter length; values move along. */
void sortTags(char** k, char** v, int len);
}

namespace vx {

/* Appends {"k0":"v0",...} for n pairs in the given order; a key met again
 * replaces its earlier value in place. '"', '\' and control characters are
 * escaped; '/' is written plain. */
void tag_pairs_to_json(std::string& out, char* const* keys, char* const* values, int n);

}  // namespace vx

#endif
