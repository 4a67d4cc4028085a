/*
 * Transaction tags: the values of the tags that business-transaction rules
 * declare, taken from the running request (query string, request and
 * response headers, fixed text) into the thread's per-BT chains on its
 * monitor model, and the chain of one BT turned into a tag sequence.
 *
 * Threads: the record's own thread. The declared lists are read under
 * btGlobalTag_lock; a chain is edited under its model's lockForBT, taken
 * before the tag lock (the model's lock order).
 */
#ifndef VX_TRANSACTION_TAGS_H
#define VX_TRANSACTION_TAGS_H

struct VXPerThreadData_t;
struct BTTagArray;
struct BTTagSeqArray;

extern "C" {
/* 1 when the BT's list (if btId is within the table) or the global list
 * declares a tag of namespace `type`; 0 with tags off. */
int is_tag_applied_per_bt_or_globally(int btId, int type);
int is_tag_applied_globally(int btId, int type);

/* Applies one observed item (a query string, or a header's name and
 * value) to both lists. Nothing without a monitor model. */
void resolveTransactionTag(VXPerThreadData_t* vxTD, char* key, char* value, int btId, int type);

/* Copies the fixed (inline) tags of the global list, then of the BT's
 * list, to the thread's chain of btId: a BT's tag wins over a global one. */
void resolveInlineTag(VXPerThreadData_t* vxTl, int btId);

/* A new BTTagSeqArray whose tagSeq is the sorted JSON object of the BT's
 * resolved pairs (at most 128), or null when there is none. Keys and
 * values of the chain are encoded in place. The caller owns the node. */
BTTagSeqArray* get_json_bt_per_thread(VXPerThreadData_t* vxTD, int btID);

/* 1 when a declared tag has this key, with an error line. */
int TagExistInGlobalList(char* key);
int TagExistInPatternList(char* key);

/* Finds the query item named by `bFirst`'s field in the query string `key`
 * and stores its value in the chain of btId. */
void resolveQueryTag(VXPerThreadData_t* vxTl, int btId, BTTagArray* bFirst, char* key);

/* The chain of btId, grown to hold it; then create_or_copy_tag_value. */
void update_or_add_bt_tag_per_thread(VXPerThreadData_t* vxTl, int btId, BTTagArray* bFirst,
                                     char* value);
/* Sets the value of the node with bFirst's key and type, made at the chain's
 * end when absent; a later value replaces an earlier one. */
void create_or_copy_tag_value(VXPerThreadData_t* vxTl, int btId, BTTagArray* bFirst, char* value);
/* 1 when the chain of btId holds a node with bFirst's key and type. */
int IsTagExistInBTPerThread(VXPerThreadData_t* vxTD, BTTagArray* bFirst, int btId);
}

#endif
