#include "support/text.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/c_handles.h"
#include "tests/unit/support/little_memory.h"
#include "tests/unit/support/syslog_capture.h"

using namespace arsp;

namespace {

/* The text that is left where it stood, and the one the function returned. */
struct Trimmed {
    std::string in_place;
    std::string returned;
};

template <typename Trim>
Trimmed trimmed(std::string text, Trim trim)
{
    const char *returned = trim(text.data());
    const char *in_place = text.data(); /* up to its first NUL */
    return {in_place, returned};
}

std::string lowered(std::string text)
{
    str_tolower(text.data());
    return text;
}

TEST(XasprintfTest, ReturnsTheFormattedText)
{
    const CString text(xasprintf("%s@%s, %d", "user", "example.org", 7));
    EXPECT_STREQ(text.get(), "user@example.org, 7");
}

TEST(XasprintfTest, HasNoLimit)
{
    const CString text(xasprintf("%s", std::string(100'000, 'x').c_str()));
    EXPECT_EQ(std::string(text.get()), std::string(100'000, 'x'));
}

TEST(StrTolowerTest, LowersLettersAndLeavesTheRest)
{
    EXPECT_EQ(lowered("AZaz@[`{09_-"), "azaz@[`{09_-");
}

TEST(StrTolowerTest, LeavesBytesAbove127InTheDefaultLocale)
{
    EXPECT_EQ(lowered("M\xc3\x9cLLER \xdc\xff\x80"), "m\xc3\x9cller \xdc\xff\x80");
}

TEST(StrTolowerTest, DoesNothingToANullPointer)
{
    str_tolower(nullptr);
}

TEST(StrDupLowerTest, ReturnsALoweredCopy)
{
    const std::string text = "User@Example.ORG";
    const CString copy(str_dup_lower(text.c_str()));
    EXPECT_STREQ(copy.get(), "user@example.org");
    EXPECT_EQ(text, "User@Example.ORG");
}

TEST(StrDupLowerTest, ReturnsNullForNull)
{
    EXPECT_EQ(str_dup_lower(nullptr), nullptr);
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
    const Trimmed result = trimmed(" a b \t\n\v\f\r", str_rtrim_space);
    EXPECT_EQ(result.in_place, " a b");
    EXPECT_EQ(result.returned, " a b");
}

TEST(StrRtrimSpaceTest, LeavesNothingOfWhiteSpace)
{
    EXPECT_EQ(trimmed(" \t\n", str_rtrim_space).in_place, "");
    EXPECT_EQ(trimmed("", str_rtrim_space).in_place, "");
}

TEST(StrRtrimSpaceTest, BytesAbove127AreNoWhiteSpace)
{
    EXPECT_EQ(trimmed("a\xa0\x85 ", str_rtrim_space).in_place, "a\xa0\x85");
}

TEST(StrRtrimSpaceTest, EveryByteCutIsCleared)
{
    char text[] = "a  ";
    str_rtrim_space(text);
    EXPECT_EQ(std::string(text, sizeof text), std::string("a\0\0\0", 4));
}

TEST(StrRtrimCharTest, ClearsTrailingBytesOfThatValueOnly)
{
    const Trimmed result = trimmed("//a/ //", [](char *s) { return str_rtrim_char(s, '/'); });
    EXPECT_EQ(result.in_place, "//a/ ");
    EXPECT_EQ(result.returned, "//a/ ");
    EXPECT_EQ(trimmed("////", [](char *s) { return str_rtrim_char(s, '/'); }).in_place, "");
    EXPECT_EQ(trimmed("a\xff\xff", [](char *s) { return str_rtrim_char(s, '\xff'); }).in_place, "a");
}

TEST(StrTrimSpaceTest, OfATextOfBlanksWhatStandsBeforeItStays)
{
    char text[] = "\t\t \n";

    EXPECT_STREQ(str_trim_space(text + 1), "");
    EXPECT_EQ(text[0], '\t');
}

TEST(StrTrimSpaceTest, ClearsTheEndAndSkipsTheBeginning)
{
    const Trimmed result = trimmed(" \t\n\v\f\ra b\r\n ", str_trim_space);
    EXPECT_EQ(result.returned, "a b");
    EXPECT_EQ(result.in_place, " \t\n\v\f\ra b");
}

TEST(StrTrimSpaceTest, LeavesNothingOfWhiteSpace)
{
    EXPECT_EQ(trimmed(" \t ", str_trim_space).returned, "");
    EXPECT_EQ(trimmed("", str_trim_space).returned, "");
}

TEST(StrTrimLineTest, CutsBlanksAndLineEnds)
{
    const Trimmed result = trimmed("  a b \r\n \r\n", str_trim_line);
    EXPECT_EQ(result.returned, "a b");
    EXPECT_EQ(result.in_place, "  a b");
}

TEST(StrTrimLineTest, KeepsTabs)
{
    EXPECT_EQ(trimmed(" \ta\t \n", str_trim_line).returned, "\ta\t");
}

TEST(StrTrimLineTest, SkipsBlanksOnlyAtTheBeginning)
{
    EXPECT_EQ(trimmed("\r\n a", str_trim_line).returned, "\r\n a");
}

TEST(StrTrimLineTest, LeavesNothingOfAnEmptyLine)
{
    EXPECT_EQ(trimmed(" \r\n", str_trim_line).returned, "");
}

} // namespace
