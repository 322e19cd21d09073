/* Mail addresses and content types: the option values and the functions of the support library against the same rules
 * in a second implementation. The input is the option's value. */

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <boost/any.hpp>
#include <boost/program_options/errors.hpp>

#include "cli/content_type_option.h"
#include "cli/mail_address_option.h"
#include "fuzz/check.h"
#include "support/mail_syntax.h"

using namespace arsp;
namespace po = boost::program_options;

namespace {

constexpr std::string_view LETTERS_AND_DIGITS = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";

bool consists_of(std::string_view text, std::string_view extra)
{
    return text.find_first_not_of(std::string(LETTERS_AND_DIGITS).append(extra)) == std::string_view::npos;
}

bool local_part_rule(std::string_view text)
{
    return !text.empty() && text.size() <= 245 && consists_of(text, ".-_&+'") && !text.starts_with('.') &&
           !text.ends_with('.') && text.find("..") == std::string_view::npos;
}

bool label_rule(std::string_view text, bool last)
{
    return !text.empty() && text.size() <= 63 && consists_of(text, "-") && !text.starts_with('-') &&
           (last || !text.ends_with('-'));
}

bool domain_rule(std::string_view text)
{
    if (text.size() > 255)
        return false;
    for (std::size_t dot = text.find('.'); dot != std::string_view::npos; dot = text.find('.')) {
        if (!label_rule(text.substr(0, dot), false))
            return false;
        text.remove_prefix(dot + 1);
    }
    return label_rule(text, true);
}

/* The address that the option holds, or its message after "!". */
std::string address_rule(const std::string &token)
{
    const std::size_t at = token.find('@');
    if (at == std::string::npos || token.find('@', at + 1) != std::string::npos)
        return "!" + token + " - incorrect email address format";
    if (!local_part_rule(token.substr(0, at)))
        return "!" + token.substr(0, at) + " - incorrect format of local part of email address";
    if (!domain_rule(token.substr(at + 1)))
        return "!" + token.substr(at + 1) + " - incorrect format of domain part of email address";
    return lower_case(token);
}

/* Passes `tokens` to the option; returns its text, or its message after "!". */
template <typename Option>
std::string given(const std::vector<std::string> &tokens, std::string Option::*text)
{
    boost::any value;
    try {
        validate(value, tokens, static_cast<Option *>(nullptr), 0);
    } catch (const po::error &) { /* its text is the library's */
        expect(value.empty(), "a refused value is stored");
        return "!invalid";
    } catch (const std::runtime_error &error) {
        expect(value.empty(), "a refused value is stored");
        return std::string("!") + error.what();
    }
    const auto *held = boost::any_cast<Option>(&value);
    expect(held != nullptr, "an accepted value is not stored");
    try {
        validate(value, tokens, static_cast<Option *>(nullptr), 0);
        finding("an option given twice is accepted");
    } catch (const po::multiple_occurrences &) {
        return held->*text;
    }
}

template <typename Option>
void check(const std::string &token, std::string Option::*text, const std::string &wanted)
{
    expect_equal(given({token}, text), wanted, "option");
    expect_equal(given({}, text), "!invalid", "option without a token");
    expect_equal(given({token, token}, text), "!invalid", "option with two tokens");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::string text(c_text({reinterpret_cast<const char *>(data), size}));
    const std::string address = address_rule(text);
    check(text, &MailAddressTOpt::address, address);
    check(text, &ContentType::text, content_type_rule(text));
    expect(mail_address_is_valid(text.c_str()) == (address.starts_with('!') ? 0 : 1), "mail_address_is_valid");
    expect(mail_local_part_is_valid(text.c_str()) == (local_part_rule(text) ? 1 : 0), "mail_local_part_is_valid");
    expect(mail_domain_is_valid(text.c_str()) == (domain_rule(text) ? 1 : 0), "mail_domain_is_valid");
    return 0;
}
