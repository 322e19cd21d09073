#ifndef ARSP_SUPPORT_FATAL_H
#define ARSP_SUPPORT_FATAL_H

#include <cstdarg>

/* The program whose base name stands in front of every message printed here; null (the default): no prefix.
 * Belongs to whoever sets it. */
extern const char *error_program_path;

/* Prints a message on standard error, then on standard output, each time with a second line
 * "System error <number>: <text>" when errno is not 0 on entry. Then calls exit(status), unless status is 0.
 *   status  the exit status of the process, or 0 to go on after the message.
 *   flag    has no effect.
 *   format  printf-style, never text that came from outside.
 * The second line is left out when it does not fit, together with the message, in 4096 bytes; the message itself has no
 * limit. Without memory for the message, "Can't allocate memory for error message" is printed instead.
 * errno stays as it was. */
void fatal_error(int status, int flag, const char *format, ...) __attribute__((format(printf, 3, 4)));
void fatal_verror(int status, int flag, const char *format, va_list args) __attribute__((format(printf, 3, 0)));

/* Prints a finished message on standard error, then on standard output: the prefix, the message, and a line feed unless
 * the message ends in one. Then calls exit(status), unless status is 0.
 *   flag    has no effect.
 * Returns 0; errno stays as it was. */
int error_emit(const char *message, int status, int flag);

#endif
