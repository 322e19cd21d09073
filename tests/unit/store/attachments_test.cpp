#include "store/attachments.h"

#include <dlfcn.h>
#include <pwd.h>

#include <gtest/gtest.h>

#include "tests/unit/store/pause_capture.h"
#include "tests/unit/store/responder_fixture.h"
#include "tests/unit/support/child_process.h"

using namespace arsp;

namespace {

bool users_answer_is_silence = false; /* getpwnam finds nobody and leaves errno alone, as it may */

} // namespace

/* The linker takes this for getpwnam. */
passwd *getpwnam_of_some_name_service(const char *name) __asm__("getpwnam");
passwd *getpwnam_of_some_name_service(const char *name)
{
    using Find = passwd *(const char *);
    static const auto real_getpwnam = reinterpret_cast<Find *>(dlsym(RTLD_NEXT, "getpwnam"));
    return users_answer_is_silence ? nullptr : real_getpwnam(name);
}

namespace {

constexpr int SHORTER_THAN_THE_MAIL_NAME = 15;
constexpr int SHORTER_THAN_THE_FILE_NAME = 20;
const std::string LONG_NAME = "the-report-of-last-year.pdf";

class SelectRealOwnerTest : public ResponderTest {
protected:
    void TearDown() override
    {
        sqlite3_hard_heap_limit64(0);
        ResponderTest::TearDown();
    }

    /* Makes the database anew, in UTF-16, with one autoresponder: its owner is a text of `length` times "x". */
    void store_wide_owner(int length)
    {
        db_.close();
        std::filesystem::remove(RESPONDER_DB_PATH);
        ASSERT_EQ(db_.open(), 0);
        run("PRAGMA encoding = 'UTF-16le'; CREATE TABLE autoresponder (mn, real_owner);"
            "INSERT INTO autoresponder VALUES ('sales@example.org', replace(hex(zeroblob(" +
            std::to_string(length / 2) + ")), '0', 'x'))");
        db_.close();
        ASSERT_EQ(db_.open(), 0);
    }

    std::string owner_ = "as before";
};

TEST_F(SelectRealOwnerTest, FindsTheOwner)
{
    EXPECT_EQ(selectRealOwner(db_, "sales@example.org", owner_), 0);
    EXPECT_EQ(owner_, "user@example.org");
    EXPECT_EQ(errors(), Texts{});
}

TEST_F(SelectRealOwnerTest, ARowWithoutAnOwnerCountsAsFound)
{
    run("DROP TABLE autoresponder; CREATE TABLE autoresponder (mn, real_owner);"
        "INSERT INTO autoresponder VALUES ('sales@example.org', NULL)");
    EXPECT_EQ(selectRealOwner(db_, "sales@example.org", owner_), 0);
    EXPECT_EQ(owner_, "as before");
}

TEST_F(SelectRealOwnerTest, OnlyTheFirstRowIsRead)
{
    run("DROP TABLE autoresponder; CREATE TABLE autoresponder (mn, real_owner);"
        "INSERT INTO autoresponder VALUES ('sales@example.org', 'first@example.org'), "
        "('sales@example.org', 'second@example.org')");
    EXPECT_EQ(selectRealOwner(db_, "sales@example.org", owner_), 0);
    EXPECT_EQ(owner_, "first@example.org");
}

TEST_F(SelectRealOwnerTest, WithoutARowTheConnectionStaysOpen)
{
    EXPECT_EQ(selectRealOwner(db_, "nobody@example.org", owner_), -1);
    EXPECT_EQ(owner_, "as before");
    EXPECT_EQ(errors(), Texts{"No autoresponder found for mailname (nobody@example.org)"});
    EXPECT_STREQ(db_.errorText(), "not an error");
}

TEST_F(SelectRealOwnerTest, AStatementThatCannotBePreparedClosesTheConnection)
{
    run("DROP TABLE autoresponder");
    EXPECT_EQ(selectRealOwner(db_, "sales@example.org", owner_), -1);
    EXPECT_EQ(errors(), Texts{"Unable to prepare SQL statement for query 'SELECT real_owner FROM autoresponder WHERE "
                              "mn=?': no such table: autoresponder"});
    EXPECT_STREQ(db_.errorText(), "general DB errror");
    EXPECT_EQ(db_.close(), 0);
}

TEST_F(SelectRealOwnerTest, AMailNameThatCannotBeBoundClosesTheConnection)
{
    limit_texts(SHORTER_THAN_THE_MAIL_NAME, SQLITE_READ, "autoresponder");
    ResponderDb db;
    ASSERT_EQ(db.open(), 0);
    EXPECT_EQ(selectRealOwner(db, "sales@example.org", owner_), -1);
    EXPECT_EQ(errors(), Texts{"Unable to bind parameter mailname: string or blob too big"});
    EXPECT_STREQ(db.errorText(), "general DB errror");
    EXPECT_EQ(db.close(), 0);
}

TEST_F(SelectRealOwnerTest, AnOwnerForWhichThereIsNoMemoryIsAFailure)
{
    constexpr int LENGTH = 1'000'000; /* 2 MB in the database; 4 MB are asked for to convert it */
    constexpr int ENOUGH_TO_READ = 6'000'000;
    store_wide_owner(LENGTH);
    sqlite3_hard_heap_limit64(sqlite3_memory_used() + ENOUGH_TO_READ);
    EXPECT_EQ(selectRealOwner(db_, "sales@example.org", owner_), -1);
    EXPECT_EQ(owner_, "as before");
    EXPECT_EQ(errors(), Texts{"Unable to read data from database: out of memory"});
    EXPECT_STREQ(db_.errorText(), "out of memory");
}

TEST_F(SelectRealOwnerTest, AnInterruptedPauseIsSilentAndAbandonsTheConnection)
{
    run("SELECT * FROM autoresponder"); /* what the tables are is known then: only the step reads */
    const ChildResult child = run_in_child([this] {
        ResponderDb other;
        SqliteText message;
        other.open();
        other.exec("BEGIN EXCLUSIVE", message);
        pause_capture.on_pause = interrupted;
        std::printf("%d", selectRealOwner(db_, "sales@example.org", owner_));
        std::printf(", %s, %zu errors", db_.errorText(), errors().size());
        std::fflush(nullptr);
        _exit(0);
    });
    EXPECT_EQ(child.out, "-1, general DB errror, 0 errors");
}

class AddAttachTest : public ResponderTest {
protected:
    void TearDown() override
    {
        users_answer_is_silence = false;
        ResponderTest::TearDown();
    }

