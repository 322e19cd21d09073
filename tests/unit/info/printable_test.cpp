#include "info/printable.h"

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

} // namespace

} // namespace arsp
