#ifndef ARSP_CLI_REQUIRED_OPTION_H
#define ARSP_CLI_REQUIRED_OPTION_H

#include <stdexcept>
#include <string>

#include <boost/program_options/variables_map.hpp>

namespace arsp {

/* A required option is missing; what() is the whole message. */
class MissingOptionException : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

} // namespace arsp

/* Throws arsp::MissingOptionException "Missing option: <name>" unless `vm` holds `name`. It always holds options with a
 * default. */
void require_option(const boost::program_options::variables_map &vm, const std::string &name);

#endif
