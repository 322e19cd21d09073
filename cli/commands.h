#ifndef ARSP_CLI_COMMANDS_H
#define ARSP_CLI_COMMANDS_H

#include <boost/program_options/variables_map.hpp>

/* Carries out the first command in the table whose flag is in `vm`; later ones on the same command line are ignored.
 * Throws arsp::MissingOptionException for the first required option that is missing, before the command does anything.
 * Returns the command's result, 0 for success, or 0 when `vm` holds no command. */
int run_command(const boost::program_options::variables_map &vm);

#endif
