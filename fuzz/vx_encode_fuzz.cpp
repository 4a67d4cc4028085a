/* libFuzzer entry for the query and exception text encoders; any failed
 * check aborts. */
#include <cstdio>
#include <cstdlib>

#include "vx_encode_check.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size)
{
    if (int failed = vx_check::check_encoders(data, size)) {
        fprintf(stderr, "encoder check %d failed\n", failed);
        abort();
    }
    return 0;
}
