#include "support/conf_parse.h"

#include <cerrno>
#include <cstdlib>
#include <ostream>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "tests/unit/support/little_memory.h"
#include "tests/unit/support/scratch_dir.h"
#include "tests/unit/support/syslog_capture.h"

using namespace arsp;

using namespace std::string_literals;

namespace {

using Records = std::vector<SyslogRecord>;

ConfStorePtr new_store()
{
    return ConfStorePtr(static_cast<ConfStore *>(calloc(1, sizeof(ConfStore))));
}

class ConfParseTest : public testing::Test {
protected:
    void SetUp() override { capture_syslog(); }

    int parse(std::string_view text) { return conf_parse_file(dir_.file("kel.conf", text).c_str(), store_.get()); }

    /* Returns "NAME=VALUE;" of each pair in a file of this text, in the order of the store. */
    std::string pairs(std::string_view text)
    {
        store_ = new_store();
        EXPECT_EQ(parse(text), 0);
        EXPECT_EQ(store_->sorted, 1);
        std::string pairs;
        for (uint64_t i = 0; i < store_->count; ++i)
            pairs.append(store_->entries[i].name).append("=").append(store_->entries[i].value).append(";");
        return pairs;
    }

    ScratchDir dir_;
    ConfStorePtr store_ = new_store();
};

struct Line {
    std::string text;
    std::string expected; /* the pairs; or, for a bad line, its end that the warning quotes, and the reason */
};

std::ostream &operator<<(std::ostream &stream, const Line &line)
{
    return stream << testing::PrintToString(line.text);
}

class ConfLineTest : public ConfParseTest, public testing::WithParamInterface<Line> {};

TEST_P(ConfLineTest, IsParsedWithoutAWarning)
{
    EXPECT_EQ(pairs(GetParam().text), GetParam().expected);
    EXPECT_EQ(syslog_capture.records, Records{});
}

INSTANTIATE_TEST_SUITE_P(NameAndSpace, ConfLineTest,
                         testing::Values(Line{"N /srv\n", "N=/srv;"}, Line{"N\t/srv # mail\n", "N=/srv;"},
                                         Line{"N \t\v\f\r /srv\n", "N=/srv;"}, Line{" \t\v\f\rN /srv\n", "N=/srv;"},
                                         Line{"9x 1\n_y 2\nzZ_09 3\n", "9x=1;_y=2;zZ_09=3;"},
                                         Line{"\n \t\v\f\r\n# N v\n  # N v\n#\n", ""}, Line{"", ""},
                                         Line{"\0N 1\n"s, ""}, Line{"C 3\nA 1\nB 2\n", "A=1;B=2;C=3;"}, /* sorted */
                                         Line{"N one\nO x\nN two\n", "N=two;O=x;"},
                                         Line{"A 1\0junk\nB 2\n"s, "A=1;B=2;"}));

INSTANTIATE_TEST_SUITE_P(Value, ConfLineTest,
                         testing::Values(Line{"N /srv", "N=/srv;"}, Line{"N x\n", "N=x;"}, Line{"N x#\n", "N=x;"},
                                         Line{"N x", "N=x;"}, Line{"N a \t b  c\n", "N=a \t b  c;"},
                                         Line{"N a#b\n", "N=a;"}, Line{"N a b#c # d\n", "N=a b;"},
                                         Line{"N \xff\xa0\x85\n", "N=\xff\xa0\x85;"}));

INSTANTIATE_TEST_SUITE_P(OneTrailingSpaceIsCut, ConfLineTest,
                         testing::Values(Line{"N /a\n", "N=/a;"}, Line{"N /a #\n", "N=/a;"}, Line{"N /a\t", "N=/a;"},
                                         Line{"N a b\n", "N=a b;"}, Line{"N a b #\n", "N=a b;"}));

INSTANTIATE_TEST_SUITE_P(EvenTrailingSpaceIsKept, ConfLineTest,
                         testing::Values(Line{"N /a \n", "N=/a \n;"}, Line{"N /a  #\n", "N=/a  ;"},
                                         Line{"N /a \t \n", "N=/a \t \n;"}, Line{"N /a\r\n", "N=/a\r\n;"},
                                         Line{"N a b \n", "N=a b \n;"}));

INSTANTIATE_TEST_SUITE_P(OddTrailingSpaceLosesItsLastCharacter, ConfLineTest,
                         testing::Values(Line{"N /srv  \n", "N=/srv  ;"}, Line{"N /a   #\n", "N=/a  ;"},
                                         Line{"N /a \t \t\n", "N=/a \t \t;"}));

TEST_F(ConfParseTest, LineOfAnyLengthIsReadWhole)
{
    const std::string name(100'000, 'N');
    const std::string value(3'000'000, 'v');
    EXPECT_EQ(pairs(name + " " + value + "\nN x\n"), "N=x;" + name + "=" + value + ";");
}

constexpr char NO_SPACE[] = "\nExpected a space after variable name\n";
constexpr char NO_VALUE[] = "\nExpected a value";

class ConfBadLineTest : public ConfParseTest, public testing::WithParamInterface<Line> {};

TEST_P(ConfBadLineTest, IsSkippedWithAWarning)
{
    EXPECT_EQ(pairs("A 1\n" + GetParam().text + "\nB 2\n"), "A=1;B=2;");
    EXPECT_EQ(syslog_capture.records, (Records{{12, "Invalid variable definition " + GetParam().expected}}));
}

INSTANTIATE_TEST_SUITE_P(WithoutASpaceAfterTheName, ConfBadLineTest,
                         testing::Values(Line{"N=/srv", "=/srv\n"s + NO_SPACE},
                                         Line{"  /srv N", "/srv N\n"s + NO_SPACE}, Line{"N# x", "# x\n"s + NO_SPACE},
                                         Line{"N\xc9 x", "\xc9 x\n"s + NO_SPACE}, Line{"%s%n", "%s%n\n"s + NO_SPACE},
                                         Line{"N\0 1"s, NO_SPACE}));

INSTANTIATE_TEST_SUITE_P(WithoutAValue, ConfBadLineTest,
                         testing::Values(Line{"  N", "N\n"s + NO_VALUE}, Line{"N  # x", "N  # x\n"s + NO_VALUE},
                                         Line{"N \0 1"s, "N "s + NO_VALUE}));

TEST_F(ConfParseTest, BadLineMayEndTheFile)
{
    EXPECT_EQ(pairs("N"), "");
    EXPECT_EQ(pairs("N "), "");
    EXPECT_EQ(syslog_capture.records, (Records{{12, "Invalid variable definition "s + NO_SPACE},
                                               {12, "Invalid variable definition N "s + NO_VALUE}}));
}

TEST_F(ConfParseTest, MissingFileIsLoggedAndKeepsErrno)
{
    const std::string path = dir_ / "missing";
    errno = 0;
    EXPECT_EQ(conf_parse_file(path.c_str(), store_.get()), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(syslog_capture.records,
              (Records{{12, "unable to open configuration file " + path + ": No such file or directory\n"}}));
}

TEST_F(ConfParseTest, ReadErrorIsLoggedAndKeepsErrno)
{
    errno = 0;
    EXPECT_EQ(conf_parse_file(dir_.path().c_str(), store_.get()), -1); /* a directory can be opened, but not read */
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(syslog_capture.records, (Records{{12, "Unable to read configuration file: Is a directory"}}));
}

TEST_F(ConfParseTest, LineLargerThanMemoryIsLoggedAndKeepsErrno)
{
    largest_block = 500;
    EXPECT_EQ(parse("A 1\nB " + std::string(1000, 'x')), -1);
    largest_block = ANY_SIZE;
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(syslog_capture.records, (Records{{12, "Unable to read configuration file: Cannot allocate memory"}}));
}

TEST_F(ConfParseTest, LackOfMemoryForAPairEndsTheReadingAndKeepsErrno)
{
    ASSERT_EQ(conf_store_grow(store_.get()), 0);
    store_->capacity = store_->count = UINT64_C(1) << 62; /* the next pair needs too large a block */
    errno = 0;
    EXPECT_EQ(parse("A 1\nB 2\n"), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(syslog_capture.records, (Records{{12, "Unable to read configuration: Cannot allocate memory"}}));
    store_->count = 0;
}

} // namespace
