/* What only vx_tag_resolvers.cpp and its test see. */
#ifndef VX_TAG_RESOLVERS_PRIVATE_H
#define VX_TAG_RESOLVERS_PRIVATE_H

/* Property files read so far: a file named by several tags is read once. */
int vx_tag_propfile_reads();

#endif
