#include "info/repair.h"

#include <gtest/gtest.h>

namespace arsp {

namespace {

using namespace std::string_literals;

TEST(SqlEqualsTest, ComparesAShortValueWhole)
{
    EXPECT_EQ("CAST(mn AS BLOB)=x'00099fa0ff'", sql_equals("mn", "\0\t\x9F\xA0\xFF"s));
    EXPECT_EQ("CAST(mn AS BLOB)=x'" + std::string(1024, '0') + "'", sql_equals("mn", std::string(512, '\0')));
}

TEST(SqlEqualsTest, ComparesLengthAndBeginningOfALongValue)
{
    EXPECT_EQ("length(CAST(mn AS BLOB))=513 AND substr(CAST(mn AS BLOB),1,512)=x'" + std::string(1024, '0') + "'",
              sql_equals("mn", std::string(513, '\0')));
}

TEST(SqlWithoutControlBytesTest, ReplacesEachControlByteAndEndsBeforeNul)
{
    EXPECT_EQ("subject", sql_without_control_bytes("subject", "a \x80"));
    EXPECT_EQ("replace(replace(subject,char(9),' '),char(127),' ')", sql_without_control_bytes("subject", "\x7F\t\t"));
    EXPECT_EQ("replace(CAST(substr(CAST(subject AS BLOB),1,2) AS TEXT),char(1),' ')",
              sql_without_control_bytes("subject", "a\x01\0\n\0"s));
    std::string all;
    for (char byte = 1; byte < ' '; ++byte)
        all += byte;
    const std::string sql = sql_without_control_bytes("subject", all);
    for (int byte = 1; byte < ' '; ++byte)
        EXPECT_NE(std::string::npos, sql.find(",char(" + std::to_string(byte) + "),' ')"));
}

} // namespace

} // namespace arsp
