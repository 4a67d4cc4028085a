/*
 * Tag definitions of business transactions, as rule lines give them: one
 * list per BT id (VXBTMonitor.btTagArray) and one global list.
 *
 * A tag list is text of '&'-separated items "key%20namespace%20field". An
 * item is taken only if it has a field and a namespace, and if its key is
 * not yet known (not "Technology", not a tag or attribute of the settings,
 * not in the global list, and for a global tag in no BT's list either).
 *
 * Threads: the control thread edits; every edit and every reader holds
 * btGlobalTag_lock.
 */
#ifndef VX_BT_TAGS_H
#define VX_BT_TAGS_H

#include <apr_thread_mutex.h>

#include "core/vx_thread.h"

/* Where a tag's value comes from. 7 has two names in use. */
enum vx_tag_namespace : int {
    namespace_inline = 0,
    namespace_http_url_query_param = 1,
    namespace_http_request_headers = 2,
    namespace_http_response_headers = 3,
    namespace_notused1 = 4,
    namespace_json = 5,
    namespace_enviournment = 6,
    namespace_vxs = 7,
    namespace_nds = 7,
    namespace_propfile = 8,
    namespace_kubernetes = 9,
    namespace_aws = 10,
    namespace_gcp = 11,
    namespace_ms_azure = 12,
    namespace_system = 13,
};

struct BTTagArray {
    char* key;
    char* tagField;
    char* resolvedValue; /* set at once for inline tags */
    vx_tag_namespace type;
    BTTagArray* next;
};

extern "C" {
/* Adds the items of `ptr` to the list of `bt_id` (0 counts as 1). */
void parse_tags(char* ptr, int bt_id);
void parse_global_tags(char* ptr);
/* Grows btTagArray (doubling) until `bt_id` fits; 0 or -1. */
int insert_tag_per_bt(int bt_id);
}

namespace vx {

/* Empties the list of one BT id, or the global list with -1. */
void bt_tags_clear(int bt_id);

/* Visits the list of a BT id (-1: the global list) under the list lock. */
template <typename Fn>
void bt_tags_each(int bt_id, Fn&& fn);

/* The head of a list; the caller holds bt_tags_mutex(). */
BTTagArray* bt_tags_head_locked(int bt_id);
apr_thread_mutex_t* bt_tags_mutex();

}  // namespace vx

template <typename Fn>
void vx::bt_tags_each(int bt_id, Fn&& fn)
{
    vx::VXLockGuard guard(bt_tags_mutex());
    for (const BTTagArray* t = bt_tags_head_locked(bt_id); t; t = t->next) fn(*t);
}

#endif
