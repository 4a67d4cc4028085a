/*
 * Headers the agent gives as text ("Name:value" lines: the correlation
 * text, the trace context) written into a request or an answer that
 * libwebsockets is building.
 */
#ifndef VX_HEADER_LINES_H
#define VX_HEADER_LINES_H

#include <libwebsockets.h>

/* Adds each line of `lines` (null: none; the last may lack its line feed)
 * between *p and `end`, which it advances. 1 when a line has no name or does
 * not fit, else 0. */
int add_header_lines(lws* wsi, const char* lines, unsigned char** p, unsigned char* end);

#endif
