#include "store/mail_tree.h"

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/unit/support/failing_calls.h"
#include "tests/unit/support/scratch_dir.h"

using namespace arsp;

namespace {

constexpr uid_t MAIL_USER_ID = 1110;

/* Below the root of the tree, link is root's link to the directory dir. */
class MailTreeTest : public testing::Test {
protected:
    void SetUp() override
    {
        std::filesystem::create_directory(dir_ / "dir");
        std::filesystem::create_symlink("dir/", dir_ / "link");
    }
    void TearDown() override { calls_before_failure = NONE_FAILS; }

    /* Resolves link; the call after the first `calls` fails. */
    std::string resolve(int calls)
    {
        MailTree tree;
        calls_before_failure = calls;
        const TreeEntry entry = tree.resolve(dir_ / "link", dir_.path().size());
        return std::string(entry.fd ? "opened" : std::strerror(errno)) + (tree.refused() ? ", refused" : "") +
               (tree.followedOnlyRootsChoice() ? ", chosen by root" : "");
    }

    void give_to_mail_user(const std::string &path) { ASSERT_EQ(chown(path.c_str(), MAIL_USER_ID, 0), 0); }

    ScratchDir dir_;
};

TEST_F(MailTreeTest, DirectoryThatCannotBeExaminedIsNotProtected)
{
    const std::vector<std::string> results = {
        "Input/output error",                         /* the link */
        "Too many levels of symbolic links, refused", /* its directory */
        "Input/output error",                         /* the target of the link */
        "opened",                                     /* the directory of the target */
        "opened, chosen by root",                     /* the target, behind which a slash asks for a directory */
        "opened, chosen by root",
    };
    for (int calls = 0; calls < static_cast<int>(results.size()); ++calls)
        EXPECT_EQ(resolve(calls), results.at(static_cast<std::size_t>(calls))) << calls;
}

TEST_F(MailTreeTest, TargetThatCannotBeExaminedDoesNotBelongToTheMailUser)
{
    give_to_mail_user(dir_.path());
    give_to_mail_user(dir_ / "dir");
    EXPECT_EQ(resolve(NONE_FAILS), "opened");
    EXPECT_EQ(resolve(5), "Too many levels of symbolic links, refused");
}

} // namespace
