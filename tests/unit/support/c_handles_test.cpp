#include "support/c_handles.h"

#include <unistd.h>

#include <gtest/gtest.h>

using namespace arsp;

namespace {

TEST(KeepErrnoTest, PutsErrnoBackAtTheEndOfItsScope)
{
    errno = ENOENT;
    {
        const KeepErrno keep;
        errno = EIO;
    }
    EXPECT_EQ(errno, ENOENT);
}

TEST(KeepErrnoTest, TellsTheErrnoThatItPutsBack)
{
    errno = ENOENT;
    const KeepErrno keep;
    errno = EIO;
    EXPECT_EQ(keep.saved(), ENOENT);
}

TEST(FilePtrTest, ClosingKeepsErrno)
{
    FilePtr file(std::fopen("/dev/full", "w"));
    std::fputs("a buffer that can't be written when it is closed", file.get());
    errno = ENOENT;
    file.reset();
    EXPECT_EQ(errno, ENOENT);
}

TEST(DirPtrTest, ClosingKeepsErrno)
{
    DirPtr dir(opendir("/"));
    close(dirfd(dir.get())); /* so that closedir fails */
    errno = ENOENT;
    dir.reset();
    EXPECT_EQ(errno, ENOENT);
}

TEST(LineBufferTest, FreesWhatGetdelimPutThere)
{
    LineBuffer line;
    const FilePtr file(std::fopen("/etc/passwd", "r"));
    EXPECT_GT(getdelim(&line.text, &line.size, '\n', file.get()), 0); /* the leak check of a sanitizer build judges */
}

} // namespace
