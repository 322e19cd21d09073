#include "cli/options.h"

#include <string>
#include <vector>

#include <boost/program_options/parsers.hpp>
#include <boost/program_options/variables_map.hpp>
#include <gtest/gtest.h>

namespace po = boost::program_options;

namespace {

TEST(OptionsTest, WithoutArgumentsExactlyTheOptionsWithADefaultArePresent)
{
    const char *const argv[] = {"arspctl"};
    po::variables_map vm;
    po::store(po::parse_command_line(1, argv, all_options()), vm);
    std::vector<std::string> names;
    for (const auto &[name, value] : vm) {
        names.push_back(name);
        EXPECT_TRUE(value.defaulted()) << name;
    }
    EXPECT_EQ(names, (std::vector<std::string>{"ans-freq", "ans-limit", "charset", "content-type", "forward-to",
                                               "key-str", "key-where", "reply-to", "subj"}));
}

TEST(OptionsTest, NoOptionIsRequiredComposingOrImplicit)
{
    const po::options_description all = all_options();
    EXPECT_EQ(all.options().size(), 20U);
    for (const auto &option : all.options()) {
        EXPECT_FALSE(option->semantic()->is_required()) << option->long_name();
        EXPECT_FALSE(option->semantic()->is_composing()) << option->long_name();
        EXPECT_EQ(option->semantic()->min_tokens(), option->semantic()->max_tokens()) << option->long_name();
    }
}

} // namespace
