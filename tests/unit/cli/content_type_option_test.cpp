#include "cli/content_type_option.h"

#include <boost/program_options/errors.hpp>
#include <gtest/gtest.h>

namespace po = boost::program_options;

namespace {

/* Found as the option library finds it, by the type of the third argument. */
void check(boost::any &value, const std::vector<std::string> &tokens)
{
    validate(value, tokens, static_cast<arsp::ContentType *>(nullptr), 0);
}

TEST(ContentTypeOptionTest, RefusalLeavesTheValueUnchanged)
{
    boost::any value;
    EXPECT_THROW(check(value, {"text/xml"}), po::invalid_option_value);
    EXPECT_TRUE(value.empty());

    value = arsp::ContentType{"text/plain"};
    EXPECT_THROW(check(value, {"html"}), po::multiple_occurrences);
    EXPECT_EQ(boost::any_cast<arsp::ContentType>(value).text, "text/plain");
}

TEST(ContentTypeOptionTest, AnyNumberOfTokensButOneIsTheLibrarysError)
{
    boost::any value;
    EXPECT_THROW(check(value, {}), po::validation_error);
    EXPECT_THROW(check(value, {"plain", "html"}), po::validation_error);
}

} // namespace
