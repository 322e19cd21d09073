#include "support/c_handles.h"

#include <unistd.h>

#include <gtest/gtest.h>

using namespace arsp;

namespace {

TEST(KeepErrnoTest, RestoresErrnoAtTheEndOfItsScope)
{
    errno = ENOENT;
    {
        const KeepErrno keep;
        errno = EIO;
        EXPECT_EQ(keep.saved(), ENOENT);
    }
    EXPECT_EQ(errno, ENOENT);
}

TEST(OwnersTest, FailureToCloseKeepsErrno)
{
    FilePtr file(std::fopen("/dev/full", "w"));
    std::fputs("buffered until the file is closed", file.get());
    DirPtr dir(opendir("/"));
    close(dirfd(dir.get()));
    errno = ENOENT;
    file.reset();
    dir.reset();
    EXPECT_EQ(errno, ENOENT);
}

TEST(LineBufferTest, FreesTheBufferOfGetdelim) /* found by the leak check of a sanitizer build */
{
    LineBuffer line;
    const FilePtr file(std::fopen("/etc/passwd", "r"));
    EXPECT_GT(getdelim(&line.text, &line.size, '\n', file.get()), 0);
}

} // namespace
