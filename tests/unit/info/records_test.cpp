#include "info/records.h"

#include <gtest/gtest.h>

namespace arsp {

namespace {

using namespace std::string_literals;

TEST(LowerCaseTest, ChangesTheLettersOfAsciiOnly)
{
    EXPECT_EQ("@az[`az{\xC3\x84", lower_case("@AZ[`az{\xC3\x84"));
}

TEST(IsFileNameTest, TakesOneNameOfAPath)
{
    for (const std::string &name : {"a"s, "..."s, "-a b"s, "\n"s})
        EXPECT_TRUE(is_file_name(name)) << name;
    for (const std::string &name : {""s, "."s, ".."s, "a/b"s, "a\0b"s})
        EXPECT_FALSE(is_file_name(name)) << name;
}

TEST(IsStoredAddressTest, TakesWhatSetRespStoresUnchanged)
{
    EXPECT_TRUE(is_stored_address("a@example.org"));
    for (const std::string &address : {""s, "a"s, "A@example.org"s, "a@example.org\0"s, "a b@example.org"s})
        EXPECT_FALSE(is_stored_address(address)) << address;
}

} // namespace

} // namespace arsp
