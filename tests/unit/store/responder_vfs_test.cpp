#include "store/responder_vfs.h"

#include <climits>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/unit/store/database_fixture.h"
#include "tests/unit/support/failing_calls.h"

using namespace arsp;

namespace {

constexpr char MAGIC[] = "\xd9\xd5\x05\xf9\x20\xa1\x63\xd7";

std::string big_endian(unsigned number)
{
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes += static_cast<char>(number >> shift);
    return bytes;
}

/* A rollback journal that changes nothing in a database of `pages` pages and names a super-journal: a file that SQLite
 * deletes after it has played the journal back. */
std::string hot_journal(unsigned pages, const std::string &super_journal)
{
    std::string journal =
        MAGIC + big_endian(0) + big_endian(0) + big_endian(pages) + big_endian(512) + big_endian(4096);
    journal.resize(512);
    unsigned sum = 0;
    for (const char byte : super_journal)
        sum += static_cast<unsigned char>(byte);
    return journal + big_endian(0x40000000 / 4096 + 1) + super_journal +
           big_endian(static_cast<unsigned>(super_journal.size())) + big_endian(sum) + MAGIC;
}

int registered_vfs_count()
{
    int count = 0;
    for (const sqlite3_vfs *vfs = sqlite3_vfs_find(nullptr); vfs != nullptr; vfs = vfs->pNext)
        ++count;
    return count;
}

/* A second connection is open at the same time, to another database. */
class ResponderVfsTest : public DatabaseTest {
protected:
    void SetUp() override
    {
        DatabaseTest::SetUp();
        ASSERT_EQ(second_other_.exec("CREATE TABLE t (x)"), SQLITE_OK);
        ASSERT_EQ(second_db_.open(second_path_.c_str()), 0);
    }

    /* Plants a journal that names `super_journal` and lets SQLite play it back. */
    void play_back(const std::string &super_journal)
    {
        dir_.file("test.db-journal", hot_journal(2, super_journal));
        run("INSERT INTO t VALUES (1)");
        EXPECT_FALSE(exists("test.db-journal"));
    }

    bool exists(const std::string &name) const { return file_status(dir_ / name).st_mode != 0; }

