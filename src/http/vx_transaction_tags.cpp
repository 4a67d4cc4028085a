#include "http/vx_transaction_tags.h"

/* STAND-IN(transaction-tags). */

extern "C" int is_tag_applied_per_bt_or_globally(int, int) { return 0; }

extern "C" int is_tag_applied_globally(int, int) { return 0; }

extern "C" void resolveTransactionTag(VXPerThreadData_t*, char*, char*, int, int) {}
