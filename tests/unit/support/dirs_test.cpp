#include "support/dirs.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>

#include <dirent.h>
#include <dlfcn.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/unit/support/child_process.h"
#include "tests/unit/support/little_memory.h"
#include "tests/unit/support/scratch_dir.h"

namespace {

int shown_entry_type = -1; /* what readdir says of every entry; -1: the truth */

} // namespace

/* The linker takes this for readdir. */
dirent *readdir_of_some_file_system(DIR *dir) __asm__("readdir");
dirent *readdir_of_some_file_system(DIR *dir)
{
    using Read = dirent *(DIR *);
    static const auto real_readdir = reinterpret_cast<Read *>(dlsym(RTLD_NEXT, "readdir"));
    dirent *entry = real_readdir(dir);
    if (entry != nullptr && shown_entry_type != -1)
        entry->d_type = static_cast<unsigned char>(shown_entry_type);
    return entry;
}

namespace {

/* "mode owner:group", or "nothing". */
std::string owned(const std::string &path)
{
    const struct stat status = file_status(path);
    if (status.st_mode == 0)
        return "nothing";
    char text[64] = "";
    std::snprintf(text, sizeof text, "%o %u:%u", status.st_mode & 07777U, status.st_uid, status.st_gid);
    return text;
}

bool is_dir(const std::string &path)
{
    return S_ISDIR(file_status(path).st_mode);
}

class DirsTest : public testing::Test {
protected:
    /* The paths given to what makes whole trees are relative, or absolute in a root of their own: these tests run as
     * root, and a mistake in the code under test must not reach the directories above the scratch directory. */
    void SetUp() override
    {
        old_umask_ = umask(022);
        std::filesystem::current_path(dir_.path());
    }
    void TearDown() override
    {
        umask(old_umask_);
        std::filesystem::current_path("/");
    }

    void make_dir(const std::string &name, mode_t mode = 0755) { EXPECT_EQ(mkdir((dir_ / name).c_str(), mode), 0); }

    /* Whether a call in a child, whose root is the scratch directory, returns that result. */
    template <typename Call>
    void expect_in_root(int result, Call call)
    {
        const ChildResult child = run_in_child([&] {
            if (chroot(dir_.path().c_str()) != 0 || chdir("/") != 0)
                _exit(99);
            _exit(call() == result ? 7 : 8);
        });
        EXPECT_EQ(child.exit_status, 7);
    }

