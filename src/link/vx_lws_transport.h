/*
 * The WebSocket side of the collector link, as the control and data
 * connections call it.
 *
 * STAND-IN(websocket): no WebSocket connection is made
 * yet. Opening fails with a clear reason and every send fails, so an agent
 * configured for WS or WSS keeps retrying and logs why; TCP is unaffected.
 */
#ifndef VX_LWS_TRANSPORT_H
#define VX_LWS_TRANSPORT_H

extern "C" {

/* Open the control or data connection; false with the reason in error_buf. */
bool create_lws_control_connection(char* host, int port, char* error_buf, int error_buf_len);
bool create_lws_data_connection(char* host, int port, char* error_buf, int error_buf_len);

/* Send on the data or control connection; the bytes taken, or -1. */
int send_data_via_lws_socket(char* buf, int len);
int send_control_data_via_lws_socket(char* buf, int len);

/* Wait for the reply to the request line; 1 on failure. */
int rec_control_conn_response_lws(void);
/* The serving loop over WebSocket; 1 when the connection is to be closed. */
int start_control_connection_service(void);

/* Kill a connection at once; close the control connection (0: no wait). */
void kill_lws_connection(void* wsi);
void clean_control_conn(int wait);
}

#endif
