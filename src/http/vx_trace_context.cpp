#include "http/vx_trace_context.h"

int arrPropagationHeaders[3] = {0, 0, 0};
