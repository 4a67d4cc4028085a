#include "http/vx_trace_context.h"

int arrPropagationHeaders[3] = {0, 0, 0};
int arSpanType[5] = {0, 0, 0, 0, 0};