    static int add() { return add_attach("/etc/passwd", LONG_NAME, "sales@example.org"); }
    static bool copy_is_there() { return std::filesystem::exists(DIRECTORY + "/" + LONG_NAME); }
};

TEST_F(AddAttachTest, MakesFileAndRow)
{
    EXPECT_EQ(add(), 0);
    EXPECT_EQ(errors(), Texts{});
    EXPECT_EQ(row_counts(), "2 2 1");
    EXPECT_TRUE(copy_is_there());
}

TEST_F(AddAttachTest, TheReasonWhyThereIsNoMailUserMayBeAnOlderError)
{
    users_answer_is_silence = true;
    EXPECT_EQ(add(), -1);
    /* that of the configuration file, which is not there */
    EXPECT_EQ(errors(), Texts{"Unable to get uid:gid for popuser: No such file or directory"});
}

TEST_F(AddAttachTest, BeginThatIsNotDoneTouchesNothing)
{
    begin_beforehand();
    EXPECT_EQ(add(), -1);
    EXPECT_EQ(errors(), Texts{"Unable to begin sqlite transaction: cannot start a transaction within a transaction"});
    EXPECT_FALSE(copy_is_there());
}

TEST_F(AddAttachTest, BeginThatCannotBePreparedTouchesNothing)
{
    refuse_preparing(SQLITE_TRANSACTION, "BEGIN");
    EXPECT_EQ(add(), -1);
    EXPECT_EQ(errors(), Texts{"Unable to prepare SQL statement for query 'BEGIN TRANSACTION;': not authorized"});
    EXPECT_FALSE(copy_is_there());
}

TEST_F(AddAttachTest, AMailNameThatCannotBeBoundInTheLookUpTouchesNothing)
{
    limit_texts(SHORTER_THAN_THE_MAIL_NAME, SQLITE_READ, "autoresponder");
    EXPECT_EQ(add(), -1);
    EXPECT_EQ(errors(), Texts{"Unable to bind parameter mailname: string or blob too big"});
    EXPECT_FALSE(copy_is_there());
}

TEST_F(AddAttachTest, AMailNameThatCannotBeBoundLeavesTheFileWithoutARow)
{
    limit_texts(SHORTER_THAN_THE_MAIL_NAME, SQLITE_INSERT, "attachments");
    EXPECT_EQ(add(), -1);
    EXPECT_EQ(errors(), Texts{"Unable to bind parameter mailname: string or blob too big"});
    EXPECT_EQ(row_counts(), "2 1 1");
    EXPECT_TRUE(copy_is_there());
}

TEST_F(AddAttachTest, AFileNameThatCannotBeBoundLeavesTheFileWithoutARow)
{
    limit_texts(SHORTER_THAN_THE_FILE_NAME, SQLITE_INSERT, "attachments");
    EXPECT_EQ(add(), -1);
    EXPECT_EQ(errors(), Texts{"Unable to bind parameter filename: string or blob too big"});
    EXPECT_EQ(row_counts(), "2 1 1");
    EXPECT_TRUE(copy_is_there());
}

TEST_F(AddAttachTest, EndThatCannotBePreparedLeavesTheFileWithoutARow)
{
    refuse_preparing(SQLITE_TRANSACTION, "COMMIT");
    EXPECT_EQ(add(), -1);
    EXPECT_EQ(errors(), Texts{"Unable to prepare SQL statement for query 'END TRANSACTION;': not authorized"});
    EXPECT_EQ(row_counts(), "2 1 1");
    EXPECT_TRUE(copy_is_there());
}

class DelAttachTest : public ResponderTest {
protected:
    void expect_nothing_touched()
    {
        EXPECT_EQ(row_counts(), "2 1 1");
        EXPECT_TRUE(old_file_is_there());
    }
};

TEST_F(DelAttachTest, RemovesRowAndFile)
{
    EXPECT_EQ(del_attach("user@example.org", "old.pdf"), 0);
    EXPECT_EQ(errors(), Texts{});
    EXPECT_EQ(row_counts(), "2 0 1");
    EXPECT_FALSE(old_file_is_there());
}

TEST_F(DelAttachTest, BeginThatIsNotDoneTouchesNothing)
{
    begin_beforehand();
    EXPECT_EQ(del_attach("user@example.org", "old.pdf"), -1);
    EXPECT_EQ(errors(), Texts{"Unable to begin sqlite transaction: cannot start a transaction within a transaction"});
    expect_nothing_touched();
}

TEST_F(DelAttachTest, BeginThatCannotBePreparedTouchesNothing)
{
    refuse_preparing(SQLITE_TRANSACTION, "BEGIN");
    EXPECT_EQ(del_attach("user@example.org", "old.pdf"), -1);
    EXPECT_EQ(errors(), Texts{"Unable to prepare SQL statement for query 'BEGIN TRANSACTION;': not authorized"});
    expect_nothing_touched();
}

TEST_F(DelAttachTest, AMailNameThatCannotBeBoundInTheLookUpTouchesNothing)
{
    limit_texts(SHORTER_THAN_THE_MAIL_NAME, SQLITE_READ, "autoresponder");
    EXPECT_EQ(del_attach("user@example.org", "old.pdf"), -1);
    EXPECT_EQ(errors(), Texts{"Unable to bind parameter mailname: string or blob too big"});
    expect_nothing_touched();
}

TEST_F(DelAttachTest, AMailNameThatCannotBeBoundTouchesNothing)
{
    limit_texts(SHORTER_THAN_THE_MAIL_NAME, SQLITE_DELETE, "attachments");
    EXPECT_EQ(del_attach("user@example.org", "old.pdf"), -1);
    EXPECT_EQ(errors(), Texts{"Unable to bind parameter mailname: string or blob too big"});
    expect_nothing_touched();
}

TEST_F(DelAttachTest, AFileNameThatCannotBeBoundTouchesNothing)
{
    run("UPDATE attachments SET filename = '" + LONG_NAME + "'");
    limit_texts(SHORTER_THAN_THE_FILE_NAME, SQLITE_DELETE, "attachments");
    EXPECT_EQ(del_attach("user@example.org", LONG_NAME), -1);
    EXPECT_EQ(errors(), Texts{"Unable to bind parameter filename: string or blob too big"});
    expect_nothing_touched();
}

TEST_F(DelAttachTest, EndThatCannotBePreparedTouchesNothing)
{
    refuse_preparing(SQLITE_TRANSACTION, "COMMIT");
    EXPECT_EQ(del_attach("user@example.org", "old.pdf"), -1);
    EXPECT_EQ(errors(), Texts{"Unable to prepare SQL statement for query 'END TRANSACTION;': not authorized"});
    expect_nothing_touched();
}

} // namespace
