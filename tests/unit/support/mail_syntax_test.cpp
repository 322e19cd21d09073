#include "support/mail_syntax.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using Check = int (*)(const char *);

const std::string LABEL_63(63, 'a');
const std::string DOMAIN_255 = LABEL_63 + "." + LABEL_63 + "." + LABEL_63 + "." + LABEL_63;

void expect_result(int expected, Check check, const std::vector<std::string> &texts)
{
    for (const std::string &text : texts)
        EXPECT_EQ(check(text.c_str()), expected) << text;
}

/* Expects that of all bytes exactly these are valid between two letters. */
void expect_valid_bytes(Check check, const std::string &valid)
{
    for (int byte = 1; byte < 256; ++byte) {
        const char c = static_cast<char>(byte);
        EXPECT_EQ(check((std::string("a") + c + "b").c_str()), valid.find(c) != std::string::npos ? 1 : 0) << byte;
    }
}

const std::string LETTERS_AND_DIGITS = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";

TEST(MailLocalPartTest, AcceptsLettersDigitsAndSixOtherBytes)
{
    expect_valid_bytes(mail_local_part_is_valid, LETTERS_AND_DIGITS + ".-_&+'");
    expect_result(1, mail_local_part_is_valid, {"user", "a", "Z", "0", "9", "first.last+tag", "-", "_", "+", "&", "'"});
}

TEST(MailLocalPartTest, AcceptsSingleDotsInsideOnly)
{
    expect_result(1, mail_local_part_is_valid, {"a.b.c"});
    expect_result(0, mail_local_part_is_valid, {".user", "user.", ".", "us..er"});
}

TEST(MailLocalPartTest, Has1To245Bytes)
{
    EXPECT_EQ(mail_local_part_is_valid(nullptr), 0);
    expect_result(0, mail_local_part_is_valid, {"", std::string(246, 'a')});
    expect_result(1, mail_local_part_is_valid, {std::string(245, 'a')});
}

TEST(MailDomainTest, AcceptsLettersDigitsHyphensAndDots)
{
    expect_valid_bytes(mail_domain_is_valid, LETTERS_AND_DIGITS + ".-");
    expect_result(1, mail_domain_is_valid, {"Example.ORG", "a", "a.b.c.d", "localhost", "192.0.2.1"});
    expect_result(0, mail_domain_is_valid, {"[192.0.2.1]"});
}

TEST(MailDomainTest, RejectsAnEmptyLabel)
{
    expect_result(0, mail_domain_is_valid, {".example.org", "example.org.", ".", "example..org"});
}

TEST(MailDomainTest, AcceptsAHyphenInsideALabelOrAtTheVeryEnd)
{
    expect_result(1, mail_domain_is_valid, {"ex-am--ple.org", "xn--bcher-kva.example", "example.org-"});
    expect_result(0, mail_domain_is_valid, {"-example.org", "example.-org", "-", "ex-.org"});
}

TEST(MailDomainTest, LabelHasUpTo63Bytes)
{
    expect_result(1, mail_domain_is_valid, {LABEL_63 + ".org", "example." + LABEL_63});
    expect_result(0, mail_domain_is_valid, {LABEL_63 + "a.org", "example." + LABEL_63 + "a"});
}

TEST(MailDomainTest, Has1To255Bytes)
{
    EXPECT_EQ(mail_domain_is_valid(nullptr), 0);
    expect_result(0, mail_domain_is_valid, {"", DOMAIN_255.substr(0, 253) + ".aa"});
    expect_result(1, mail_domain_is_valid, {DOMAIN_255});
}

TEST(MailAddressTest, IsAValidLocalPartTheFirstAtSignAndAValidDomain)
{
    expect_result(
        1, mail_address_is_valid,
        {"User@Example.ORG", "o'brien@localhost", "a@192.0.2.1", "a@b-", std::string(245, 'a') + "@" + DOMAIN_255});
    EXPECT_EQ(mail_address_is_valid(nullptr), 0);
    expect_result(0, mail_address_is_valid,
                  {"", "userexample.org", "@example.org", "us%er@example.org", "user@", "user@exa_mple.org", "a@b@c",
                   "a@@c", std::string(246, 'a') + "@example.org"});
}

} // namespace