    const std::string second_path_ = dir_ / "second.db";
    Other second_other_{second_path_};
    ResponderDb second_db_;
};

TEST_F(ResponderVfsTest, EachConnectionDeletesItsOwnJournal)
{
    EXPECT_EQ(db_.begin(), 0);
    EXPECT_EQ(second_db_.begin(), 0);
    run("INSERT INTO t VALUES (1)");
    EXPECT_EQ(second_db_.exec("INSERT INTO t VALUES (2)", message_), SQLITE_OK);
    EXPECT_TRUE(exists("test.db-journal") && exists("second.db-journal"));
    EXPECT_EQ(db_.end(), 0);
    EXPECT_EQ(second_db_.end(), 0);
    EXPECT_FALSE(exists("test.db-journal") || exists("second.db-journal"));
    EXPECT_EQ(other_.values("SELECT x FROM t"), "1");
    EXPECT_EQ(second_other_.values("SELECT x FROM t"), "2");
}

TEST_F(ResponderVfsTest, PlantedJournalDoesNotDeleteTheJournalOfAnotherConnection)
{
    EXPECT_EQ(second_db_.begin(), 0);
    EXPECT_EQ(second_db_.exec("INSERT INTO t VALUES (2)", message_), SQLITE_OK);
    play_back(second_path_ + "-journal");
    EXPECT_TRUE(exists("second.db-journal"));
    EXPECT_EQ(second_db_.end(), 0);
    EXPECT_EQ(second_other_.values("SELECT x FROM t"), "2");
}

TEST_F(ResponderVfsTest, PlantedJournalDeletesNoFileWhoseNameBeginsLikeTheDatabase)
{
    dir_.file("test.db-journal-of-mine", "mine"); /* SQLite ignores empty files */
    play_back(path_ + "-journal-of-mine");
    EXPECT_TRUE(exists("test.db-journal-of-mine"));
}

TEST_F(ResponderVfsTest, ConnectionsOfTheSameFileEachDeleteItsJournal)
{
    ResponderDb twin;
    ASSERT_EQ(twin.open(path_.c_str()), 0);
    EXPECT_EQ(twin.exec("INSERT INTO t VALUES (1)", message_), SQLITE_OK);
    EXPECT_FALSE(exists("test.db-journal"));
    EXPECT_EQ(twin.close(), 0);
    run("INSERT INTO t VALUES (2)");
    EXPECT_FALSE(exists("test.db-journal"));
}

TEST_F(ResponderVfsTest, ConnectionsUnregisterTheirVfs)
{
    const int before = registered_vfs_count();
    {
        ResponderDb db;
        db.open(path_.c_str());
        EXPECT_EQ(registered_vfs_count(), before + 1);
        db.close();
        EXPECT_EQ(registered_vfs_count(), before);
        EXPECT_EQ(db.open((dir_ / "missing/test.db").c_str()), -1);
        EXPECT_EQ(registered_vfs_count(), before);
        db.open(path_.c_str());
        db.open(second_path_.c_str());
        EXPECT_EQ(registered_vfs_count(), before + 1);
    }
    EXPECT_EQ(registered_vfs_count(), before);
}

TEST_F(ResponderVfsTest, WithoutADefaultVfsOpeningFails)
{
    sqlite3_vfs *first = sqlite3_vfs_find(nullptr);
    std::vector<sqlite3_vfs *> all;
    for (sqlite3_vfs *vfs = first; vfs != nullptr; vfs = sqlite3_vfs_find(nullptr)) {
        all.push_back(vfs);
        sqlite3_vfs_unregister(vfs);
    }
    ResponderDb db;
    EXPECT_EQ(db.open(path_.c_str()), -1);
    EXPECT_EQ(errors(), Texts{"Unable to open database " + path_ + ": general DB errror"});
    for (sqlite3_vfs *vfs : all)
        sqlite3_vfs_register(vfs, vfs == first ? 1 : 0);
}

TEST_F(ResponderVfsTest, ResolvedPathThatDoesNotFitIsAnError)
{
    const ResponderVfs responder_vfs;
    sqlite3_vfs *vfs = sqlite3_vfs_find(responder_vfs.name());
    char resolved[] = "0123456";
    EXPECT_EQ(vfs->xFullPathname(vfs, "/123.db", sizeof resolved, resolved), SQLITE_OK);
    EXPECT_STREQ(resolved, "/123.db");
    EXPECT_EQ(vfs->xFullPathname(vfs, "/1234.db", sizeof resolved, resolved), SQLITE_CANTOPEN);
}

TEST_F(ResponderVfsTest, LinkThatCannotBeReadIsNotOpened)
{
    const std::string link = dir_ / "link.db";
    std::filesystem::create_symlink("test.db", link);
    const int results[] = {-1, -1, 0}; /* the link, its target, the database, which SQLite examines again */
    for (int calls = 0; calls < 3; ++calls) {
        calls_before_failure = calls;
        EXPECT_EQ(second_db_.open(link.c_str()), results[calls]) << calls;
    }
}

TEST_F(ResponderVfsTest, PathLongerThanTheKernelAllowsIsNotOpened)
{
    std::string target = "new.db";
    while (target.size() < PATH_MAX - 2)
        target.insert(0, "./");
    const std::string link = dir_ / "link.db";
    std::filesystem::create_symlink(target, link);
    EXPECT_EQ(second_db_.open(link.c_str()), -1);
    EXPECT_EQ(second_db_.open((std::string(PATH_MAX - link.size(), '/') + link).c_str()), -1);
}

TEST_F(ResponderVfsTest, PathWhoseLinksLeadToALongerOneIsNotOpened)
{
    std::string deep = dir_.path();
    while (deep.size() < PATH_MAX - 257)
        deep += "/" + std::string(250, 'x');
    std::filesystem::create_directories(deep);
    std::filesystem::create_symlink(deep, dir_ / "deep");
    const ResponderVfs responder_vfs;
    sqlite3_vfs *vfs = sqlite3_vfs_find(responder_vfs.name());
    char resolved[2 * PATH_MAX];
    const auto result = [&](std::size_t length) {
        return vfs->xFullPathname(vfs, (dir_ / "deep/" + std::string(length, 'x')).c_str(), sizeof resolved, resolved);
    };
    EXPECT_EQ(result(PATH_MAX - 2 - deep.size()), SQLITE_OK);
    EXPECT_EQ(result(PATH_MAX - 1 - deep.size()), SQLITE_CANTOPEN);
}

TEST_F(ResponderVfsTest, RelativePathIsOpened)
{
    std::filesystem::current_path(dir_.path());
    ResponderDb db;
    EXPECT_EQ(db.open("test.db"), 0);
    EXPECT_EQ(db.exec("INSERT INTO t VALUES (1)", message_), SQLITE_OK);
    EXPECT_FALSE(exists("test.db-journal"));
    std::filesystem::current_path("/");
}

} // namespace
