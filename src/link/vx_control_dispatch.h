/*
 * What the control thread does with each complete line from the collector,
 * and the ways it answers.
 *
 * Every line, known or not, counts as a sign of life: heartbeat_count falls
 * to 0 and lastHeartBeatRcvTime becomes now. The collector's heartbeat
 * carries the states of the data and auto-sensor connections.
 *
 * STAND-IN (issue #5): the session commands (start, stop, modify, metadata,
 * files and the rest of the table) are logged and ignored until their
 * dispatch is built; tests and the demo open sessions themselves.
 */
#ifndef VX_CONTROL_DISPATCH_H
#define VX_CONTROL_DISPATCH_H

extern "C" {

/* One line without its line feed; the line may be cut in place. */
void handleReceivedClientMessageFromVXCollector(char* clientMsg);

/* The collector's heartbeat: reads dataConnState and AutosensorConnState
 * when the line has at least three ";" fields. Cuts the line in place. */
void handleCollectorHeartBeat(char* clientMsg);

/* Ask the control thread to close the connection (it does so on its next
 * pass); the session's busy flags fall. */
void closeCurrentControlConnection(void);

/* Send raw bytes on the control connection. The count sent, or negative. */
int controlConnectionSendBuffer(char* buffer, int len);
}

#endif
