#include "store/init_db.h"

#include <cerrno>
#include <string>

#include <dlfcn.h>
#include <libgen.h>

#include <gtest/gtest.h>

#include "tests/unit/store/database_fixture.h"
#include "tests/unit/support/little_memory.h"

namespace {

bool dirname_fails = false;

} // namespace

/* The linker resolves dirname to this. */
char *replaced_dirname(char *path) __asm__("dirname");
char *replaced_dirname(char *path)
{
    using Dirname = char *(char *);
    static const auto real_dirname = reinterpret_cast<Dirname *>(dlsym(RTLD_NEXT, "dirname"));
    if (dirname_fails) {
        errno = EINVAL;
        return nullptr;
    }
    return real_dirname(path);
}

namespace {

class InitDbTest : public DatabaseTest {
protected:
    using Records = std::vector<SyslogRecord>;

    void TearDown() override
    {
        copies_left = AS_MANY_AS_ASKED_FOR;
        dirname_fails = false;
        DatabaseTest::TearDown();
    }

    /* Expects that the directory of `path` cannot be made, with that error and that one record. */
    void expect_no_parent_dir(const std::string &path, int error, const std::string &text)
    {
        EXPECT_EQ(db_make_parent_dir(path.c_str(), "things"), -1);
        EXPECT_EQ(errno, error);
        EXPECT_EQ(syslog_capture.records, (Records{{LOG_CRIT, text}}));
    }

    void expect_owner_and_mode(const std::string &path, uid_t uid, gid_t gid, unsigned mode)
    {
        EXPECT_EQ(file_status(path).st_uid, uid);
        EXPECT_EQ(file_status(path).st_gid, gid);
        EXPECT_EQ(permissions(path), mode);
    }
};

TEST_F(InitDbTest, DirectoriesAboveTheFileAreMadeAndTheFileIsNot)
{
    for (int existing = 0; existing < 2; ++existing)
        EXPECT_EQ(db_make_parent_dir((dir_ / "a/b/test.db").c_str(), "things"), 0);
    EXPECT_TRUE(S_ISDIR(file_status(dir_ / "a/b").st_mode));
    EXPECT_EQ(file_status(dir_ / "a/b/test.db").st_mode, 0U);
    EXPECT_EQ(syslog_capture.records, Records{});
}

TEST_F(InitDbTest, DirectoryThatCannotBeMadeIsCritical)
{
    expect_no_parent_dir(dir_ / "test.db/b/c.db", ENOTDIR,
                         "Unable to create directories for things database (" + dir_.path() +
                             "/test.db/b): Not a directory (20)");
}

TEST_F(InitDbTest, PathThatCannotBeCopiedIsCritical)
{
    copies_left = 0;
    expect_no_parent_dir(path_, ENOMEM, "Memory allocation error");
}

TEST_F(InitDbTest, PathWithoutADirectoryIsCritical)
{
    dirname_fails = true;
    expect_no_parent_dir(path_, EINVAL,
                         "Unable to get dirname for things database (" + path_ + "): Invalid argument (22)");
}

TEST_F(InitDbTest, FailedScriptIsLoggedWithTheLabelAndKeepsNothing)
{
    EXPECT_EQ(db_recreate(path_.c_str(), "BEGIN;CREATE TABLE u (y);CREATE TABLE t (x);COMMIT;", "things"), -1);
    EXPECT_EQ(errors(), Texts{"Unable to re-create things database: table t already exists"});
    EXPECT_EQ(other_.values("SELECT name FROM sqlite_master"), "t");
}

TEST_F(InitDbTest, InterruptedPauseInClosingFailsThoughTheScriptIsDone)
{
    const std::string seen = with_failing_pauses(db_, [this] {
        keep_connections_open();
        return db_recreate(path_.c_str(), "CREATE TABLE u (y);", "things");
    });
    EXPECT_EQ(seen, "-1, not an error, 0 records");
    EXPECT_EQ(other_.values("SELECT name FROM sqlite_master"), "t|u");
}

TEST_F(InitDbTest, PermissionsAreNotTouchedWithoutACopyOfThePath)
{
    chmod(path_.c_str(), 0640);
    copies_left = 0;
    EXPECT_EQ(fix_responder_db_permissions(path_.c_str()), -1);
    EXPECT_EQ(errors(), Texts{"Unable to fix '" + path_ +
                              "' permissions. Failed to get directory path: "
                              "Cannot allocate memory (12)"});
    expect_owner_and_mode(path_, 0, 0, 0640);
}

TEST_F(InitDbTest, DirectoryAndFileAreGivenToTheMailUser)
{
    EXPECT_EQ(fix_responder_db_permissions(path_.c_str()), 0);
    expect_owner_and_mode(dir_.path(), 1110, 0, 0755);
    expect_owner_and_mode(path_, 1110, 31, 0600);
}

TEST_F(InitDbTest, PipeInThePlaceOfTheFileIsNotWaitedFor)
{
    unlink(path_.c_str());
    ASSERT_EQ(mkfifo(path_.c_str(), 0640), 0);
    EXPECT_EQ(set_owner_and_mode(path_.c_str(), 1234, 5678, 0640), 0);
    expect_owner_and_mode(path_, 1234, 5678, 0640);
    EXPECT_EQ(fix_responder_db_permissions(path_.c_str()), 0);
    expect_owner_and_mode(path_, 1110, 31, 0600);
}

TEST_F(InitDbTest, OwnerIsSetBeforeTheMode)
{
    EXPECT_EQ(set_owner_and_mode(path_.c_str(), 1234, 5678, 04755), 0); /* chown clears the set-user-id bit */
    expect_owner_and_mode(path_, 1234, 5678, 04755);
}

TEST_F(InitDbTest, FailuresOfOwnerAndModeAreLoggedEach)
{
    EXPECT_EQ(set_owner_and_mode((dir_ / "missing").c_str(), 1234, 5678, 0640), -1);
    EXPECT_EQ(errors(), (Texts{"Unable to change owner/group of '" + dir_.path() +
                                   "/missing' to 1234/5678: No such file or directory (2)",
                               "Unable to change permissions of '" + dir_.path() +
                                   "/missing' to 0640: No such file or directory (2)"}));
}

} // namespace
