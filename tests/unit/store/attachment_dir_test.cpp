#include "store/attachment_dir.h"

#include <climits>
#include <filesystem>
#include <fstream>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/conf.h"
#include "tests/unit/support/child_process.h"
#include "tests/unit/support/syslog_capture.h"

using namespace arsp;

namespace {

namespace fs = std::filesystem;

const std::string MAILBOX = "/var/qmail/mailnames/unit.test/user";
const std::string DIRECTORY = "/var/qmail/mailnames/unit.test/user/@attachments";
constexpr uid_t ROOT = 0;
constexpr uid_t STRANGER = 1110;

const std::string CANNOT_DELETE = "Unable to delete attachment ";
const std::string CANNOT_CLEAR = "Unable to remove autoresponder attachments: cannot open directory ";

/* The errors logged since the last call; "done" when there are none and `result` is 0. */
std::string outcome(int result)
{
    std::string text;
    for (const SyslogRecord &record : syslog_capture.records) {
        if (record.priority == LOG_ERR)
            text += record.text;
    }
    syslog_capture.records.clear();
    return text.empty() && result == 0 ? "done" : text;
}

void put_link(const std::string &path, const std::string &target, uid_t owner)
{
    fs::create_symlink(target, path);
    ASSERT_EQ(lchown(path.c_str(), owner, owner), 0);
}

void put_file(const std::string &path)
{
    std::ofstream(path) << "content";
}

/* What the next file opened gets; it grows when a descriptor stays open. */
int next_descriptor()
{
    const int fd = open("/", O_PATH | O_CLOEXEC);
    close(fd);
    return fd;
}

/* user@unit.test has an attachment directory, and everything of it is removed afterwards. */
class AttachmentDirTest : public testing::Test {
protected:
    void SetUp() override
    {
        capture_syslog();
        fs::create_directories(DIRECTORY);
    }
    void TearDown() override
    {
        fs::remove_all("/var/qmail/mailnames/unit.test");
        fs::remove_all("/var/tmp/unit.test");
    }

    /* Moves the directory `path` away and puts a link to it in its place. */
    static void replace_by_link(const std::string &path, uid_t owner)
    {
        fs::create_directories("/var/tmp/unit.test");
        fs::rename(path, "/var/tmp/unit.test/moved");
        put_link(path, "/var/tmp/unit.test/moved", owner);
    }

