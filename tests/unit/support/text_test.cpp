#include "support/text.h"

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/c_handles.h"
#include "tests/unit/support/little_memory.h"
#include "tests/unit/support/syslog_capture.h"

using namespace arsp;

namespace {

/* The modified text, and the returned one. */
using Trimmed = std::pair<std::string, std::string>;

template <typename Trim>
Trimmed trimmed(std::string text, Trim trim)
{
    const char *returned = trim(text.data());
    const char *in_place = text.data(); /* up to its first NUL */
    return {in_place, returned};
}

TEST(XasprintfTest, ReturnsAFormattedTextOfAnyLength)
{
    const CString text(xasprintf("%s, %d", std::string(100'000, 'x').c_str(), 7));
    EXPECT_EQ(std::string(text.get()), std::string(100'000, 'x') + ", 7");
}

TEST(StrTolowerTest, ChangesOnlyAsciiLettersInTheDefaultLocale)
{
    std::string text = "AZaz@[`{09_-M\xc3\x9cLLER \xdc\xff\x80";
    str_tolower(text.data());
    EXPECT_EQ(text, "azaz@[`{09_-m\xc3\x9cller \xdc\xff\x80");
}

TEST(StrTolowerTest, IgnoresANullPointer)
{
    str_tolower(nullptr);
    EXPECT_EQ(str_dup_lower(nullptr), nullptr);
}

TEST(StrDupLowerTest, ReturnsALoweredCopy)
{
    const std::string text = "User@Example.ORG";
    const CString copy(str_dup_lower(text.c_str()));
    EXPECT_STREQ(copy.get(), "user@example.org");
    EXPECT_EQ(text, "User@Example.ORG");
}

TEST(StrDupLowerTest, LogsThatThereIsNoMemoryForTheCopy)
{
    capture_syslog();
    copies_left = 0;
    EXPECT_EQ(str_dup_lower("Text"), nullptr);
    copies_left = AS_MANY_AS_ASKED_FOR;
    EXPECT_EQ(syslog_capture.records, (std::vector<SyslogRecord>{{3, "System error: Cannot allocate memory\n"}}));
}

TEST(StrRtrimSpaceTest, ClearsTrailingWhiteSpaceOnly)
{
    EXPECT_EQ(trimmed(" a b \t\n\v\f\r", str_rtrim_space), Trimmed(" a b", " a b"));
    EXPECT_EQ(trimmed(" \t\n", str_rtrim_space), Trimmed("", ""));
    EXPECT_EQ(trimmed("", str_rtrim_space), Trimmed("", ""));
    EXPECT_EQ(trimmed("a\xa0\x85 ", str_rtrim_space), Trimmed("a\xa0\x85", "a\xa0\x85"));
}

TEST(StrRtrimSpaceTest, ClearsEveryByteThatItCuts)
{
    char text[] = "a  ";
    str_rtrim_space(text);
    EXPECT_EQ(std::string(text, sizeof text), std::string("a\0\0\0", 4));
}

TEST(StrRtrimCharTest, ClearsTrailingBytesOfThatValueOnly)
{
    const auto trim_slashes = [](char *s) { return str_rtrim_char(s, '/'); };
    EXPECT_EQ(trimmed("//a/ //", trim_slashes), Trimmed("//a/ ", "//a/ "));
    EXPECT_EQ(trimmed("////", trim_slashes), Trimmed("", ""));
    EXPECT_EQ(trimmed("a\xff\xff", [](char *s) { return str_rtrim_char(s, '\xff'); }), Trimmed("a", "a"));
}

TEST(StrTrimSpaceTest, ClearsTheEndAndSkipsTheBeginning)
{
    EXPECT_EQ(trimmed(" \t\n\v\f\ra b\r\n ", str_trim_space), Trimmed(" \t\n\v\f\ra b", "a b"));
    EXPECT_EQ(trimmed(" \t ", str_trim_space), Trimmed("", ""));
    EXPECT_EQ(trimmed("", str_trim_space), Trimmed("", ""));
}

TEST(StrTrimSpaceTest, AllBlankTextLeavesPrecedingByteUntouched)
{
    char text[] = "\t\t \n";
    EXPECT_STREQ(str_trim_space(text + 1), "");
    EXPECT_EQ(text[0], '\t');
}

TEST(StrTrimLineTest, CutsBlanksAndLineEndsButNoTabs)
{
    EXPECT_EQ(trimmed("  a b \r\n \r\n", str_trim_line), Trimmed("  a b", "a b"));
    EXPECT_EQ(trimmed(" \ta\t \n", str_trim_line), Trimmed(" \ta\t", "\ta\t"));
    EXPECT_EQ(trimmed("\r\n a", str_trim_line), Trimmed("\r\n a", "\r\n a"));
    EXPECT_EQ(trimmed(" \r\n", str_trim_line), Trimmed("", ""));
}

} // namespace
