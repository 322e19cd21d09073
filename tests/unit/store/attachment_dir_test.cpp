#include "store/attachment_dir.h"

#include <filesystem>
#include <fstream>
#include <string>

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/unit/support/child_process.h"
#include "tests/unit/support/failing_calls.h"
#include "tests/unit/support/syslog_capture.h"

using namespace arsp;

namespace {

namespace fs = std::filesystem;

const std::string MAILBOX = "/var/qmail/mailnames/unit.test/user";
const std::string DIRECTORY = "/var/qmail/mailnames/unit.test/user/@attachments";

TEST(AttachmentDirPathTest, AddressIsSplitAtItsFirstAtSignAndNothingIsNormalised)
{
    const std::pair<const char *, const char *> paths[] = {
        {"user@example.org", "example.org/user"},
        {"shared", "shared/shared"},
        {"", "/"},
        {"a@b@c@", "b@c@/a"},
        {"@@", "@/"},
        {"@example.org", "example.org/"},
        {"user@", "/user"},
        {"@", "/"},
        {"U/./x@Example.ORG/../y", "Example.ORG/../y/U/./x"},
    };
    for (const auto &[address, path] : paths)
        EXPECT_EQ(AttachmentDir(address).path(), "/var/qmail/mailnames/" + std::string(path) + "/@attachments");
}

/* The attachment directory of user@unit.test holds the files x and y. */
class AttachmentDirTest : public testing::Test {
protected:
    void SetUp() override
    {
        capture_syslog();
        fs::create_directories(DIRECTORY);
        put_files();
    }
    void TearDown() override
    {
        fs::remove_all("/var/qmail/mailnames/unit.test");
        fs::remove_all("/var/tmp/unit.test");
    }

    static void put_files()
    {
        std::ofstream(DIRECTORY + "/x") << "content";
        std::ofstream(DIRECTORY + "/y") << "content";
    }

    /* Moves the directory `path` away and puts a link of `owner` to it in its place. */
    static void replace_by_link(const std::string &path, uid_t owner)
    {
        fs::create_directories("/var/tmp/unit.test");
        fs::rename(path, "/var/tmp/unit.test/moved");
        fs::create_symlink("/var/tmp/unit.test/moved", path);
        ASSERT_EQ(lchown(path.c_str(), owner, owner), 0);
    }

    const AttachmentDir dir_{"user@unit.test"};
};

TEST_F(AttachmentDirTest, EveryDescriptorIsClosedAgain)
{
    const auto next_descriptor = [] {
        const int fd = open("/", O_PATH | O_CLOEXEC);
        close(fd);
        return fd;
    };
    constexpr uid_t STRANGER = 1110;
    fs::create_directories(DIRECTORY + "/sub");
    const int before = next_descriptor();

    EXPECT_EQ(dir_.unlinkFile("x"), 0);
    EXPECT_EQ(dir_.clear(), 0);
    EXPECT_EQ(syslog_capture.records.size(), 0U);
    replace_by_link(DIRECTORY, STRANGER);
    EXPECT_EQ(dir_.unlinkFile("x"), -1);
    EXPECT_EQ(dir_.clear(), 0);
    EXPECT_EQ(syslog_capture.records.size(), 2U);

    EXPECT_EQ(next_descriptor(), before);
}

TEST_F(AttachmentDirTest, DirectoryThatCannotBeExaminedStays)
{
    fs::create_directories(DIRECTORY + "/sub");
    for (const std::string what : {"cannot open directory ", "cannot leave directory "}) {
        syslog_capture.records.clear();
        calls_before_failure = what == "cannot open directory " ? 0 : 1;
        EXPECT_EQ(dir_.clear(), 0);
        EXPECT_EQ(syslog_capture.records.at(0).text,
                  "Unable to remove autoresponder attachments: " + what + DIRECTORY + "/sub: Input/output error");
    }
    EXPECT_TRUE(fs::exists(DIRECTORY + "/sub"));
}

TEST_F(AttachmentDirTest, FailedFlushIsAFailure)
{
    fsync_fails = true;
    EXPECT_EQ(dir_.unlinkFile("x"), -1);
    EXPECT_EQ(dir_.clear(), -1);
    fsync_fails = false;
}

TEST_F(AttachmentDirTest, DirectoryMayHaveDescriptorZero)
{
    const auto unlink_and_clear = [this] {
        close(STDIN_FILENO);
        const int unlinked = dir_.unlinkFile("x");
        _exit(unlinked == 0 && dir_.clear() == 0 ? 0 : 1);
    };
    EXPECT_EQ(run_in_child(unlink_and_clear).exit_status, 0);
    EXPECT_TRUE(fs::is_empty(DIRECTORY));

    put_files();
    replace_by_link(MAILBOX, 0);
    EXPECT_EQ(run_in_child(unlink_and_clear).exit_status, 0);
    EXPECT_TRUE(fs::is_empty(DIRECTORY));
}

} // namespace
