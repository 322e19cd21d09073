#include "store/del_resp.h"

#include "tests/unit/store/responder_fixture.h"

using namespace arsp;

namespace {

constexpr int SHORTER_THAN_THE_MAIL_NAME = 15;

using DelRespTest = ResponderTest;

TEST_F(DelRespTest, RefusedAttachmentRowsMakeSqlitesCodeTheResult)
{
    run("CREATE TRIGGER refuse BEFORE DELETE ON attachments BEGIN SELECT RAISE(ABORT, 'stay'); END");
    EXPECT_EQ(del_resp("user@example.org"), SQLITE_CONSTRAINT);
}

TEST_F(DelRespTest, MailNameThatCannotBeBoundKeepsAllRowsAndTheFilesUnlessTheyAreRemovedAlready)
{
    for (const char *table : {"attachments", "autoresponder", "resp_freq"}) {
        limit_texts(SHORTER_THAN_THE_MAIL_NAME, SQLITE_DELETE, table);
        syslog_capture.records.clear();
        EXPECT_EQ(del_resp("user@example.org"), -1);
        const bool before_the_files = table == std::string("attachments");
        Texts expected = {"Unable to bind parameter mailname: string or blob too big"};
        if (before_the_files)
            expected.push_back("Error removing attachments for mailname (user@example.org)");
        EXPECT_EQ(errors(), expected);
        EXPECT_EQ(row_counts(), "2|1|1") << table;
        EXPECT_EQ(old_file_exists(), before_the_files) << table;
    }
}

} // namespace
