#include "http/vx_transaction_tags.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "agent/vx_instance.h"
#include "agent/vx_tag_encoding.h"
#include "bt/vx_bt_tags.h"
#include "core/vx_encode.h"
#include "core/vx_limits.h"
#include "core/vx_text.h"
#include "core/vx_thread.h"
#include "core/vx_trace_log.h"
#include "flowpath/vx_per_thread_data.h"
#include "monitor/vx_monitor_model.h"

namespace {

constexpr int kHeaderTextSize = 1024; /* decoded header name or value looked at */

bool tags_on(const VXProxyInstance_t* app)
{
    return app && app->VXSys.enableTagsSupport;
}

bool list_has_type(const BTTagArray* t, int type)
{
    for (; t; t = t->next)
        if (t->type == type) return true;
    return false;
}

/* Makes room for btId in the model's chains. Caller holds lockForBT. */
bool chain_room(VXMonitorDataModel* m, int btId)
{
    if (btId < 0) return false;
    /* One doubling may not reach a large id: grow until it fits. */
    while (!m->btPerThreadArray || btId >= m->currentSizeOfBTPerThreadArray) {
        const int old = m->currentSizeOfBTPerThreadArray;
        const int size = old > 0 ? old * 2 : kMonitorArrayInitial;
        auto* grown =
            static_cast<BTTagArray**>(realloc(m->btPerThreadArray, sizeof(BTTagArray*) * size));
        if (!grown) {
            VX_ERROR("BT_MON", "Could not grow the tag chains to %d entries", size);
            return false;
        }
        memset(grown + old, 0, sizeof(BTTagArray*) * (size - old));
        m->btPerThreadArray = grown;
        m->currentSizeOfBTPerThreadArray = size;
    }
    return true;
}

BTTagArray* find_node(BTTagArray* t, const BTTagArray* decl)
{
    for (; t; t = t->next)
        if (t->type == decl->type && strcmp(t->key, decl->key) == 0) return t;
    return nullptr;
}

/* A fresh zeroed value buffer holding `value` cut at 254 characters; null
 * without memory (the node then stays without value). */
char* value_buffer(const char* value)
{
    char* buf = static_cast<char*>(calloc(1, vx::kTagValueSize));
    if (!buf) {
        VX_ERROR("BT_MON", "No memory for a tag value");
        return nullptr;
    }
    snprintf(buf, vx::kTagValueSize, "%s", value ? value : "");
    return buf;
}

/* Sets the value on a model whose chain of btId exists; caller holds
 * lockForBT. */
void set_value(VXMonitorDataModel* m, int btId, const BTTagArray* decl, const char* value)
{
    BTTagArray*& head = m->btPerThreadArray[btId];
    if (BTTagArray* n = find_node(head, decl)) {
        free(n->resolvedValue);
        n->resolvedValue = value_buffer(value);
        return;
    }
    auto* n = static_cast<BTTagArray*>(calloc(1, sizeof(BTTagArray)));
    if (!n || !(n->key = strdup(decl->key))) {
        free(n);
        VX_ERROR("BT_MON", "No memory for the tag '%s'", decl->key);
        return;
    }
    n->type = decl->type;
    n->resolvedValue = value_buffer(value);
    BTTagArray** at = &head;
    while (*at) at = &(*at)->next;
    *at = n;
}

/* resolveQueryTag on a model; caller holds lockForBT. */
void query_tag(VXMonitorDataModel* m, int btId, const BTTagArray* decl, const char* query)
{
    if (!query || !decl->tagField) return;
    char buf[vx::kTagQueryBufferSize];
    decodeurlencoding(buf, const_cast<char*>(query), static_cast<int>(sizeof buf) - 1);
    char* items[vx::kTagQueryItemsMax];
    const int n = vxlb_get_tokens_with_multi_delimiter(buf, items, const_cast<char*>("&"),
                                                       vx::kTagQueryItemsMax);
    for (int i = 0; i < n; ++i) {
        char* eq = strchr(items[i], '=');
        if (!eq) return; /* an item without "=" ends the search */
        *eq = '\0';
        if (strcmp(items[i], decl->tagField) == 0) {
            if (chain_room(m, btId)) set_value(m, btId, decl, eq + 1);
            return;
        }
    }
}

/* process_each_record: one declared list against one observed item.
 * Caller holds lockForBT and the tag lock. */
void process_each_record(VXMonitorDataModel* m, const char* key, const char* value, int btId,
                         int type, const BTTagArray* decl)
{
    for (; decl; decl = decl->next) {
        if (decl->type != type) continue;
        if (type == namespace_http_request_headers || type == namespace_http_response_headers) {
            /* An empty value is absent after decoding: nothing to keep. */
            if (key && value && decl->tagField && strcmp(decl->tagField, key) == 0 &&
                chain_room(m, btId))
                set_value(m, btId, decl, value);
        } else if (type == namespace_http_url_query_param) {
            query_tag(m, btId, decl, key);
        }
    }
}

/* The decoded copy of a header name or value in `buf`: null when absent
 * or empty. A text longer than the buffer is cut (a value is kept to 254
 * characters anyway). */
const char* decoded(char (&buf)[kHeaderTextSize], const char* text)
{
    if (!text || !*text) return nullptr;
    decodeurlencoding(buf, const_cast<char*>(text), static_cast<int>(sizeof buf) - 1);
    return buf;
}

}  // namespace

