#include "store/extra_headers.h"

#include <fcntl.h>
#include <unistd.h>

#include "tests/unit/store/responder_fixture.h"

namespace {

class ExtraHeadersTest : public ResponderTest {
protected:
    void SetUp() override
    {
        ResponderTest::SetUp();
        run("INSERT INTO extra_headers VALUES ('X-Old', '1')");
    }

    std::string headers()
    {
        ResponderStatement stmt;
        stmt.prepare(db_, "SELECT coalesce(group_concat(name || '=' || value, ' '), '') FROM extra_headers");
        stmt.step();
        return stmt.columnText(0);
    }
};

TEST_F(ExtraHeadersTest, InputThatCannotBeReadIsMinusOneAndChangesNothing)
{
    const int kept = dup(STDIN_FILENO);
    const int directory = open("/", O_RDONLY);
    dup2(directory, STDIN_FILENO);
    close(directory);
    EXPECT_EQ(set_extra_headers_command(), -1);
    dup2(kept, STDIN_FILENO);
    close(kept);
    EXPECT_EQ(errors(), (Texts{"Unable to read standard input: Is a directory"}));
    EXPECT_EQ(headers(), "X-Old=1");
}

TEST_F(ExtraHeadersTest, TextThatIsNoJsonIsMinusOneAndChangesNothing)
{
    EXPECT_EQ(import_extra_headers_json(&db_, "{"), -1);
    EXPECT_EQ(headers(), "X-Old=1");
}

TEST_F(ExtraHeadersTest, HeadersAreStoredBesideThoseThatAreThere)
{
    EXPECT_EQ(import_extra_headers_json(&db_, R"({"X-New": "2"})"), 0);
    EXPECT_EQ(headers(), "X-Old=1 X-New=2");
}

TEST_F(ExtraHeadersTest, DeletingAnswersZero)
{
    EXPECT_EQ(delete_extra_headers(&db_), 0);
    EXPECT_EQ(headers(), "");
}

} // namespace
