#include "support/files.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>

#include <dlfcn.h>
#include <pwd.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/unit/support/child_process.h"
#include "tests/unit/support/little_memory.h"
#include "tests/unit/support/scratch_dir.h"
#include "tests/unit/support/syslog_capture.h"

/* The linker takes this for getpwnam. For "absent-user" it leaves errno alone, as a name service may. */
passwd *getpwnam_of_some_name_service(const char *name) __asm__("getpwnam");
passwd *getpwnam_of_some_name_service(const char *name)
{
    static const auto real_getpwnam = reinterpret_cast<passwd *(*)(const char *)>(dlsym(RTLD_NEXT, "getpwnam"));
    return std::strcmp(name, "absent-user") == 0 ? nullptr : real_getpwnam(name);
}

namespace {

using Records = std::vector<SyslogRecord>;

class FilesTest : public testing::Test {
protected:
    void SetUp() override
    {
        capture_syslog();
        old_umask_ = umask(022);
    }
    void TearDown() override { umask(old_umask_); }

    /* Returns what `call`, which must return -1, prints on both streams. errno is `error` before. */
    template <typename Call>
    static std::string failure(Call call, int error = 0)
    {
        const ChildResult child = run_in_child([&] {
            errno = error;
            _exit(call() == -1 ? 7 : 8);
        });
        EXPECT_EQ(child.exit_status, 7);
        EXPECT_EQ(child.out, child.err);
        return child.err;
    }

