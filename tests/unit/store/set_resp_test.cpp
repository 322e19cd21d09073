#include "store/set_resp.h"

#include <fcntl.h>
#include <unistd.h>

#include "tests/unit/store/responder_fixture.h"

using namespace arsp;

namespace {

class SetRespTest : public ResponderTest {
protected:
    void TearDown() override
    {
        dup2(kept_, STDIN_FILENO);
        close(kept_);
        ResponderTest::TearDown();
    }

    /* Makes what `path` opens standard input. */
    static void feed(const char *path)
    {
        const int fd = open(path, O_RDONLY);
        dup2(fd, STDIN_FILENO);
        close(fd);
    }

    AutoresponderRow row_ = {.keystr = "",
                             .key_where = "no",
                             .subject = "Re:",
                             .reply_to = "",
                             .forward_to = "",
                             .content_type = "text/plain",
                             .charset = "UTF-8",
                             .body = "",
                             .ans_freq = 1,
                             .ans_limit = 2,
                             .real_owner = "new@example.org",
                             .mn = "new@example.org"};

private:
    const int kept_ = dup(STDIN_FILENO);
};

TEST_F(SetRespTest, AnsweredIsZeroWhenTheRowIsThere)
{
    feed("/dev/null");
    EXPECT_EQ(set_resp(row_), 0);
    EXPECT_EQ(row_counts(), "3 1 1");
}

TEST_F(SetRespTest, BodyThatCannotBeReadIsMinusOneAndChangesNothing)
{
    feed("/");
    EXPECT_EQ(set_resp(row_), -1);
    EXPECT_EQ(errors(), (Texts{"Unable to read standard input: Is a directory"}));
    EXPECT_EQ(row_counts(), "2 1 1");
}

} // namespace
