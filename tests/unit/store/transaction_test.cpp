#include "store/transaction.h"

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "store/run_statement.h"
#include "tests/unit/store/database_fixture.h"

using namespace arsp;

namespace {

class TransactionTest : public DatabaseTest {
protected:
    /* Runs a transaction that inserts a row, executes `sql` and ends as `outcome` requests. */
    int insert_and(Outcome outcome, const char *sql = "")
    {
        return in_transaction(db_, [&] {
            run("INSERT INTO t VALUES (1)");
            run(sql);
            return outcome;
        });
    }
    std::string rows() { return other_.values("SELECT count(*) FROM t"); }
    bool is_open() const { return std::string(db_.errorText()) != "general DB errror"; }
};

TEST_F(TransactionTest, CommitKeepsWorkResultAndConnection)
{
    EXPECT_EQ(insert_and(COMMITTED), 0);
    EXPECT_EQ(insert_and({Ending::commit, -1}), -1);
    EXPECT_EQ(rows(), "2");
    EXPECT_TRUE(is_open());
    EXPECT_EQ(errors(), Texts{});
}

TEST_F(TransactionTest, GivingUpClosesAndDiscardsTheWork)
{
    EXPECT_EQ(insert_and(GIVEN_UP), -1);
    EXPECT_EQ(rows(), "0");
    EXPECT_FALSE(is_open());
    EXPECT_EQ(errors(), Texts{});
}

TEST_F(TransactionTest, LeavingOpenNeitherCommitsNorCloses)
{
    EXPECT_EQ(insert_and({Ending::leave_open, -1}), -1);
    EXPECT_EQ(rows(), "0");
    EXPECT_TRUE(is_open());
    EXPECT_EQ(db_.end(), 0);
    EXPECT_EQ(rows(), "1");
}

TEST_F(TransactionTest, FailedBeginClosesAndCallsNoWork)
{
    ASSERT_EQ(db_.begin(), 0);
    EXPECT_EQ(insert_and(COMMITTED), -1);
    EXPECT_FALSE(is_open());
    EXPECT_EQ(rows(), "0");
    EXPECT_EQ(errors(), Texts{"Unable to begin sqlite transaction: cannot start a transaction within a transaction"});
}

TEST_F(TransactionTest, FailedEndClosesAndFails)
{
    EXPECT_EQ(insert_and(COMMITTED, "ROLLBACK"), -1); /* as a trigger may do */
    EXPECT_FALSE(is_open());
    EXPECT_EQ(errors(), Texts{"Unable to end sqlite transaction: cannot commit - no transaction is active"});
}

TEST_F(TransactionTest, InterruptedPauseAtTheEndIsSilentAndKeepsNothing)
{
    other_.exec("BEGIN; SELECT * FROM t");
    EXPECT_EQ(with_failing_pauses(db_, [this] { return insert_and(COMMITTED); }), "-1, general DB errror, 0 records");
    EXPECT_EQ(rows(), "0");
}

TEST_F(TransactionTest, BorrowedConnectionStaysOpen)
{
    const int result = with_connection(&db_, [&](ResponderDb &db) {
        EXPECT_EQ(&db, &db_);
        return 7;
    });
    EXPECT_EQ(result, 7);
    EXPECT_TRUE(is_open());
}

/* with_connection(nullptr, ...) opens the real path, which must be that of a private root. */
class OwnConnectionTest : public TransactionTest {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(std::filesystem::exists("/.private-root")) << "must be run by scripts/sandbox";
        TransactionTest::SetUp();
        std::filesystem::create_directories("/var/lib/quarn/mail/autoresponder");
        std::filesystem::copy_file(path_, RESPONDER_DB_PATH);
    }
    void TearDown() override
    {
        std::filesystem::remove_all(DIRECTORY);
        TransactionTest::TearDown();
    }

    static constexpr char DIRECTORY[] = "/var/lib/quarn/mail";
};

TEST_F(OwnConnectionTest, ClosesAfterTheWorkAndReturnsItsResult)
{
    const int result = with_connection(nullptr, [&](ResponderDb &db) {
        EXPECT_EQ(db.exec("BEGIN IMMEDIATE", message_), SQLITE_OK);
        return 7;
    });
    EXPECT_EQ(result, 7);
    EXPECT_EQ(Other(RESPONDER_DB_PATH).exec("BEGIN IMMEDIATE"), SQLITE_OK);
}

TEST_F(OwnConnectionTest, MayBeClosedByTheWork)
{
    EXPECT_EQ(with_connection(nullptr, [](ResponderDb &db) { return db.close() - 1; }), -1);
}

TEST_F(OwnConnectionTest, FailureToOpenCallsNoWork)
{
    std::filesystem::remove_all(DIRECTORY);
    const auto unexpected_work = [](ResponderDb &) {
        ADD_FAILURE();
        return 0;
    };
    EXPECT_EQ(with_connection(nullptr, unexpected_work), -1);
    EXPECT_EQ(errors(), Texts{"Unable to open database /var/lib/quarn/mail/autoresponder/responder.db: "
                              "unable to open database file"});
}

TEST_F(OwnConnectionTest, InterruptedPauseInClosingIsASilentFailure)
{
    ResponderStatement alive;
    const auto keep_a_statement = [&](ResponderDb &db) { return alive.prepare(db, "SELECT 1"); };
    EXPECT_EQ(with_failing_pauses(db_, [&] { return with_connection(nullptr, keep_a_statement); }),
              "-1, not an error, 0 records");
}

} // namespace
