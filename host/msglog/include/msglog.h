/* The platform's message logger. */
#ifndef MSGLOG_H
#define MSGLOG_H

#ifdef __cplusplus
extern "C" {
#endif

/* Logs one message under a tag; the message carries its own line feed. Level 5 is an error. Any thread; no lock of
 * the caller's is needed. The stand-in writes to syslog, or, when the environment names a file in MSGLOG_FILE, appends
 * one line a message to that file. */
void msglog(int level, const char* tag, const char* format, ...) __attribute__((format(printf, 3, 4)));

#ifdef __cplusplus
}
#endif
#endif
