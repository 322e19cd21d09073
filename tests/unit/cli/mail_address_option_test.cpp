#include "cli/mail_address_option.h"

#include <stdexcept>

#include <boost/program_options/errors.hpp>
#include <gtest/gtest.h>

namespace po = boost::program_options;

namespace {

/* Found as the option library finds it, by the type of the third argument. */
void check(boost::any &value, const std::vector<std::string> &tokens)
{
    validate(value, tokens, static_cast<arsp::MailAddressTOpt *>(nullptr), 0);
}

TEST(MailAddressOptionTest, RefusalLeavesTheValueUnchanged)
{
    boost::any value;
    EXPECT_THROW(check(value, {"user@"}), std::runtime_error);
    EXPECT_TRUE(value.empty());

    value = arsp::MailAddressTOpt{"first@example.org"};
    EXPECT_THROW(check(value, {"not an address"}), po::multiple_occurrences);
    EXPECT_EQ(boost::any_cast<arsp::MailAddressTOpt>(value).address, "first@example.org");
}

TEST(MailAddressOptionTest, AnyNumberOfTokensButOneIsTheLibrarysError)
{
    boost::any value;
    EXPECT_THROW(check(value, {}), po::validation_error);
    EXPECT_THROW(check(value, {"a@example.org", "b@example.org"}), po::validation_error);
}

} // namespace