extern "C" int is_tag_applied_per_bt_or_globally(int btId, int type)
{
    VXProxyInstance_t* app = vx_app();
    if (!tags_on(app)) return 0;
    vx::VXLockGuard guard(vx::bt_tags_mutex());
    if (btId >= 0 && list_has_type(vx::bt_tags_head_locked(btId), type)) return 1;
    return list_has_type(vx::bt_tags_head_locked(-1), type) ? 1 : 0;
}

extern "C" int is_tag_applied_globally(int, int type)
{
    VXProxyInstance_t* app = vx_app();
    if (!tags_on(app)) return 0;
    vx::VXLockGuard guard(vx::bt_tags_mutex());
    return list_has_type(vx::bt_tags_head_locked(-1), type) ? 1 : 0;
}

extern "C" void resolveTransactionTag(VXPerThreadData_t* vxTD, char* key, char* value, int btId,
                                      int type)
{
    VXProxyInstance_t* app = vx_app();
    if (!tags_on(app) || !vxTD || btId < 0) return;
    VXMonitorDataModel* m = vx::monitor_model_of(vxTD);
    if (!m) return;
    /* Decoded on the stack: this runs for each header of a request. */
    char keyCopy[kHeaderTextSize], valueCopy[kHeaderTextSize];
    const char* k = key;
    const char* v = value;
    if (type == namespace_http_request_headers || type == namespace_http_response_headers) {
        k = decoded(keyCopy, key);
        v = decoded(valueCopy, value);
    }
    vx::VXLockGuard model(m->lockForBT);
    vx::VXLockGuard tags(vx::bt_tags_mutex());
    process_each_record(m, k, v, btId, type, vx::bt_tags_head_locked(-1));
    /* Past the table's end the BT has no list: the global tags alone. */
    process_each_record(m, k, v, btId, type, vx::bt_tags_head_locked(btId));
}

extern "C" void resolveQueryTag(VXPerThreadData_t* vxTl, int btId, BTTagArray* bFirst, char* key)
{
    if (!vxTl || !bFirst || btId < 0) return;
    VXMonitorDataModel* m = vx::monitor_model_of(vxTl);
    if (!m) return;
    vx::VXLockGuard guard(m->lockForBT);
    query_tag(m, btId, bFirst, key);
}

extern "C" void resolveInlineTag(VXPerThreadData_t* vxTl, int btId)
{
    VXProxyInstance_t* app = vx_app();
    if (!tags_on(app) || !vxTl || btId < 0) return;
    VXMonitorDataModel* m = vx::monitor_model_of(vxTl);
    if (!m) return;
    vx::VXLockGuard model(m->lockForBT);
    if (!chain_room(m, btId)) return;
    vx::VXLockGuard tags(vx::bt_tags_mutex());
    for (int list : {-1, btId})
        for (const BTTagArray* t = vx::bt_tags_head_locked(list); t; t = t->next)
            if (t->type == namespace_inline && t->resolvedValue)
                set_value(m, btId, t, t->resolvedValue);
}

