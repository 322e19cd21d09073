#include "support/dirs.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <utility>

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/fsuid.h>
#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/make_dirs.h"
#include "tests/unit/support/child_process.h"
#include "tests/unit/support/failing_calls.h"
#include "tests/unit/support/little_memory.h"
#include "tests/unit/support/scratch_dir.h"

namespace {

int reported_type = -1;  /* that readdir reports for every entry; -1: the true one */
bool only_first = false; /* of the entries but "." and "..", and then no longer */

} // namespace

/* The linker takes this for readdir. */
dirent *readdir_of_some_file_system(DIR *dir) __asm__("readdir");
dirent *readdir_of_some_file_system(DIR *dir)
{
    static const auto real_readdir = reinterpret_cast<dirent *(*)(DIR *)>(dlsym(RTLD_NEXT, "readdir"));
    dirent *entry = real_readdir(dir);
    if (entry != nullptr && reported_type != -1) {
        entry->d_type = static_cast<unsigned char>(reported_type);
        if (only_first && entry->d_name[0] != '.')
            reported_type = -1;
    }
    return entry;
}

namespace {

bool is_dir(const std::string &path)
{
    return S_ISDIR(file_status(path).st_mode);
}

class DirsTest : public testing::Test {
protected:
    /* Paths of whole trees are relative, or absolute in a changed root: the tests run as root, and a mistake in the
     * code under test must not change directories above the scratch directory. */
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

    void give_scratch_dir_to_nobody() { EXPECT_EQ(chown(dir_.path().c_str(), NOBODY, NOBODY), 0); }

    /* Expects that `call` returns `result` in a child whose root is the scratch directory. */
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

    /* Returns what `call` prints on both streams; it must return `result`. */
    template <typename Call>
    static std::string printed(int result, Call call)
    {
        const ChildResult child = run_in_child([&] { _exit(call() == result ? 7 : 8); });
        EXPECT_EQ(child.exit_status, 7);
        EXPECT_EQ(child.out, child.err);
        return child.err;
    }

