/*
 * The control connection as the layers above use it: send a text, ask for
 * the connection to close, read the collector's heartbeat, and the handler
 * that receives every complete command line.
 *
 * The control thread calls the handler for each line it reads; the session
 * layer registers it at start-up, so the link never includes what runs the
 * commands.
 */
#ifndef VX_CONTROL_LINK_H
#define VX_CONTROL_LINK_H

extern "C" {

/* The collector's heartbeat: reads dataConnState and AutosensorConnState
 * when the line has at least three ";" fields. Cuts the line in place. */
void handleCollectorHeartBeat(char* clientMsg);

/* Ask the control thread to close the connection (it does so on its next
 * pass); the session's busy flags fall. */
void closeCurrentControlConnection(void);

/* Send raw bytes on the control connection. The count sent, or negative. */
int controlConnectionSendBuffer(char* buffer, int len);
/* The same for a terminated text. */
int controlConnectionSendText(const char* text);
}

namespace vx {

/* Receives one command line without its line feed; may cut it in place.
 * Runs on the control thread. */
using ControlMessageFn = void (*)(char* line);
void control_set_message_handler(ControlMessageFn fn);
/* Hand `line` to the registered handler; without one the line is dropped. */
void control_message_dispatch(char* line);

}  // namespace vx

#endif
