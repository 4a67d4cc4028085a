#include "proxy/vx_frame_encoder.h"

/* STAND-IN(proxy-link). */
extern "C" void transactionStartEncode(long long, long long, char*, char*, char*, char*, char*,
                                       char*, long long)
{
}

extern "C" void transactionEndEncode(int, long long, long long, long long, int) {}

extern "C" void transactionResetEncode(long long) {}

extern "C" void MethodEntryEncode(int, long long, long long, char*, char*, char*, long long, char*) {}

extern "C" void MethodExitEncode(int, int, int, int, long long, long long, long long, long long, char*,
                                 char*, long long, long long, char*)
{
}

extern "C" void vxMethodExitExceptionEncode(long long, char*, char*, long long, int) {}

extern "C" void send_meta_data(char*) {}