    ScratchDir dir_;

private:
    mode_t old_umask_ = 0;
};

class CreateDirTreeTest : public DirsTest {};

TEST_F(CreateDirTreeTest, NewDirectoriesGetOwnerAndExactModeAndOthersStayAsTheyAre)
{
    make_dir("a", 0711);
    umask(0777);
    EXPECT_EQ(create_dir_tree("a//b/c///", 1234, 5678, 0777), 0);
    EXPECT_EQ(umask(0), 0777U);
    EXPECT_EQ(create_dir_tree("a/b/c", 1, 2, 0700), 0);
    EXPECT_EQ(owned(dir_ / "a"), "711 0:0");
    EXPECT_EQ(owned(dir_ / "a/b"), "777 1234:5678");
    EXPECT_EQ(owned(dir_ / "a/b/c"), "777 1234:5678");
}

TEST_F(CreateDirTreeTest, NewDirectoryThatMayHaveBeenReplacedKeepsItsOwner)
{
    const auto make = [](const char *name) { return create_dir_tree(name, 1234, 5678, 0755); };
    EXPECT_EQ(chmod(dir_.path().c_str(), 0777), 0);
    EXPECT_EQ(printed(0, [&] { return setfsuid(NOBODY) + make("foreign"); }),
              "Cannot chown foreign: Stale file handle\nSystem error 116: Stale file handle\n");
    EXPECT_EQ(owned(dir_ / "foreign"), "755 65534:0");
    EXPECT_EQ(printed(0,
                      [&] {
                          const int next = dup(STDIN_FILENO); /* the limit allows the directory above and the new one */
                          close(next);
                          const rlimit limit = {static_cast<rlim_t>(next) + 2, static_cast<rlim_t>(next) + 2};
                          setrlimit(RLIMIT_NOFILE, &limit);
                          return make("unlisted");
                      }),
              "Cannot chown unlisted: Stale file handle\nSystem error 116: Stale file handle\n");
    EXPECT_EQ(owned(dir_ / "unlisted"), "755 0:0");
}

TEST_F(CreateDirTreeTest, NewDirectoryThatCannotBeExaminedGetsItsOwner)
{
    calls_before_failure = 0;
    EXPECT_EQ(create_dir_tree("a", 1234, 5678, 0755), 0);
    EXPECT_EQ(calls_before_failure, NONE_FAILS);
    EXPECT_EQ(owned(dir_ / "a"), "755 1234:5678");
}

TEST_F(CreateDirTreeTest, SpecialBitsAreForTheLastDirectoryOnly)
{
    EXPECT_EQ(create_dir_tree("a/b", 1234, 5678, 01755), 0);
    EXPECT_EQ(owned(dir_ / "a"), "755 1234:5678");
    EXPECT_EQ(owned(dir_ / "a/b"), "1755 1234:5678");
}

TEST_F(CreateDirTreeTest, AbsolutePathIsMadeFromTheRoot)
{
    for (const char *path : {"/", "/a/b", "//c"})
        expect_in_root(0, [path] { return create_dir_tree(path, 1234, 5678, 0700); });
    EXPECT_EQ(owned(dir_.path()), "755 0:0");
    for (const char *made : {"a", "a/b", "c"})
        EXPECT_EQ(owned(dir_ / made), "700 1234:5678");
}

TEST_F(CreateDirTreeTest, FileAtTheEndOfThePathStaysAsItIs)
{
    dir_.file("file");
    EXPECT_EQ(create_dir_tree("file", 1234, 5678, 0700), 0);
    EXPECT_EQ(owned(dir_ / "file"), "644 0:0");
}

TEST_F(CreateDirTreeTest, DirectoryThatCannotBeMadeEndsTheProcess)
{
    dir_.file("file");
    const std::pair<const char *, const char *> cases[] = {
        {"file/a/b", "Cannot create directory file/a: Not a directory\nSystem error 20: Not a directory\n"},
        {"", "Cannot create directory : No such file or directory\nSystem error 2: No such file or directory\n"},
    };
    for (const auto &[path, message] : cases) {
        const ChildResult child = run_in_child([tree = path] {
            create_dir_tree(tree, 1234, 5678, 0700);
            _exit(7);
        });
        EXPECT_EQ(child.exit_status, 1);
        EXPECT_EQ(child.err, message);
        EXPECT_EQ(child.out, message);
    }
}

TEST_F(CreateDirTreeTest, FailureToSetAnOwnerIsPrintedAndTheWorkContinues)
{
    give_scratch_dir_to_nobody();
    EXPECT_EQ(printed(0,
                      [] {
                          become_nobody();
                          return create_dir_tree("a/b", 0, 0, 0700);
                      }),
              "Cannot chown a: Operation not permitted\nSystem error 1: Operation not permitted\n"
              "Cannot chown a/b: Operation not permitted\nSystem error 1: Operation not permitted\n");
    EXPECT_EQ(owned(dir_ / "a/b"), "700 65534:65534");
}

class MakeDirsTest : public DirsTest {};

TEST_F(MakeDirsTest, TrustEndsAtTheFirstByteOfAName)
{
    make_dir("a");
    make_dir("a/b");
    std::string opened;
    const auto open_existing = [&opened](const arsp::Descriptor &parent, const char *name) {
        opened += name;
        return arsp::Descriptor(openat(parent.get(), name, O_PATH | O_DIRECTORY | O_CLOEXEC));
    };
    for (const std::size_t trusted : {1U, 2U, 3U}) {
        opened += std::to_string(trusted);
        arsp::make_dirs({.path = "a/b/c",
                         .trusted_length = trusted,
                         .uid = 1234,
                         .gid = 5678,
                         .mode = 0700,
                         .open_existing = open_existing,
                         .changed = nullptr});
    }
    EXPECT_EQ(opened, "1b2b3");
    EXPECT_EQ(owned(dir_ / "a/b/c"), "700 1234:5678");
}

class MkdirPTest : public DirsTest {
protected:
    static void expect_failure(const char *path, int error)
    {
        errno = 0;
        EXPECT_EQ(mkdir_p(path), 0) << path;
        EXPECT_EQ(errno, error) << path;
    }
};

TEST_F(MkdirPTest, MakesMissingDirectoriesWithMode0755LessTheUmask)
{
    make_dir("a", 0711);
    umask(0);
    EXPECT_EQ(mkdir_p("a/b///c//"), 1);
    umask(027);
    EXPECT_EQ(mkdir_p("d/"), 1);
    EXPECT_EQ(mkdir_p("a/b"), 1);
    EXPECT_EQ(owned(dir_ / "a"), "711 0:0");
    EXPECT_EQ(owned(dir_ / "a/b"), "755 0:0");
    EXPECT_EQ(owned(dir_ / "a/b/c"), "755 0:0");
    EXPECT_EQ(owned(dir_ / "d"), "750 0:0");
}

TEST_F(MkdirPTest, AbsolutePathIsMadeFromTheRoot)
{
    for (const char *path : {"/", "/a/b", "//c//d/"})
        expect_in_root(1, [path] { return mkdir_p(path); });
    EXPECT_TRUE(is_dir(dir_ / "a/b"));
    EXPECT_TRUE(is_dir(dir_ / "c/d"));
}

TEST_F(MkdirPTest, LinkToADirectoryIsFollowed)
{
    make_dir("real");
    EXPECT_EQ(symlink("real", "link"), 0);
    EXPECT_EQ(mkdir_p("link/a"), 1);
    EXPECT_TRUE(is_dir(dir_ / "real/a"));
}

TEST_F(MkdirPTest, FailureSetsErrnoAndPrintsNothing)
{
    dir_.file("file");
    EXPECT_EQ(symlink("nowhere", "dangling"), 0);
    EXPECT_EQ(symlink("loop", "loop"), 0);
    expect_failure("file/a", ENOTDIR);
    expect_failure("file", ENOTDIR);
    expect_failure("dangling/a", EEXIST); /* stat finds nothing there, mkdir finds the link */
    expect_failure("", ENOENT);
    expect_failure("loop/a", ELOOP);
    EXPECT_EQ(printed(0, [] { return mkdir_p("file/a"); }), "");
}

TEST_F(MkdirPTest, MakesNothingWithoutMemoryForThePath)
{
    copies_left = 0;
    expect_failure("a/b", ENOMEM);
    copies_left = AS_MANY_AS_ASKED_FOR;
    EXPECT_EQ(owned(dir_ / "a"), "missing");
}

class MkdirChownChmodTest : public DirsTest {};

TEST_F(MkdirChownChmodTest, NewAndExistingDirectoryGetOwnerAndMode)
{
    make_dir("b", 0711);
    for (const std::string path : {"a", "b"}) {
        EXPECT_EQ(mkdir_chown_chmod(path.c_str(), 1234, 5678, 0777), 0);
        EXPECT_EQ(owned(dir_ / path), "777 1234:5678");
    }
}

TEST_F(MkdirChownChmodTest, DirectoryThatVanishedMeanwhileIsNoFailure)
{
    EXPECT_EQ(symlink("nowhere", "link"), 0); /* mkdir finds it, chown and chmod do not */
    EXPECT_EQ(mkdir_chown_chmod("link", 1234, 5678, 0700), 0);
}

TEST_F(MkdirChownChmodTest, FailureOfEachStepIsPrinted)
{
    give_scratch_dir_to_nobody();
    make_dir("roots");
    const auto failure = [](const char *path, uid_t uid, gid_t gid) {
        return printed(-1, [&] {
            become_nobody();
            return mkdir_chown_chmod(path, uid, gid, 0700);
        });
    };
    EXPECT_EQ(failure("a/b", 1, 1), "ERROR: Unable to mkdir a/b: No such file or directory\n\n"
                                    "System error 2: No such file or directory\n");
    EXPECT_EQ(failure("a", 0, 0), "ERROR: Unable to chown a: Operation not permitted\n\n"
                                  "System error 1: Operation not permitted\n");
    /* Any user may make a chown that changes neither id. */
    EXPECT_EQ(failure("roots", static_cast<uid_t>(-1), static_cast<gid_t>(-1)),
              "ERROR: Unable to chmod roots: Operation not permitted\n\nSystem error 1: Operation not permitted\n");
}

class RenameDirTest : public DirsTest {};

TEST_F(RenameDirTest, DirectoryGetsTheNewName)
{
    make_dir("a", 0711);
    EXPECT_EQ(rename_dir("a", "b"), 0);
    EXPECT_EQ(owned(dir_ / "a"), "missing");
    EXPECT_EQ(owned(dir_ / "b"), "711 0:0");
    EXPECT_EQ(printed(0, [] { return rename_dir("a", "b"); }), ""); /* without a source */
}

TEST_F(RenameDirTest, ExistingTargetIsPrintedWithAnEarlierError)
{
    make_dir("a");
    make_dir("b");
    const std::string message = "Directory rename error: target directory b already exists.\n";
    for (const int error : {0, EIO})
        EXPECT_EQ(printed(-1,
                          [error] {
                              errno = error;
                              return rename_dir("a", "b");
                          }),
                  message + (error == 0 ? "" : "\nSystem error 5: Input/output error\n"));
    EXPECT_TRUE(is_dir(dir_ / "a"));
}

TEST_F(RenameDirTest, FailedRenameIsPrinted)
{
    make_dir("a");
    EXPECT_EQ(printed(-EINVAL, [] { return rename_dir("a", "a/b") == -1 ? -errno : 0; }),
              "Remaming a to a/b failed: Invalid argument\n\nSystem error 22: Invalid argument\n");
}

class FindDirEntryTest : public DirsTest {
protected:
    void TearDown() override
    {
        reported_type = -1;
        only_first = false;
        DirsTest::TearDown();
    }