    const AttachmentDir dir_{"user@unit.test"};
};

// -- from the address to the path

TEST(AttachmentDirPathTest, IsRootDomainLocalPartAndAttachments)
{
    EXPECT_EQ(AttachmentDir("user@example.org").path(), "/var/qmail/mailnames/example.org/user/@attachments");
}

TEST(AttachmentDirPathTest, WithoutAnAtSignTheAddressIsDomainAndLocalPart)
{
    EXPECT_EQ(AttachmentDir("shared").path(), "/var/qmail/mailnames/shared/shared/@attachments");
}

TEST(AttachmentDirPathTest, OfAnEmptyAddressHasThreeSlashes)
{
    EXPECT_EQ(AttachmentDir("").path(), "/var/qmail/mailnames///@attachments");
}

TEST(AttachmentDirPathTest, TheFirstAtSignSplits)
{
    EXPECT_EQ(AttachmentDir("a@b@c@").path(), "/var/qmail/mailnames/b@c@/a/@attachments");
    EXPECT_EQ(AttachmentDir("@@").path(), "/var/qmail/mailnames/@//@attachments");
}

TEST(AttachmentDirPathTest, EitherPartMayBeEmpty)
{
    EXPECT_EQ(AttachmentDir("@example.org").path(), "/var/qmail/mailnames/example.org//@attachments");
    EXPECT_EQ(AttachmentDir("user@").path(), "/var/qmail/mailnames//user/@attachments");
    EXPECT_EQ(AttachmentDir("@").path(), "/var/qmail/mailnames///@attachments");
}

TEST(AttachmentDirPathTest, NothingIsNormalised)
{
    EXPECT_EQ(AttachmentDir("U/./x@Example.ORG/../y").path(),
              "/var/qmail/mailnames/Example.ORG/../y/U/./x/@attachments");
}

TEST(AttachmentDirPathTest, TheRootIsThatOfTheConfiguration)
{
    const ChildResult child = run_in_child([] {
        std::ofstream(KEL_CONF_PATH) << "QUARN_MAILNAMES_D /srv/mail\n";
        std::printf("%s", AttachmentDir("user@example.org").path().c_str());
        unlink(KEL_CONF_PATH);
    });
    EXPECT_EQ(child.out, "/srv/mail/example.org/user/@attachments");
}

TEST(AttachmentDirPathTest, OfAnAttachmentIsTheNameAsGiven)
{
    const AttachmentDir dir("user@example.org");
    EXPECT_EQ(dir.pathOf("report.pdf"), "/var/qmail/mailnames/example.org/user/@attachments/report.pdf");
    EXPECT_EQ(dir.pathOf("a/../b/"), "/var/qmail/mailnames/example.org/user/@attachments/a/../b/");
    EXPECT_EQ(dir.pathOf(""), "/var/qmail/mailnames/example.org/user/@attachments/");
}

// -- unlinkFile

TEST_F(AttachmentDirTest, AFileIsUnlinked)
{
    put_file(DIRECTORY + "/report.pdf");
    EXPECT_EQ(outcome(dir_.unlinkFile("report.pdf")), "done");
    EXPECT_TRUE(fs::is_empty(DIRECTORY));
}

TEST_F(AttachmentDirTest, AMissingFileIsNoError)
{
    EXPECT_EQ(outcome(dir_.unlinkFile("no-such-file")), "done");
    EXPECT_EQ(outcome(AttachmentDir("user@nowhere.test").unlinkFile("x")), "done");
}

TEST_F(AttachmentDirTest, AFailedUnlinkIsLogged)
{
    put_file(DIRECTORY + "/report.pdf");
    EXPECT_EQ(outcome(dir_.unlinkFile("")), CANNOT_DELETE + DIRECTORY + "/: Is a directory");
    EXPECT_EQ(outcome(dir_.unlinkFile("//")), CANNOT_DELETE + DIRECTORY + "///: Is a directory");
    EXPECT_EQ(outcome(dir_.unlinkFile("report.pdf/")), CANNOT_DELETE + DIRECTORY + "/report.pdf/: Not a directory");
    EXPECT_EQ(outcome(dir_.unlinkFile("report.pdf/x")), CANNOT_DELETE + DIRECTORY + "/report.pdf/x: Not a directory");
    EXPECT_TRUE(fs::exists(DIRECTORY + "/report.pdf"));
}

TEST_F(AttachmentDirTest, APathTooLongForTheKernelIsRefused)
{
    std::string name;
    while (DIRECTORY.size() + 1 + name.size() + 2 < PATH_MAX) /* a path of 4095 bytes is the longest */
        name += "./";
    name.resize(PATH_MAX - 1 - DIRECTORY.size() - 1, '/');
    EXPECT_EQ(outcome(dir_.unlinkFile(name + "x")), CANNOT_DELETE + DIRECTORY + "/" + name + "x: File name too long");
    name.back() = 'x';
    EXPECT_EQ(outcome(dir_.unlinkFile(name)), "done");
}

TEST_F(AttachmentDirTest, ANameWithSlashesLeadsBelowAndAbove)
{
    fs::create_directory(DIRECTORY + "/sub");
    put_file(DIRECTORY + "/sub/x");
    put_file(MAILBOX + "/x");
    EXPECT_EQ(outcome(dir_.unlinkFile("sub//x")), "done");
    EXPECT_EQ(outcome(dir_.unlinkFile("../x")), "done");
    EXPECT_TRUE(fs::is_empty(DIRECTORY + "/sub"));
    EXPECT_FALSE(fs::exists(MAILBOX + "/x"));
}

TEST_F(AttachmentDirTest, ALinkInThePlaceOfTheFileIsUnlinkedWhoeverOwnsIt)
{
    put_file(MAILBOX + "/target");
    put_link(DIRECTORY + "/roots", MAILBOX + "/target", ROOT);
    put_link(DIRECTORY + "/strangers", MAILBOX + "/target", STRANGER);
    EXPECT_EQ(outcome(dir_.unlinkFile("roots")), "done");
    EXPECT_EQ(outcome(dir_.unlinkFile("strangers")), "done");
    EXPECT_TRUE(fs::is_empty(DIRECTORY));
    EXPECT_TRUE(fs::exists(MAILBOX + "/target"));
}

TEST_F(AttachmentDirTest, NothingIsUnlinkedBehindALinkOfAStrangers)
{
    put_file(DIRECTORY + "/x");
    replace_by_link(MAILBOX, STRANGER);
    EXPECT_EQ(outcome(dir_.unlinkFile("x")), CANNOT_DELETE + DIRECTORY + "/x: Too many levels of symbolic links");
    EXPECT_TRUE(fs::exists(DIRECTORY + "/x"));
}

TEST_F(AttachmentDirTest, AFileBehindALinkOfRootsIsUnlinked)
{
    put_file(DIRECTORY + "/x");
    replace_by_link(MAILBOX, ROOT);
    EXPECT_EQ(outcome(dir_.unlinkFile("x")), "done");
    EXPECT_FALSE(fs::exists(DIRECTORY + "/x"));
}

// -- clear

TEST_F(AttachmentDirTest, ClearingLeavesTheEmptyDirectory)
{
    fs::create_directories(DIRECTORY + "/one/two/three");
    for (const char *name : {"/x", "/.hidden", "/one/x", "/one/two/x"})
        put_file(DIRECTORY + name);
    EXPECT_EQ(outcome(dir_.clear()), "done");
    EXPECT_TRUE(fs::is_empty(DIRECTORY));
}

TEST_F(AttachmentDirTest, FailedClearingIsLoggedWithItsPlaceAndIsNoFailure)
{
    fs::remove(DIRECTORY);
    EXPECT_EQ(dir_.clear(), 0);
    EXPECT_EQ(outcome(0), CANNOT_CLEAR + DIRECTORY + ": No such file or directory");
}

TEST_F(AttachmentDirTest, NothingIsClearedBehindALinkOfAStrangers)
{
    put_file(DIRECTORY + "/x");
    replace_by_link(DIRECTORY, STRANGER);
    EXPECT_EQ(dir_.clear(), 0);
    EXPECT_EQ(outcome(0), CANNOT_CLEAR + DIRECTORY + ": Too many levels of symbolic links");
    EXPECT_TRUE(fs::exists(DIRECTORY + "/x"));
}

TEST_F(AttachmentDirTest, ADirectoryBehindALinkOfRootsIsCleared)
{
    put_file(DIRECTORY + "/x");
    replace_by_link(DIRECTORY, ROOT);
    EXPECT_EQ(outcome(dir_.clear()), "done");
    EXPECT_TRUE(fs::is_empty(DIRECTORY + "/."));
    EXPECT_TRUE(fs::is_symlink(DIRECTORY));
}

TEST_F(AttachmentDirTest, EveryDescriptorIsClosedAgain)
{
    fs::create_directories(DIRECTORY + "/sub");
    put_file(DIRECTORY + "/sub/file");
    put_file(DIRECTORY + "/other");
    const AttachmentDir directory("user@unit.test");
    const int before = next_descriptor();

    EXPECT_EQ(outcome(directory.unlinkFile("other")), "done");
    EXPECT_EQ(outcome(directory.clear()), "done");
    replace_by_link(DIRECTORY, STRANGER);
    EXPECT_NE(outcome(directory.unlinkFile("other")), "done");
    EXPECT_NE(outcome(directory.clear()), "done");

    EXPECT_EQ(next_descriptor(), before);
}

TEST_F(AttachmentDirTest, LinksInsideAreRemovedAndTheirTargetsStay)
{
    put_file(MAILBOX + "/target");
    fs::create_directory(MAILBOX + "/directory");
    put_file(MAILBOX + "/directory/x");
    for (const uid_t owner : {ROOT, STRANGER}) {
        put_link(DIRECTORY + "/to-file", MAILBOX + "/target", owner);
        put_link(DIRECTORY + "/to-directory", MAILBOX + "/directory", owner);
        put_link(DIRECTORY + "/to-nothing", MAILBOX + "/nothing", owner);
        EXPECT_EQ(outcome(dir_.clear()), "done");
        EXPECT_TRUE(fs::is_empty(DIRECTORY));
    }
    EXPECT_TRUE(fs::exists(MAILBOX + "/target"));
    EXPECT_TRUE(fs::exists(MAILBOX + "/directory/x"));
}

// -- descriptors

/* Unlinks and clears in a process whose first free descriptor is 0. */
ChildResult work_without_standard_input(const AttachmentDir &dir)
{
    return run_in_child([&dir] {
        close(STDIN_FILENO);
        const int unlinked = dir.unlinkFile("x");
        _exit(unlinked == 0 && dir.clear() == 0 ? 0 : 1);
    });
}

TEST_F(AttachmentDirTest, DescriptorZeroIsAsGoodAsAnyForADirectory)
{
    put_file(DIRECTORY + "/x");
    put_file(DIRECTORY + "/y");
    EXPECT_EQ(work_without_standard_input(dir_).exit_status, 0);
    EXPECT_TRUE(fs::is_empty(DIRECTORY));
}

TEST_F(AttachmentDirTest, DescriptorZeroIsAsGoodAsAnyForADirectoryBehindALink)
{
    put_file(DIRECTORY + "/x");
    put_file(DIRECTORY + "/y");
    replace_by_link(MAILBOX, ROOT);
    EXPECT_EQ(work_without_standard_input(dir_).exit_status, 0);
    EXPECT_TRUE(fs::is_empty(DIRECTORY));
}

} // namespace
