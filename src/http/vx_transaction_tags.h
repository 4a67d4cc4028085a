/*
 * Transaction tags: the values of the tags that business-transaction rules
 * declare, taken from the running request (query string, request and
 * response headers, fixed text) into the thread's per-BT lists.
 *
 * STAND-IN(transaction-tags): no tag applies yet; nothing is resolved.
 */
#ifndef VX_TRANSACTION_TAGS_H
#define VX_TRANSACTION_TAGS_H

struct VXPerThreadData_t;

extern "C" {
/* 1 when the BT's list (if btId is within the table) or the global list
 * declares a tag of namespace `type`; 0 with tags off. */
int is_tag_applied_per_bt_or_globally(int btId, int type);
int is_tag_applied_globally(int btId, int type);

/* Applies one observed item (a query string, or a header's name and
 * value) to both lists. */
void resolveTransactionTag(VXPerThreadData_t* vxTD, char* key, char* value, int btId, int type);
}

#endif
