#include "link/vx_lws_transport.h"

#include "core/vx_text.h"

namespace {
constexpr char kNotAvailable[] = "WebSocket transport is not available in this build";
}

extern "C" bool create_lws_control_connection(char*, int, char* error_buf, int error_buf_len)
{
    vx::copy_text(error_buf, static_cast<size_t>(error_buf_len), kNotAvailable);
    return false;
}

extern "C" bool create_lws_data_connection(char*, int, char* error_buf, int error_buf_len)
{
    vx::copy_text(error_buf, static_cast<size_t>(error_buf_len), kNotAvailable);
    return false;
}

extern "C" int send_data_via_lws_socket(char*, int) { return -1; }
extern "C" int send_control_data_via_lws_socket(char*, int) { return -1; }
extern "C" int rec_control_conn_response_lws(void) { return 1; }
extern "C" int start_control_connection_service(void) { return 1; }
extern "C" void kill_lws_connection(void*) {}
extern "C" void clean_control_conn(int) {}