extern "C" void update_or_add_bt_tag_per_thread(VXPerThreadData_t* vxTl, int btId,
                                                BTTagArray* bFirst, char* value)
{
    create_or_copy_tag_value(vxTl, btId, bFirst, value);
}

extern "C" void create_or_copy_tag_value(VXPerThreadData_t* vxTl, int btId, BTTagArray* bFirst,
                                         char* value)
{
    if (!vxTl || !bFirst || !bFirst->key || btId < 0) return;
    VXMonitorDataModel* m = vx::monitor_model_of(vxTl);
    if (!m) return;
    vx::VXLockGuard guard(m->lockForBT);
    if (chain_room(m, btId)) set_value(m, btId, bFirst, value);
}

extern "C" int IsTagExistInBTPerThread(VXPerThreadData_t* vxTD, BTTagArray* bFirst, int btId)
{
    VXMonitorDataModel* m = vxTD ? vxTD->tlMonitorDataModel : nullptr;
    if (!m || !bFirst || !bFirst->key || btId < 0) return 0;
    vx::VXLockGuard guard(m->lockForBT);
    if (!m->btPerThreadArray || btId >= m->currentSizeOfBTPerThreadArray) return 0;
    return find_node(m->btPerThreadArray[btId], bFirst) ? 1 : 0;
}

extern "C" BTTagSeqArray* get_json_bt_per_thread(VXPerThreadData_t* vxTD, int btID)
{
    VXMonitorDataModel* m = vxTD ? vxTD->tlMonitorDataModel : nullptr;
    if (!m || btID < 0) return nullptr;
    std::string json;
    try {
        vx::VXLockGuard guard(m->lockForBT);
        if (!m->btPerThreadArray || btID >= m->currentSizeOfBTPerThreadArray) return nullptr;
        char* keys[vx::kTagSeqPairsMax];
        char* values[vx::kTagSeqPairsMax];
        int n = 0;
        for (BTTagArray* t = m->btPerThreadArray[btID]; t && n < vx::kTagSeqPairsMax; t = t->next)
            if (t->key && t->resolvedValue) {
                keys[n] = t->key;
                values[n++] = t->resolvedValue;
            }
        if (n == 0) return nullptr;
        sortTags(keys, values, n);
        /* Encoded after the sort, in place: the sort sees the plain texts. */
        for (int i = 0; i < n; ++i) {
            check_and_remove_slash_n(values[i]);
            EncodeTagsandAttributes(keys[i]);
            EncodeTagsandAttributes(values[i]);
        }
        vx::tag_pairs_to_json(json, keys, values, n);
    } catch (...) { /* no memory for the text: no sequence, never an exception out */
        VX_ERROR("BT_MON", "No memory for a tag sequence of BT %d", btID);
        return nullptr;
    }
    if (json.size() <= 4) return nullptr;
    auto* node = static_cast<BTTagSeqArray*>(calloc(1, sizeof(BTTagSeqArray)));
    if (!node || !(node->tagSeq = strdup(json.c_str()))) {
        free(node);
        VX_ERROR("BT_MON", "No memory for a tag sequence of BT %d", btID);
        return nullptr;
    }
    return node;
}

namespace {

/* The id of the list (-1 global, else a BT id) declaring `key`; -2 none. */
int declaring_list(const char* key, bool global)
{
    VXProxyInstance_t* app = vx_app();
    if (!key || !app) return -2;
    vx::VXLockGuard guard(vx::bt_tags_mutex());
    const int from = global ? -1 : 0;
    const int to = global ? -1 : app->VXBTMonitor.currentSizeOfBTTagArray - 1;
    for (int id = from; id <= to; ++id)
        for (const BTTagArray* t = vx::bt_tags_head_locked(id); t; t = t->next)
            if (t->key && strcmp(t->key, key) == 0) return id;
    return -2;
}

}  // namespace

extern "C" int TagExistInGlobalList(char* key)
{
    if (declaring_list(key, true) == -2) return 0;
    VX_ERROR("BT_MON", "Tag %s exists in the global tag list.", key);
    return 1;
}

extern "C" int TagExistInPatternList(char* key)
{
    const int id = declaring_list(key, false);
    if (id == -2) return 0;
    VX_ERROR("BT_MON", "Tag %s exists in the patten list for btid %d.", key, id);
    return 1;
}
