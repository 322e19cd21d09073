#include "cli/content_type_option.h"

#include <sstream>

#include <boost/program_options/errors.hpp>
#include <gtest/gtest.h>

namespace po = boost::program_options;

namespace {

void check(boost::any &value, const std::vector<std::string> &tokens)
{
    validate(value, tokens, static_cast<arsp::ContentType *>(nullptr), 0); /* found as the option library finds it */
}

std::string accepted(const std::string &token)
{
    boost::any value;
    check(value, {token});
    return boost::any_cast<arsp::ContentType>(value).text;
}

TEST(ContentTypeOptionTest, FullTypesAreKept)
{
    EXPECT_EQ(accepted("text/plain"), "text/plain");
    EXPECT_EQ(accepted("text/html"), "text/html");
}

TEST(ContentTypeOptionTest, ShortFormsAreCompleted)
{
    EXPECT_EQ(accepted("plain"), "text/plain");
    EXPECT_EQ(accepted("html"), "text/html");
}

class RefusedContentTypeTest : public testing::TestWithParam<const char *> {};

TEST_P(RefusedContentTypeTest, IsTheLibrarysInvalidValue)
{
    boost::any value;
    EXPECT_THROW(check(value, {GetParam()}), po::invalid_option_value);
    EXPECT_TRUE(value.empty());
}

INSTANTIATE_TEST_SUITE_P(Spellings, RefusedContentTypeTest,
                         testing::Values("", "TEXT/PLAIN", "Plain", "text/", "text/xml", "text/html ", " html", "htm",
                                         "htmls", "text/plain; charset=UTF-8"));

TEST(ContentTypeOptionTest, SecondOccurrenceIsRefused)
{
    boost::any value = arsp::ContentType{"text/plain"};
    EXPECT_THROW(check(value, {"html"}), po::multiple_occurrences);
    EXPECT_EQ(boost::any_cast<arsp::ContentType>(value).text, "text/plain");
}

TEST(ContentTypeOptionTest, SecondOccurrenceIsRefusedBeforeItsTextIsLookedAt)
{
    boost::any value = arsp::ContentType{"text/plain"};
    EXPECT_THROW(check(value, {"text/xml"}), po::multiple_occurrences);
}

TEST(ContentTypeOptionTest, OccurrenceWithoutATokenIsTheLibrarysError)
{
    boost::any value;
    EXPECT_THROW(check(value, {}), po::validation_error);
}

TEST(ContentTypeOptionTest, OccurrenceWithTwoTokensIsTheLibrarysError)
{
    boost::any value;
    EXPECT_THROW(check(value, {"plain", "html"}), po::validation_error);
}

TEST(ContentTypeOptionTest, PrintsItsTextUnchanged)
{
    std::ostringstream stream;
    stream << arsp::ContentType{"text/html"};
    EXPECT_EQ(stream.str(), "text/html");
}

} // namespace
