#include "info/printable.h"

#include <initializer_list>
#include <utility>

#include <gtest/gtest.h>

namespace arsp {

namespace {

/* A byte sequence at a limit of UTF-8, and whether it is one character. */
struct Sequence {
    const char *bytes;
    bool valid;
};

class Utf8Test : public testing::TestWithParam<Sequence> {};

INSTANTIATE_TEST_SUITE_P(Limits, Utf8Test,
                         testing::Values(Sequence{"\x7F", true}, Sequence{"\x80", false}, Sequence{"\xC1\xBF", false},
                                         Sequence{"\xC2\x80", true}, Sequence{"\xDF\xBF", true},
                                         Sequence{"\xC3", false}, Sequence{"\xE0\x9F\xBF", false},
                                         Sequence{"\xE0\xA0\x80", true}, Sequence{"\xED\x9F\xBF", true},
                                         Sequence{"\xED\xA0\x80", false}, Sequence{"\xED\xBF\xBF", false},
                                         Sequence{"\xEF\xBF\xBF", true}, Sequence{"\xF0\x8F\xBF\xBF", false},
                                         Sequence{"\xF0\x90\x80\x80", true}, Sequence{"\xF4\x8F\xBF\xBF", true},
                                         Sequence{"\xF4\x90\x80\x80", false}, Sequence{"\xF0\x90\x80", false},
                                         Sequence{"\xE2\x28\xA1", false}));

TEST_P(Utf8Test, OnlyValidCharactersPassUnchanged)
{
    EXPECT_EQ(GetParam().valid, is_utf8(GetParam().bytes));
    EXPECT_EQ(GetParam().valid, json_text(GetParam().bytes) == GetParam().bytes);
}

using Expected = std::pair<std::string, std::string>; /* a text, and what becomes of it */

TEST(PrintableTest, EscapesWhatIsNotPrintableAscii)
{
    for (const auto &[text, escaped] : std::initializer_list<Expected>{{"\x1F", "\\x1f"},
                                                                       {" ~", " ~"},
                                                                       {"\x7F\x80", "\\x7f\\x80"},
                                                                       {"\xC3\xA9", "\\xc3\\xa9"},
                                                                       {"\\y\\x", "\\y\\x5cx"}})
        EXPECT_EQ(escaped, printable(text));
}

TEST(JsonTextTest, ReplacesTheBytesOfThePrivateCharactersThatStandForBytes)
{
    for (const auto &[text, expected] : std::initializer_list<Expected>{{std::string(1, '\0'), "\uEF00"},
                                                                        {"\x01", "\x01"},
                                                                        {"\x80", "\uEF80"},
                                                                        {"\uEEFF", "\uEEFF"},
                                                                        {"\uEF00", "\uEFEE\uEFBC\uEF80"},
                                                                        {"\uEFFF", "\uEFEE\uEFBF\uEFBF"},
                                                                        {"\uF000", "\uF000"}})
        EXPECT_EQ(expected, json_text(text));
}

TEST(AsciiJsonTest, EscapesCharactersAsUtf16)
{
    for (const auto &[json, escaped] : std::initializer_list<Expected>{{"~\n", "~\n"},
                                                                       {"\x7F", "\\u007f"},
                                                                       {"\u0080", "\\u0080"},
                                                                       {"\uFFFF", "\\uffff"},
                                                                       {"\U00010000", "\\ud800\\udc00"},
                                                                       {"\U0010FFFF", "\\udbff\\udfff"}})
        EXPECT_EQ(escaped, ascii_json(json));
}

TEST(ShellCommandTest, QuotesWordsThatTheShellWouldChange)
{
    for (const auto &[word, quoted] : std::initializer_list<Expected>{{"azAZ09@%+=:,./_-", "azAZ09@%+=:,./_-"},
                                                                      {"", "''"},
                                                                      {"a b", "'a b'"},
                                                                      {"`", "'`'"},
                                                                      {"{", "'{'"},
                                                                      {"[", "'['"},
                                                                      {"it's", "\"it's\""},
                                                                      {"'$x", "''\\''$x'"},
                                                                      {"'\"", "''\\''\"'"}})
        EXPECT_EQ("run " + quoted + " x", shell_command({"run", word, "x"}));
}

TEST(ShellCommandTest, PassesWordsThroughPrintfIfOneIsNotPrintable)
{
    EXPECT_EQ("printf '-a/Z.9\\072\\000\\012\\000' | xargs -0 -x -n 2 env", shell_command({"-a/Z.9:", "\n"}));
}

TEST(ShellQuotedTest, KeepsEveryByteBetweenSingleQuotes)
{
    EXPECT_EQ("'a'\\''\n\xFF'", shell_quoted("a'\n\xFF"));
}

TEST(HasControlBytesTest, FindsBytesBelow32And127)
{
    for (const char *text : {"a\x1F", "\x7F", "\n"})
        EXPECT_TRUE(has_control_bytes(text)) << text;
    for (const char *text : {"", " ", "~", "\x80", "\xFF"})
        EXPECT_FALSE(has_control_bytes(text)) << text;
}

} // namespace

} // namespace arsp
