/*
 * HB_STACK: a growable stack of byte blocks. Pushing copies the data into a
 * block the stack owns; popped blocks stay owned and are reused by later
 * pushes. Not thread-safe.
 */
#ifndef VX_STACK_H
#define VX_STACK_H

struct hb_stack_t {
    void** client_data; /* the blocks */
    int* size;          /* capacity of each block */
    int top;            /* index of the top element, -1 when empty */
    int alloc_size;     /* slots allocated */
};
typedef hb_stack_t HB_STACK;

extern "C" {
void hbStackInit(HB_STACK* s);
void hbStackPush(HB_STACK* s, void* data, int datasize);
void* hbStackPop(HB_STACK* s);
void hbStackFree(HB_STACK* s);
}

#endif
