#include "support/startup.h"

#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

/* Each test runs in a child process, since it closes standard streams. The exit status is 0, or the number of the first
 * check that failed. */

namespace {

template <typename Body>
void expect_in_child(Body body)
{
    EXPECT_EXIT(_exit(body()), testing::ExitedWithCode(0), "");
}

bool is_unusable(int fd)
{
    char byte = 0;
    errno = 0;
    const bool read_refused = read(fd, &byte, 1) == -1 && errno == EBADF;
    errno = 0;
    return read_refused && write(fd, &byte, 1) == -1 && errno == EBADF;
}

/* Leaves the process two descriptors at most. */
bool allow_two_files()
{
    const rlimit two_files = {2, 2};
    return setrlimit(RLIMIT_NOFILE, &two_files) == 0;
}

/* The parameter has a bit for each standard stream that is closed. */
class StandardStreamsTest : public testing::TestWithParam<int> {};

TEST_P(StandardStreamsTest, ClosedOnesAreOccupiedAlsoInLaterProgramsAndOpenOnesStay)
{
    expect_in_child([] {
        struct stat before[3] = {};
        for (int fd = 0; fd <= 2; ++fd) {
            if ((GetParam() >> fd & 1) != 0)
                close(fd);
            else
                fstat(fd, &before[fd]);
        }
        if (secure_standard_streams() != 0)
            return 1;
        for (int fd = 0; fd <= 2; ++fd) {
            struct stat after = {};
            if (fstat(fd, &after) != 0 || (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0)
                return 2;
            if ((GetParam() >> fd & 1) != 0 && !is_unusable(fd))
                return 3;
            if ((GetParam() >> fd & 1) == 0 && (after.st_dev != before[fd].st_dev || after.st_ino != before[fd].st_ino))
                return 4;
        }
        return open("/", O_RDONLY) > 2 ? 0 : 5;
    });
}

INSTANTIATE_TEST_SUITE_P(EveryCombination, StandardStreamsTest, testing::Range(0, 8));

TEST(StartupTest, OpensNothingWhenAllStreamsAreOpen)
{
    expect_in_child([] {
        const int next = open("/", O_RDONLY);
        close(next);
        if (secure_standard_streams() != 0)
            return 1;
        return fcntl(next, F_GETFD) == -1 ? 0 : 2;
    });
}

TEST(StartupTest, ClosedStreamIsFoundWhenThreeFilesExceedTheLimit)
{
    expect_in_child([] {
        close(0);
        if (!allow_two_files() || secure_standard_streams() != 0)
            return 1;
        return is_unusable(0) ? 0 : 2;
    });
}

TEST(StartupTest, StreamThatCannotBeOccupiedIsAFailure)
{
    expect_in_child([] {
        close(2);
        return allow_two_files() && secure_standard_streams() == -1 ? 0 : 1;
    });
}

TEST(StartupTest, StreamThatTheCallerOccupiedTheSameWayCountsAsOpen)
{
    expect_in_child([] {
        close(1);
        if (open("/", O_PATH | O_DIRECTORY) != 1)
            return 1;
        return secure_standard_streams() == 0 ? 0 : 2;
    });
}

TEST(StartupTest, WritingToAPipeWithoutAReaderDoesNotEndTheProcess)
{
    expect_in_child([] {
        int ends[2] = {-1, -1};
        if (pipe(ends) != 0 || close(ends[0]) != 0)
            return 1;
        secure_standard_streams();
        return write(ends[1], "x", 1) == -1 && errno == EPIPE ? 0 : 2;
    });
}

} // namespace
