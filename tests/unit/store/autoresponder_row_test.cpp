#include "store/autoresponder_row.h"

#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "store/schema.h"
#include "tests/unit/store/database_fixture.h"

using namespace arsp;

namespace {

class AutoresponderRowTest : public DatabaseTest {
protected:
    void SetUp() override
    {
        DatabaseTest::SetUp();
        ASSERT_EQ(other_.exec(RESPONDER_DB_SCHEMA), SQLITE_OK);
        ASSERT_EQ(db_.begin(), 0);
    }

    std::string stored()
    {
        return other_.values("SELECT keystr, key_where, subject, reply_to, forward_to, content_type, charset, body,"
                             " ans_freq, ans_limit, real_owner, mn FROM autoresponder");
    }
    static bool is(const Outcome &outcome, Ending ending, int result)
    {
        return outcome.ending == ending && outcome.result == result;
    }

    AutoresponderRow row_ = {.keystr = "1",
                             .key_where = "2",
                             .subject = "3",
                             .reply_to = "4",
                             .forward_to = "5",
                             .content_type = "6",
                             .charset = "7",
                             .body = "8",
                             .ans_freq = 9,
                             .ans_limit = 10,
                             .real_owner = "11",
                             .mn = "12"};
};

TEST_F(AutoresponderRowTest, EveryValueGoesIntoItsColumn)
{
    EXPECT_TRUE(is(replace_autoresponder_row(db_, row_, Ending::leave_open), Ending::commit, 0));
    EXPECT_EQ(db_.end(), 0);
    EXPECT_EQ(stored(), "1|2|3|4|5|6|7|8|9|10|11|12");
}

TEST_F(AutoresponderRowTest, RowOfTheSameMailNameIsReplaced)
{
    replace_autoresponder_row(db_, row_, Ending::leave_open);
    row_.keystr = "one";
    row_.body = {};
    EXPECT_TRUE(is(replace_autoresponder_row(db_, row_, Ending::leave_open), Ending::commit, 0));
    EXPECT_EQ(db_.end(), 0);
    EXPECT_EQ(stored(), "one|2|3|4|5|6|7||9|10|11|12");
}

TEST_F(AutoresponderRowTest, TextThatCannotBeBoundIsNamed)
{
    /* SQLite refuses by the length, before it looks at a byte. */
    const std::string_view too_long("text", 1'000'000'001);
    const std::pair<const char *, std::string_view AutoresponderRow::*> texts[] = {
        {"keystr", &AutoresponderRow::keystr},         {"key_where", &AutoresponderRow::key_where},
        {"subject", &AutoresponderRow::subject},       {"reply_to", &AutoresponderRow::reply_to},
        {"forward_to", &AutoresponderRow::forward_to}, {"content_type", &AutoresponderRow::content_type},
        {"charset", &AutoresponderRow::charset},       {"body", &AutoresponderRow::body},
        {"real_owner", &AutoresponderRow::real_owner}, {"mailname", &AutoresponderRow::mn},
    };
    for (const auto &[name, text] : texts) {
        AutoresponderRow row = row_;
        row.*text = too_long;
        syslog_capture.records.clear();
        EXPECT_TRUE(is(replace_autoresponder_row(db_, row, Ending::leave_open), Ending::give_up, -1));
        EXPECT_EQ(syslog_capture.records,
                  (Records{{3, "Unable to bind parameter " + std::string(name) + ": string or blob too big"}}));
    }
    EXPECT_EQ(db_.end(), 0);
    EXPECT_EQ(stored(), "");
}

TEST_F(AutoresponderRowTest, OnlyTheFirstTextThatCannotBeBoundIsNamed)
{
    row_.subject = row_.mn = std::string_view("text", 1'000'000'001);
    replace_autoresponder_row(db_, row_, Ending::leave_open);
    EXPECT_EQ(syslog_capture.records, (Records{{3, "Unable to bind parameter subject: string or blob too big"}}));
}

TEST_F(AutoresponderRowTest, StatementThatCannotBePreparedGivesUp)
{
    other_.exec("DROP TABLE autoresponder");
    EXPECT_TRUE(is(replace_autoresponder_row(db_, row_, Ending::leave_open), Ending::give_up, -1));
    EXPECT_EQ(syslog_capture.records,
              (Records{{3, "Unable to prepare SQL statement for query 'REPLACE INTO autoresponder (keystr, key_where, "
                           "subject, reply_to, forward_to, content_type, charset, body, ans_freq, ans_limit, "
                           "real_owner, mn) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?  );': "
                           "no such table: autoresponder"}}));
}

TEST_F(AutoresponderRowTest, StepThatIsRefusedEndsAsTheCallerWants)
{
    other_.exec("CREATE TRIGGER r BEFORE INSERT ON autoresponder BEGIN SELECT RAISE(ABORT, 'not now'); END");
    EXPECT_TRUE(is(replace_autoresponder_row(db_, row_, Ending::give_up), Ending::give_up, -1));
    EXPECT_TRUE(is(replace_autoresponder_row(db_, row_, Ending::leave_open), Ending::leave_open, -1));
    EXPECT_EQ(syslog_capture.records, (Records{{3, "Unable to add/update autoresponder (12): not now"},
                                               {3, "Unable to add/update autoresponder (12): not now"}}));
}

} // namespace
