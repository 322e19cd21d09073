#include "store/run_statement.h"

#include <string>

#include <gtest/gtest.h>

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
    void read_while_another_writes()
    {
        ASSERT_EQ(db_.begin(), 0);
        run("SELECT count(*) FROM t");
        other_.exec("BEGIN IMMEDIATE; INSERT INTO t VALUES (1)");
    }

    /* What with_failing_pauses returns after an interrupted statement. */
    const std::string interrupted_ =
        std::to_string(static_cast<int>(StepResult::interrupted)) + ", general DB errror, 0 records";
    size_t expected_pauses_ = 0;
};

TEST_F(RunStatementTest, StatementIsFinalizedAfterEachResult)
{
    EXPECT_EQ(run_statement(db_, "INSERT INTO t VALUES (?)", {{"x", 7}}), StepResult::done);
    EXPECT_EQ(run_statement(db_, "SELECT x FROM t", {}), StepResult::refused); /* a row */
    EXPECT_EQ(other_.values("SELECT x FROM t"), "7");
    EXPECT_EQ(errors(), Texts{});

    other_.exec("CREATE TRIGGER r BEFORE INSERT ON t BEGIN SELECT RAISE(FAIL, 'not now'); END");
    EXPECT_EQ(run_statement(db_, "INSERT INTO t VALUES (1)", {}), StepResult::refused);
    EXPECT_STREQ(db_.errorText(), "not now");
    EXPECT_EQ(errors(), Texts{});

    EXPECT_EQ(run_statement(db_, "nonsense", {{"x", 7}}), StepResult::failed);
    EXPECT_EQ(run_statement(db_, "INSERT INTO t VALUES (?)", {{"x", std::string_view("text", 1'000'000'001)}}),
              StepResult::failed);
    EXPECT_EQ(errors(), (Texts{"Unable to prepare SQL statement for query 'nonsense': near \"nonsense\": syntax error",
                               "Unable to bind parameter x: string or blob too big"}));
    EXPECT_EQ(other_.values("SELECT x FROM t"), "7");
}

TEST_F(RunStatementTest, InterruptedPauseHasAResultOfItsOwn)
{
    other_.exec("BEGIN EXCLUSIVE");
    EXPECT_EQ(with_failing_pauses(db_, [this] { return run_statement(db_, "INSERT INTO t VALUES (1)", {}); }),
              interrupted_);
}

TEST_F(RunStatementTest, BusyTransactionThatHasOnlyReadIsRestarted)
{
    read_while_another_writes();
    int restarts = 0;
    const StepResult result = run_statement(db_, "INSERT INTO t VALUES (?)", {{"x", 7}}, [&] {
        ++restarts;
        EXPECT_EQ(db_.end(), 0); /* the writer waits for this reader */
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
    read_while_another_writes();
    const StepResult result = run_statement(db_, "INSERT INTO t VALUES (7)", {}, [&] {
        EXPECT_EQ(db_.close(), 0);
        EXPECT_EQ(pause_capture.pauses, Pauses{});
        EXPECT_EQ(other_.exec("COMMIT"), SQLITE_OK);
        return db_.open(path_.c_str());
    });
    EXPECT_EQ(result, StepResult::done);
    expected_pauses_ = 1;
}

TEST_F(RunStatementTest, FailedRestartIsAFailedStatement)
{
    read_while_another_writes();
    EXPECT_EQ(run_statement(db_, "INSERT INTO t VALUES (7)", {}, [] { return -1; }), StepResult::failed);
    EXPECT_EQ(errors(), Texts{});
}

TEST_F(RunStatementTest, InterruptedRestartIsAnInterruptedStatement)
{
    read_while_another_writes();
    const auto busy_restart = [this] { return db_.exec("INSERT INTO t VALUES (8)", message_); };
    const std::string seen =
        with_failing_pauses(db_, [&] { return run_statement(db_, "INSERT INTO t VALUES (7)", {}, busy_restart); });
    EXPECT_EQ(seen, interrupted_);
}

TEST_F(RunStatementTest, BusyTransactionThatHasNotReadIsNotRestarted)
{
    EXPECT_EQ(run_statement(db_, "SELECT x FROM t", {}), StepResult::done); /* reads the schema */
    ASSERT_EQ(db_.begin(), 0);
    other_.exec("BEGIN IMMEDIATE");
    in_pause(2, "COMMIT");
    const auto unexpected_restart = [] {
        ADD_FAILURE();
        return -1;
    };
    EXPECT_EQ(run_statement(db_, "INSERT INTO t VALUES (7)", {}, unexpected_restart), StepResult::done);
    EXPECT_EQ(db_.end(), 0);
    expected_pauses_ = 3;
}

} // namespace
