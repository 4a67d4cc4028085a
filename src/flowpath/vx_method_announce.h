/*
 * Record 5: the agent announces each method of the table to the collector,
 * "5,<name>,<id>" or, with a signature, "5,<name>(<args;>)<ret>,<id>".
 * Records go out only while the data thread runs; otherwise a call does
 * nothing (a new connection of a new session announces the whole table).
 *
 * Thread: any; callers hold the method lock, which keeps the entry whole
 * while it is written (dumpMethodTableMetaData takes it itself).
 */
#ifndef VX_METHOD_ANNOUNCE_H
#define VX_METHOD_ANNOUNCE_H

#include <cstddef>

struct methodPropProperties;

extern "C" {

/* Record 5 with the signature: "5,<name>(<args;>)<ret>,<id>". */
void dumpMetadataForSig(methodPropProperties* mPP);

/* Record 5 for every method of the current table (a new connection of a new
 * session announces them all). */
void dumpMethodTableMetaData(void);
}

namespace vx {
/* Record 5 without a signature: "5,<name>,<id>", cut to 1,023 bytes. */
void announce_method_id(methodPropProperties* m);
/* Record 5 for a method the collector has not seen: with its signature when
 * it has a return type, else by id (and the entry counts as used). */
void announce_new_method(methodPropProperties* m);
/* Record 5 with the signature, "5,<name>(<args;>)<ret>,<id>\n", into `buf`
 * of `cap` bytes, cut with its line feed kept; the length. */
size_t method_signature_record(const methodPropProperties* m, char* buf, size_t cap);
/* Whether new methods are announced as a profile adds them: always at run
 * time, else unless the session asked for no metadata. */
bool method_metadata_wanted();
}  // namespace vx

#endif
