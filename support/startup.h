#ifndef ARSP_SUPPORT_STARTUP_H
#define ARSP_SUPPORT_STARTUP_H

/* Protects the process from closed and broken standard streams. To be called first.
 *
 * - Ignores SIGPIPE, also in programs started later: a closed pipe must not end a command halfway.
 * - Ignores SIGXFSZ likewise: a write beyond the caller's limit on file sizes then fails and is reported. cp fails in
 *   that case with status 1 and a message of its own; if the signal killed it, the shell (dash) would return 153.
 * - Opens each descriptor 0, 1 or 2 that the caller left closed, so that it can be neither read nor written: both fail
 *   with EBADF, as if it were closed. Otherwise the next file opened, such as the database, would get its number and
 *   the output meant for a standard stream.
 *
 * Returns 0; or -1 when a closed descriptor cannot be opened: the process must then end. Logs and prints nothing. The
 * descriptors stay open and are inherited by programs started later. */
[[nodiscard]] int secure_standard_streams();

#endif
