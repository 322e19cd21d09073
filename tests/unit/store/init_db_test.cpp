#include "store/init_db.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include <dlfcn.h>
#include <libgen.h>

#include <gtest/gtest.h>

#include "tests/unit/store/database_fixture.h"
#include "tests/unit/support/child_process.h"
#include "tests/unit/support/little_memory.h"

namespace {

bool no_dirname = false;

} // namespace

/* The linker takes this for dirname. */
char *dirname_of_some_c_library(char *path) __asm__("dirname");
char *dirname_of_some_c_library(char *path)
{
    using Dirname = char *(char *);
    static const auto real_dirname = reinterpret_cast<Dirname *>(dlsym(RTLD_NEXT, "dirname"));
    if (no_dirname) {
        errno = EINVAL;
        return nullptr;
    }
    return real_dirname(path);
}

namespace {

class InitDbTest : public DatabaseTest {
protected:
    void TearDown() override
    {
        copies_left = AS_MANY_AS_ASKED_FOR;
        no_dirname = false;
        DatabaseTest::TearDown();
    }
};

TEST_F(InitDbTest, DirectoriesAboveTheFileAreMadeAndTheFileIsNot)
{
    EXPECT_EQ(db_make_parent_dir((dir_ / "a/b/test.db").c_str(), "things"), 0);
    EXPECT_TRUE(S_ISDIR(file_status(dir_ / "a/b").st_mode));
    EXPECT_EQ(file_status(dir_ / "a/b/test.db").st_mode, 0U);
}

TEST_F(InitDbTest, DirectoriesThatAreThereAreFine)
{
    EXPECT_EQ(db_make_parent_dir(path_.c_str(), "things"), 0);
    EXPECT_EQ(syslog_capture.records, Records{});
}

TEST_F(InitDbTest, DirectoryThatCannotBeMadeIsCritical)
{
    EXPECT_EQ(db_make_parent_dir((dir_ / "test.db/b/c.db").c_str(), "things"), -1);
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_EQ(syslog_capture.records, (Records{{2, "Unable to create directories for things database (" + dir_.path() +
                                                       "/test.db/b): Not a directory (20)"}}));
}

TEST_F(InitDbTest, PathThatCannotBeCopiedIsCritical)
{
    copies_left = 0;
    EXPECT_EQ(db_make_parent_dir(path_.c_str(), "things"), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(syslog_capture.records, (Records{{2, "Memory allocation error"}}));
}

TEST_F(InitDbTest, PathWithoutADirectoryIsCritical)
{
    no_dirname = true;
    EXPECT_EQ(db_make_parent_dir(path_.c_str(), "things"), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(syslog_capture.records, (Records{{2, "Unable to get dirname for things database (" + dir_.path() +
                                                       "/test.db): Invalid argument (22)"}}));
}

TEST_F(InitDbTest, ScriptIsExecutedAndTheDatabaseClosed)
{
    EXPECT_EQ(db_recreate(path_.c_str(), "BEGIN;CREATE TABLE u (y);COMMIT;", "things"), 0);
    EXPECT_EQ(other_.values("SELECT name FROM sqlite_master"), "t|u");
    EXPECT_EQ(syslog_capture.records, Records{});
}

TEST_F(InitDbTest, ScriptThatFailsIsLoggedWithTheLabelAndKeepsNothing)
{
    EXPECT_EQ(db_recreate(path_.c_str(), "BEGIN;CREATE TABLE u (y);CREATE TABLE t (x);COMMIT;", "things"), -1);
    EXPECT_EQ(syslog_capture.records, (Records{{3, "Unable to re-create things database: table t already exists"}}));
    EXPECT_EQ(other_.values("SELECT name FROM sqlite_master"), "t");
}

TEST_F(InitDbTest, DatabaseThatCannotBeOpenedIsLogged)
{
    EXPECT_EQ(db_recreate(dir_.path().c_str(), "SELECT 1;", "things"), -1);
    EXPECT_EQ(syslog_capture.records,
              (Records{{3, "Unable to open database " + dir_.path() + ": unable to open database file"}}));
}

/* Every connection opened from now on has a statement that keeps it from being closed. */
int keep_open(sqlite3 *db, const char **, const sqlite3_api_routines *)
{
    sqlite3_stmt *lost = nullptr;
    return sqlite3_prepare_v2(db, "SELECT 1", -1, &lost, nullptr);
}

TEST_F(InitDbTest, InterruptedPauseInClosingFailsThoughTheScriptIsDone)
{
    const ChildResult child =
        run_in_child([this] { /* that the connection is lost with */
                              sqlite3_auto_extension(reinterpret_cast<void (*)()>(keep_open));
                              pause_capture.on_pause = interrupted;
                              std::printf("%d", db_recreate(path_.c_str(), "CREATE TABLE u (y);", "things"));
                              std::printf(", %zu records", syslog_capture.records.size());
        });
    EXPECT_EQ(child.out, "-1, 0 records");
    EXPECT_EQ(other_.values("SELECT name FROM sqlite_master"), "t|u");
}

TEST_F(InitDbTest, PermissionsAreNotTouchedWithoutACopyOfThePath)
{
    chmod(path_.c_str(), 0640);
    copies_left = 0;
    EXPECT_EQ(fix_responder_db_permissions(path_.c_str()), -1);
    EXPECT_EQ(syslog_capture.records, (Records{{3, "Unable to fix '" + path_ +
                                                       "' permissions. Failed to get directory path: "
                                                       "Cannot allocate memory (12)"}}));
    EXPECT_EQ(permissions(path_), 0640U);
    EXPECT_EQ(file_status(path_).st_uid, 0U);
}

TEST_F(InitDbTest, DirectoryAndFileGoToTheMailUser)
{
    EXPECT_EQ(fix_responder_db_permissions(path_.c_str()), 0);
    EXPECT_EQ(permissions(dir_.path()), 0755U);
    EXPECT_EQ(file_status(dir_.path()).st_uid, 1110U);
    EXPECT_EQ(file_status(dir_.path()).st_gid, 0U);
    EXPECT_EQ(permissions(path_), 0600U);
    EXPECT_EQ(file_status(path_).st_uid, 1110U);
    EXPECT_EQ(file_status(path_).st_gid, 31U);
}

TEST_F(InitDbTest, OwnerIsSetBeforeTheMode)
{
    EXPECT_EQ(set_owner_and_mode(path_.c_str(), 1234, 5678, 04755),
              0); /* a chown would take the set-user-id bit away */
    EXPECT_EQ(permissions(path_), 04755U);
    EXPECT_EQ(file_status(path_).st_uid, 1234U);
    EXPECT_EQ(file_status(path_).st_gid, 5678U);
}

TEST_F(InitDbTest, FailuresOfOwnerAndModeAreLoggedEach)
{
    EXPECT_EQ(set_owner_and_mode((dir_ / "missing").c_str(), 1234, 5678, 0640), -1);
    EXPECT_EQ(syslog_capture.records, (Records{{3, "Unable to change owner/group of '" + dir_.path() +
                                                       "/missing' to 1234/5678: No such file or directory (2)"},
                                               {3, "Unable to change permissions of '" + dir_.path() +
                                                       "/missing' to 0640: No such file or directory (2)"}}));
}

} // namespace
