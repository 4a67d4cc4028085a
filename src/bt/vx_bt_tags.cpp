#include "bt/vx_bt_tags.h"

#include <apr_hash.h>
#include <apr_strings.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "agent/vx_instance.h"
#include "core/vx_text.h"
#include "core/vx_trace_log.h"

namespace {

constexpr char kTagPartSeparator[] = "%20";

VXBTMonitor_t& monitor()
{
    return vx_app()->VXBTMonitor;
}

BTTagArray** list_of(int bt_id)
{
    VXBTMonitor_t& m = monitor();
    if (bt_id < 0) return &m.btGlobalTag;
    if (bt_id >= m.currentSizeOfBTTagArray || !m.btTagArray) return nullptr;
    return &m.btTagArray[bt_id];
}

void free_list(BTTagArray* t)
{
    while (t) {
        BTTagArray* next = t->next;
        free(t->key);
        free(t->tagField);
        free(t->resolvedValue);
        free(t);
        t = next;
    }
}

bool in_list(const BTTagArray* t, const char* key)
{
    for (; t; t = t->next)
        if (strcmp(t->key, key) == 0) return true;
    return false;
}

bool in_settings(const char* key)
{
    const VXBCISetting_t& s = vx_app()->VXBCISetting;
    for (apr_hash_t* list : {s.taglist, s.attributelist})
        if (list && apr_hash_get(list, key, APR_HASH_KEY_STRING)) return true;
    return false;
}

/* Whether a key is known already, for a tag of `bt_id` (-1: global). */
bool key_known(const char* key, int bt_id)
{
    if (strcmp(key, "Technology") == 0 || in_settings(key) || in_list(monitor().btGlobalTag, key))
        return true;
    if (bt_id >= 0) return false;
    const VXBTMonitor_t& m = monitor();
    for (int i = 0; i < m.currentSizeOfBTTagArray; ++i)
        if (in_list(m.btTagArray[i], key)) return true;
    return false;
}

char* dup_cut(const char* text)
{
    char buf[vx::kBTTagKeySize];
    vx::copy_text(buf, sizeof buf, text);
    return strdup(buf);
}

/* Parses one list into the list of `bt_id` (-1: global). Holds the lock. */
void parse_into(char* text, int bt_id)
{
    if (!text || !*text || !vx_app()) return;
    vx::VXLockGuard guard(vx::bt_tags_mutex());
    std::string copy = text;
    char* items[vx::kBTTagItemsMax];
    const int n = vxlb_get_tokens_with_multi_delimiter(copy.data(), items, const_cast<char*>("&"),
                                                       vx::kBTTagItemsMax);
    for (int i = 0; i < n; ++i) {
        char* parts[3] = {};
        const int k = tokenize(items[i], parts, const_cast<char*>(kTagPartSeparator), 3);
        if (k < 3 || !*parts[2]) continue;
        const int ns = atoi(parts[1]);
        if (ns < namespace_inline || ns > namespace_system) continue;
        if (key_known(parts[0], bt_id)) continue;
        if (bt_id >= 0 && insert_tag_per_bt(bt_id) != 0) return;
        BTTagArray** list = list_of(bt_id);
        if (!list) return;
        auto* t = static_cast<BTTagArray*>(calloc(1, sizeof(BTTagArray)));
        if (!t) return;
        t->key = dup_cut(parts[0]);
        t->tagField = strdup(parts[2]);
        t->type = static_cast<vx_tag_namespace>(ns);
        if (t->type == namespace_inline) t->resolvedValue = dup_cut(parts[2]);
        if (!t->key || !t->tagField || (t->type == namespace_inline && !t->resolvedValue)) {
            free_list(t);
            return;
        }
        while (*list) list = &(*list)->next;
        *list = t;
    }
}

}  // namespace

apr_thread_mutex_t* vx::bt_tags_mutex()
{
    return vx_app() ? monitor().btGlobalTag_lock : nullptr;
}

BTTagArray* vx::bt_tags_head_locked(int bt_id)
{
    BTTagArray** list = list_of(bt_id);
    return list ? *list : nullptr;
}

extern "C" int insert_tag_per_bt(int bt_id)
{
    VXBTMonitor_t& m = monitor();
    if (bt_id < 0 || bt_id > vx::kBTCountMax) return -1;
    int size = m.currentSizeOfBTTagArray > 0 ? m.currentSizeOfBTTagArray : vx::kBTAggArrayInitial;
    while (bt_id >= size) size *= 2;
    if (size == m.currentSizeOfBTTagArray) return 0;
    auto* grown = static_cast<BTTagArray**>(realloc(m.btTagArray, sizeof(BTTagArray*) * size));
    if (!grown) {
        VX_ERROR("BT_MON", "Could not grow the BT tag array to %d entries", size);
        return -1;
    }
    memset(grown + m.currentSizeOfBTTagArray, 0,
           sizeof(BTTagArray*) * (size - m.currentSizeOfBTTagArray));
    m.btTagArray = grown;
    m.currentSizeOfBTTagArray = size;
    return 0;
}

void vx::bt_tags_clear(int bt_id)
{
    if (!vx_app()) return;
    vx::VXLockGuard guard(vx::bt_tags_mutex());
    if (BTTagArray** list = list_of(bt_id)) {
        free_list(*list);
        *list = nullptr;
    }
}

extern "C" void parse_tags(char* ptr, int bt_id)
{
    parse_into(ptr, bt_id < 1 ? 1 : bt_id);
}

extern "C" void parse_global_tags(char* ptr)
{
    parse_into(ptr, -1);
}
