#ifndef ARSP_CLI_RUN_H
#define ARSP_CLI_RUN_H

namespace arsp {

/* Parses the command line and carries out its command, under the only catch of the program. Prints the help page, or
 * "Error: " and the message of an exception, or "Unknown error", on standard output. Returns the exit status, 0 or 1.
 */
[[nodiscard]] int run_command_line(int argc, char *argv[]);

/* Prints "Error: std::bad_alloc" on standard output and ends the process with status 1. For std::set_terminate: the
 * run-time library aborts when it has no memory for an exception. */
[[noreturn]] void exit_without_memory();

} // namespace arsp

#endif
