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

    /* Replaces the row, and expects that ending and result. */
    void replace(const AutoresponderRow &row, Ending when_refused, const Outcome &expected)
    {
        const Outcome outcome = replace_autoresponder_row(db_, row, when_refused);
        EXPECT_EQ(outcome.ending, expected.ending);
        EXPECT_EQ(outcome.result, expected.result);
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

TEST_F(AutoresponderRowTest, EveryTextThatCannotBeBoundIsNamed)
{
    /* SQLite refuses by the length, before it reads a byte. */
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
        replace(row, Ending::leave_open, GIVEN_UP);
        EXPECT_EQ(errors(), Texts{"Unable to bind parameter " + std::string(name) + ": string or blob too big"});
    }
    EXPECT_EQ(db_.end(), 0);
    EXPECT_EQ(other_.values("SELECT * FROM autoresponder"), "");
}

TEST_F(AutoresponderRowTest, RefusedStepEndsAsTheCallerRequests)
{
    other_.exec("CREATE TRIGGER r BEFORE INSERT ON autoresponder BEGIN SELECT RAISE(ABORT, 'not now'); END");
    replace(row_, Ending::give_up, GIVEN_UP);
    replace(row_, Ending::leave_open, {Ending::leave_open, -1});
    const std::string text = "Unable to add/update autoresponder (12): not now";
    EXPECT_EQ(errors(), (Texts{text, text}));
}

} // namespace
