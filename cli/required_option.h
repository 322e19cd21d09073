#ifndef ARSP_CLI_REQUIRED_OPTION_H
#define ARSP_CLI_REQUIRED_OPTION_H

#include <stdexcept>
#include <string>

#include <boost/program_options/variables_map.hpp>

namespace arsp {

/* An option that the chosen command needs was not given; what() is the whole message. */
class MissingOptionException : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

} // namespace arsp

/* Returns when `vm` holds `name`, otherwise throws arsp::MissingOptionException "Missing option: <name>". Options with
 * a default are always held. */
void require_option(const boost::program_options::variables_map &vm, const std::string &name);

#endif
