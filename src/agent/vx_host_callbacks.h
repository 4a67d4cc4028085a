/*
 * Callbacks into the host: the thirteen function pointers a host may
 * register (the registration calls are declared in vx_sdk.h), and
 * callback_function_sdk, the one door through which the core passes a
 * setting that lives on the host's side.
 *
 * Every pointer is null until the host registers it, and every call site
 * tests it first. The pointers are plain process-wide values: a host
 * registers before it expects to be called, typically right after vx_init2.
 */
#ifndef VX_HOST_CALLBACKS_H
#define VX_HOST_CALLBACKS_H

#include "vx_sdk.h"

extern "C" {

extern callback_func agent_callback_func;          /* settings: callback_function_sdk */
extern test_status test_status_func;               /* session start (1) and stop (0) */
extern ad_callback ad_callback_func;               /* loaded-class discovery */
extern ad_callback_php ad_callback_func_php;       /* the same, for PHP hosts */
extern Goroutine_status Goroutine_status_func;     /* goroutine monitor switched */
extern GC_status GC_status_func;                   /* GC monitor switched */
extern ai_start_func ai_start_callback_func;       /* auto-instrumentation session start */
extern ai_end_func ai_end_callback_func;           /* and end */
extern thread_dump_func thread_dump_callback_func; /* on-demand thread dump */
extern vx_cookie_func vx_cookie_callback_func;     /* session cookie settings */
extern kp_cookie_func kp_cookie_callback_func;     /* user-experience cookie name */
extern mtx_lock_func mtx_lock_callback_func;       /* lock report, Go hosts only */
extern heap_dump_func heap_dump_callback_func;     /* on-demand heap dump */

/*
 * Tell the host about setting `keywordName`: calls agent_callback_func, when
 * registered, with the first four arguments and two nulls (`fField1` and
 * `fField2` are not passed on). The strings stay the caller's. Returns 0,
 * whatever the host answers. Any thread.
 */
int callback_function_sdk(char* keywordName, long long keywordValue, char* keywordValueString,
                          char* fileData, char* fField1, char* fField2) VX_NOEXCEPT;

/* callback_function_sdk for an int setting, without the last two fields. */
void transfer_data_callback(char* keywordName, int keywordValue, char* keywordValueString,
                            char* fileData) VX_NOEXCEPT;
}

#endif
