#include "core/vx_stack.h"

#include <cstdlib>
#include <cstring>

#include "core/vx_limits.h"

extern "C" void hbStackInit(HB_STACK* s)
{
    if (s) s->top = -1;
}

namespace {

/* Grow both arrays by one step, new slots zeroed; false when out of memory
 * (the stack is left as it was). */
bool grow(HB_STACK* s)
{
    int n = s->alloc_size + vx::kStackGrowStep;
    auto* blocks = static_cast<void**>(realloc(s->client_data, sizeof(void*) * n));
    if (!blocks) return false;
    s->client_data = blocks;
    auto* sizes = static_cast<int*>(realloc(s->size, sizeof(int) * n));
    if (!sizes) return false;
    s->size = sizes;
    memset(blocks + s->alloc_size, 0, sizeof(void*) * vx::kStackGrowStep);
    memset(sizes + s->alloc_size, 0, sizeof(int) * vx::kStackGrowStep);
    s->alloc_size = n;
    return true;
}

}  // namespace

extern "C" void hbStackPush(HB_STACK* s, void* data, int datasize)
{
    if (!s || datasize < 0) return;
    if (s->top >= s->alloc_size - 1 && !grow(s)) return;
    int slot = s->top + 1;
    if (s->size[slot] < datasize || !s->client_data[slot]) {
        void* block = realloc(s->client_data[slot], datasize > 0 ? static_cast<size_t>(datasize) : 1);
        if (!block) return;
        s->client_data[slot] = block;
        s->size[slot] = datasize;
    }
    if (datasize > 0 && data) memcpy(s->client_data[slot], data, static_cast<size_t>(datasize));
    s->top = slot;
}

extern "C" void* hbStackPop(HB_STACK* s)
{
    if (!s || s->top < 0) return nullptr;
    return s->client_data[s->top--];
}

extern "C" void hbStackFree(HB_STACK* s)
{
    if (!s) return;
    for (int i = 0; i < s->alloc_size; ++i) free(s->client_data[i]);
    free(s->client_data);
    free(s->size);
    s->client_data = nullptr;
    s->size = nullptr;
    s->alloc_size = 0;
    s->top = -1;
}
