#include "store/responder_db.h"

#include <climits>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <string>

#include <gtest/gtest.h>

#include "store/run_statement.h"
#include "tests/unit/store/child_without_pauses.h"
#include "tests/unit/store/database_fixture.h"

using namespace arsp;

namespace {

/* No memory for SQLite beyond what it has. */
class NoMemory {
public:
    NoMemory() { sqlite3_hard_heap_limit64(sqlite3_memory_used() + 1); }
    NoMemory(const NoMemory &) = delete;
    NoMemory &operator=(const NoMemory &) = delete;
    ~NoMemory() { sqlite3_hard_heap_limit64(0); }
};

class ResponderDbTest : public DatabaseTest {
protected:
    SqliteText message_;
};

/* Waits of SQLite itself within one call, in us: 50 ms in all. */
const std::vector<long> ONE_TIMEOUT = {1000, 2000, 5000, 10000, 15000, 17000};

TEST_F(ResponderDbTest, OpeningMakesAnEmptyFileWhereThereIsNone)
{
    ResponderDb db;
    EXPECT_EQ(db.open((dir_ / "new.db").c_str()), 0);
    EXPECT_TRUE(S_ISREG(file_status(dir_ / "new.db").st_mode));
    EXPECT_EQ(file_text(dir_ / "new.db"), "");
}

TEST_F(ResponderDbTest, FailureToOpenIsLoggedWithPathAndText)
{
    ResponderDb db;
    EXPECT_EQ(db.open((dir_ / "missing/new.db").c_str()), -1);
    EXPECT_EQ(syslog_capture.records, (Records{{3, "Unable to open database " + dir_.path() +
                                                       "/missing/new.db: unable to open database file"}}));
}

TEST_F(ResponderDbTest, FailureToOpenClosesWhatSqliteReturned)
{
    const sqlite3_int64 before = sqlite3_memory_used();
    ResponderDb db;
    db.open((dir_ / "missing/new.db").c_str());
    EXPECT_STREQ(db.errorText(), "general DB errror");
    EXPECT_EQ(sqlite3_memory_used(), before);
}

TEST_F(ResponderDbTest, FailureToOpenWithoutAHandleHasATextOfItsOwn)
{
    ResponderDb db;
    {
        const NoMemory no_memory;
        EXPECT_EQ(db.open(path_.c_str()), -1);
    }
    EXPECT_EQ(syslog_capture.records,
              (Records{{3, "Unable to open database " + dir_.path() + "/test.db: general DB errror"}}));
}

TEST_F(ResponderDbTest, FailureToOpenIsNotTriedAgain)
{
    ResponderDb db;
    db.open((dir_ / "missing/new.db").c_str());
    EXPECT_EQ(pause_capture.pauses, Pauses{});
}

TEST_F(ResponderDbTest, SqliteItselfWaitsFiftyMilliseconds)
{
    other_.exec("BEGIN EXCLUSIVE");
    in_pause(1, "COMMIT");
    EXPECT_EQ(db_.exec("INSERT INTO t VALUES (1)", message_), SQLITE_OK);
    const std::vector<long> first(pause_capture.waits.begin(), pause_capture.waits.begin() + 6);
    EXPECT_EQ(first, ONE_TIMEOUT);
    EXPECT_EQ(pause_capture.waits.size(), 12U);
}

TEST_F(ResponderDbTest, ErrorTextIsThatOfTheConnection)
{
    EXPECT_STREQ(db_.errorText(), "not an error");
    db_.exec("nonsense", message_);
    EXPECT_STREQ(db_.errorText(), "near \"nonsense\": syntax error");
    EXPECT_EQ(db_.errorCode(), SQLITE_ERROR);
}

TEST_F(ResponderDbTest, ErrorTextWithoutAHandleIsFixed)
{
    const ResponderDb db;
    EXPECT_STREQ(db.errorText(), "general DB errror");
}

TEST_F(ResponderDbTest, ClosingTwiceIsHarmless)
{
    EXPECT_EQ(db_.close(), 0);
    EXPECT_STREQ(db_.errorText(), "general DB errror"); /* no handle is left that could be closed again */
    EXPECT_EQ(db_.close(), 0);
    EXPECT_EQ(ResponderDb().close(), 0);
    EXPECT_EQ(syslog_capture.records, Records{});
}

TEST_F(ResponderDbTest, ClosingDiscardsAnOpenTransaction)
{
    db_.begin();
    db_.exec("INSERT INTO t VALUES (1)", message_);
    EXPECT_EQ(db_.close(), 0);
    EXPECT_EQ(other_.values("SELECT count(*) FROM t"), "0");
}

TEST_F(ResponderDbTest, GoingOutOfScopeCloses)
{
    {
        ResponderDb db;
        db.open(path_.c_str());
        db.exec("BEGIN EXCLUSIVE", message_);
        EXPECT_EQ(other_.exec("INSERT INTO t VALUES (1)"), SQLITE_BUSY);
    }
    EXPECT_EQ(other_.exec("INSERT INTO t VALUES (1)"), SQLITE_OK);
}

TEST_F(ResponderDbTest, ClosingWaitsForALiveStatement)
{
    ResponderStatement alive;
    alive.prepare(db_, "SELECT 1");
    pause_capture.on_pause = [&alive] {
        if (pause_capture.pauses.size() == 3)
            alive.finalize();
        return 0;
    };
    EXPECT_EQ(db_.close(), 0);
    EXPECT_EQ(pause_capture.pauses, (Pauses{10'000, 20'000, 30'000, 40'000}));
}

TEST_F(ResponderDbTest, FailedPauseInClosingLetsTheConnectionGoAsItIs)
{
    const std::string seen = in_child_with_failing_pauses(db_, [this] {
        db_.exec("BEGIN IMMEDIATE", message_);
        ResponderStatement alive;
        alive.prepare(db_, "SELECT 1");
        const int result = db_.close();
        alive.finalize(); /* now closing would be possible: it must not be tried again */
        db_.close();
        std::printf("%d, ", other_.exec("BEGIN IMMEDIATE"));
        return result;
    });
    EXPECT_EQ(seen, "5, -1, general DB errror, 0 records");
}

TEST_F(ResponderDbTest, EndKeepsWhatWasDoneSinceBegin)
{
    EXPECT_EQ(db_.begin(), 0);
    EXPECT_EQ(db_.exec("INSERT INTO t VALUES (1)", message_), SQLITE_OK);
    EXPECT_EQ(other_.values("SELECT count(*) FROM t"), "0");
    EXPECT_EQ(db_.end(), 0);
    EXPECT_EQ(other_.values("SELECT count(*) FROM t"), "1");
    EXPECT_EQ(syslog_capture.records, Records{});
}

TEST_F(ResponderDbTest, BeginLocksNothingYet)
{
    EXPECT_EQ(db_.begin(), 0);
    EXPECT_EQ(other_.exec("INSERT INTO t VALUES (1)"), SQLITE_OK);
}

TEST_F(ResponderDbTest, BeginThatIsNotDoneIsLoggedAndLeavesTheConnectionOpen)
{
    EXPECT_EQ(db_.begin(), 0);
    EXPECT_EQ(db_.begin(), -1);
    EXPECT_EQ(syslog_capture.records, (Records{{3, "Unable to begin sqlite transaction: "
                                                   "cannot start a transaction within a transaction"}}));
    EXPECT_EQ(db_.end(), 0);
}

TEST_F(ResponderDbTest, EndThatIsNotDoneIsLoggedAndLeavesTheConnectionOpen)
{
    EXPECT_EQ(db_.end(), -1);
    EXPECT_EQ(syslog_capture.records,
              (Records{{3, "Unable to end sqlite transaction: cannot commit - no transaction is active"}}));
    EXPECT_EQ(db_.begin(), 0);
}

TEST_F(ResponderDbTest, BeginAndEndThatCannotBePreparedAreLogged)
{
    ResponderDb db;
    EXPECT_EQ(db.begin(), -1);
    EXPECT_EQ(db.end(), -1);
    EXPECT_EQ(syslog_capture.records,
              (Records{{3, "Unable to prepare SQL statement for query 'BEGIN TRANSACTION;': general DB errror"},
                       {3, "Unable to prepare SQL statement for query 'END TRANSACTION;': general DB errror"}}));
}

TEST_F(ResponderDbTest, EndWaitsForAReader)
{
    db_.begin();
    db_.exec("INSERT INTO t VALUES (1)", message_);
    other_.exec("BEGIN; SELECT * FROM t");
    in_pause(2, "COMMIT");
    EXPECT_EQ(db_.end(), 0);
    EXPECT_EQ(pause_capture.pauses, (Pauses{10'000, 20'000, 30'000}));
    EXPECT_EQ(other_.values("SELECT count(*) FROM t"), "1");
}

TEST_F(ResponderDbTest, ExecGivesTheCodeAndSqlitesText)
{
    EXPECT_EQ(db_.exec("SELECT * FROM missing", message_), SQLITE_ERROR);
    EXPECT_STREQ(message_.get(), "no such table: missing");
    EXPECT_EQ(syslog_capture.records, Records{});
}

TEST_F(ResponderDbTest, ExecThatSucceedsTakesAnEarlierTextAway)
{
    db_.exec("nonsense", message_);
    EXPECT_EQ(db_.exec("INSERT INTO t VALUES (1); INSERT INTO t VALUES (2)", message_), SQLITE_OK);
    EXPECT_EQ(message_, nullptr);
    EXPECT_EQ(other_.values("SELECT x FROM t"), "1|2");
}

TEST_F(ResponderDbTest, ExecWithoutMemoryGivesNoText)
{
    const NoMemory no_memory;
    EXPECT_EQ(db_.exec("CREATE TABLE u (y)", message_), SQLITE_NOMEM);
    EXPECT_EQ(message_, nullptr);
}

TEST_F(ResponderDbTest, ExecWaitsWhileOthersHoldTheDatabase)
{
    other_.exec("BEGIN EXCLUSIVE");
    in_pause(3, "COMMIT");
    EXPECT_EQ(db_.exec("INSERT INTO t VALUES (1)", message_), SQLITE_OK);
    EXPECT_EQ(message_, nullptr);
    EXPECT_EQ(pause_capture.pauses, (Pauses{10'000, 20'000, 30'000, 40'000}));
}

TEST_F(ResponderDbTest, LockedTableIsNotWaitedFor)
{
    other_.exec("INSERT INTO t VALUES (1)");
    ResponderStatement reading;
    reading.prepare(db_, "SELECT x FROM t");
    EXPECT_EQ(reading.step(), SQLITE_ROW);
    EXPECT_EQ(db_.exec("DROP TABLE t", message_), SQLITE_LOCKED);
    EXPECT_STREQ(message_.get(), "database table is locked");
    EXPECT_EQ(pause_capture.pauses, Pauses{});
}

TEST_F(ResponderDbTest, FailedPauseInExecLetsTheConnectionGo)
{
    other_.exec("BEGIN EXCLUSIVE");
    const std::string seen =
        in_child_with_failing_pauses(db_, [this] { return db_.exec("INSERT INTO t VALUES (1)", message_); });
    EXPECT_EQ(seen, "-1, general DB errror, 0 records");
}

constexpr char SCRIPT[] = "BEGIN;CREATE TABLE u (y);INSERT INTO u VALUES (1);COMMIT;";

TEST_F(ResponderDbTest, ScriptThatIsBusyAfterItsBeginStartsAgainFromTheBeginning)
{
    other_.exec("BEGIN EXCLUSIVE");
    in_pause(3, "COMMIT");
    EXPECT_EQ(db_.execScript(path_.c_str(), SCRIPT, message_), SQLITE_OK);
    EXPECT_EQ(message_, nullptr);
    EXPECT_EQ(pause_capture.pauses, (Pauses{10'000, 20'000, 30'000, 40'000}));
    EXPECT_EQ(other_.values("SELECT y FROM u"), "1");
}

TEST_F(ResponderDbTest, ScriptThatIsBusyBeforeItsBeginIsDoneKeepsItsConnection)
{
    db_.exec("CREATE TEMP TABLE of_this_connection (x)", message_);
    other_.exec("BEGIN IMMEDIATE");
    in_pause(1, "COMMIT");
    EXPECT_EQ(db_.execScript(path_.c_str(), "BEGIN IMMEDIATE;CREATE TABLE u (y);COMMIT;", message_), SQLITE_OK);
    EXPECT_EQ(other_.values("SELECT name FROM sqlite_master"), "t|u");
    EXPECT_EQ(db_.exec("SELECT x FROM of_this_connection", message_), SQLITE_OK);
}

TEST_F(ResponderDbTest, ScriptThatIsBusyAtItsCommitStartsAgainFromTheBeginning)
{
    other_.exec("BEGIN; SELECT * FROM t");
    in_pause(3, "COMMIT");
    EXPECT_EQ(db_.execScript(path_.c_str(), SCRIPT, message_), SQLITE_OK);
    EXPECT_EQ(other_.values("SELECT y FROM u"), "1");
}

TEST_F(ResponderDbTest, ScriptKeepsTheTimeoutOnItsFreshConnections)
{
    other_.exec("BEGIN EXCLUSIVE");
    in_pause(1, "COMMIT");
    db_.execScript(path_.c_str(), SCRIPT, message_);
    EXPECT_EQ(pause_capture.waits.size(), 12U);
}

TEST_F(ResponderDbTest, ScriptFailsWhenAFreshConnectionCannotBeOpened)
{
    other_.exec("BEGIN EXCLUSIVE");
    EXPECT_EQ(db_.execScript((dir_ / "missing/test.db").c_str(), SCRIPT, message_), -1);
    EXPECT_EQ(syslog_capture.records, (Records{{3, "Unable to open database " + dir_.path() +
                                                       "/missing/test.db: unable to open database file"}}));
}

TEST_F(ResponderDbTest, ScriptGivesTheTextOfItsFailure)
{
    EXPECT_EQ(db_.execScript(path_.c_str(), "BEGIN;CREATE TABLE t (x);COMMIT;", message_), SQLITE_ERROR);
    EXPECT_STREQ(message_.get(), "table t already exists");
    EXPECT_EQ(syslog_capture.records, Records{});
}

TEST_F(ResponderDbTest, FailedPauseInAScriptLetsTheConnectionGo)
{
    other_.exec("BEGIN EXCLUSIVE");
    const std::string seen =
        in_child_with_failing_pauses(db_, [this] { return db_.execScript(path_.c_str(), SCRIPT, message_); });
    EXPECT_EQ(seen, "-1, general DB errror, 0 records");
}

TEST_F(ResponderDbTest, TransactionHasOnlyReadFromItsFirstReadToItsFirstWrite)
{
    EXPECT_FALSE(db_.hasOnlyRead());
    db_.begin();
    EXPECT_FALSE(db_.hasOnlyRead());
    db_.exec("SELECT count(*) FROM t", message_);
    EXPECT_TRUE(db_.hasOnlyRead());
    db_.exec("INSERT INTO t VALUES (1)", message_);
    EXPECT_FALSE(db_.hasOnlyRead());
}

class ResponderStatementTest : public DatabaseTest {
protected:
    /* What is stored when `text` is bound. */
    std::string stored(std::string_view text)
    {
        EXPECT_EQ(run_statement(db_, "INSERT INTO t VALUES (?)", {{"x", text}}), StepResult::done);
        return other_.values("SELECT typeof(x), hex(x) FROM t");
    }

    ResponderStatement stmt_;
};

TEST_F(ResponderStatementTest, FailureToPrepareIsLoggedWithTheQuery)
{
    EXPECT_EQ(stmt_.prepare(db_, "SELECT * FROM missing;"), -1);
    EXPECT_EQ(syslog_capture.records, (Records{{3, "Unable to prepare SQL statement for query "
                                                   "'SELECT * FROM missing;': no such table: missing"}}));
}

TEST_F(ResponderStatementTest, FailureToPrepareFinalizesWhatTheStatementHeld)
{
    stmt_.prepare(db_, "SELECT 1");
    EXPECT_EQ(stmt_.prepare(db_, "nonsense"), -1);
    EXPECT_EQ(db_.close(), 0);
    EXPECT_EQ(pause_capture.pauses, Pauses{});
}

TEST_F(ResponderStatementTest, PreparingWaitsWhileOthersHoldTheDatabase)
{
    other_.exec("BEGIN EXCLUSIVE");
    in_pause(2, "COMMIT");
    EXPECT_EQ(stmt_.prepare(db_, "SELECT x FROM t"), 0); /* which has to read the schema */
    EXPECT_EQ(pause_capture.pauses, (Pauses{10'000, 20'000, 30'000}));
    EXPECT_EQ(syslog_capture.records, Records{});
}

TEST_F(ResponderStatementTest, FailedPauseInPreparingLetsTheConnectionGo)
{
    other_.exec("BEGIN EXCLUSIVE");
    const std::string seen =
        in_child_with_failing_pauses(db_, [this] { return stmt_.prepare(db_, "SELECT x FROM t"); });
    EXPECT_EQ(seen, "-1, general DB errror, 0 records");
}

TEST_F(ResponderStatementTest, SteppingWaitsWhileOthersHoldTheDatabase)
{
    stmt_.prepare(db_, "INSERT INTO t VALUES (1)");
    other_.exec("BEGIN IMMEDIATE");
    in_pause(2, "COMMIT");
    EXPECT_EQ(stmt_.step(), SQLITE_DONE);
    EXPECT_EQ(pause_capture.pauses, (Pauses{10'000, 20'000, 30'000}));
    EXPECT_EQ(other_.values("SELECT x FROM t"), "1");
}

TEST_F(ResponderStatementTest, BusyStepIsResetBeforeThePause)
{
    stmt_.prepare(db_, "INSERT INTO t VALUES (?)");
    other_.exec("BEGIN EXCLUSIVE");
    int bound = -1;
    pause_capture.on_pause = [&] {
        if (pause_capture.pauses.size() == 1) {
            bound = stmt_.bindInt(1, 7); /* SQLite refuses that to a statement that was not reset */
            other_.exec("COMMIT");
        }
        return 0;
    };
    EXPECT_EQ(stmt_.step(), SQLITE_DONE);
    EXPECT_EQ(bound, SQLITE_OK);
    EXPECT_EQ(other_.values("SELECT x FROM t"), "7");
}

TEST_F(ResponderStatementTest, OtherResultsAreReturnedAsTheyAre)
{
    other_.exec("CREATE TRIGGER r BEFORE INSERT ON t BEGIN SELECT RAISE(ABORT, 'not now'); END");
    stmt_.prepare(db_, "INSERT INTO t VALUES (1)");
    EXPECT_EQ(stmt_.step(), SQLITE_CONSTRAINT);
    EXPECT_STREQ(db_.errorText(), "not now");
    EXPECT_EQ(syslog_capture.records, Records{});
    EXPECT_EQ(pause_capture.pauses, Pauses{});
}

TEST_F(ResponderStatementTest, LockedTableIsNotWaitedFor)
{
    other_.exec("INSERT INTO t VALUES (1)");
    ResponderStatement reading;
    reading.prepare(db_, "SELECT x FROM t");
    EXPECT_EQ(reading.step(), SQLITE_ROW);
    stmt_.prepare(db_, "DROP TABLE t");
    EXPECT_EQ(stmt_.step(), SQLITE_LOCKED);
    EXPECT_EQ(pause_capture.pauses, Pauses{});
}

TEST_F(ResponderStatementTest, FailedPauseInAStepLetsStatementAndConnectionGo)
{
    stmt_.prepare(db_, "INSERT INTO t VALUES (1)");
    other_.exec("BEGIN IMMEDIATE");
    const std::string seen = in_child_with_failing_pauses(db_, [this] {
        const int result = stmt_.step();
        const size_t pauses = pause_capture.pauses.size();
        stmt_.finalize();
        const int closed = db_.close();
        std::printf("%zu %d, ", pauses, closed);
        return result;
    });
    EXPECT_EQ(seen, "1 0, -1, general DB errror, 0 records");
}

TEST_F(ResponderStatementTest, ColumnTextIsTheTextOrNullForNull)
{
    stmt_.prepare(db_, "SELECT 'text', NULL, '', 7");
    EXPECT_EQ(stmt_.step(), SQLITE_ROW);
    EXPECT_STREQ(stmt_.columnText(0), "text");
    EXPECT_EQ(stmt_.columnText(1), nullptr);
    EXPECT_STREQ(stmt_.columnText(2), "");
    EXPECT_STREQ(stmt_.columnText(3), "7");
}

TEST_F(ResponderStatementTest, FinalizingTwiceIsHarmless)
{
    stmt_.prepare(db_, "SELECT 1");
    stmt_.finalize();
    stmt_.finalize();
    EXPECT_EQ(db_.close(), 0);
    EXPECT_EQ(pause_capture.pauses, Pauses{});
}

TEST_F(ResponderStatementTest, TextIsStoredByLength)
{
    EXPECT_EQ(stored(std::string_view("a\0b\xff!", 4)), "text|610062FF");
}

TEST_F(ResponderStatementTest, EmptyTextIsStoredAsAnEmptyText)
{
    EXPECT_EQ(stored(""), "text|");
}

TEST_F(ResponderStatementTest, TextWithoutBytesIsStoredAsAnEmptyText)
{
    EXPECT_EQ(stored(std::string_view()), "text|");
}

TEST_F(ResponderStatementTest, NullTextIsStoredAsAnEmptyText)
{
    stmt_.prepare(db_, "INSERT INTO t VALUES (?)");
    EXPECT_EQ(stmt_.bindText(1, nullptr, 0), SQLITE_OK);
    EXPECT_EQ(stmt_.step(), SQLITE_DONE);
    EXPECT_EQ(other_.values("SELECT typeof(x), hex(x) FROM t"), "text|");
}

/* SQLite refuses by the length, before it looks at a byte: the texts need not exist. */
TEST_F(ResponderStatementTest, TextsLongerThanSqliteTakesAreRefused)
{
    stmt_.prepare(db_, "INSERT INTO t VALUES (?)");
    for (const size_t length : {size_t{1'000'000'001}, size_t{INT_MAX}, size_t{INT_MAX} + 1, (size_t{1} << 32) + 1,
                                std::numeric_limits<size_t>::max() / 2})
        EXPECT_EQ(bind_params(db_, stmt_, {{"x", std::string_view("text", length)}}), -1) << length;
    EXPECT_STREQ(db_.errorText(), "string or blob too big");
}

TEST_F(ResponderStatementTest, NumbersAreStoredAsIntegers)
{
    run_statement(db_, "INSERT INTO t VALUES (?), (?)", {{"least", INT_MIN}, {"most", INT_MAX}});
    EXPECT_EQ(other_.values("SELECT typeof(x), x FROM t"), "integer|-2147483648|integer|2147483647");
}

TEST_F(ResponderStatementTest, FirstParameterThatIsRefusedIsLoggedAndEndsTheBinding)
{
    stmt_.prepare(db_, "INSERT INTO t VALUES (?1 || ?2 || ?3 || ?4)");
    const std::string_view too_long("text", 1'000'000'001);
    EXPECT_EQ(bind_params(db_, stmt_, {{"one", "1"}, {"two", too_long}, {"three", too_long}, {"four", "4"}}), -1);
    EXPECT_EQ(syslog_capture.records, (Records{{3, "Unable to bind parameter two: string or blob too big"}}));
}

TEST_F(ResponderStatementTest, NumberThatIsRefusedIsLogged)
{
    stmt_.prepare(db_, "INSERT INTO t VALUES (?)");
    EXPECT_EQ(bind_params(db_, stmt_, {{"one", 1}, {"two", 2}}),
              -1); /* SQLite refuses a number only for want of a place */
    EXPECT_EQ(syslog_capture.records, (Records{{3, "Unable to bind parameter two: column index out of range"}}));
}

} // namespace
