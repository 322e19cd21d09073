#ifndef ARSP_CLI_STARTUP_H
#define ARSP_CLI_STARTUP_H

/* Makes the process safe against what its caller did or will do with the standard streams; the first call of a run.
 *
 * - SIGPIPE is ignored, here and in the programs started later: a reader that went away must not end a run in the
 *   middle of its work.
 * - SIGXFSZ is ignored likewise: a write beyond the caller's limit on file sizes fails, and is reported, instead of
 *   killing the run. cp fails in the same case with status 1 and a message of its own; if the signal killed it, the
 *   shell would report 153 (dash, as Debian has it).
 * - A descriptor 0, 1 or 2 that the caller left closed is filled with one that can be neither read nor written (EBADF,
 *   as if it were closed still). Otherwise the next file opened, be it the database, the configuration file or the
 *   connection to the system log, would take its number and receive what is meant for a standard stream.
 *
 * Returns 0, or -1 when a closed descriptor could not be filled: then the run must not go on. Logs and prints nothing;
 * there may be nowhere to. The descriptors it opens stay open and are inherited by programs started later. */
int secure_standard_streams();

#endif
