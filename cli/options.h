#ifndef ARSP_CLI_OPTIONS_H
#define ARSP_CLI_OPTIONS_H

#include <boost/program_options/options_description.hpp>

/* Every command flag and option, in the order of the help page: five groups in one description without a caption. */
[[nodiscard]] boost::program_options::options_description all_options();

#endif
