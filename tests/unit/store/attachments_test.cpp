#include "store/attachments.h"

#include <dlfcn.h>
#include <pwd.h>

#include "tests/unit/store/responder_fixture.h"

using namespace arsp;

namespace {

bool getpwnam_finds_no_user = false; /* and leaves errno unchanged, as it may */

} // namespace

/* The linker resolves getpwnam to this. */
passwd *replaced_getpwnam(const char *name) __asm__("getpwnam");
passwd *replaced_getpwnam(const char *name)
{
    using Find = passwd *(const char *);
    static const auto real_getpwnam = reinterpret_cast<Find *>(dlsym(RTLD_NEXT, "getpwnam"));
    return getpwnam_finds_no_user ? nullptr : real_getpwnam(name);
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

    int select(ResponderDb &db, const char *mailname = "sales@example.org")
    {
        return selectRealOwner(db, mailname, owner_);
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

    std::string owner_ = "unchanged";
};

TEST_F(SelectRealOwnerTest, OwnerOfTheFirstRowIsReturned)
{
    run("DROP TABLE autoresponder; CREATE TABLE autoresponder (mn, real_owner);"
        "INSERT INTO autoresponder VALUES ('sales@example.org', 'first@example.org'), "
        "('sales@example.org', 'second@example.org')");
    EXPECT_EQ(select(db_), 0);
    EXPECT_EQ(owner_, "first@example.org");
    EXPECT_EQ(errors(), Texts{});
}

TEST_F(SelectRealOwnerTest, RowWithoutAnOwnerCountsAsFound)
{
    run("DROP TABLE autoresponder; CREATE TABLE autoresponder (mn, real_owner);"
        "INSERT INTO autoresponder VALUES ('sales@example.org', NULL)");
    EXPECT_EQ(select(db_), 0);
    EXPECT_EQ(owner_, "unchanged");
}

TEST_F(SelectRealOwnerTest, MissingRowLeavesTheConnectionOpen)
{
    EXPECT_EQ(select(db_, "none@example.org"), -1);
    EXPECT_EQ(owner_, "unchanged");
    EXPECT_EQ(errors(), Texts{"No autoresponder found for mailname (none@example.org)"});
    EXPECT_STREQ(db_.errorText(), "not an error");
}

TEST_F(SelectRealOwnerTest, FailureToPrepareClosesTheConnection)
{
    run("DROP TABLE autoresponder");
    EXPECT_EQ(select(db_), -1);
    EXPECT_EQ(errors(), Texts{"Unable to prepare SQL statement for query 'SELECT real_owner FROM autoresponder WHERE "
                              "mn=?': no such table: autoresponder"});
    EXPECT_STREQ(db_.errorText(), "general DB errror");
}

TEST_F(SelectRealOwnerTest, FailureToBindClosesTheConnection)
{
    limit_texts(SHORTER_THAN_THE_MAIL_NAME, SQLITE_READ, "autoresponder");
    ResponderDb db;
    ASSERT_EQ(db.open(), 0);
    EXPECT_EQ(select(db), -1);
    EXPECT_EQ(errors(), Texts{"Unable to bind parameter mailname: string or blob too big"});
    EXPECT_STREQ(db.errorText(), "general DB errror");
}

TEST_F(SelectRealOwnerTest, OwnerLargerThanMemoryIsAFailure)
{
    constexpr int LENGTH = 1'000'000; /* 2 MB in the database; its conversion needs another 4 MB */
    constexpr int ENOUGH_TO_READ = 6'000'000;
    store_wide_owner(LENGTH);
    sqlite3_hard_heap_limit64(sqlite3_memory_used() + ENOUGH_TO_READ);
    EXPECT_EQ(select(db_), -1);
    EXPECT_EQ(owner_, "unchanged");
    EXPECT_EQ(errors(), Texts{"Unable to read data from database: out of memory"});
    EXPECT_STREQ(db_.errorText(), "out of memory");
}

TEST_F(SelectRealOwnerTest, InterruptedPauseIsSilentAndAbandonsTheConnection)
{
    run("SELECT * FROM autoresponder"); /* reads the schema, so that only the step needs a lock */
    const std::string seen = with_failing_pauses(db_, [this] {
        Other other(RESPONDER_DB_PATH);
        other.exec("BEGIN EXCLUSIVE");
        return select(db_);
    });
    EXPECT_EQ(seen, "-1, general DB errror, 0 records");
}

class AttachmentCommandTest : public ResponderTest {
protected:
    void TearDown() override
    {
        getpwnam_finds_no_user = false;
        ResponderTest::TearDown();
    }

    static int add() { return add_attach("/etc/passwd", LONG_NAME, "sales@example.org"); }
};

TEST_F(AttachmentCommandTest, MissingMailUserIsReportedWithAnOlderErrorText)
{
    getpwnam_finds_no_user = true;
    EXPECT_EQ(add(), -1);
    EXPECT_EQ(errors(), Texts{"Unable to get uid:gid for popuser: No such file or directory"}); /* of kel.conf */
}

TEST_F(AttachmentCommandTest, RestartWhoseTransactionCannotEndOrBeginIsAFailure)
{
    const std::pair<std::string, int> refusals[] = {{"COMMIT", 1}, {"BEGIN", 2}}; /* the first BEGIN is no restart */
    for (const auto &[refused, number] : refusals) {
        Other writer(RESPONDER_DB_PATH);
        ASSERT_EQ(writer.exec("BEGIN IMMEDIATE"), SQLITE_OK);
        on_prepare = [transaction = refused, last = number, count = 0](sqlite3 *, int action,
                                                                       const std::string &what) mutable {
            const bool refuse = action == SQLITE_TRANSACTION && what == transaction && ++count == last;
            return refuse ? SQLITE_DENY : SQLITE_OK;
        };
        syslog_capture.records.clear();
        EXPECT_EQ(add(), -1);
        const std::string query = refused == "COMMIT" ? "END" : "BEGIN";
        EXPECT_EQ(errors(),
                  Texts{"Unable to prepare SQL statement for query '" + query + " TRANSACTION;': not authorized"});
        on_prepare = nullptr;
    }
    EXPECT_EQ(row_counts(), "2|1|1");
}

TEST_F(AttachmentCommandTest, NameThatCannotBeBoundLeavesACopyWithoutARow)
{
    const std::pair<int, const char *> limits[] = {{SHORTER_THAN_THE_MAIL_NAME, "mailname"},
                                                   {SHORTER_THAN_THE_FILE_NAME, "filename"}};
    for (const auto &[longest, parameter] : limits) {
        limit_texts(longest, SQLITE_INSERT, "attachments");
        syslog_capture.records.clear();
        EXPECT_EQ(add(), -1);
        EXPECT_EQ(errors(), Texts{std::string("Unable to bind parameter ") + parameter + ": string or blob too big"});
        EXPECT_EQ(row_counts(), "2|1|1");
        EXPECT_TRUE(std::filesystem::remove(DIRECTORY + "/" + LONG_NAME));
    }
}

TEST_F(AttachmentCommandTest, MailNameThatCannotBeBoundForDeletionTouchesNothing)
{
    limit_texts(SHORTER_THAN_THE_MAIL_NAME, SQLITE_DELETE, "attachments");
    EXPECT_EQ(del_attach("user@example.org", "old.pdf"), -1);
    EXPECT_EQ(errors(), Texts{"Unable to bind parameter mailname: string or blob too big"});
    EXPECT_EQ(row_counts(), "2|1|1");
    EXPECT_TRUE(old_file_exists());
}

} // namespace