    ScratchDir dir_;

private:
    mode_t old_umask_ = 0;
};

class CreateDirTreeTest : public DirsTest {};

TEST_F(CreateDirTreeTest, EveryDirectoryMadeGetsOwnerAndExactMode)
{
    EXPECT_EQ(create_dir_tree("a/b/c", 1234, 5678, 0700), 0);
    EXPECT_EQ(owned(dir_ / "a"), "700 1234:5678");
    EXPECT_EQ(owned(dir_ / "a/b"), "700 1234:5678");
    EXPECT_EQ(owned(dir_ / "a/b/c"), "700 1234:5678");
}

TEST_F(CreateDirTreeTest, UmaskTakesNothingFromTheMode)
{
    umask(0777);
    EXPECT_EQ(create_dir_tree("a/b", 0, 0, 0777), 0);
    EXPECT_EQ(owned(dir_ / "a"), "777 0:0");
    EXPECT_EQ(owned(dir_ / "a/b"), "777 0:0");
}

TEST_F(CreateDirTreeTest, UmaskIsTheOldOneAfterwards)
{
    umask(027);
    create_dir_tree("a", 0, 0, 0700);
    EXPECT_EQ(umask(0), 027U);
}

TEST_F(CreateDirTreeTest, ExistingDirectoriesStayAsTheyAre)
{
    make_dir("a", 0711);
    make_dir("a/b", 0750);
    EXPECT_EQ(create_dir_tree("a/b", 1234, 5678, 0700), 0);
    EXPECT_EQ(owned(dir_ / "a"), "711 0:0");
    EXPECT_EQ(owned(dir_ / "a/b"), "750 0:0");
}

TEST_F(CreateDirTreeTest, OnlyMissingDirectoriesAreMade)
{
    make_dir("a", 0711);
    EXPECT_EQ(create_dir_tree("a/b", 1234, 5678, 0700), 0);
    EXPECT_EQ(owned(dir_ / "a"), "711 0:0");
    EXPECT_EQ(owned(dir_ / "a/b"), "700 1234:5678");
}

TEST_F(CreateDirTreeTest, SpecialBitsAreForTheLastDirectoryOnly)
{
    EXPECT_EQ(create_dir_tree("a/b", 1234, 5678, 01755), 0);
    EXPECT_EQ(owned(dir_ / "a"), "755 1234:5678");
    EXPECT_EQ(owned(dir_ / "a/b"), "1755 1234:5678");
}

TEST_F(CreateDirTreeTest, RepeatedAndTrailingSlashesAreHarmless)
{
    EXPECT_EQ(create_dir_tree("a//b///", 1234, 5678, 0700), 0);
    EXPECT_EQ(owned(dir_ / "a/b"), "700 1234:5678");
}

TEST_F(CreateDirTreeTest, AbsolutePathIsMadeFromTheRoot)
{
    expect_in_root(0, [] { return create_dir_tree("/a/b", 1234, 5678, 0700); });
    EXPECT_EQ(owned(dir_ / "a"), "700 1234:5678");
    EXPECT_EQ(owned(dir_ / "a/b"), "700 1234:5678");
    expect_in_root(0, [] { return create_dir_tree("//c", 1234, 5678, 0700); });
    EXPECT_EQ(owned(dir_ / "c"), "700 1234:5678");
}

TEST_F(CreateDirTreeTest, RootExists)
{
    expect_in_root(0, [] { return create_dir_tree("/", 1234, 5678, 0700); });
    EXPECT_EQ(owned(dir_.path()), "755 0:0");
}

TEST_F(CreateDirTreeTest, FileAtTheEndOfThePathIsLeftAsItIs)
{
    dir_.file("file");
    EXPECT_EQ(create_dir_tree("file", 1234, 5678, 0700), 0);
    EXPECT_EQ(owned(dir_ / "file"), "644 0:0");
}

TEST_F(CreateDirTreeTest, FileInThePathEndsTheProcess)
{
    dir_.file("file");
    const ChildResult child = run_in_child([] {
        create_dir_tree("file/a/b", 1234, 5678, 0700);
        _exit(7);
    });
    EXPECT_EQ(child.exit_status, 1);
    EXPECT_EQ(child.err, "Cannot create directory file/a: Not a directory\nSystem error 20: Not a directory\n");
    EXPECT_EQ(child.out, child.err);
}

TEST_F(CreateDirTreeTest, EmptyPathEndsTheProcess)
{
    const ChildResult child = run_in_child([] { create_dir_tree("", 1234, 5678, 0700); });
    EXPECT_EQ(child.exit_status, 1);
    EXPECT_EQ(child.err, "Cannot create directory : No such file or directory\n"
                         "System error 2: No such file or directory\n");
}

TEST_F(CreateDirTreeTest, DirectoryThatCanNotBeGivenAwayIsReportedAndTheWorkGoesOn)
{
    EXPECT_EQ(chown(dir_.path().c_str(), NOBODY, NOBODY), 0);
    const ChildResult child = run_in_child([] {
        become_nobody();
        _exit(create_dir_tree("a/b", 0, 0, 0700) == 0 ? 7 : 8);
    });
    EXPECT_EQ(child.exit_status, 7);
    EXPECT_EQ(child.err, "Cannot chown a: Operation not permitted\nSystem error 1: Operation not permitted\n"
                         "Cannot chown a/b: Operation not permitted\nSystem error 1: Operation not permitted\n");
    EXPECT_EQ(child.out, child.err);
    EXPECT_EQ(owned(dir_ / "a/b"), "700 65534:65534");
}

class MkdirPTest : public DirsTest {};

TEST_F(MkdirPTest, MakesEveryMissingDirectory)
{
    EXPECT_EQ(mkdir_p("a/b/c"), 1);
    EXPECT_TRUE(is_dir(dir_ / "a/b/c"));
}

TEST_F(MkdirPTest, ModeIs0755LessTheUmask)
{
    umask(0);
    EXPECT_EQ(mkdir_p("a"), 1);
    EXPECT_EQ(permissions(dir_ / "a"), 0755U);
    umask(027);
    EXPECT_EQ(mkdir_p("b/c"), 1);
    EXPECT_EQ(permissions(dir_ / "b"), 0750U);
    EXPECT_EQ(permissions(dir_ / "b/c"), 0750U);
}

TEST_F(MkdirPTest, ExistingDirectoriesStayAsTheyAre)
{
    make_dir("a", 0711);
    EXPECT_EQ(mkdir_p("a"), 1);
    EXPECT_EQ(owned(dir_ / "a"), "711 0:0");
}

TEST_F(MkdirPTest, RepeatedAndTrailingSlashesAreHarmless)
{
    EXPECT_EQ(mkdir_p("a///b//"), 1);
    EXPECT_TRUE(is_dir(dir_ / "a/b"));
    EXPECT_EQ(mkdir_p("c/"), 1);
    EXPECT_TRUE(is_dir(dir_ / "c"));
}

TEST_F(MkdirPTest, AbsolutePathIsMadeFromTheRoot)
{
    expect_in_root(1, [] { return mkdir_p("/a/b"); });
    EXPECT_TRUE(is_dir(dir_ / "a/b"));
    expect_in_root(1, [] { return mkdir_p("//c//d/"); });
    EXPECT_TRUE(is_dir(dir_ / "c/d"));
}

TEST_F(MkdirPTest, RootExists)
{
    expect_in_root(1, [] { return mkdir_p("/"); });
}

TEST_F(MkdirPTest, LinkToADirectoryIsOne)
{
    make_dir("real");
    EXPECT_EQ(symlink("real", (dir_ / "link").c_str()), 0);
    EXPECT_EQ(mkdir_p("link/a"), 1);
    EXPECT_TRUE(is_dir(dir_ / "real/a"));
}

TEST_F(MkdirPTest, FileInThePathIsNoDirectory)
{
    dir_.file("file");
    errno = 0;
    EXPECT_EQ(mkdir_p("file/a"), 0);
    EXPECT_EQ(errno, ENOTDIR);
    errno = 0;
    EXPECT_EQ(mkdir_p("file"), 0);
    EXPECT_EQ(errno, ENOTDIR);
}

TEST_F(MkdirPTest, FailureToMakeADirectoryIsTold)
{
    EXPECT_EQ(symlink("nowhere", (dir_ / "link").c_str()), 0);
    errno = 0;
    EXPECT_EQ(mkdir_p("link/a"), 0); /* stat finds nothing there, mkdir finds the link */
    EXPECT_EQ(errno, EEXIST);
    errno = 0;
    EXPECT_EQ(mkdir_p(""), 0);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(MkdirPTest, FailureToLookIsTold)
{
    EXPECT_EQ(symlink("loop", (dir_ / "loop").c_str()), 0);
    errno = 0;
    EXPECT_EQ(mkdir_p("loop/a"), 0);
    EXPECT_EQ(errno, ELOOP);
}

TEST_F(MkdirPTest, WithoutMemoryForThePathNothingIsMade)
{
    copies_left = 0;
    errno = 0;
    EXPECT_EQ(mkdir_p("a/b"), 0);
    EXPECT_EQ(errno, ENOMEM);
    copies_left = AS_MANY_AS_ASKED_FOR;
    EXPECT_FALSE(std::filesystem::exists(dir_ / "a"));
}

TEST_F(MkdirPTest, NothingIsPrinted)
{
    dir_.file("file");
    const ChildResult child = run_in_child([] { mkdir_p("file/a"); });
    EXPECT_EQ(child.out, "");
    EXPECT_EQ(child.err, "");
}

class MkdirChownChmodTest : public DirsTest {
protected:
    /* What a call prints; it must fail and print it on both streams. */
    std::string failure(const std::string &path, uid_t uid, gid_t gid)
    {
        const ChildResult child = run_in_child([&] {
            if (file_status(dir_.path()).st_uid == NOBODY)
                become_nobody();
            _exit(mkdir_chown_chmod(path.c_str(), uid, gid, 0700) == -1 && errno != 0 ? 7 : 8);
        });
        EXPECT_EQ(child.exit_status, 7);
        EXPECT_EQ(child.out, child.err);
        return child.err;
    }
};

TEST_F(MkdirChownChmodTest, NewDirectoryGetsOwnerAndMode)
{
    EXPECT_EQ(mkdir_chown_chmod((dir_ / "a").c_str(), 1234, 5678, 0777), 0);
    EXPECT_EQ(owned(dir_ / "a"), "777 1234:5678");
}

TEST_F(MkdirChownChmodTest, ExistingDirectoryGetsOwnerAndMode)
{
    make_dir("a", 0711);
    EXPECT_EQ(mkdir_chown_chmod((dir_ / "a").c_str(), 1234, 5678, 0700), 0);
    EXPECT_EQ(owned(dir_ / "a"), "700 1234:5678");
}

TEST_F(MkdirChownChmodTest, WhatVanishedMeanwhileIsNoFailure)
{
    EXPECT_EQ(symlink("nowhere", (dir_ / "link").c_str()), 0); /* mkdir finds it, chown and chmod do not */
    EXPECT_EQ(mkdir_chown_chmod((dir_ / "link").c_str(), 1234, 5678, 0700), 0);
}

TEST_F(MkdirChownChmodTest, FailedMkdirIsPrinted)
{
    EXPECT_EQ(failure(dir_ / "a/b", 1234, 5678),
              "ERROR: Unable to mkdir " + dir_ / "a/b" +
                  ": No such file or directory\n\nSystem error 2: No such file or directory\n");
}

TEST_F(MkdirChownChmodTest, FailedChownIsPrinted)
{
    EXPECT_EQ(chown(dir_.path().c_str(), NOBODY, NOBODY), 0);
    EXPECT_EQ(failure(dir_ / "a", 0, 0), "ERROR: Unable to chown " + dir_ / "a" +
                                             ": Operation not permitted\n\nSystem error 1: Operation not permitted\n");
}

TEST_F(MkdirChownChmodTest, FailedChmodIsPrinted)
{
    make_dir("a");
    EXPECT_EQ(chown(dir_.path().c_str(), NOBODY, NOBODY), 0);
    /* A chown that changes neither id is open to everyone, a chmod is not. */
    EXPECT_EQ(failure(dir_ / "a", static_cast<uid_t>(-1), static_cast<gid_t>(-1)),
              "ERROR: Unable to chmod " + dir_ / "a" +
                  ": Operation not permitted\n\nSystem error 1: Operation not permitted\n");
}

class RenameDirTest : public DirsTest {};

TEST_F(RenameDirTest, DirectoryGetsTheNewName)
{
    make_dir("a", 0711);
    EXPECT_EQ(rename_dir((dir_ / "a").c_str(), (dir_ / "b").c_str()), 0);
    EXPECT_EQ(owned(dir_ / "a"), "nothing");
    EXPECT_EQ(owned(dir_ / "b"), "711 0:0");
}

TEST_F(RenameDirTest, WithoutASourceThereIsNothingToDo)
{
    make_dir("b");
    const ChildResult child =
        run_in_child([this] { _exit(rename_dir((dir_ / "a").c_str(), (dir_ / "b").c_str()) == 0 ? 7 : 8); });
    EXPECT_EQ(child.exit_status, 7);
    EXPECT_EQ(child.err, "");
}

TEST_F(RenameDirTest, ExistingTargetIsPrintedWithAnEarlierError)
{
    make_dir("a");
    make_dir("b");
    const std::string message = "Directory rename error: target directory " + dir_ / "b" + " already exists.\n";
    const auto printed = [this](int error) {
        const ChildResult child = run_in_child([&] {
            errno = error;
            _exit(rename_dir((dir_ / "a").c_str(), (dir_ / "b").c_str()) == -1 ? 7 : 8);
        });
        EXPECT_EQ(child.exit_status, 7);
        EXPECT_EQ(child.out, child.err);
        return child.err;
    };
    EXPECT_EQ(printed(0), message);
    EXPECT_EQ(printed(EIO), message + "\nSystem error 5: Input/output error\n");
    EXPECT_TRUE(is_dir(dir_ / "a"));
}

TEST_F(RenameDirTest, FailedRenameIsPrinted)
{
    make_dir("a");
    const std::string into_itself = dir_ / "a/b";
    const ChildResult child = run_in_child(
        [&] { _exit(rename_dir((dir_ / "a").c_str(), into_itself.c_str()) == -1 && errno == EINVAL ? 7 : 8); });
    EXPECT_EQ(child.exit_status, 7);
    EXPECT_EQ(child.err, "Remaming " + dir_ / "a" + " to " + into_itself +
                             " failed: Invalid argument\n\nSystem error 22: Invalid argument\n");
    EXPECT_EQ(child.out, child.err);
}

class FindDirEntryTest : public DirsTest {
protected:
    void TearDown() override
    {
        shown_entry_type = -1;
        DirsTest::TearDown();
    }

    /* The name found, or the text of errno. */
    std::string find(std::string name, mode_t type = 0, int check = 0)
    {
        errno = 0;
        return find_dir_entry(dir_.path().c_str(), name.data(), type, check) == 0 ? name : std::strerror(errno);
    }
};

TEST_F(FindDirEntryTest, NameBecomesWhatTheDirectoryCallsIt)
{
    dir_.file("ReadMe.TXT");
    EXPECT_EQ(find("readme.txt"), "ReadMe.TXT");
    EXPECT_EQ(find("README.TXT"), "ReadMe.TXT");
}

TEST_F(FindDirEntryTest, WhatIsNotThereIsToldByErrno)
{
    dir_.file("readme");
    EXPECT_EQ(find("readm"), "No such file or directory");
    EXPECT_EQ(find("readme2"), "No such file or directory");
}

TEST_F(FindDirEntryTest, NameThatIsNotFoundIsLeftAlone)
{
    dir_.file("other");
    char name[] = "readme";
    EXPECT_EQ(find_dir_entry(dir_.path().c_str(), name, 0, 0), -1);
    EXPECT_STREQ(name, "readme");
}

TEST_F(FindDirEntryTest, OnlyTheBytesOfTheNameAreOverwritten)
{
    dir_.file("ABC");
    char name[] = "abc\0def";
    EXPECT_EQ(find_dir_entry(dir_.path().c_str(), name, 0, 0), 0);
    EXPECT_EQ(std::string(name, sizeof name), std::string("ABC\0def\0", 8));
}

TEST_F(FindDirEntryTest, DirectoryThatCanNotBeOpenedIsToldByErrno)
{
    char name[] = "readme";
    EXPECT_EQ(find_dir_entry((dir_ / "missing").c_str(), name, 0, 0), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(find_dir_entry(dir_.file("file").c_str(), name, 0, 0), -1);
    EXPECT_EQ(errno, ENOTDIR);
}

TEST_F(FindDirEntryTest, EntryOfAnotherTypeIsPassedOver)
{
    make_dir("ENTRY");
    EXPECT_EQ(find("entry", S_IFREG), "No such file or directory");
    EXPECT_EQ(find("entry", S_IFDIR), "ENTRY");
    dir_.file("Entry");
    EXPECT_EQ(find("entry", S_IFREG), "Entry");
    EXPECT_EQ(find("entry", S_IFDIR), "ENTRY");
}

TEST_F(FindDirEntryTest, EveryFileTypeIsTold)
{
    dir_.file("x0");
    make_dir("x1");
    EXPECT_EQ(mkfifo((dir_ / "x2").c_str(), 0600), 0);
    EXPECT_EQ(symlink("nowhere", (dir_ / "x3").c_str()), 0);
    EXPECT_EQ(mknod((dir_ / "x4").c_str(), S_IFSOCK | 0600, 0), 0);
    EXPECT_EQ(mknod((dir_ / "x5").c_str(), S_IFCHR | 0600, 0), 0); /* 0:0, which no driver has: only the type counts */
    const mode_t types[] = {S_IFREG, S_IFDIR, S_IFIFO, S_IFLNK, S_IFSOCK, S_IFCHR};
    for (size_t entry = 0; entry < std::size(types); ++entry) {
        const std::string name = {'x', static_cast<char>('0' + entry)};
        for (size_t type = 0; type < std::size(types); ++type)
            EXPECT_EQ(find(name, types[type]), entry == type ? name : "No such file or directory");
        EXPECT_EQ(find(name, S_IFBLK), "No such file or directory");
    }
}

TEST_F(FindDirEntryTest, BlockDeviceIsTold)
{
    dir_.file("ENTRY");
    shown_entry_type = DT_BLK; /* not every machine that tests may make one */
    EXPECT_EQ(find("entry", S_IFBLK), "ENTRY");
    EXPECT_EQ(find("entry", S_IFREG), "No such file or directory");
}

TEST_F(FindDirEntryTest, WhatIsNoFileTypeMeansAnyType)
{
    make_dir("ENTRY");
    for (const mode_t type : {mode_t{0}, mode_t{0644}, mode_t{S_IFREG | 0644}, mode_t{S_IFMT}})
        EXPECT_EQ(find("entry", type), "ENTRY") << type;
}

TEST_F(FindDirEntryTest, UncheckedUnknownTypeIsTheWantedOne)
{
    make_dir("ENTRY");
    shown_entry_type = DT_UNKNOWN;
    EXPECT_EQ(find("entry", S_IFREG, 0), "ENTRY");
}

TEST_F(FindDirEntryTest, CheckedUnknownTypeIsLookedUp)
{
    make_dir("ENTRY");
    dir_.file("FILE");
    shown_entry_type = DT_UNKNOWN;
    EXPECT_EQ(find("entry", S_IFREG, 1), "No such file or directory");
    EXPECT_EQ(find("entry", S_IFDIR, 1), "ENTRY");
    EXPECT_EQ(find("file", S_IFREG, 1), "FILE");
}

TEST_F(FindDirEntryTest, AnyCommonBitOfACheckedTypeWillDo)
{
    EXPECT_EQ(mknod((dir_ / "SOCKET").c_str(), S_IFSOCK | 0600, 0), 0);
    shown_entry_type = DT_UNKNOWN;
    EXPECT_EQ(find("socket", S_IFDIR, 1), "SOCKET"); /* 0140000 and 0040000 */
    EXPECT_EQ(find("socket", S_IFIFO, 1), "No such file or directory");
}

TEST_F(FindDirEntryTest, CheckedLinkIsNotFollowed)
{
    make_dir("real");
    EXPECT_EQ(symlink("real", (dir_ / "LINK").c_str()), 0);
    shown_entry_type = DT_UNKNOWN;
    EXPECT_EQ(find("link", S_IFDIR, 1), "No such file or directory");
    EXPECT_EQ(find("link", S_IFLNK, 1), "LINK");
}

TEST_F(FindDirEntryTest, PathTooLongToCheckFailsTheSearch)
{
    dir_.file("FILE");
    shown_entry_type = DT_UNKNOWN;
    /* The directory can still be opened, at 4094 bytes; with the entry's name the path has 4099. */
    const std::string dir = dir_.path() + std::string(4094 - dir_.path().size(), '/');
    char name[] = "file";
    EXPECT_EQ(find_dir_entry(dir.c_str(), name, S_IFREG, 1), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(find_dir_entry(dir.c_str(), name, S_IFREG, 0), 0);
}

TEST_F(FindDirEntryTest, EntryThatCanNotBeCheckedFailsTheSearch)
{
    dir_.file("FILE");
    chmod(dir_.path().c_str(), 0444); /* may be listed, but not entered */
    const ChildResult child = run_in_child([this] {
        become_nobody();
        shown_entry_type = DT_UNKNOWN;
        std::printf("%s", find("file", S_IFREG, 1).c_str());
    });
    EXPECT_EQ(child.out, "Permission denied");
    EXPECT_EQ(child.err, "");
}

} // namespace
