#ifndef ARSP_SUPPORT_LOG_H
#define ARSP_SUPPORT_LOG_H

#include <cstdarg>
#include <syslog.h>

/* The process-wide logger. It writes to the system log or to the standard streams, as log_init chose. Before log_init,
 * messages of priority 6 and below go to standard error and standard output.
 *
 * Not thread-safe: the state is shared and not locked. Throws nothing. `format` must not be null. No command calls
 * log_set_level, log_options or log_vmessage. */

/* An option of log_init: a trace id precedes every record in the system log. syslog never gets this bit. */
constexpr int LOG_OPT_TRACE_ID = 0x40;

/* Sets the logger up. A later call opens the system log again with the new settings.
 *   target    null or "": the system log. "console" (standard error, then standard output) or "stderr", in any case:
 *             the standard streams. Anything else: no message is written anywhere. The pointer is kept, the text is
 *             not copied.
 *   level     see log_set_level.
 *   facility  the syslog facility (LOG_MAIL ...) of records whose priority names none.
 *   options   LOG_PID (always added), LOG_CONS, LOG_PERROR and LOG_OPT_TRACE_ID; other bits have no effect.
 *   ident     the program's name in the system log, copied, at most 63 bytes; null: the process's short name.
 * With a console target, options and ident stay as they were.
 * The trace id is the environment's QUARN_LOG_TRACE_ID, at most 63 bytes. If that is absent or empty, the trace id is
 * the initial of the process's short name, in upper case, and the process id; it is exported for child processes. */
void log_init(const char *target, unsigned level, int facility, int options, const char *ident);

/* Sets the threshold: messages with a higher severity number are dropped.
 *   level  the threshold, 0 (LOG_EMERG) to 7 (LOG_DEBUG), in the low three bits. With bit 0x08 set, the environment's
 *          QUARN_LOG_LEVEL (exactly one digit, 0 to 7) may raise the threshold, never lower it.
 * Also sets the process's syslog mask, unless a console target is set. */
void log_set_level(unsigned level);

/* Returns the options of the last log_init for the system log, with LOG_PID added. */
[[nodiscard]] int log_options();

/* Emits one record. Failures are not reported; errno stays as it was. Without memory, the console loses the record.
 *   priority  a syslog severity, optionally with a facility added. The console compares the whole value with the
 *             threshold, so it never shows a priority with a facility.
 *   format    printf-style, never text that came from outside. It needs no line feed at its end. With a trace id, the
 *             system log gets at most 8191 bytes, trace id included. */
void log_message(int priority, const char *format, ...) __attribute__((format(printf, 2, 3)));
void log_vmessage(int priority, const char *format, va_list args) __attribute__((format(printf, 2, 0)));

#endif