    ScratchDir dir_;
    const std::string path_ = dir_.file("file", "text");
    const std::string missing_ = dir_ / "missing";
    const std::string below_missing_ = dir_ / "missing/file";

private:
    mode_t old_umask_ = 0;
};

TEST_F(FilesTest, ChownChmodSetsOwnerAndThenMode)
{
    EXPECT_EQ(chown_chmod(path_.c_str(), 1234, 5678, 04705), 0); /* a later chown would clear the set-user-id bit */
    EXPECT_EQ(owned(path_), "4705 1234:5678");
    EXPECT_EQ(chown_chmod_if_exists(path_.c_str(), 1235, 5679, 0600), 0);
    EXPECT_EQ(owned(path_), "600 1235:5679");
    EXPECT_EQ(chown_chmod_to_user(path_.c_str(), "nobody", 0640), 0);
    EXPECT_EQ(owned(path_), "640 65534:65534");
    EXPECT_EQ(chown_chmod_if_exists(missing_.c_str(), 1234, 5678, 0600), 0);
    EXPECT_EQ(syslog_capture.records, Records{});
}

TEST_F(FilesTest, FailedChownIsLogged)
{
    errno = 0;
    EXPECT_EQ(chown_chmod(missing_.c_str(), 0, 0, 0600), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(chown_chmod_to_user(missing_.c_str(), "nobody", 0640), -1);
    const SyslogRecord record = {3, "ERROR: unable to chown " + missing_ + ": No such file or directory\n"};
    EXPECT_EQ(syslog_capture.records, (Records{record, record}));
}

TEST_F(FilesTest, FailedChmodIsLogged)
{
    const ChildResult child = run_in_child([&] {
        become_nobody();
        /* Any user may make a chown that changes neither id. */
        const int result = chown_chmod(path_.c_str(), static_cast<uid_t>(-1), static_cast<gid_t>(-1), 0700);
        std::printf("%d %s", result, std::strerror(errno));
        for (const SyslogRecord &record : syslog_capture.records)
            std::printf("|%d %s", record.priority, record.text.c_str());
    });
    EXPECT_EQ(child.out,
              "-1 Operation not permitted|3 ERROR: unable to chmod " + path_ + ": Operation not permitted\n");
}

TEST_F(FilesTest, UnknownUserIsPrintedWithAnEarlierError)
{
    EXPECT_EQ(failure([this] { return chown_chmod_to_user(path_.c_str(), "no-such-user", 0600); }),
              "user no-such-user not found\n");
    EXPECT_EQ(failure([this] { return chown_chmod_to_user(path_.c_str(), "absent-user", 0600); }, EIO),
              "user absent-user not found\nSystem error 5: Input/output error\n");
    EXPECT_EQ(owned(path_), "644 0:0");
}

TEST_F(FilesTest, FilesAreCreatedAndClosedAtOnce)
{
    const int before = dup(STDIN_FILENO);
    EXPECT_EQ(create_file((dir_ / "a").c_str()), 0);
    EXPECT_EQ(create_truncate_file((dir_ / "b").c_str()), 0);
    const int after = dup(STDIN_FILENO);
    EXPECT_EQ(after, before + 1);
    close(before);
    close(after);
    EXPECT_EQ(owned(dir_ / "a"), "644 0:0");
    EXPECT_EQ(owned(dir_ / "b"), "644 0:0");
}

TEST_F(FilesTest, OnlyCreateTruncateFileEmptiesAnExistingFile)
{
    EXPECT_EQ(create_file(path_.c_str()), 0);
    EXPECT_EQ(file_text(path_), "text");
    EXPECT_EQ(create_truncate_file(path_.c_str()), 0);
    EXPECT_EQ(file_text(path_), "");
}

TEST_F(FilesTest, FailureToCreateIsReported)
{
    EXPECT_EQ(failure([this] { return create_file(below_missing_.c_str()); }),
              "Unable to create file " + below_missing_ +
                  ": No such file or directory\nSystem error 2: No such file or directory\n");
    errno = 0;
    EXPECT_EQ(create_truncate_file(below_missing_.c_str()), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(syslog_capture.records,
              (Records{{3, "Unable to truncate or create file " + below_missing_ + ": No such file or directory"}}));
}

TEST_F(FilesTest, CloseFileWritesTheBufferedText)
{
    FILE *file = std::fopen(path_.c_str(), "w");
    std::fputs("new", file);
    EXPECT_EQ(close_file(file), 0);
    EXPECT_EQ(file_text(path_), "new");
}

TEST_F(FilesTest, FailureToCloseIsPrinted)
{
    EXPECT_EQ(failure([] {
                  FILE *full = std::fopen("/dev/full", "w");
                  std::fputs("text", full);
                  return close_file(full);
              }),
              "Unable to close the file: No space left on device\n\nSystem error 28: No space left on device\n");
}

TEST_F(FilesTest, FirstExistingPathClearsErrnoAfterEachMissOnly)
{
    const char *const candidates[] = {missing_.c_str(), path_.c_str(), dir_.path().c_str(), nullptr};
    const char *found = nullptr;
    for (const size_t first : {0U, 1U}) {
        errno = EIO;
        EXPECT_EQ(first_existing_path(&found, candidates + first), 1);
        EXPECT_EQ(found, path_.c_str());
        EXPECT_EQ(errno, first == 0 ? 0 : EIO);
    }
}

TEST_F(FilesTest, WithoutAnExistingPathTheResultIsNull)
{
    const char *const candidates[] = {missing_.c_str(), nullptr};
    for (const size_t first : {0U, 1U}) {
        const char *found = "x";
        EXPECT_EQ(first_existing_path(&found, candidates + first), 0);
        EXPECT_EQ(found, nullptr);
        EXPECT_EQ(errno, 0);
    }
}

class ReadFirstLineTest : public FilesTest {
protected:
    /* Returns a buffer of `size` bytes, all 'x' before the line is read into it. */
    std::string line(std::string_view text, size_t size)
    {
        std::string buffer(size, 'x');
        EXPECT_EQ(read_first_line(buffer.data(), size, dir_.file("file", text).c_str()), 0);
        return buffer;
    }
    static std::string read_failure(const std::string &path, int error = 0)
    {
        return failure(
            [&] {
                char buffer[4] = "";
                return read_first_line(buffer, sizeof buffer, path.c_str());
            },
            error);
    }
};

TEST_F(ReadFirstLineTest, StoresTheTrimmedFirstLineAndNothingBehindIt)
{
    const std::string one("one\0xx", 6);
    for (const std::string &text : {std::string("one\ntwo\n"), std::string("one"), std::string(" \tone\t\v\r\n"),
                                    std::string(1000, ' ') + "one\n"})
        EXPECT_EQ(line(text, 6), one);
    EXPECT_EQ(line("one two\n", 8), std::string("one two\0", 8));
    EXPECT_EQ(line("\ntwo\n", 2), std::string("\0x", 2));
}

TEST_F(ReadFirstLineTest, EmptyFileClearsTheWholeBuffer)
{
    EXPECT_EQ(line("", 5), std::string(5, '\0'));
}

TEST_F(ReadFirstLineTest, LineThatDoesNotFitWithItsNulIsPrintedWithAnEarlierError)
{
    EXPECT_EQ(line("one\n", 4), std::string("one\0", 4));
    const std::string path = dir_.file("file", "four\n");
    EXPECT_EQ(read_failure(path), "The buffer too short\n");
    EXPECT_EQ(read_failure(path, EIO), "The buffer too short\n\nSystem error 5: Input/output error\n");
}

TEST_F(ReadFirstLineTest, FailureToOpenOrReadIsPrinted)
{
    EXPECT_EQ(read_failure(missing_), "Unable to open file " + missing_ +
                                          ": No such file or directory\n\nSystem error 2: No such file or directory\n");
    EXPECT_EQ(read_failure(dir_.path()),
              "Unable to read line from file: " + dir_.path() + "\n\nSystem error 21: Is a directory\n");
}

TEST_F(ReadFirstLineTest, LineLargerThanMemoryIsPrinted)
{
    const std::string path = dir_.file("file", std::string(1000, 'x'));
    EXPECT_EQ(failure([&] {
                  char buffer[4] = "";
                  largest_block = 500;
                  return read_first_line(buffer, sizeof buffer, path.c_str());
              }),
              "Unable to read line from file: " + path + "\n\nSystem error 12: Cannot allocate memory\n");
}

TEST(FileTypeNameTest, EveryTypeHasItsName)
{
    const std::pair<mode_t, const char *> names[] = {
        {S_IFREG | 0644, "regular file"},
        {S_IFDIR | 0755, "directory"},
        {S_IFCHR, "character device"},
        {S_IFBLK, "block device"},
        {S_IFIFO, "fifo"},
        {S_IFLNK | 0777, "symbolic link"},
        {S_IFSOCK | 0600, "socket"},
        {0, "unknown"},
        {0644, "unknown"},
        {S_IFMT, "unknown"},
    };
    for (const auto &[mode, name] : names)
        EXPECT_STREQ(file_type_name(mode), name) << mode;
}

} // namespace
