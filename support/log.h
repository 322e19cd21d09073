#ifndef ARSP_SUPPORT_LOG_H
#define ARSP_SUPPORT_LOG_H

#include <cstdarg>
#include <syslog.h>

/* The process-wide logger. It writes to the system log or to the standard streams, whichever log_init chose. Before
 * log_init it already works: messages of priority 6 and below go to standard error and standard output. */

/* Asks, among log_init's options, for a trace id in front of every system-log record. syslog never sees this bit. */
constexpr int LOG_OPT_TRACE_ID = 0x40;

/* Sets the logger up. May be called again; the system log is then re-opened with the new settings.
 *   target    null or "": the system log. "console" (standard error, then standard output) or "stderr", in any case:
 *             the standard streams. Anything else: no message is written anywhere. Kept, not copied.
 *   level     see log_set_level.
 *   facility  the syslog facility (LOG_MAIL ...) of records whose priority names none.
 *   options   LOG_PID (always added), LOG_CONS, LOG_PERROR and LOG_OPT_TRACE_ID; other bits have no effect.
 *   ident     the program's name in the system log, copied, at most 63 bytes of it; null: the process's short name.
 * The standard streams need no options and no ident: with a console target both stay as they were.
 * The trace id is the environment's QUARN_LOG_TRACE_ID (at most 63 bytes of it). When that is absent or empty, an id
 * is made (initial of the process's short name, in upper case, and process id) and exported for the programs that this
 * process starts. */
void log_init(const char *target, unsigned level, int facility, int options, const char *ident);

/* Sets the threshold: messages of a severity number above it are dropped.
 *   level  the threshold, 0 (LOG_EMERG) to 7 (LOG_DEBUG), in the low three bits. With bit 0x08 set as well, the
 *          environment's QUARN_LOG_LEVEL (exactly one digit, 0 to 7) may raise the threshold, never lower it.
 * Sets the process's syslog mask too, unless a console target is set. */
void log_set_level(unsigned level);

/* Returns the option bits given to log_init for the system log, LOG_PID added. */
int log_options();

/* Emits one record. Failures to do so are not reported; errno stays as it was. The console loses a record for which
 * there is no memory.
 *   priority  a syslog severity, optionally with a facility added. The console compares the whole value with the
 *             threshold, so a priority with a facility is never shown there.
 *   format    printf-style, never text that came from outside. It needs no line feed at its end. With a trace id, what
 *             the system log gets is cut at 8191 bytes, trace id included. */
void log_message(int priority, const char *format, ...) __attribute__((format(printf, 2, 3)));
void log_vmessage(int priority, const char *format, va_list args) __attribute__((format(printf, 2, 0)));

#endif
