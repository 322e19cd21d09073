#include "cli/required_option.h"

void require_option(const boost::program_options::variables_map &vm, const std::string &name)
{
    if (vm.count(name) == 0)
        throw arsp::MissingOptionException("Missing option: " + name);
}
