#include "support/files.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include <dlfcn.h>
#include <pwd.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/unit/support/child_process.h"
#include "tests/unit/support/scratch_dir.h"
#include "tests/unit/support/syslog_capture.h"

/* The linker takes this for getpwnam. Of "absent-user" it leaves errno alone, as a name service may. */
passwd *getpwnam_of_some_name_service(const char *name) __asm__("getpwnam");
passwd *getpwnam_of_some_name_service(const char *name)
{
    using Look = passwd *(const char *);
    static const auto real_getpwnam = reinterpret_cast<Look *>(dlsym(RTLD_NEXT, "getpwnam"));
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

    /* What a call prints; it must return -1 and print it on both streams. */
    template <typename Call>
    static std::string failure(Call call)
    {
        const ChildResult child = run_in_child([&] { _exit(call() == -1 ? 7 : 8); });
        EXPECT_EQ(child.exit_status, 7);
        EXPECT_EQ(child.out, child.err);
        return child.err;
    }
    static std::string owned(const std::string &path)
    {
        const struct stat status = file_status(path);
        char text[64] = "";
        std::snprintf(text, sizeof text, "%o %u:%u", status.st_mode & 07777U, status.st_uid, status.st_gid);
        return text;
    }

    ScratchDir dir_;

private:
    mode_t old_umask_ = 0;
};

TEST_F(FilesTest, ChownChmodSetsOwnerAndMode)
{
    const std::string path = dir_.file("file");
    EXPECT_EQ(chown_chmod(path.c_str(), 1234, 5678, 0604), 0);
    EXPECT_EQ(owned(path), "604 1234:5678");
}

TEST_F(FilesTest, ChownChmodSetsTheModeLast)
{
    const std::string path = dir_.file("file");
    EXPECT_EQ(chown_chmod(path.c_str(), 1234, 5678, 04755), 0); /* a chown would take the set-user-id bit away */
    EXPECT_EQ(owned(path), "4755 1234:5678");
}

