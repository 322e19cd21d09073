#include "support/conf_parse.h"

#include <cerrno>
#include <cstdlib>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "tests/unit/support/scratch_dir.h"
#include "tests/unit/support/syslog_capture.h"

using namespace arsp;

using namespace std::string_literals;

namespace {

using Records = std::vector<SyslogRecord>;

class ConfParseTest : public testing::Test {
protected:
    void SetUp() override { capture_syslog(); }

    int parse(std::string_view text) { return conf_parse_file(dir_.file("kel.conf", text).c_str(), store_.get()); }
    std::string find(const char *name)
    {
        const char *value = conf_store_find(name, store_.get());
        return value == nullptr ? "(none)" : value;
    }
    /* The value of NAME in a file of just this text. */
    std::string value(std::string_view text)
    {
        store_.reset(static_cast<ConfStore *>(calloc(1, sizeof(ConfStore))));
        EXPECT_EQ(parse(text), 0);
        EXPECT_EQ(syslog_capture.records, Records{});
        return find("NAME");
    }
    /* What is logged about a file of just this text, which defines nothing. */
    Records complaints(std::string_view text)
    {
        EXPECT_EQ(parse(text), 0);
        EXPECT_EQ(store_->count, 0U);
        return syslog_capture.records;
    }

    ScratchDir dir_;
    ConfStorePtr store_ = ConfStorePtr(static_cast<ConfStore *>(calloc(1, sizeof(ConfStore))));
};

TEST_F(ConfParseTest, LineGivesANameItsValue)
{
    EXPECT_EQ(parse("QUARN_MAILNAMES_D /srv/mail\n"), 0);
    EXPECT_EQ(find("QUARN_MAILNAMES_D"), "/srv/mail");
}

TEST_F(ConfParseTest, TabSeparatesAndCommentEndsTheValue)
{
    EXPECT_EQ(parse("QUARN_MAILNAMES_D\t/srv/mail # mailboxes\n"), 0);
    EXPECT_EQ(find("QUARN_MAILNAMES_D"), "/srv/mail");
}

TEST_F(ConfParseTest, AnyWhiteSpaceSeparates)
{
    EXPECT_EQ(value("NAME \t\v\f\r /srv\n"), "/srv");
}

TEST_F(ConfParseTest, WhiteSpaceBeforeANameIsSkipped)
{
    EXPECT_EQ(value(" \t\v\f\rNAME /srv\n"), "/srv");
}

TEST_F(ConfParseTest, NameMayBeginWithADigitOrUnderscoreAndBeUnknown)
{
    EXPECT_EQ(parse("9x one\n_y two\nzZ_09 three\n"), 0);
    EXPECT_EQ(find("9x"), "one");
    EXPECT_EQ(find("_y"), "two");
    EXPECT_EQ(find("zZ_09"), "three");
}

TEST_F(ConfParseTest, BlankLinesAndCommentsDefineNothing)
{
    EXPECT_EQ(complaints("\n \t\v\f\r\n# NAME value\n  # NAME value\n#\n"), Records{});
}

TEST_F(ConfParseTest, EmptyFileIsNoFailure)
{
    EXPECT_EQ(complaints(""), Records{});
    EXPECT_EQ(store_->sorted, 1);
}

TEST_F(ConfParseTest, ValueMayEndTheFile)
{
    EXPECT_EQ(value("NAME /srv"), "/srv");
    EXPECT_EQ(value("NAME /"), "/");
}

TEST_F(ConfParseTest, ValueKeepsInnerWhiteSpace)
{
    EXPECT_EQ(value("NAME a \t b  c\n"), "a \t b  c");
}

TEST_F(ConfParseTest, ValueOfOneCharacterIsThatCharacter)
{
    EXPECT_EQ(value("NAME x\n"), "x");
    EXPECT_EQ(value("NAME x#\n"), "x");
    EXPECT_EQ(value("NAME x"), "x");
}

TEST_F(ConfParseTest, SingleTrailingWhiteSpaceIsCut)
{
    EXPECT_EQ(value("NAME /a\n"), "/a");
    EXPECT_EQ(value("NAME /a #\n"), "/a");
    EXPECT_EQ(value("NAME /a\t"), "/a");
}

TEST_F(ConfParseTest, EvenRunOfTrailingWhiteSpaceIsKeptWhole)
{
    EXPECT_EQ(value("NAME /a \n"), "/a \n");
    EXPECT_EQ(value("NAME /a  #\n"), "/a  ");
    EXPECT_EQ(value("NAME /a \t \n"), "/a \t \n");
    EXPECT_EQ(value("NAME /a\r\n"), "/a\r\n");
}

TEST_F(ConfParseTest, OddRunOfTrailingWhiteSpaceLosesItsLastCharacter)
{
    EXPECT_EQ(value("NAME /srv/mail  \n"), "/srv/mail  ");
    EXPECT_EQ(value("NAME /a   #\n"), "/a  ");
    EXPECT_EQ(value("NAME /a \t \t\n"), "/a \t \t");
}

TEST_F(ConfParseTest, InnerWhiteSpaceDoesNotCountForTheEnd)
{
    EXPECT_EQ(value("NAME a b\n"), "a b");
    EXPECT_EQ(value("NAME a b \n"), "a b \n");
    EXPECT_EQ(value("NAME a b #\n"), "a b");
}

TEST_F(ConfParseTest, ValueCanNotContainANumberSign)
{
    EXPECT_EQ(value("NAME a#b\n"), "a");
    EXPECT_EQ(value("NAME a b#c # d\n"), "a b");
}

TEST_F(ConfParseTest, BytesAbove127AreOrdinaryInAValue)
{
    EXPECT_EQ(value("NAME \xff\xa0\x85\n"), "\xff\xa0\x85");
}

TEST_F(ConfParseTest, LaterValueOfANameWins)
{
    EXPECT_EQ(parse("NAME one\nOTHER x\nNAME two\n"), 0);
    EXPECT_EQ(find("NAME"), "two");
    EXPECT_EQ(store_->count, 2U);
}

TEST_F(ConfParseTest, StoreIsSortedAfterwards)
{
    EXPECT_EQ(parse("C 3\nA 1\nB 2\n"), 0);
    EXPECT_EQ(store_->sorted, 1);
    EXPECT_STREQ(store_->entries[0].name, "A");
    EXPECT_STREQ(store_->entries[1].name, "B");
    EXPECT_STREQ(store_->entries[2].name, "C");
}

TEST_F(ConfParseTest, LineOfAnyLengthIsReadWhole)
{
    const std::string name(100'000, 'N');
    const std::string long_value(3'000'000, 'v');
    EXPECT_EQ(parse(name + " " + long_value + "\nNAME x\n"), 0);
    EXPECT_EQ(find(name.c_str()), long_value);
    EXPECT_EQ(find("NAME"), "x");
}

TEST_F(ConfParseTest, EqualsSignAfterTheNameIsRejected)
{
    EXPECT_EQ(complaints("QUARN_MAILNAMES_D=/srv/mail\n"),
              (Records{{12, "Invalid variable definition =/srv/mail\n\nExpected a space after variable name\n"}}));
}

TEST_F(ConfParseTest, LineThatBeginsWithNoNameIsRejected)
{
    EXPECT_EQ(complaints("  /srv/mail NAME\n"),
              (Records{{12, "Invalid variable definition /srv/mail NAME\n\nExpected a space after variable name\n"}}));
}

TEST_F(ConfParseTest, CommentRightAfterTheNameIsRejected)
{
    EXPECT_EQ(complaints("NAME# x\n"),
              (Records{{12, "Invalid variable definition # x\n\nExpected a space after variable name\n"}}));
}

TEST_F(ConfParseTest, ByteAbove127IsNoNameCharacter)
{
    EXPECT_EQ(complaints("NAM\xc9 x\n"),
              (Records{{12, "Invalid variable definition \xc9 x\n\nExpected a space after variable name\n"}}));
}

TEST_F(ConfParseTest, NameThatEndsTheFileIsRejectedForTheMissingSpace)
{
    EXPECT_EQ(complaints("NAME"),
              (Records{{12, "Invalid variable definition \nExpected a space after variable name\n"}}));
}

TEST_F(ConfParseTest, NameAloneIsRejected)
{
    EXPECT_EQ(complaints("  NAME\n"), (Records{{12, "Invalid variable definition NAME\n\nExpected a value"}}));
}

TEST_F(ConfParseTest, NameWithBlanksAndACommentIsRejected)
{
    EXPECT_EQ(complaints("NAME  # x\n"), (Records{{12, "Invalid variable definition NAME  # x\n\nExpected a value"}}));
}

TEST_F(ConfParseTest, NameWithABlankThatEndsTheFileIsRejected)
{
    EXPECT_EQ(complaints("NAME "), (Records{{12, "Invalid variable definition NAME \nExpected a value"}}));
}

TEST_F(ConfParseTest, PercentSignsInARejectedLineAreNoFormat)
{
    EXPECT_EQ(complaints("%s%n\n"),
              (Records{{12, "Invalid variable definition %s%n\n\nExpected a space after variable name\n"}}));
}

TEST_F(ConfParseTest, BadLinesAreSkippedAndTheOthersCount)
{
    EXPECT_EQ(parse("A=1\nB 2\nC\nD 4\n"), 0);
    EXPECT_EQ(store_->count, 2U);
    EXPECT_EQ(find("B"), "2");
    EXPECT_EQ(find("D"), "4");
    EXPECT_EQ(syslog_capture.records.size(), 2U);
}

TEST_F(ConfParseTest, NulByteEndsItsLine)
{
    EXPECT_EQ(parse("A 1\0junk\nB 2\n"s), 0);
    EXPECT_EQ(find("A"), "1");
    EXPECT_EQ(find("B"), "2");
}

TEST_F(ConfParseTest, NulByteInsteadOfNameSpaceOrValueDefinesNothing)
{
    EXPECT_EQ(complaints("\0NAME 1\nNAME\0 1\nNAME \0 1\n"s),
              (Records{{12, "Invalid variable definition \nExpected a space after variable name\n"},
                       {12, "Invalid variable definition NAME \nExpected a value"}}));
}

TEST_F(ConfParseTest, MissingFileIsLoggedAndErrnoKept)
{
    const std::string path = dir_ / "missing";
    errno = 0;
    EXPECT_EQ(conf_parse_file(path.c_str(), store_.get()), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(syslog_capture.records,
              (Records{{12, "unable to open configuration file " + path + ": No such file or directory\n"}}));
}

TEST_F(ConfParseTest, ReadErrorIsLoggedAndErrnoKept)
{
    errno = 0;
    EXPECT_EQ(conf_parse_file(dir_.path().c_str(), store_.get()), -1); /* a directory opens but can't be read */
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(syslog_capture.records, (Records{{12, "Unable to read configuration file: Is a directory"}}));
}

TEST_F(ConfParseTest, OutOfMemoryForAPairEndsTheReadingAndKeepsErrno)
{
    ASSERT_EQ(conf_store_grow(store_.get()), 0);
    store_->capacity = store_->count = UINT64_C(1) << 62; /* so that the next pair asks for too much */
    errno = 0;
    EXPECT_EQ(parse("A 1\nB 2\n"), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(syslog_capture.records, (Records{{12, "Unable to read configuration: Cannot allocate memory"}}));
    store_->count = 0;
}

} // namespace
