#include "store/transaction.h"

#include <cstdio>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "store/run_statement.h"
#include "tests/unit/store/database_fixture.h"
#include "tests/unit/support/child_process.h"

using namespace arsp;

namespace {

class TransactionTest : public DatabaseTest {
protected:
    int insert(ResponderDb &db)
    {
        EXPECT_EQ(run_statement(db, "INSERT INTO t VALUES (1)", {}), StepResult::done);
        return 0;
    }
    /* Runs a transaction that inserts a row and ends as `outcome` says. */
    int insert_and(Outcome outcome)
    {
        return in_transaction(db_, [&] {
            insert(db_);
            return outcome;
        });
    }
    std::string rows() { return other_.values("SELECT count(*) FROM t"); }
    bool is_open() const { return std::string(db_.errorText()) != "general DB errror"; }
};

TEST_F(TransactionTest, CommitKeepsTheWorkAndTheConnection)
{
    EXPECT_EQ(insert_and(COMMITTED), 0);
    EXPECT_EQ(rows(), "1");
    EXPECT_TRUE(is_open());
    EXPECT_EQ(syslog_capture.records, Records{});
}

TEST_F(TransactionTest, CommitWithAFailureKeepsTheWorkAndTheFailure)
{
    EXPECT_EQ(insert_and({Ending::commit, -1}), -1);
    EXPECT_EQ(rows(), "1");
    EXPECT_TRUE(is_open());
}

TEST_F(TransactionTest, GivingUpClosesAndDiscardsTheWork)
{
    EXPECT_EQ(insert_and(GIVEN_UP), -1);
    EXPECT_EQ(rows(), "0");
    EXPECT_FALSE(is_open());
    EXPECT_EQ(syslog_capture.records, Records{});
}

TEST_F(TransactionTest, LeavingOpenDoesNeither)
{
    EXPECT_EQ(insert_and({Ending::leave_open, -1}), -1);
    EXPECT_EQ(rows(), "0");
    EXPECT_TRUE(is_open());
    EXPECT_EQ(db_.end(), 0);
    EXPECT_EQ(rows(), "1");
}

TEST_F(TransactionTest, FailedBeginClosesAndCallsNoWork)
{
    db_.begin();
    EXPECT_EQ(in_transaction(db_,
                             [] {
                                 ADD_FAILURE() << "work without a transaction";
                                 return COMMITTED;
                             }),
              -1);
    EXPECT_FALSE(is_open());
    EXPECT_EQ(syslog_capture.records, (Records{{3, "Unable to begin sqlite transaction: "
                                                   "cannot start a transaction within a transaction"}}));
}

TEST_F(TransactionTest, FailedEndClosesAndFails)
{
    const int result = in_transaction(db_, [&] {
        insert(db_);
        EXPECT_EQ(run_statement(db_, "ROLLBACK", {}), StepResult::done); /* as a trigger may */
        return COMMITTED;
    });
    EXPECT_EQ(result, -1);
    EXPECT_FALSE(is_open());
    EXPECT_EQ(syslog_capture.records,
              (Records{{3, "Unable to end sqlite transaction: cannot commit - no transaction is active"}}));
}

TEST_F(TransactionTest, FailedPauseAtTheEndIsSilentAndKeepsNothing)
{
    const ChildResult child = run_in_child([this] {
        other_.exec("BEGIN; SELECT * FROM t");
        pause_capture.on_pause = interrupted;
        const int result = insert_and(COMMITTED);
        std::printf("%d %d %zu", result, is_open(), syslog_capture.records.size());
        std::fflush(nullptr);
        _exit(0);
    });
    EXPECT_EQ(child.out, "-1 0 0");
    EXPECT_EQ(rows(), "0");
}

TEST_F(TransactionTest, BorrowedConnectionStaysOpen)
{
    const int result = with_connection(&db_, [&](ResponderDb &db) {
        EXPECT_EQ(&db, &db_);
        return insert(db) + 7;
    });
    EXPECT_EQ(result, 7);
    EXPECT_TRUE(is_open());
    EXPECT_EQ(rows(), "1");
}

/* A connection of its own is one to the real path, which must be that of a private root. */
class OwnConnectionTest : public TransactionTest {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(std::filesystem::exists("/.private-root")) << "to be run by scripts/sandbox";
        TransactionTest::SetUp();
        std::filesystem::create_directories("/var/lib/quarn/mail/autoresponder");
        std::filesystem::copy_file(path_, RESPONDER_DB_PATH);
    }
    void TearDown() override { std::filesystem::remove_all(DIRECTORY); }

    static std::string rows() { return Other(RESPONDER_DB_PATH).values("SELECT count(*) FROM t"); }

    static constexpr char DIRECTORY[] = "/var/lib/quarn/mail";
};

TEST_F(OwnConnectionTest, IsOpenedForTheWorkAndClosedAfterIt)
{
    ResponderDb *seen = nullptr;
    const int result = with_connection(nullptr, [&](ResponderDb &db) {
        seen = &db;
        EXPECT_EQ(run_statement(db, "BEGIN IMMEDIATE", {}), StepResult::done);
        EXPECT_EQ(run_statement(db, "INSERT INTO t VALUES (1)", {}), StepResult::done);
        EXPECT_EQ(run_statement(db, "COMMIT", {}), StepResult::done);
        EXPECT_EQ(run_statement(db, "BEGIN IMMEDIATE", {}), StepResult::done);
        return 7;
    });
    EXPECT_EQ(result, 7);
    EXPECT_NE(seen, nullptr);
    EXPECT_EQ(rows(), "1");
    EXPECT_EQ(Other(RESPONDER_DB_PATH).exec("BEGIN IMMEDIATE"), SQLITE_OK);
}

TEST_F(OwnConnectionTest, MayBeClosedByTheWork)
{
    EXPECT_EQ(with_connection(nullptr, [](ResponderDb &db) { return db.close() - 1; }), -1);
}

TEST_F(OwnConnectionTest, ThatCannotBeOpenedIsAFailureWithoutWork)
{
    std::filesystem::remove_all(DIRECTORY);
    EXPECT_EQ(with_connection(nullptr,
                              [](ResponderDb &) {
                                  ADD_FAILURE() << "work without a connection";
                                  return 0;
                              }),
              -1);
    EXPECT_EQ(syslog_capture.records,
              (Records{{3, "Unable to open database /var/lib/quarn/mail/autoresponder/responder.db: "
                           "unable to open database file"}}));
}

TEST_F(OwnConnectionTest, ThatCannotBeClosedForAFailedPauseIsASilentFailure)
{
    const ChildResult child = run_in_child([] {
        ResponderStatement alive;
        pause_capture.on_pause = interrupted;
        const int result = with_connection(nullptr, [&](ResponderDb &db) { return alive.prepare(db, "SELECT 1"); });
        std::printf("%d %zu", result, syslog_capture.records.size());
        std::fflush(nullptr);
        _exit(0);
    });
    EXPECT_EQ(child.out, "-1 0");
}

} // namespace
