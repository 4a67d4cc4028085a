/*
 * The auto-sensor thread: the periodic heart of an instance while a session
 * runs. It opens the auto-sensor connection, and once per tick drains the
 * channel, asks the monitors for their rows when the report interval has
 * come, and writes the thread summary (record 53). After a broken or
 * refused connection, or AutosensorConnState=0 in the collector's
 * heartbeat, it waits the retry time and connects again.
 *
 * It ends by itself: on toStopASThread (session stop, shutdown) and when
 * the session is over it flushes first; when the control side goes away it
 * just closes. Every sleep is cut into steps of kASSleepStepMs that look at
 * those flags, so a stop is seen within one step.
 *
 * Pacing: a tick of kASTickMs (10 s) and a retry wait of kASRetryMs (60 s).
 * Tests and the demo shorten them through the environment, read once when
 * the thread starts:
 *   VX_AS_TICK_MS   the tick in ms, held to 50..10000
 *   VX_AS_RETRY_MS  the retry wait in ms, held to 50..60000
 */
#ifndef VX_AUTOSENSOR_THREAD_H
#define VX_AUTOSENSOR_THREAD_H

#include <apr_thread_proc.h>

extern "C" {

/* What the thread and the reports need, made before testRunRunning rises:
 * the channel's pool and locks (ASNioInit), counterLock and reportBuffer.
 * Kept for the life of the instance. Control thread, at session start. */
void VXAutoSensorUsingStackTraceInit(void);

/* Start of a connection: unless onlyAPICall, reset the counters and open
 * the connection (when threadReportInterval is above 0). Auto-sensor
 * thread. */
void VXAutoSensorUsingStackTraceSetup(void);

/* The thread's body; `data` is the instance. Does not return. */
void* APR_THREAD_FUNC start_autoSensor_thread(apr_thread_t* thread, void* data);

/* With toStopASThread up, flush and end the auto-sensor thread (stopNIO);
 * on any other thread only publish. 0 when no stop was asked for. */
int checkAndStopASThread(void);

/* The stop request of the current instance. Any thread. */
int getToStopThread(void);
void setToStopThread(int value);
}

#endif
