/*
 * What the control thread does with each complete line from the collector,
 * and the ways it answers.
 *
 * Every line, known or not, counts as a sign of life: heartbeat_count falls
 * to 0 and lastHeartBeatRcvTime becomes now. The collector's heartbeat
 * carries the states of the data and auto-sensor connections.
 *
 * The commands run one at a time on the control thread, to their end. The
 * session's start fetches files on this same connection, raises
 * testRunRunning only once every table is ready, starts the data thread and
 * answers; the stop writes record 10, lowers the flags and answers; the data
 * thread ends by itself.
 */
#ifndef VX_CONTROL_DISPATCH_H
#define VX_CONTROL_DISPATCH_H

#include "link/vx_control_link.h"

extern "C" {

/* One line without its line feed; the line may be cut in place. */
void handleReceivedClientMessageFromVXCollector(char* clientMsg);

/* Counters at session start and after a reroute. */
void setAllFlagAndCountVars(void);
/* Second half of the start: raise testRunRunning, start the threads. */
void handleStartInstrumentationCase(char* clientMsg);
/* The stop: when the status says running or stopping, the stopping steps
 * (record 10, the host told, the flags lowered). */
void handleStopInstrumentationCase(char* clientMsg);
void handleStoppingCaseAtStopInstrumentCase(void);
/* The answers to start and stop. */
void sendResponseToVXC(void);
void sendResponseOfStopInstrumentation(void);
}

#endif
