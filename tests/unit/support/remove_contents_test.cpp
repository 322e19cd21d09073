#include "support/remove_contents.h"

#include <cerrno>

#include <gtest/gtest.h>

using namespace arsp;

TEST(RemoveContentsTest, DescriptorOfNoDirectoryIsAFailure)
{
    std::string error;
    EXPECT_EQ(remove_contents(-1, "/some/directory", error), -1);
    EXPECT_EQ(error, "cannot open directory /some/directory: Bad file descriptor");
}

TEST(FailureTextTest, PathOfMoreThanAThousandBytesIsShortened)
{
    const std::string path = "/" + std::string(994, 'x') + "/name";
    errno = ENOENT;
    EXPECT_EQ(failure_text("cannot remove", path), "cannot remove " + path + ": No such file or directory");
    errno = ENOENT;
    EXPECT_EQ(failure_text("cannot remove", path + "s"),
              "cannot remove " + path.substr(0, 600) + ".../names: No such file or directory");
}
