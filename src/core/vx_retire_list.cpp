#include "core/vx_retire_list.h"

#include <cstdlib>

namespace vx {

struct RetiredItem {
    void* ptr;
    ReleaseFn release;
    apr_time_t retiredAt;
    RetiredItem* next;
};

int retire(RetireList& list, void* ptr, ReleaseFn release)
{
    if (!ptr) return 0;
    auto* item = static_cast<RetiredItem*>(malloc(sizeof(RetiredItem)));
    if (!item) return -1;
    *item = RetiredItem{ptr, release, apr_time_now(), list.head};
    list.head = item;
    return 0;
}

int retire_collect(RetireList& list, apr_time_t now, apr_interval_time_t grace)
{
    int released = 0;
    RetiredItem** link = &list.head;
    while (RetiredItem* item = *link) {
        if (grace > 0 && now - item->retiredAt < grace) {
            link = &item->next;
            continue;
        }
        *link = item->next;
        if (item->release)
            item->release(item->ptr);
        else
            free(item->ptr);
        free(item);
        ++released;
    }
    return released;
}

}  // namespace vx