    /* Returns the name found, or the text of errno with the name unchanged. */
    std::string find(const std::string &name, mode_t type = 0, int check = 0)
    {
        std::string found = name;
        errno = 0;
        if (find_dir_entry(dir_.path().c_str(), found.data(), type, check) == 0)
            return found;
        EXPECT_EQ(found, name);
        return std::strerror(errno);
    }

    static constexpr char MISSING[] = "No such file or directory";
};

TEST_F(FindDirEntryTest, NameGetsTheSpellingOfTheDirectory)
{
    dir_.file("ReadMe.TXT");
    EXPECT_EQ(find("readme.txt"), "ReadMe.TXT");
    EXPECT_EQ(find("README.TXT"), "ReadMe.TXT");
    EXPECT_EQ(find("readme.tx"), MISSING);
    EXPECT_EQ(find("readme.txt2"), MISSING);
}

TEST_F(FindDirEntryTest, OnlyTheBytesOfTheNameAreOverwritten)
{
    dir_.file("ABC");
    char name[] = "abc\0def";
    EXPECT_EQ(find_dir_entry(dir_.path().c_str(), name, 0, 0), 0);
    EXPECT_EQ(std::string(name, sizeof name), std::string("ABC\0def\0", 8));
}

TEST_F(FindDirEntryTest, DirectoryThatCannotBeOpenedSetsErrno)
{
    char name[] = "readme";
    EXPECT_EQ(find_dir_entry((dir_ / "missing").c_str(), name, 0, 0), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(find_dir_entry(dir_.file("file").c_str(), name, 0, 0), -1);
    EXPECT_EQ(errno, ENOTDIR);
}

TEST_F(FindDirEntryTest, EntryOfAnotherTypeIsSkipped)
{
    make_dir("ENTRY");
    EXPECT_EQ(find("entry", S_IFREG), MISSING);
    dir_.file("Entry");
    EXPECT_EQ(find("entry", S_IFREG), "Entry");
    EXPECT_EQ(find("entry", S_IFDIR), "ENTRY");
}

TEST_F(FindDirEntryTest, EveryFileTypeIsDistinguished)
{
    dir_.file("FILE");
    const std::pair<mode_t, int> types[] = {{S_IFREG, DT_REG}, {S_IFDIR, DT_DIR},   {S_IFIFO, DT_FIFO},
                                            {S_IFLNK, DT_LNK}, {S_IFSOCK, DT_SOCK}, {S_IFCHR, DT_CHR},
                                            {S_IFBLK, DT_BLK}};
    for (const auto &[wanted, wanted_entry] : types) {
        for (const auto &[type, entry] : types) {
            reported_type = entry;
            EXPECT_EQ(find("file", wanted), wanted == type ? "FILE" : MISSING) << wanted << " " << type;
        }
    }
}

TEST_F(FindDirEntryTest, AnyOtherTypeMatchesEveryEntry)
{
    make_dir("ENTRY");
    for (const mode_t type : {mode_t{0}, mode_t{0644}, mode_t{S_IFREG | 0644}, mode_t{S_IFMT}})
        EXPECT_EQ(find("entry", type), "ENTRY") << type;
}

TEST_F(FindDirEntryTest, UnknownTypeMatchesUnlessItIsChecked)
{
    make_dir("DIR");
    dir_.file("FILE");
    EXPECT_EQ(symlink("DIR", "LINK"), 0);
    EXPECT_EQ(mknod("SOCKET", S_IFSOCK | 0600, 0), 0);
    reported_type = DT_UNKNOWN;
    EXPECT_EQ(find("dir", S_IFREG, 0), "DIR");
    EXPECT_EQ(find("dir", S_IFREG, 1), MISSING);
    EXPECT_EQ(find("dir", S_IFDIR, 1), "DIR");
    EXPECT_EQ(find("file", S_IFREG, 1), "FILE");
    EXPECT_EQ(find("link", S_IFDIR, 1), MISSING); /* not followed */
    EXPECT_EQ(find("link", S_IFLNK, 1), "LINK");
    EXPECT_EQ(find("socket", S_IFDIR, 1), "SOCKET"); /* 0140000 and 0040000 have a common bit */
    EXPECT_EQ(find("socket", S_IFIFO, 1), MISSING);
}

TEST_F(FindDirEntryTest, PathTooLongToCheckFailsTheSearch)
{
    dir_.file("FILE");
    reported_type = DT_UNKNOWN;
    /* The directory can still be opened, at 4094 bytes; with the entry's name the path has 4099. */
    const std::string dir = dir_.path() + std::string(4094 - dir_.path().size(), '/');
    char name[] = "file";
    EXPECT_EQ(find_dir_entry(dir.c_str(), name, S_IFREG, 1), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(find_dir_entry(dir.c_str(), name, S_IFREG, 0), 0);

    dir_.file("File");
    only_first = true; /* so that the second would match */
    EXPECT_EQ(find_dir_entry(dir.c_str(), name, S_IFREG, 1), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
}

TEST_F(FindDirEntryTest, EntryThatCannotBeCheckedFailsTheSearch)
{
    dir_.file("FILE");
    chmod(dir_.path().c_str(), 0444); /* others can list it, but not enter it */
    const ChildResult child = run_in_child([this] {
        become_nobody();
        reported_type = DT_UNKNOWN;
        std::printf("%s", find("file", S_IFREG, 1).c_str());
    });
    EXPECT_EQ(child.out, "Permission denied");
    EXPECT_EQ(child.err, "");
}

} // namespace
