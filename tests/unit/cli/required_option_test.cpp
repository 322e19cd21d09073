#include "cli/required_option.h"

#include <boost/any.hpp>
#include <gtest/gtest.h>

namespace po = boost::program_options;

namespace {

static_assert(std::is_base_of_v<std::runtime_error, arsp::MissingOptionException>);
static_assert(sizeof(arsp::MissingOptionException) == sizeof(std::runtime_error));

TEST(RequireOptionTest, OptionWithADefaultCountsAsGiven)
{
    po::variables_map vm;
    vm.insert({"subj", po::variable_value(boost::any(std::string("value")), true)});
    EXPECT_NO_THROW(require_option(vm, "subj"));
    EXPECT_THROW(require_option(vm, "source"), arsp::MissingOptionException);
}

} // namespace
