#include "store/del_resp.h"

#include <gtest/gtest.h>

#include "tests/unit/store/responder_fixture.h"

using namespace arsp;

namespace {

constexpr int SHORTER_THAN_THE_MAIL_NAME = 15;

using DelRespTest = ResponderTest;

TEST_F(DelRespTest, RemovesEverythingOfTheMailName)
{
    EXPECT_EQ(del_resp("user@example.org"), 0);
    EXPECT_EQ(errors(), Texts{});
    EXPECT_EQ(row_counts(), "1 0 0");
    EXPECT_FALSE(old_file_is_there());
}

TEST_F(DelRespTest, BeginThatIsNotDoneTouchesNothing)
{
    begin_beforehand();
    EXPECT_EQ(del_resp("user@example.org"), -1);
    EXPECT_EQ(errors(), Texts{"Unable to begin sqlite transaction: cannot start a transaction within a transaction"});
    EXPECT_EQ(row_counts(), "2 1 1");
    EXPECT_TRUE(old_file_is_there());
}

TEST_F(DelRespTest, BeginThatCannotBePreparedTouchesNothing)
{
    refuse_preparing(SQLITE_TRANSACTION, "BEGIN");
    EXPECT_EQ(del_resp("user@example.org"), -1);
    EXPECT_EQ(errors(), Texts{"Unable to prepare SQL statement for query 'BEGIN TRANSACTION;': not authorized"});
    EXPECT_TRUE(old_file_is_there());
}

TEST_F(DelRespTest, AttachmentsThatCannotBePreparedTouchNothing)
{
    refuse_preparing(SQLITE_DELETE, "attachments");
    EXPECT_EQ(del_resp("user@example.org"), -1);
    EXPECT_EQ(errors(),
              (Texts{"Unable to prepare SQL statement for query 'DELETE FROM attachments WHERE mn=?': not authorized",
                     "Error removing attachments for mailname (user@example.org)"}));
    EXPECT_EQ(row_counts(), "2 1 1");
    EXPECT_TRUE(old_file_is_there());
}

TEST_F(DelRespTest, AttachmentsThatCannotBeBoundTouchNothing)
{
    limit_texts(SHORTER_THAN_THE_MAIL_NAME, SQLITE_DELETE, "attachments");
    EXPECT_EQ(del_resp("user@example.org"), -1);
    EXPECT_EQ(errors(), (Texts{"Unable to bind parameter mailname: string or blob too big",
                               "Error removing attachments for mailname (user@example.org)"}));
    EXPECT_EQ(row_counts(), "2 1 1");
    EXPECT_TRUE(old_file_is_there());
}

TEST_F(DelRespTest, AttachmentsThatMayNotGoMakeTheStepsCodeTheResult)
{
    run("CREATE TRIGGER refuse BEFORE DELETE ON attachments BEGIN SELECT RAISE(ABORT, 'stay'); END");
    EXPECT_EQ(del_resp("user@example.org"), SQLITE_CONSTRAINT);
    EXPECT_EQ(errors(), (Texts{"Unable to delete from attachments (user@example.org): stay",
                               "Error removing attachments for mailname (user@example.org)"}));
    EXPECT_EQ(row_counts(), "2 1 1");
    EXPECT_FALSE(old_file_is_there());
}

TEST_F(DelRespTest, AutoresponderThatCannotBeBoundKeepsAllRows)
{
    limit_texts(SHORTER_THAN_THE_MAIL_NAME, SQLITE_DELETE, "autoresponder");
    EXPECT_EQ(del_resp("user@example.org"), -1);
    EXPECT_EQ(errors(), Texts{"Unable to bind parameter mailname: string or blob too big"});
    EXPECT_EQ(row_counts(), "2 1 1");
    EXPECT_FALSE(old_file_is_there());
}

TEST_F(DelRespTest, CountersThatCannotBeBoundKeepAllRows)
{
    limit_texts(SHORTER_THAN_THE_MAIL_NAME, SQLITE_DELETE, "resp_freq");
    EXPECT_EQ(del_resp("user@example.org"), -1);
    EXPECT_EQ(errors(), Texts{"Unable to bind parameter mailname: string or blob too big"});
    EXPECT_EQ(row_counts(), "2 1 1");
}

TEST_F(DelRespTest, AutoresponderThatMayNotGoIsAFailureAndTheRestIsCommitted)
{
    run("CREATE TRIGGER refuse BEFORE DELETE ON autoresponder BEGIN SELECT RAISE(ABORT, 'stay'); END");
    EXPECT_EQ(del_resp("user@example.org"), -1);
    EXPECT_EQ(errors(), Texts{"Unable to delete autoresponder (user@example.org): not an error"});
    EXPECT_EQ(row_counts(), "2 0 0");
}

TEST_F(DelRespTest, EndThatCannotBePreparedKeepsAllRows)
{
    refuse_preparing(SQLITE_TRANSACTION, "COMMIT");
    EXPECT_EQ(del_resp("user@example.org"), -1);
    EXPECT_EQ(errors(), Texts{"Unable to prepare SQL statement for query 'END TRANSACTION;': not authorized"});
    EXPECT_EQ(row_counts(), "2 1 1");
    EXPECT_FALSE(old_file_is_there());
}

} // namespace
