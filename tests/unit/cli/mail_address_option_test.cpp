#include "cli/mail_address_option.h"

#include <stdexcept>

#include <boost/program_options/errors.hpp>
#include <gtest/gtest.h>

namespace po = boost::program_options;

namespace {

void check(boost::any &value, const std::vector<std::string> &tokens)
{
    validate(value, tokens, static_cast<arsp::MailAddressTOpt *>(nullptr),
             0); /* found as the option library finds it */
}

std::string accepted(const std::string &token)
{
    boost::any value;
    check(value, {token});
    return boost::any_cast<arsp::MailAddressTOpt>(value).address;
}

/* The message, and a word for the exception's kind: a library error would get the option's name added to its message.
 */
std::string refusal(const std::string &token)
{
    boost::any value;
    try {
        check(value, {token});
    } catch (const po::error &error) {
        return std::string("library error: ") + error.what();
    } catch (const std::runtime_error &error) {
        return error.what();
    }
    return "accepted";
}

TEST(MailAddressOptionTest, HoldsTheWholeAddressInLowerCase)
{
    EXPECT_EQ(accepted("User@Example.ORG"), "user@example.org");
}

TEST(MailAddressOptionTest, KeepsDigitsAndPunctuationWhileLoweringLetters)
{
    EXPECT_EQ(accepted("A&B_C-D+E'F.1@Mail-2.Example.ORG-"), "a&b_c-d+e'f.1@mail-2.example.org-");
}

TEST(MailAddressOptionTest, TextWithoutAtSignIsNoAddress)
{
    EXPECT_EQ(refusal("UserExample.org"), "UserExample.org - incorrect email address format");
}

TEST(MailAddressOptionTest, EmptyTextIsNoAddress)
{
    EXPECT_EQ(refusal(""), " - incorrect email address format");
}

TEST(MailAddressOptionTest, TwoAtSignsAreNoAddress)
{
    EXPECT_EQ(refusal("A@b@c"), "A@b@c - incorrect email address format");
}

TEST(MailAddressOptionTest, AdjacentAtSignsAreNotMerged)
{
    EXPECT_EQ(refusal("a@@b"), "a@@b - incorrect email address format");
}

TEST(MailAddressOptionTest, BadLocalPartIsQuotedAsTyped)
{
    EXPECT_EQ(refusal("Us%er@Example.org"), "Us%er - incorrect format of local part of email address");
}

TEST(MailAddressOptionTest, LocalPartIsCheckedBeforeTheDomain)
{
    EXPECT_EQ(refusal("@"), " - incorrect format of local part of email address");
}

TEST(MailAddressOptionTest, BadDomainIsQuotedAsTyped)
{
    EXPECT_EQ(refusal("User@Exa_mple.org"), "Exa_mple.org - incorrect format of domain part of email address");
}

TEST(MailAddressOptionTest, EmptyDomainIsABadDomain)
{
    EXPECT_EQ(refusal("user@"), " - incorrect format of domain part of email address");
}

TEST(MailAddressOptionTest, RefusedAddressLeavesTheValueEmpty)
{
    boost::any value;
    EXPECT_THROW(check(value, {"user@"}), std::runtime_error);
    EXPECT_TRUE(value.empty());
}

TEST(MailAddressOptionTest, SecondOccurrenceIsRefusedBeforeItsTextIsLookedAt)
{
    boost::any value = arsp::MailAddressTOpt{"first@example.org"};
    EXPECT_THROW(check(value, {"not an address"}), po::multiple_occurrences);
    EXPECT_EQ(boost::any_cast<arsp::MailAddressTOpt>(value).address, "first@example.org");
}

TEST(MailAddressOptionTest, OccurrenceWithoutATokenIsTheLibrarysError)
{
    boost::any value;
    EXPECT_THROW(check(value, {}), po::validation_error);
}

TEST(MailAddressOptionTest, OccurrenceWithTwoTokensIsTheLibrarysError)
{
    boost::any value;
    EXPECT_THROW(check(value, {"a@example.org", "b@example.org"}), po::validation_error);
}

} // namespace
