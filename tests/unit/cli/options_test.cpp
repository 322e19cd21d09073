#include "cli/options.h"

#include <cstdint>
#include <string>
#include <vector>

#include <boost/program_options/parsers.hpp>
#include <boost/program_options/variables_map.hpp>
#include <gtest/gtest.h>

#include "cli/content_type_option.h"
#include "cli/mail_address_option.h"

namespace po = boost::program_options;

namespace {

po::variables_map parse(const std::vector<const char *> &arguments)
{
    std::vector<const char *> argv = {"arspctl"};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    po::variables_map vm;
    po::store(po::parse_command_line(static_cast<int>(argv.size()), argv.data(), all_options()), vm);
    po::notify(vm);
    return vm;
}

std::vector<std::string> names(const po::variables_map &vm)
{
    std::vector<std::string> result;
    for (const auto &entry : vm)
        result.push_back(entry.first);
    return result;
}

TEST(OptionsTest, WithoutArgumentsExactlyTheOptionsWithADefaultArePresent)
{
    const std::vector<std::string> expected = {"ans-freq", "ans-limit", "charset",  "content-type", "forward-to",
                                               "key-str",  "key-where", "reply-to", "subj"};
    EXPECT_EQ(names(parse({})), expected);
}

TEST(OptionsTest, EveryDefaultIsMarkedAsSuch)
{
    for (const auto &entry : parse({}))
        EXPECT_TRUE(entry.second.defaulted()) << entry.first;
}

TEST(OptionsTest, TextDefaults)
{
    const po::variables_map vm = parse({});
    EXPECT_EQ(vm["key-str"].as<std::string>(), "");
    EXPECT_EQ(vm["key-where"].as<std::string>(), "no");
    EXPECT_EQ(vm["subj"].as<std::string>(), "Re: <request_subject>");
    EXPECT_EQ(vm["reply-to"].as<std::string>(), "");
    EXPECT_EQ(vm["forward-to"].as<std::string>(), "");
    EXPECT_EQ(vm["charset"].as<std::string>(), "UTF-8");
}

TEST(OptionsTest, ContentTypeDefaultIsAContentType)
{
    EXPECT_EQ(parse({})["content-type"].as<arsp::ContentType>().text, "text/plain");
}

TEST(OptionsTest, NumberDefaultsAre32BitIntegers)
{
    const po::variables_map vm = parse({});
    EXPECT_EQ(vm["ans-freq"].as<std::int32_t>(), 10);
    EXPECT_EQ(vm["ans-limit"].as<std::int32_t>(), 1000);
}

TEST(OptionsTest, TheWholeRangeOf32BitIntegersIsTaken)
{
    const po::variables_map vm = parse({"--ans-freq=-2147483648", "--ans-limit=2147483647"});
    EXPECT_EQ(vm["ans-freq"].as<std::int32_t>(), -2147483647 - 1);
    EXPECT_EQ(vm["ans-limit"].as<std::int32_t>(), 2147483647);
}

TEST(OptionsTest, MailnameAndRealOwnerAreMailAddresses)
{
    const po::variables_map vm = parse({"--mailname", "A@Example.org", "--real-owner", "B@Example.org"});
    EXPECT_EQ(vm["mailname"].as<arsp::MailAddressTOpt>().address, "a@example.org");
    EXPECT_EQ(vm["real-owner"].as<arsp::MailAddressTOpt>().address, "b@example.org");
}

TEST(OptionsTest, ReplyToAndForwardToAreTextEvenWhenTheyAreNoAddress)
{
    const po::variables_map vm = parse({"--reply-to", "Not An Address", "--forward-to", "A@B@C"});
    EXPECT_EQ(vm["reply-to"].as<std::string>(), "Not An Address");
    EXPECT_EQ(vm["forward-to"].as<std::string>(), "A@B@C");
}

TEST(OptionsTest, FilenameAndSourceAreText)
{
    const po::variables_map vm = parse({"--filename", "report.pdf", "--source", "/tmp/report.pdf"});
    EXPECT_EQ(vm["filename"].as<std::string>(), "report.pdf");
    EXPECT_EQ(vm["source"].as<std::string>(), "/tmp/report.pdf");
}

class FlagTest : public testing::TestWithParam<const char *> {};

TEST_P(FlagTest, IsPresentWithAnEmptyValueWhenGiven)
{
    const po::variables_map vm = parse({(std::string("--") + GetParam()).c_str()});
    ASSERT_EQ(vm.count(GetParam()), 1U);
    EXPECT_FALSE(vm[GetParam()].defaulted());
    EXPECT_EQ(vm[GetParam()].as<std::string>(), "");
}

INSTANTIATE_TEST_SUITE_P(Commands, FlagTest,
                         testing::Values("init-db", "set-resp", "del-resp", "add-attach", "del-attach",
                                         "set-extra-headers", "help"));

TEST(OptionsTest, ShortHelpIsKeptUnderItsLongName)
{
    EXPECT_EQ(parse({"-h"}).count("help"), 1U);
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
