#include "support/mail_syntax.h"

#include <string>

#include <gtest/gtest.h>

namespace {

const std::string LABEL_63(63, 'a');
/* 63 + 1 + 63 + 1 + 63 + 1 + 63 = 255 */
const std::string DOMAIN_255 = LABEL_63 + "." + LABEL_63 + "." + LABEL_63 + "." + LABEL_63;

TEST(MailLocalPartTest, AcceptsLettersDigitsAndSixOtherBytes)
{
    for (const char *text :
         {"user", "User", "a", "Z", "0", "9", "first.last+tag", "o'brien", "a&b_c-d", "-", "_", "+", "&", "'"})
        EXPECT_EQ(mail_local_part_is_valid(text), 1) << text;
}

TEST(MailLocalPartTest, RejectsNullAndNothing)
{
    EXPECT_EQ(mail_local_part_is_valid(nullptr), 0);
    EXPECT_EQ(mail_local_part_is_valid(""), 0);
}

TEST(MailLocalPartTest, RejectsADotAtEitherEnd)
{
    EXPECT_EQ(mail_local_part_is_valid(".user"), 0);
    EXPECT_EQ(mail_local_part_is_valid("user."), 0);
    EXPECT_EQ(mail_local_part_is_valid("."), 0);
}

TEST(MailLocalPartTest, RejectsTwoDotsInARow)
{
    EXPECT_EQ(mail_local_part_is_valid("us..er"), 0);
}

TEST(MailLocalPartTest, AcceptsSingleDotsInside)
{
    EXPECT_EQ(mail_local_part_is_valid("a.b.c"), 1);
}

TEST(MailLocalPartTest, RejectsEveryOtherByte)
{
    const std::string accepted = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-_&+'";
    for (int byte = 1; byte < 256; ++byte) {
        const char c = static_cast<char>(byte);
        const int expected = accepted.find(c) != std::string::npos ? 1 : 0;
        EXPECT_EQ(mail_local_part_is_valid((std::string("a") + c + "b").c_str()), expected) << byte;
    }
}

TEST(MailLocalPartTest, RejectsUtf8Letters)
{
    EXPECT_EQ(mail_local_part_is_valid("m\xc3\xbcller"), 0);
}

TEST(MailLocalPartTest, TakesUpTo245Bytes)
{
    EXPECT_EQ(mail_local_part_is_valid(std::string(245, 'a').c_str()), 1);
    EXPECT_EQ(mail_local_part_is_valid(std::string(246, 'a').c_str()), 0);
}

TEST(MailDomainTest, AcceptsLabelsOfLettersDigitsAndInnerHyphens)
{
    for (const char *text : {"example.org", "Example.ORG", "a", "a.b.c.d", "ex-am--ple.org", "xn--bcher-kva.example"})
        EXPECT_EQ(mail_domain_is_valid(text), 1) << text;
}

TEST(MailDomainTest, NeedsNoDot)
{
    EXPECT_EQ(mail_domain_is_valid("localhost"), 1);
}

TEST(MailDomainTest, AcceptsLabelsOfDigitsButNoBrackets)
{
    EXPECT_EQ(mail_domain_is_valid("192.0.2.1"), 1);
    EXPECT_EQ(mail_domain_is_valid("[192.0.2.1]"), 0);
}

TEST(MailDomainTest, RejectsNullAndNothing)
{
    EXPECT_EQ(mail_domain_is_valid(nullptr), 0);
    EXPECT_EQ(mail_domain_is_valid(""), 0);
}

TEST(MailDomainTest, RejectsADotAtEitherEnd)
{
    EXPECT_EQ(mail_domain_is_valid(".example.org"), 0);
    EXPECT_EQ(mail_domain_is_valid("example.org."), 0);
    EXPECT_EQ(mail_domain_is_valid("."), 0);
}

TEST(MailDomainTest, RejectsAnEmptyLabel)
{
    EXPECT_EQ(mail_domain_is_valid("example..org"), 0);
}

TEST(MailDomainTest, RejectsAHyphenAtTheBeginningOfALabel)
{
    EXPECT_EQ(mail_domain_is_valid("-example.org"), 0);
    EXPECT_EQ(mail_domain_is_valid("example.-org"), 0);
    EXPECT_EQ(mail_domain_is_valid("-"), 0);
}

TEST(MailDomainTest, RejectsAHyphenBeforeADot)
{
    EXPECT_EQ(mail_domain_is_valid("ex-.org"), 0);
}

TEST(MailDomainTest, AcceptsAHyphenAtTheVeryEnd)
{
    EXPECT_EQ(mail_domain_is_valid("example.org-"), 1);
}

TEST(MailDomainTest, RejectsEveryOtherByte)
{
    const std::string accepted = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-";
    for (int byte = 1; byte < 256; ++byte) {
        const char c = static_cast<char>(byte);
        const int expected = accepted.find(c) != std::string::npos ? 1 : 0;
        EXPECT_EQ(mail_domain_is_valid((std::string("a") + c + "b").c_str()), expected) << byte;
    }
}

TEST(MailDomainTest, RejectsUtf8Letters)
{
    EXPECT_EQ(mail_domain_is_valid("b\xc3\xbc"
                                   "cher.example"),
              0);
}

TEST(MailDomainTest, TakesLabelsOfUpTo63Bytes)
{
    EXPECT_EQ(mail_domain_is_valid((LABEL_63 + ".org").c_str()), 1);
    EXPECT_EQ(mail_domain_is_valid((LABEL_63 + "a.org").c_str()), 0);
    EXPECT_EQ(mail_domain_is_valid(("example." + LABEL_63).c_str()), 1);
    EXPECT_EQ(mail_domain_is_valid(("example." + LABEL_63 + "a").c_str()), 0);
}

TEST(MailDomainTest, TakesUpTo255Bytes)
{
    EXPECT_EQ(mail_domain_is_valid(DOMAIN_255.c_str()), 1);
    const std::string domain_256 = DOMAIN_255.substr(0, 253) + ".aa";
    EXPECT_EQ(domain_256.size(), 256U);
    EXPECT_EQ(mail_domain_is_valid(domain_256.c_str()), 0);
}

TEST(MailAddressTest, AcceptsAValidLocalPartAndDomain)
{
    for (const char *text : {"user@example.org", "User@Example.ORG", "o'brien@localhost", "a@192.0.2.1", "a@b-"})
        EXPECT_EQ(mail_address_is_valid(text), 1) << text;
}

TEST(MailAddressTest, RejectsNullAndTextWithoutAtSign)
{
    EXPECT_EQ(mail_address_is_valid(nullptr), 0);
    EXPECT_EQ(mail_address_is_valid(""), 0);
    EXPECT_EQ(mail_address_is_valid("userexample.org"), 0);
}

TEST(MailAddressTest, RejectsAnInvalidLocalPart)
{
    EXPECT_EQ(mail_address_is_valid("@example.org"), 0);
    EXPECT_EQ(mail_address_is_valid("us%er@example.org"), 0);
}

TEST(MailAddressTest, RejectsAnInvalidDomain)
{
    EXPECT_EQ(mail_address_is_valid("user@"), 0);
    EXPECT_EQ(mail_address_is_valid("user@exa_mple.org"), 0);
}

TEST(MailAddressTest, RejectsASecondAtSign)
{
    EXPECT_EQ(mail_address_is_valid("a@b@c"), 0);
    EXPECT_EQ(mail_address_is_valid("a@@c"), 0);
}

TEST(MailAddressTest, LimitsAreThoseOfItsParts)
{
    EXPECT_EQ(mail_address_is_valid((std::string(245, 'a') + "@" + DOMAIN_255).c_str()), 1);
    EXPECT_EQ(mail_address_is_valid((std::string(246, 'a') + "@example.org").c_str()), 0);
}

} // namespace
