#include "agent/vx_host_callbacks.h"

#include <cstdint>
#include <cstdio>

#include "core/vx_host_call.h"

#include "agent/vx_instance.h"
#include "agent/vx_sdk_log.h"
#include "agent/vx_sys.h"
#include "core/vx_atomic.h"
#include "core/vx_platform.h"
#include "flowpath/vx_session_settings.h"

callback_func agent_callback_func = nullptr;
test_status test_status_func = nullptr;
ad_callback ad_callback_func = nullptr;
ad_callback_php ad_callback_func_php = nullptr;
Goroutine_status Goroutine_status_func = nullptr;
GC_status GC_status_func = nullptr;
ai_start_func ai_start_callback_func = nullptr;
ai_end_func ai_end_callback_func = nullptr;
thread_dump_func thread_dump_callback_func = nullptr;
vx_cookie_func vx_cookie_callback_func = nullptr;
kp_cookie_func kp_cookie_callback_func = nullptr;
mtx_lock_func mtx_lock_callback_func = nullptr;
heap_dump_func heap_dump_callback_func = nullptr;

namespace {

/* The value some registration calls return: their global's address, cut to
 * an int. It carries no meaning; hosts ignore it. */
template <typename T>
int address_as_int(T* global)
{
    return static_cast<int>(reinterpret_cast<intptr_t>(global));
}

}  // namespace

extern "C" int callback_function_sdk(char* keywordName, long long keywordValue,
                                     char* keywordValueString, char* fileData, char* fField1,
                                     char* fField2) VX_NOEXCEPT
{
    (void)fField1;
    (void)fField2;
    VX_SDK_LOG(
        VX_SDK_DEBUG,
        "Method Called with values keywordName = %s, keywordValue = %lld, fileData = [%.300s]",
        keywordName ? keywordName : "(null)", keywordValue, fileData ? fileData : "(null)");
    vx::call_host("agent_callback", agent_callback_func, keywordName, keywordValue,
                  keywordValueString, fileData, static_cast<char*>(nullptr), static_cast<char*>(nullptr));
    VX_SDK_LOG(VX_SDK_DEBUG, "Method exit");
    return 0;
}

extern "C" void transfer_data_callback(char* keywordName, int keywordValue,
                                       char* keywordValueString, char* fileData) VX_NOEXCEPT
{
    callback_function_sdk(keywordName, keywordValue, keywordValueString, fileData, nullptr,
                          nullptr);
}

extern "C" int register_callback_for_agent(callback_func cb) VX_NOEXCEPT
{
    vx::host_callback_set(agent_callback_func, cb);
    return address_as_int(&agent_callback_func);
}

extern "C" int register_test_status_for_agent(test_status cb) VX_NOEXCEPT
{
    /* The host keeps files of its own under "<home>/.cache/"; it exists from
     * here on. Without an agent there is no home yet. */
    if (const char* home = getVXHome()) {
        char path[vx::kPathSize];
        snprintf(path, sizeof path, "%s/.cache/", home);
        vx::mkdir_ex(path);
    }
    vx::host_callback_set(test_status_func, cb);
    return address_as_int(&test_status_func);
}

extern "C" void register_AD_callback(ad_callback cb) VX_NOEXCEPT
{
    vx::host_callback_set(ad_callback_func, cb);
}

extern "C" void register_AD_callback_php(ad_callback_php cb) VX_NOEXCEPT
{
    vx::host_callback_set(ad_callback_func_php, cb);
}

extern "C" int register_Goroutines_status_for_agent(Goroutine_status cb) VX_NOEXCEPT
{
    vx::host_callback_set(Goroutine_status_func, cb);
    return address_as_int(&Goroutine_status_func);
}

extern "C" void register_AI_start_callback(ai_start_func cb) VX_NOEXCEPT
{
    vx::host_callback_set(ai_start_callback_func, cb);
}

extern "C" void register_AI_end_callback(ai_end_func cb) VX_NOEXCEPT
{
    vx::host_callback_set(ai_end_callback_func, cb);
}

extern "C" void register_thread_dump_callback(thread_dump_func cb) VX_NOEXCEPT
{
    vx::host_callback_set(thread_dump_callback_func, cb);
    /* The host learns here what the agent settled before its callbacks were
     * registered: cookie settings, then the user-experience cookie, then
     * whether a session runs. */
    VXProxyInstance_t* app = vx_app();
    if (!app) return;
    const VXSys_t& s = app->VXSys;
    vx::call_host("vx_cookie", vx_cookie_callback_func, const_cast<char*>(s.vxSessionCookieName),
                  s.cookieDomainName[0] ? const_cast<char*>(s.cookieDomainName) : nullptr,
                  s.headerInResponse, vx::cookie_method_position(s), s.vxSessionIdleTimeOutSecs);
    vx::call_host("kp_cookie", kp_cookie_callback_func, s.KPCookieName);
    vx::call_host("test_status", test_status_func, static_cast<int>(vx::load_relaxed(app->Server.testRunRunning)));
}

extern "C" void register_vx_cookie_callback(vx_cookie_func cb) VX_NOEXCEPT
{
    vx::host_callback_set(vx_cookie_callback_func, cb);
}

extern "C" void register_kp_cookie_callback(kp_cookie_func cb) VX_NOEXCEPT
{
    vx::host_callback_set(kp_cookie_callback_func, cb);
}

extern "C" void register_mutex_lock_callback(mtx_lock_func cb) VX_NOEXCEPT
{
    vx::host_callback_set(mtx_lock_callback_func, cb);
}

extern "C" void register_heap_dump_callback(heap_dump_func cb) VX_NOEXCEPT
{
    vx::host_callback_set(heap_dump_callback_func, cb);
}

extern "C" int register_GC_status_for_agent(GC_status cb) VX_NOEXCEPT
{
    vx::host_callback_set(GC_status_func, cb);
    return address_as_int(&GC_status_func);
}
