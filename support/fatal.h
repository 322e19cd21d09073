#ifndef ARSP_SUPPORT_FATAL_H
#define ARSP_SUPPORT_FATAL_H

#include <cstdarg>

/* Messages on the standard streams, for failures that may end the process.
 *
 * Not thread-safe. Throws nothing. `format` and `message` must not be null. No command sets error_program_path. */

/* The base name of this path prefixes every message; null, the default, means no prefix. The text is not copied. */
extern const char *error_program_path;

/* Prints a message on standard error, then on standard output, each time with a second line
 * "System error <number>: <text>" when errno is not 0 on entry. Then calls exit(status), unless status is 0.
 *   status  the exit status of the process, or 0 to return after the message.
 *   flag    has no effect.
 *   format  printf-style, never text that came from outside.
 * The second line is left out if it does not fit into 4096 bytes together with the message, whose length has no limit.
 * Without memory for the message, "Can't allocate memory for error message" is printed instead.
 * errno stays as it was. */
void fatal_error(int status, int flag, const char *format, ...) __attribute__((format(printf, 3, 4)));
void fatal_verror(int status, int flag, const char *format, va_list args) __attribute__((format(printf, 3, 0)));

/* Prints a formatted message on standard error, then on standard output: the prefix, the message, and a line feed
 * unless the message ends in one. Then calls exit(status), unless status is 0. `flag` has no effect. Returns 0; errno
 * stays as it was. */
int error_emit(const char *message, int status, int flag);

#endif
