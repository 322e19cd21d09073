#ifndef ARSP_CLI_COMMANDS_H
#define ARSP_CLI_COMMANDS_H

#include <boost/program_options/variables_map.hpp>

/* Runs the first command of the table whose flag is in `vm` and ignores the others. Returns the command's result, 0 for
 * success; or 0 when `vm` holds no command. Throws arsp::MissingOptionException, before the command starts, for the
 * first required option that is missing. */
[[nodiscard]] int run_command(const boost::program_options::variables_map &vm);

#endif
