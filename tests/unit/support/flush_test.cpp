#include "support/flush.h"

#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/c_handles.h"

using namespace arsp;

namespace {

TEST(FlushTest, FileWithoutContentToFlushIsASuccess)
{
    const Descriptor null(open("/dev/null", O_WRONLY | O_CLOEXEC));
    EXPECT_EQ(fsync(null.get()), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(flush(null.get()), 0);
}

TEST(FlushTest, OtherErrorsAreReturned)
{
    EXPECT_EQ(flush(-1), -1);
    EXPECT_EQ(errno, EBADF);
}

} // namespace
