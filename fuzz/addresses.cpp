/* Mail addresses and content types: the option values against the rules, written down once more in another way, and
 * against the functions of the support library. The input is the option's value. */

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

namespace po = boost::program_options;

namespace {

constexpr std::string_view LETTERS_AND_DIGITS = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";

bool consists_of(std::string_view text, std::string_view extra)
{
    return text.find_first_not_of(std::string(LETTERS_AND_DIGITS).append(extra)) == std::string_view::npos;
}

std::vector<std::string_view> split(std::string_view text, char separator)
{
    std::vector<std::string_view> pieces;
    for (std::size_t start = 0;;) {
        const std::size_t end = text.find(separator, start);
        pieces.push_back(text.substr(start, end - start));
        if (end == std::string_view::npos)
            return pieces;
        start = end + 1;
    }
}

bool local_part_rule(std::string_view text)
{
    return !text.empty() && text.size() <= 245 && consists_of(text, ".-_&+'") && !text.starts_with('.') &&
           !text.ends_with('.') && text.find("..") == std::string_view::npos;
}

bool domain_rule(std::string_view text)
{
    if (text.size() > 255)
        return false;
    const std::vector<std::string_view> labels = split(text, '.');
    for (std::size_t i = 0; i < labels.size(); ++i) {
        const bool last = i + 1 == labels.size();
        if (labels[i].empty() || labels[i].size() > 63 || !consists_of(labels[i], "-") || labels[i].starts_with('-') ||
            (labels[i].ends_with('-') && !last))
            return false;
    }
    return true;
}

/* The result of the option: the address that it holds, or its message after "!". */
std::string address_rule(const std::string &token)
{
    const std::vector<std::string_view> pieces = split(token, '@');
    if (pieces.size() != 2)
        return "!" + token + " - incorrect email address format";
    if (!local_part_rule(pieces[0]))
        return "!" + std::string(pieces[0]) + " - incorrect format of local part of email address";
    if (!domain_rule(pieces[1]))
        return "!" + std::string(pieces[1]) + " - incorrect format of domain part of email address";
    std::string lower = token;
    for (char &c : lower) {
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    }
    return lower;
}

std::string content_type_rule(const std::string &token)
{
    if (token == "plain" || token == "text/plain")
        return "text/plain";
    if (token == "html" || token == "text/html")
        return "text/html";
    return "!invalid";
}

/* Gives `token` to the option; answers its text, or its message after "!". */
template <typename Option>
std::string given(const std::string &token, std::string Option::*text)
{
    boost::any value;
    try {
        validate(value, {token}, static_cast<Option *>(nullptr), 0);
    } catch (const po::invalid_option_value &) {
        expect(value.empty(), "a refused value is stored");
        return "!invalid"; /* what it says is the library's business */
    } catch (const std::runtime_error &error) {
        expect(value.empty(), "a refused value is stored");
        return std::string("!") + error.what();
    }
    const auto *held = boost::any_cast<Option>(&value);
    expect(held != nullptr, "an accepted value is not stored");
    try {
        validate(value, {token}, static_cast<Option *>(nullptr), 0);
        finding("an option given twice is accepted");
    } catch (const po::multiple_occurrences &) {
        return held->*text;
    }
}

/* Not exactly one token: the library's own error, whatever the tokens are. */
template <typename Option>
void check_token_count(const std::vector<std::string> &tokens)
{
    boost::any value;
    try {
        validate(value, tokens, static_cast<Option *>(nullptr), 0);
        finding("not exactly one token is accepted");
    } catch (const po::validation_error &) {
        expect(value.empty(), "not exactly one token is stored");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::string text(c_text({reinterpret_cast<const char *>(data), size}));
    const std::string wanted = address_rule(text);

    expect_equal(given(text, &arsp::MailAddressTOpt::address), wanted, "address option");
    expect(mail_address_is_valid(text.c_str()) == (wanted.starts_with('!') ? 0 : 1), "mail_address_is_valid");
    expect(mail_local_part_is_valid(text.c_str()) == (local_part_rule(text) ? 1 : 0), "mail_local_part_is_valid");
    expect(mail_domain_is_valid(text.c_str()) == (domain_rule(text) ? 1 : 0), "mail_domain_is_valid");
    expect_equal(given(text, &arsp::ContentType::text), content_type_rule(text), "content type option");

    check_token_count<arsp::MailAddressTOpt>({});
    check_token_count<arsp::MailAddressTOpt>({text, text});
    check_token_count<arsp::ContentType>({});
    check_token_count<arsp::ContentType>({text, text});
    return 0;
}