TEST_F(FilesTest, FailedChownIsLogged)
{
    const std::string path = dir_ / "missing";
    errno = 0;
    EXPECT_EQ(chown_chmod(path.c_str(), 0, 0, 0600), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(syslog_capture.records,
              (Records{{3, "ERROR: unable to chown " + path + ": No such file or directory\n"}}));
}

TEST_F(FilesTest, FailedChmodIsLogged)
{
    const std::string path = dir_ / "dir";
    EXPECT_EQ(mkdir(path.c_str(), 0755), 0);
    const ChildResult child = run_in_child([&] {
        become_nobody();
        /* A chown that changes neither id is open to everyone, a chmod is not. */
        const int result = chown_chmod(path.c_str(), static_cast<uid_t>(-1), static_cast<gid_t>(-1), 0700);
        std::printf("%d %s", result, std::strerror(errno));
        for (const SyslogRecord &record : syslog_capture.records)
            std::printf("|%d %s", record.priority, record.text.c_str());
    });
    EXPECT_EQ(child.out, "-1 Operation not permitted|3 ERROR: unable to chmod " + path + ": Operation not permitted\n");
}

TEST_F(FilesTest, ChownChmodIfExistsActsOnWhatExists)
{
    const std::string path = dir_.file("file");
    EXPECT_EQ(chown_chmod_if_exists(path.c_str(), 1234, 5678, 0600), 0);
    EXPECT_EQ(owned(path), "600 1234:5678");
}

TEST_F(FilesTest, ChownChmodIfExistsDoesNothingElsewhere)
{
    EXPECT_EQ(chown_chmod_if_exists((dir_ / "missing").c_str(), 1234, 5678, 0600), 0);
    EXPECT_EQ(syslog_capture.records, Records{});
}

TEST_F(FilesTest, ChownChmodToUserTakesTheIdsOfTheUser)
{
    const std::string path = dir_.file("file");
    EXPECT_EQ(chown_chmod_to_user(path.c_str(), "nobody", 0640), 0);
    EXPECT_EQ(owned(path), "640 65534:65534");
}

TEST_F(FilesTest, UnknownUserIsPrinted)
{
    const std::string path = dir_.file("file");
    EXPECT_EQ(failure([&] {
                  errno = 0;
                  return chown_chmod_to_user(path.c_str(), "no-such-user", 0600);
              }),
              "user no-such-user not found\n");
    EXPECT_EQ(owned(path), "644 0:0");
}

TEST_F(FilesTest, UnknownUserIsPrintedWithAnEarlierError)
{
    EXPECT_EQ(failure([] {
                  errno = EIO;
                  return chown_chmod_to_user("/", "absent-user", 0600);
              }),
              "user absent-user not found\nSystem error 5: Input/output error\n");
}

TEST_F(FilesTest, FailureToGiveAFileToAUserIsLogged)
{
    EXPECT_EQ(chown_chmod_to_user((dir_ / "missing").c_str(), "nobody", 0640), -1);
    EXPECT_EQ(syslog_capture.records.size(), 1U);
}

TEST_F(FilesTest, CreateTruncateFileCreates)
{
    EXPECT_EQ(create_truncate_file((dir_ / "file").c_str()), 0);
    EXPECT_EQ(owned(dir_ / "file"), "644 0:0");
}

TEST_F(FilesTest, CreateTruncateFileEmpties)
{
    const std::string path = dir_.file("file", "text");
    EXPECT_EQ(create_truncate_file(path.c_str()), 0);
    EXPECT_EQ(file_text(path), "");
}

TEST_F(FilesTest, CreateFileCreates)
{
    EXPECT_EQ(create_file((dir_ / "file").c_str()), 0);
    EXPECT_EQ(owned(dir_ / "file"), "644 0:0");
}

TEST_F(FilesTest, CreateFileLeavesWhatIsThere)
{
    const std::string path = dir_.file("file", "text");
    EXPECT_EQ(create_file(path.c_str()), 0);
    EXPECT_EQ(file_text(path), "text");
}

TEST_F(FilesTest, CreatedFilesAreClosedAtOnce)
{
    const int before = dup(STDIN_FILENO);
    create_file((dir_ / "a").c_str());
    create_truncate_file((dir_ / "b").c_str());
    const int after = dup(STDIN_FILENO);
    EXPECT_EQ(after, before + 1);
    close(before);
    close(after);
}

TEST_F(FilesTest, FailureToTruncateIsLogged)
{
    const std::string path = dir_ / "missing/file";
    errno = 0;
    EXPECT_EQ(create_truncate_file(path.c_str()), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(syslog_capture.records,
              (Records{{3, "Unable to truncate or create file " + path + ": No such file or directory"}}));
}

TEST_F(FilesTest, FailureToCreateIsPrinted)
{
    const std::string path = dir_ / "missing/file";
    EXPECT_EQ(failure([&] { return create_file(path.c_str()); }),
              "Unable to create file " + path +
                  ": No such file or directory\nSystem error 2: No such file or directory\n");
}

TEST_F(FilesTest, CloseFileWritesWhatIsBuffered)
{
    const std::string path = dir_ / "file";
    FILE *file = std::fopen(path.c_str(), "w");
    std::fputs("text", file);
    EXPECT_EQ(close_file(file), 0);
    EXPECT_EQ(file_text(path), "text");
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

TEST_F(FilesTest, FirstExistingPathIsTheFirstThatIsThere)
{
    const std::string missing = dir_ / "missing";
    const std::string first = dir_.file("first");
    const std::string second = dir_.file("second");
    const char *const candidates[] = {missing.c_str(), first.c_str(), second.c_str(), nullptr};
    const char *found = nullptr;
    errno = EIO;
    EXPECT_EQ(first_existing_path(&found, candidates), 1);
    EXPECT_EQ(found, candidates[1]);
    EXPECT_EQ(errno, 0); /* cleared after the miss */
}

TEST_F(FilesTest, FirstExistingPathLeavesErrnoWithoutAMiss)
{
    const char *const candidates[] = {dir_.path().c_str(), nullptr};
    const char *found = nullptr;
    errno = EIO;
    EXPECT_EQ(first_existing_path(&found, candidates), 1);
    EXPECT_EQ(errno, EIO);
}

TEST_F(FilesTest, WithoutAnExistingPathThereIsNone)
{
    const std::string missing = dir_ / "missing";
    const char *const candidates[] = {missing.c_str(), nullptr};
    const char *found = "x";
    EXPECT_EQ(first_existing_path(&found, candidates), 0);
    EXPECT_EQ(found, nullptr);
    EXPECT_EQ(errno, 0);
    found = "x";
    EXPECT_EQ(first_existing_path(&found, candidates + 1), 0);
    EXPECT_EQ(found, nullptr);
}

class ReadFirstLineTest : public FilesTest {
protected:
    /* The line, read into a buffer of that size. */
    std::string line(std::string_view text, size_t size = 100)
    {
        std::string buffer(size, 'x');
        EXPECT_EQ(read_first_line(buffer.data(), size, dir_.file("file", text).c_str()), 0);
        const char *line = buffer.data(); /* up to its first NUL */
        return line;
    }
};

TEST_F(ReadFirstLineTest, OnlyTheFirstLineIsRead)
{
    EXPECT_EQ(line("one\ntwo\n"), "one");
    EXPECT_EQ(line("one"), "one");
    EXPECT_EQ(line("\ntwo\n"), "");
}

TEST_F(ReadFirstLineTest, WhiteSpaceAtBothEndsIsCut)
{
    EXPECT_EQ(line(" \tone two\t\v\r\n"), "one two");
}

TEST_F(ReadFirstLineTest, LineMayBeLongerThanTheBufferBeforeItIsTrimmed)
{
    EXPECT_EQ(line(std::string(1000, ' ') + "one\n", 4), "one");
}

TEST_F(ReadFirstLineTest, LineAndItsNulMustFit)
{
    EXPECT_EQ(line("one\n", 4), "one");
    const std::string path = dir_.file("file", "four\n");
    EXPECT_EQ(failure([&] {
                  char buffer[4] = "";
                  errno = 0;
                  return read_first_line(buffer, sizeof buffer, path.c_str());
              }),
              "The buffer too short\n");
}

TEST_F(ReadFirstLineTest, LineThatDoesNotFitIsPrintedWithAnEarlierError)
{
    const std::string path = dir_.file("file", "four\n");
    EXPECT_EQ(failure([&] {
                  char buffer[4] = "";
                  errno = EIO;
                  return read_first_line(buffer, sizeof buffer, path.c_str());
              }),
              "The buffer too short\n\nSystem error 5: Input/output error\n");
}

TEST_F(ReadFirstLineTest, EmptyFileClearsTheWholeBuffer)
{
    const std::string path = dir_.file("file");
    char buffer[] = "xxxx";
    EXPECT_EQ(read_first_line(buffer, sizeof buffer, path.c_str()), 0);
    EXPECT_EQ(std::string(buffer, sizeof buffer), std::string(5, '\0'));
}

TEST_F(ReadFirstLineTest, NothingIsWrittenBehindTheLine)
{
    const std::string path = dir_.file("file", "one\n");
    char buffer[] = "xxxxxx";
    EXPECT_EQ(read_first_line(buffer, sizeof buffer, path.c_str()), 0);
    EXPECT_EQ(std::string(buffer, sizeof buffer), std::string("one\0xx\0", 7));
}

TEST_F(ReadFirstLineTest, FailureToOpenIsPrinted)
{
    const std::string path = dir_ / "missing";
    EXPECT_EQ(failure([&] {
                  char buffer[4] = "";
                  return read_first_line(buffer, sizeof buffer, path.c_str());
              }),
              "Unable to open file " + path +
                  ": No such file or directory\n\nSystem error 2: No such file or directory\n");
}

TEST_F(ReadFirstLineTest, FailureToReadIsPrinted)
{
    EXPECT_EQ(failure([this] {
                  char buffer[4] = "";
                  return read_first_line(buffer, sizeof buffer, dir_.path().c_str());
              }),
              "Unable to read line from file: " + dir_.path() + "\n\nSystem error 21: Is a directory\n");
}

TEST(FileTypeNameTest, EveryTypeHasItsName)
{
    EXPECT_STREQ(file_type_name(S_IFREG | 0644), "regular file");
    EXPECT_STREQ(file_type_name(S_IFDIR | 0755), "directory");
    EXPECT_STREQ(file_type_name(S_IFCHR), "character device");
    EXPECT_STREQ(file_type_name(S_IFBLK), "block device");
    EXPECT_STREQ(file_type_name(S_IFIFO), "fifo");
    EXPECT_STREQ(file_type_name(S_IFLNK | 0777), "symbolic link");
    EXPECT_STREQ(file_type_name(S_IFSOCK | 0600), "socket");
}

TEST(FileTypeNameTest, AnythingElseIsUnknown)
{
    EXPECT_STREQ(file_type_name(0), "unknown");
    EXPECT_STREQ(file_type_name(0644), "unknown");
    EXPECT_STREQ(file_type_name(S_IFMT), "unknown");
}

} // namespace
