#include "store/responder_db.h"

#include <climits>
#include <cstdio>
#include <limits>
#include <string>

#include <malloc.h>

#include <gtest/gtest.h>

#include "store/run_statement.h"
#include "tests/unit/store/database_fixture.h"

using namespace arsp;

namespace {

/* Leaves SQLite no memory beyond what it uses. */
class NoMemory {
public:
    NoMemory() { sqlite3_hard_heap_limit64(sqlite3_memory_used() + 1); }
    NoMemory(const NoMemory &) = delete;
    NoMemory &operator=(const NoMemory &) = delete;
    ~NoMemory() { sqlite3_hard_heap_limit64(0); }
};

const char *const ABANDONED = "-1, general DB errror, 0 records";

using ResponderDbTest = DatabaseTest;

TEST_F(ResponderDbTest, FailureToOpenIsLoggedClosesTheHandleAndIsNotRetried)
{
    const sqlite3_int64 before = sqlite3_memory_used();
    ResponderDb db;
    EXPECT_EQ(db.open((dir_ / "missing/new.db").c_str()), -1);
    EXPECT_EQ(errors(),
              Texts{"Unable to open database " + dir_.path() + "/missing/new.db: unable to open database file"});
    EXPECT_STREQ(db.errorText(), "general DB errror");
    EXPECT_EQ(sqlite3_memory_used(), before);
    EXPECT_EQ(pause_capture.pauses, Pauses{});
}

TEST_F(ResponderDbTest, FailureToOpenWithoutAHandleHasATextOfItsOwn)
{
    ResponderDb db;
    {
        const NoMemory no_memory;
        EXPECT_EQ(db.open(path_.c_str()), -1);
    }
    EXPECT_EQ(errors(), Texts{"Unable to open database " + path_ + ": general DB errror"});
}

TEST_F(ResponderDbTest, ErrorTextIsThatOfTheConnection)
{
    EXPECT_STREQ(db_.errorText(), "not an error");
    EXPECT_EQ(db_.exec("nonsense", message_), SQLITE_ERROR);
    EXPECT_STREQ(db_.errorText(), "near \"nonsense\": syntax error");
    EXPECT_EQ(db_.errorCode(), SQLITE_ERROR);
}

TEST_F(ResponderDbTest, ClosingTwiceIsHarmless)
{
    EXPECT_EQ(db_.close(), 0);
    EXPECT_STREQ(db_.errorText(), "general DB errror");
    EXPECT_EQ(db_.close(), 0);
    EXPECT_EQ(ResponderDb().close(), 0);
    EXPECT_EQ(errors(), Texts{});
}

TEST_F(ResponderDbTest, ClosingDiscardsAnOpenTransaction)
{
    ASSERT_EQ(db_.begin(), 0);
    run("INSERT INTO t VALUES (1)");
    EXPECT_EQ(db_.close(), 0);
    EXPECT_EQ(other_.values("SELECT count(*) FROM t"), "0");
}

TEST_F(ResponderDbTest, OpeningAgainDiscardsAnOpenTransactionThroughItsOwnVfs)
{
    ASSERT_EQ(db_.begin(), 0);
    run("INSERT INTO t VALUES (1)");
    mallopt(M_PERTURB, 0x5a); /* overwrites freed memory: a VFS freed too early crashes */
    EXPECT_EQ(db_.open(path_.c_str()), 0);
    mallopt(M_PERTURB, 0);
    EXPECT_EQ(other_.exec("INSERT INTO t VALUES (2)"), SQLITE_OK);
    EXPECT_EQ(other_.values("SELECT x FROM t"), "2");
}

TEST_F(ResponderDbTest, GoingOutOfScopeCloses)
{
    {
        ResponderDb db;
        ASSERT_EQ(db.open(path_.c_str()), 0);
        EXPECT_EQ(db.exec("BEGIN EXCLUSIVE", message_), SQLITE_OK);
        EXPECT_EQ(other_.exec("INSERT INTO t VALUES (1)"), SQLITE_BUSY);
    }
    EXPECT_EQ(other_.exec("INSERT INTO t VALUES (1)"), SQLITE_OK);
}

TEST_F(ResponderDbTest, ClosingWaitsForALiveStatement)
{
    ResponderStatement alive;
    ASSERT_EQ(alive.prepare(db_, "SELECT 1"), 0);
    pause_capture.on_pause = [&alive] {
        if (pause_capture.pauses.size() == 3)
            alive.finalize();
        return 0;
    };
    EXPECT_EQ(db_.close(), 0);
    EXPECT_EQ(pause_capture.pauses, (Pauses{10'000, 20'000, 30'000, 40'000}));
}

TEST_F(ResponderDbTest, InterruptedPauseInClosingAbandonsTheConnectionForGood)
{
    const std::string seen = with_failing_pauses(db_, [this] {
        run("BEGIN IMMEDIATE");
        ResponderStatement alive;
        EXPECT_EQ(alive.prepare(db_, "SELECT 1"), 0);
        const int result = db_.close();
        alive.finalize(); /* now closing would succeed: it must not be tried again */
        db_.close();
        std::printf("%d, ", other_.exec("BEGIN IMMEDIATE"));
        return result;
    });
    EXPECT_EQ(seen, std::to_string(SQLITE_BUSY) + ", " + ABANDONED);
}

TEST_F(ResponderDbTest, EndKeepsTheWorkSinceBeginWhichLocksNothing)
{
    EXPECT_EQ(db_.begin(), 0);
    EXPECT_EQ(other_.exec("INSERT INTO t VALUES (1)"), SQLITE_OK);
    run("INSERT INTO t VALUES (2)");
    EXPECT_EQ(other_.values("SELECT x FROM t"), "1");
    EXPECT_EQ(db_.end(), 0);
    EXPECT_EQ(other_.values("SELECT x FROM t"), "1|2");
}

TEST_F(ResponderDbTest, RefusedBeginAndEndAreLoggedAndLeaveTheConnectionOpen)
{
    EXPECT_EQ(db_.end(), -1);
    EXPECT_EQ(db_.begin(), 0);
    EXPECT_EQ(db_.begin(), -1);
    EXPECT_EQ(db_.end(), 0);
    EXPECT_EQ(errors(), (Texts{"Unable to end sqlite transaction: cannot commit - no transaction is active",
                               "Unable to begin sqlite transaction: cannot start a transaction within a transaction"}));
}

TEST_F(ResponderDbTest, BeginAndEndThatCannotBePreparedAreLogged)
{
    ResponderDb db;
    EXPECT_EQ(db.begin(), -1);
    EXPECT_EQ(db.end(), -1);
    EXPECT_EQ(errors(), (Texts{"Unable to prepare SQL statement for query 'BEGIN TRANSACTION;': general DB errror",
                               "Unable to prepare SQL statement for query 'END TRANSACTION;': general DB errror"}));
}

TEST_F(ResponderDbTest, EndWaitsForAReader)
{
    ASSERT_EQ(db_.begin(), 0);
    run("INSERT INTO t VALUES (1)");
    other_.exec("BEGIN; SELECT * FROM t");
    in_pause(2, "COMMIT");
    EXPECT_EQ(db_.end(), 0);
    EXPECT_EQ(pause_capture.pauses, (Pauses{10'000, 20'000, 30'000}));
    EXPECT_EQ(other_.values("SELECT count(*) FROM t"), "1");
}

TEST_F(ResponderDbTest, ExecReturnsSqlitesCodeAndTextAndLogsNothing)
{
    EXPECT_EQ(db_.exec("SELECT * FROM missing", message_), SQLITE_ERROR);
    EXPECT_STREQ(message_.get(), "no such table: missing");
    EXPECT_EQ(db_.exec("INSERT INTO t VALUES (1); INSERT INTO t VALUES (2)", message_), SQLITE_OK);
    EXPECT_EQ(message_, nullptr);
    EXPECT_EQ(other_.values("SELECT x FROM t"), "1|2");
    EXPECT_EQ(errors(), Texts{});
}

TEST_F(ResponderDbTest, ExecWithoutMemoryReturnsNoText)
{
    const NoMemory no_memory;
    EXPECT_EQ(db_.exec("CREATE TABLE u (y)", message_), SQLITE_NOMEM);
    EXPECT_EQ(message_, nullptr);
}

TEST_F(ResponderDbTest, ExecWaitsWhileAnotherProcessHoldsTheDatabase)
{
    other_.exec("BEGIN EXCLUSIVE");
    in_pause(1, "COMMIT");
    EXPECT_EQ(db_.exec("INSERT INTO t VALUES (1)", message_), SQLITE_OK);
    EXPECT_EQ(message_, nullptr);
    EXPECT_EQ(pause_capture.pauses, (Pauses{10'000, 20'000}));

    const std::vector<long> one_timeout = {1000, 2000, 5000, 10000, 15000, 17000}; /* us, 50 ms in all */
    std::vector<long> two_timeouts = one_timeout;
    two_timeouts.insert(two_timeouts.end(), one_timeout.begin(), one_timeout.end());
    EXPECT_EQ(pause_capture.waits, two_timeouts);
}

constexpr char SCRIPT[] = "BEGIN;CREATE TABLE u (y);INSERT INTO u VALUES (1);COMMIT;";

TEST_F(ResponderDbTest, ScriptThatIsBusyInItsTransactionStartsAgainOnANewConnection)
{
    for (const char *lock : {"BEGIN EXCLUSIVE", "BEGIN; SELECT * FROM t"}) { /* busy after BEGIN, at COMMIT */
        pause_capture = {};
        other_.exec(lock);
        in_pause(3, "COMMIT");
        EXPECT_EQ(db_.execScript(path_.c_str(), SCRIPT, message_), SQLITE_OK);
        EXPECT_EQ(message_, nullptr);
        EXPECT_EQ(pause_capture.pauses, (Pauses{10'000, 20'000, 30'000, 40'000}));
        EXPECT_EQ(pause_capture.waits.size(), 24U); /* the new connections have the timeout, too */
        EXPECT_EQ(other_.values("SELECT y FROM u"), "1");
        other_.exec("DROP TABLE u");
    }
}

TEST_F(ResponderDbTest, ScriptThatIsBusyAtItsBeginKeepsItsConnection)
{
    run("CREATE TEMP TABLE of_this_connection (x)");
    other_.exec("BEGIN IMMEDIATE");
    in_pause(1, "COMMIT");
    EXPECT_EQ(db_.execScript(path_.c_str(), "BEGIN IMMEDIATE;CREATE TABLE u (y);COMMIT;", message_), SQLITE_OK);
    EXPECT_EQ(other_.values("SELECT name FROM sqlite_master"), "t|u");
    run("SELECT x FROM of_this_connection");
}

TEST_F(ResponderDbTest, ScriptFailsWhenTheNewConnectionCannotBeOpened)
{
    other_.exec("BEGIN EXCLUSIVE");
    EXPECT_EQ(db_.execScript((dir_ / "missing/test.db").c_str(), SCRIPT, message_), -1);
    EXPECT_EQ(errors(),
              Texts{"Unable to open database " + dir_.path() + "/missing/test.db: unable to open database file"});
}

TEST_F(ResponderDbTest, ScriptFailsWhenAPauseInClosingForTheNewConnectionIsInterrupted)
{
    const std::string seen = with_failing_pauses(db_, [this] {
        Other other(path_);
        keep_connections_open();
        db_.open(path_.c_str());
        other.exec("BEGIN EXCLUSIVE");
        pause_capture.on_pause = [&other] {
            other.exec("COMMIT");
            return pause_capture.pauses.size() == 1 ? interrupted() : 0;
        };
        return db_.execScript(path_.c_str(), SCRIPT, message_);
    });
    EXPECT_EQ(seen, "-1, general DB errror, 0 records");
    EXPECT_EQ(other_.values("SELECT name FROM sqlite_master"), "t");
}

TEST_F(ResponderDbTest, ScriptReturnsSqlitesCodeAndTextAndLogsNothing)
{
    EXPECT_EQ(db_.execScript(path_.c_str(), "BEGIN;CREATE TABLE t (x);COMMIT;", message_), SQLITE_ERROR);
    EXPECT_STREQ(message_.get(), "table t already exists");
    EXPECT_EQ(errors(), Texts{});
}

TEST_F(ResponderDbTest, TransactionHasOnlyReadFromItsFirstReadToItsFirstWrite)
{
    EXPECT_FALSE(db_.hasOnlyRead());
    ASSERT_EQ(db_.begin(), 0);
    EXPECT_FALSE(db_.hasOnlyRead());
    run("SELECT count(*) FROM t");
    EXPECT_TRUE(db_.hasOnlyRead());
    run("INSERT INTO t VALUES (1)");
    EXPECT_FALSE(db_.hasOnlyRead());
}

class ResponderStatementTest : public DatabaseTest {
protected:
    /* Makes `stmt_` the statement `sql`. */
    void prepare(const char *sql) { ASSERT_EQ(stmt_.prepare(db_, sql), 0); }

    ResponderStatement stmt_;
};

TEST_F(ResponderStatementTest, InterruptedPauseAbandonsTheConnection)
{
    const std::pair<const char *, std::function<int()>> calls[] = {
        {"exec", [this] { return db_.exec("INSERT INTO t VALUES (1)", message_); }},
        {"execScript", [this] { return db_.execScript(path_.c_str(), SCRIPT, message_); }},
        {"prepare", [this] { return stmt_.prepare(db_, "SELECT x FROM t"); }},
    };
    other_.exec("BEGIN EXCLUSIVE");
    for (const auto &[name, call] : calls)
        EXPECT_EQ(with_failing_pauses(db_, call), ABANDONED) << name;
}

TEST_F(ResponderStatementTest, InterruptedPauseInAStepAbandonsTheStatement)
{
    prepare("INSERT INTO t VALUES (1)");
    other_.exec("BEGIN IMMEDIATE");
    const std::string seen = with_failing_pauses(db_, [this] {
        const int result = stmt_.step();
        const size_t pauses = pause_capture.pauses.size();
        stmt_.finalize();
        const int closed = db_.close();
        std::printf("%zu %d, ", pauses, closed);
        return result;
    });
    EXPECT_EQ(seen, std::string("1 0, ") + ABANDONED);
}

TEST_F(ResponderStatementTest, FailureToPrepareIsLoggedAndFinalizesTheOldStatement)
{
    prepare("SELECT 1");
    EXPECT_EQ(stmt_.prepare(db_, "SELECT * FROM missing;"), -1);
    EXPECT_EQ(errors(),
              Texts{"Unable to prepare SQL statement for query 'SELECT * FROM missing;': no such table: missing"});
    EXPECT_EQ(db_.close(), 0);
    EXPECT_EQ(pause_capture.pauses, Pauses{});
}

TEST_F(ResponderStatementTest, PreparingWaitsWhileAnotherProcessHoldsTheDatabase)
{
    other_.exec("BEGIN EXCLUSIVE");
    in_pause(2, "COMMIT");
    prepare("SELECT x FROM t"); /* reads the schema */
    EXPECT_EQ(pause_capture.pauses, (Pauses{10'000, 20'000, 30'000}));
    EXPECT_EQ(errors(), Texts{});
}

TEST_F(ResponderStatementTest, BusyStepIsResetBeforeThePause)
{
    prepare("INSERT INTO t VALUES (?)");
    other_.exec("BEGIN EXCLUSIVE");
    int bound = -1;
    pause_capture.on_pause = [&] {
        if (pause_capture.pauses.size() == 2) {
            bound = stmt_.bindInt(1, 7); /* SQLite refuses this unless the statement was reset */
            other_.exec("COMMIT");
        }
        return 0;
    };
    EXPECT_EQ(stmt_.step(), SQLITE_DONE);
    EXPECT_EQ(bound, SQLITE_OK);
    EXPECT_EQ(pause_capture.pauses, (Pauses{10'000, 20'000, 30'000}));
    EXPECT_EQ(other_.values("SELECT x FROM t"), "7");
}

TEST_F(ResponderStatementTest, OtherResultsAreReturnedUnchangedAndNotRetried)
{
    other_.exec("CREATE TRIGGER r BEFORE INSERT ON t BEGIN SELECT RAISE(ABORT, 'not now'); END");
    prepare("INSERT INTO t VALUES (1)");
    EXPECT_EQ(stmt_.step(), SQLITE_CONSTRAINT);
    EXPECT_STREQ(db_.errorText(), "not now");

    other_.exec("DROP TRIGGER r; INSERT INTO t VALUES (1)");
    ResponderStatement reading;
    EXPECT_EQ(reading.prepare(db_, "SELECT x FROM t"), 0);
    EXPECT_EQ(reading.step(), SQLITE_ROW);
    prepare("DROP TABLE t");
    EXPECT_EQ(stmt_.step(), SQLITE_LOCKED);
    EXPECT_EQ(db_.exec("DROP TABLE t", message_), SQLITE_LOCKED);
    EXPECT_STREQ(message_.get(), "database table is locked");
    EXPECT_EQ(errors(), Texts{});
    EXPECT_EQ(pause_capture.pauses, Pauses{});
}

TEST_F(ResponderStatementTest, ColumnTextIsTheTextOrNullForNull)
{
    prepare("SELECT 'text', NULL, '', 7");
    EXPECT_EQ(stmt_.step(), SQLITE_ROW);
    EXPECT_STREQ(stmt_.columnText(0), "text");
    EXPECT_EQ(stmt_.columnText(1), nullptr);
    EXPECT_STREQ(stmt_.columnText(2), "");
    EXPECT_STREQ(stmt_.columnText(3), "7");
}

TEST_F(ResponderStatementTest, FinalizingTwiceIsHarmless)
{
    prepare("SELECT 1");
    stmt_.finalize();
    stmt_.finalize();
    EXPECT_EQ(db_.close(), 0);
    EXPECT_EQ(pause_capture.pauses, Pauses{});
}

TEST_F(ResponderStatementTest, TextIsStoredByLengthAndNullAsAnEmptyText)
{
    const auto store = [this](const char *text, int length) {
        prepare("INSERT INTO t VALUES (?)");
        EXPECT_EQ(stmt_.bindText(1, text, length), SQLITE_OK);
        EXPECT_EQ(stmt_.step(), SQLITE_DONE);
        stmt_.finalize();
    };
    store("a\0b\xff!", 4);
    store("", 0);
    store(nullptr, 0);
    EXPECT_EQ(run_statement(db_, "INSERT INTO t VALUES (?)", {{"x", std::string_view()}}), StepResult::done);
    EXPECT_EQ(other_.values("SELECT typeof(x), hex(x) FROM t"), "text|610062FF|text||text||text|");
}

/* SQLite refuses by the length, before it reads a byte: the texts need not exist. */
TEST_F(ResponderStatementTest, TextsLongerThanSqlitesLimitAreRefused)
{
    prepare("INSERT INTO t VALUES (?)");
    for (const size_t length : {size_t{1'000'000'001}, size_t{INT_MAX}, size_t{INT_MAX} + 1, (size_t{1} << 32) + 1,
                                std::numeric_limits<size_t>::max() / 2})
        EXPECT_EQ(bind_params(db_, stmt_, {{"x", std::string_view("text", length)}}), -1) << length;
    EXPECT_STREQ(db_.errorText(), "string or blob too big");
}

TEST_F(ResponderStatementTest, NumbersAreStoredAsIntegers)
{
    EXPECT_EQ(run_statement(db_, "INSERT INTO t VALUES (?), (?)", {{"least", INT_MIN}, {"most", INT_MAX}}),
              StepResult::done);
    EXPECT_EQ(other_.values("SELECT typeof(x), x FROM t"), "integer|-2147483648|integer|2147483647");
}

TEST_F(ResponderStatementTest, FirstRefusedParameterIsLoggedAndEndsTheBinding)
{
    prepare("INSERT INTO t VALUES (?1 || ?2 || ?3 || ?4)");
    const std::string_view too_long("text", 1'000'000'001);
    EXPECT_EQ(bind_params(db_, stmt_, {{"one", "1"}, {"two", too_long}, {"three", too_long}, {"four", "4"}}), -1);
    prepare("INSERT INTO t VALUES (?)");
    EXPECT_EQ(bind_params(db_, stmt_, {{"one", 1}, {"two", 2}}), -1); /* SQLite refuses a number only by its index */
    EXPECT_EQ(errors(), (Texts{"Unable to bind parameter two: string or blob too big",
                               "Unable to bind parameter two: column index out of range"}));
}

} // namespace
