/*
 * Ids of HTTP header names (httpHashMapNode), used by header capture and by
 * method-argument records.
 *
 * STAND-IN(http-capture): names get ids from httpid on first
 * use; the header list file and the header metadata record come with header
 * capture.
 */
#ifndef VX_HEADER_IDS_H
#define VX_HEADER_IDS_H

struct httpHashMapNode_t {
    char* name;
    int id;
};

extern "C" {
/* The entry of `name`, created when absent and `updateFlag` is set; null
 * otherwise. Any thread. */
httpHashMapNode_t* searchAndUpdatehttpHashMapNode(char* name, void* httpHashMapNodeLocal, int updateFlag);
}

#endif
