/*
 * The request lines every connection opens with: the control connection's
 * (vx_ctrl_msg_req, or klv_saas_auth_agent_msg_req for a hosted entry point),
 * the data channel's and the auto-sensor channel's. Each is built into its
 * buffer of VXBCISetting (cut at 2,047 bytes) from the current settings.
 * The discovery connection's line is built into the caller's buffer.
 *
 * Called on the thread that opens the connection, before it is opened.
 */
#ifndef VX_REQUEST_LINES_H
#define VX_REQUEST_LINES_H

extern "C" {

void setControlConnectionReqMessage(void);
void setControlDataReqMessage(void);
void setControlAutoSensorReqMessage(void);
/* The control connection's line, owned by the instance; null without one. */
char* getControlConnectionReqMessage(void);
}

#include <cstddef>

namespace vx {

/* The discovery connection's opening line for request `connId`, with its
 * line feed, into `out` (cut to size - 1 bytes): towards a local proxy the
 * long form the proxy routes by, otherwise
 * "agent_post_data_req:action=discover_loaded_classes;Id=%s;Tier=%s;Server=%s;Instance=%s;\n".
 * Its length. */
int discovery_request_line(char* out, size_t size, const char* connId);

}  // namespace vx

#endif
