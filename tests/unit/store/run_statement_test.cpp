#include "store/run_statement.h"

#include <string>

#include <gtest/gtest.h>

#include "tests/unit/store/child_without_pauses.h"
#include "tests/unit/store/database_fixture.h"

using namespace arsp;

namespace {

class RunStatementTest : public DatabaseTest {
protected:
    void TearDown() override
    {
        db_.close();
        EXPECT_EQ(pause_capture.pauses.size(), expected_pauses_) << "a statement was alive when closing";
        DatabaseTest::TearDown();
    }

    /* Leaves `db_` in a transaction that has read, while `other_` holds the lock for writing. */
    void read_and_meet_a_writer()
    {
        SqliteText message;
        db_.begin();
        db_.exec("SELECT count(*) FROM t", message);
        other_.exec("BEGIN IMMEDIATE; INSERT INTO t VALUES (1)");
    }

    size_t expected_pauses_ = 0;
};

TEST_F(RunStatementTest, ResultOfTheStepIsReturnedAndTheStatementFinalized)
{
    EXPECT_EQ(run_statement(db_, "INSERT INTO t VALUES (?)", {{"x", 7}}), StepResult::done);
    EXPECT_EQ(run_statement(db_, "SELECT x FROM t", {}), StepResult::refused); /* a row */
    EXPECT_EQ(other_.values("SELECT x FROM t"), "7");
}

TEST_F(RunStatementTest, FailedStepIsLeftToTheCallerWithItsText)
{
    other_.exec("CREATE TRIGGER r BEFORE INSERT ON t BEGIN SELECT RAISE(FAIL, 'not now'); END");
    EXPECT_EQ(run_statement(db_, "INSERT INTO t VALUES (1)", {}), StepResult::refused);
    EXPECT_STREQ(db_.errorText(), "not now");
    EXPECT_EQ(syslog_capture.records, Records{});
}

TEST_F(RunStatementTest, FailureToPrepareIsLoggedOnce)
{
    EXPECT_EQ(run_statement(db_, "nonsense", {{"x", 7}}), StepResult::failed);
    EXPECT_EQ(syslog_capture.records,
              (Records{{3, "Unable to prepare SQL statement for query 'nonsense': near \"nonsense\": syntax error"}}));
}

TEST_F(RunStatementTest, FailureToBindIsLoggedOnceAndNothingIsDone)
{
    EXPECT_EQ(run_statement(db_, "INSERT INTO t VALUES (?)", {{"x", std::string_view("text", 1'000'000'001)}}),
              StepResult::failed);
    EXPECT_EQ(syslog_capture.records, (Records{{3, "Unable to bind parameter x: string or blob too big"}}));
    EXPECT_EQ(other_.values("SELECT count(*) FROM t"), "0");
}

TEST_F(RunStatementTest, InterruptedPauseHasAResultOfItsOwn)
{
    other_.exec("BEGIN EXCLUSIVE");
    const std::string seen =
        in_child_with_failing_pauses(db_, [this] { return run_statement(db_, "INSERT INTO t VALUES (1)", {}); });
    EXPECT_EQ(seen, std::to_string(static_cast<int>(StepResult::interrupted)) + ", general DB errror, 0 records");
}

TEST_F(RunStatementTest, RestartIsAskedWhenTheTransactionHasOnlyRead)
{
    read_and_meet_a_writer();
    int restarts = 0;
    const StepResult result = run_statement(db_, "INSERT INTO t VALUES (?)", {{"x", 7}}, [&] {
        ++restarts;
        EXPECT_EQ(db_.end(), 0); /* lets the writer, who waits for this reader, go on */
        EXPECT_EQ(other_.exec("COMMIT"), SQLITE_OK);
        return db_.begin();
    });
    EXPECT_EQ(result, StepResult::done);
    EXPECT_EQ(restarts, 1);
    EXPECT_EQ(db_.end(), 0);
    EXPECT_EQ(other_.values("SELECT x FROM t"), "1|7");
    expected_pauses_ = 1;
}

TEST_F(RunStatementTest, NoStatementIsAliveDuringARestart)
{
    read_and_meet_a_writer();
    const StepResult result = run_statement(db_, "INSERT INTO t VALUES (7)", {}, [&] {
        EXPECT_EQ(db_.close(), 0);
        EXPECT_EQ(pause_capture.pauses, Pauses{});
        EXPECT_EQ(other_.exec("COMMIT"), SQLITE_OK);
        return db_.open(path_.c_str());
    });
    EXPECT_EQ(result, StepResult::done);
    EXPECT_EQ(other_.values("SELECT x FROM t"), "1|7");
    expected_pauses_ = 1;
}

TEST_F(RunStatementTest, FailedRestartIsAFailedStatement)
{
    read_and_meet_a_writer();
    EXPECT_EQ(run_statement(db_, "INSERT INTO t VALUES (7)", {}, [] { return -1; }), StepResult::failed);
    EXPECT_EQ(syslog_capture.records, Records{});
}

TEST_F(RunStatementTest, InterruptedRestartIsAnInterruptedStatement)
{
    read_and_meet_a_writer();
    const std::string seen = in_child_with_failing_pauses(db_, [this] {
        return run_statement(db_, "INSERT INTO t VALUES (7)", {}, [this] {
            SqliteText message;
            return db_.exec("INSERT INTO t VALUES (8)", message); /* busy, too */
        });
    });
    EXPECT_EQ(seen, std::to_string(static_cast<int>(StepResult::interrupted)) + ", general DB errror, 0 records");
}

TEST_F(RunStatementTest, TransactionThatHasReadNothingYetIsNotRestarted)
{
    EXPECT_EQ(run_statement(db_, "SELECT x FROM t", {}), StepResult::done); /* knows the schema from now on */
    db_.begin();
    other_.exec("BEGIN IMMEDIATE");
    in_pause(2, "COMMIT");
    EXPECT_EQ(run_statement(db_, "INSERT INTO t VALUES (7)", {},
                            [] {
                                ADD_FAILURE() << "nothing to restart";
                                return -1;
                            }),
              StepResult::done);
    EXPECT_EQ(db_.end(), 0);
    expected_pauses_ = 3;
}

} // namespace
