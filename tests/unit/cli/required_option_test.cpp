#include "cli/required_option.h"

#include <boost/any.hpp>
#include <gtest/gtest.h>

namespace po = boost::program_options;

namespace {

/* A map as it is after parsing, without a command line. */
po::variables_map map_with(const std::string &name, bool defaulted)
{
    po::variables_map vm;
    vm.insert({name, po::variable_value(boost::any(std::string("value")), defaulted)});
    return vm;
}

std::string refusal(const po::variables_map &vm, const std::string &name)
{
    try {
        require_option(vm, name);
    } catch (const arsp::MissingOptionException &error) {
        return error.what();
    }
    return "returned";
}

TEST(RequireOptionTest, MissingOptionIsNamedInTheMessage)
{
    EXPECT_EQ(refusal(po::variables_map(), "source"), "Missing option: source");
}

TEST(RequireOptionTest, AnotherOptionDoesNotCount)
{
    EXPECT_EQ(refusal(map_with("filename", false), "source"), "Missing option: source");
}

TEST(RequireOptionTest, ReturnsForAnOptionThatWasGiven)
{
    EXPECT_EQ(refusal(map_with("source", false), "source"), "returned");
}

TEST(RequireOptionTest, ReturnsForAnOptionThatIsThereByDefault)
{
    EXPECT_EQ(refusal(map_with("subj", true), "subj"), "returned");
}

TEST(MissingOptionExceptionTest, IsARuntimeErrorWithoutFieldsOfItsOwn)
{
    EXPECT_TRUE((std::is_base_of_v<std::runtime_error, arsp::MissingOptionException>));
    EXPECT_EQ(sizeof(arsp::MissingOptionException), sizeof(std::runtime_error));
}

TEST(MissingOptionExceptionTest, SaysItsMessageWhenCaughtByItsBase)
{
    try {
        throw arsp::MissingOptionException("Missing option: mailname");
    } catch (const std::exception &error) {
        EXPECT_STREQ(error.what(), "Missing option: mailname");
    }
}

} // namespace
