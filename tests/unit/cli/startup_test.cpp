#include "cli/startup.h"

#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

/* Each test works in a child process of its own, since it takes the standard streams apart. The child tells how far it
 * came by its exit status: 0, or the number of the first thing that was not as it should be. */

namespace {

template <typename Body>
void expect_in_child(Body body)
{
    EXPECT_EXIT(_exit(body()), testing::ExitedWithCode(0), "");
}

bool is_open(int fd)
{
    return fcntl(fd, F_GETFD) != -1;
}

bool gives_ebadf(int fd)
{
    char byte = 0;
    errno = 0;
    const bool read_refused = read(fd, &byte, 1) == -1 && errno == EBADF;
    errno = 0;
    return read_refused && write(fd, &byte, 1) == -1 && errno == EBADF;
}

/* The parameters have a bit for each descriptor that is closed. */
class ClosedStreamsTest : public testing::TestWithParam<int> {};
class OpenStreamsTest : public testing::TestWithParam<int> {};

TEST_P(ClosedStreamsTest, AreFilledSoThatTheNextFileOpenedGetsNoneOfTheirNumbers)
{
    expect_in_child([] {
        for (int fd = 0; fd <= 2; ++fd) {
            if ((GetParam() >> fd & 1) != 0)
                close(fd);
        }
        if (secure_standard_streams() != 0)
            return 1;
        return open("/", O_RDONLY) > 2 ? 0 : 2;
    });
}

TEST_P(ClosedStreamsTest, CanBeNeitherReadNorWrittenAfterwards)
{
    expect_in_child([] {
        for (int fd = 0; fd <= 2; ++fd) {
            if ((GetParam() >> fd & 1) != 0)
                close(fd);
        }
        if (secure_standard_streams() != 0)
            return 1;
        for (int fd = 0; fd <= 2; ++fd) {
            if ((GetParam() >> fd & 1) != 0 && !gives_ebadf(fd))
                return 2;
        }
        return 0;
    });
}

TEST_P(ClosedStreamsTest, StayFilledInProgramsStartedLater)
{
    expect_in_child([] {
        for (int fd = 0; fd <= 2; ++fd) {
            if ((GetParam() >> fd & 1) != 0)
                close(fd);
        }
        if (secure_standard_streams() != 0)
            return 1;
        for (int fd = 0; fd <= 2; ++fd) {
            if ((fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0)
                return 2;
        }
        return 0;
    });
}

TEST_P(OpenStreamsTest, StayAsTheyWere)
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
            fstat(fd, &after);
            if ((GetParam() >> fd & 1) == 0 && (after.st_dev != before[fd].st_dev || after.st_ino != before[fd].st_ino))
                return 2;
        }
        return 0;
    });
}

INSTANTIATE_TEST_SUITE_P(EveryCombination, ClosedStreamsTest, testing::Range(1, 8));
INSTANTIATE_TEST_SUITE_P(EveryCombination, OpenStreamsTest, testing::Range(0, 7));

TEST(StartupTest, OpensNothingWhenAllStreamsAreOpen)
{
    expect_in_child([] {
        const int before = open("/", O_RDONLY);
        close(before);
        if (secure_standard_streams() != 0)
            return 1;
        return is_open(before) ? 2 : 0;
    });
}

TEST(StartupTest, StreamsAreFoundClosedEvenWhenThreeFilesExceedTheLimit)
{
    expect_in_child([] {
        const rlimit two_files = {2, 2};
        close(0);
        if (setrlimit(RLIMIT_NOFILE, &two_files) != 0)
            return 1;
        if (secure_standard_streams() != 0)
            return 2;
        return gives_ebadf(0) ? 0 : 3;
    });
}

TEST(StartupTest, StreamThatCanNotBeFilledIsAFailure)
{
    expect_in_child([] {
        const rlimit two_files = {2, 2};
        close(2);
        if (setrlimit(RLIMIT_NOFILE, &two_files) != 0)
            return 1;
        return secure_standard_streams() == -1 ? 0 : 2;
    });
}

TEST(StartupTest, StreamThatTheCallerFilledTheSameWayCountsAsOpen)
{
    expect_in_child([] {
        close(1);
        if (open("/", O_PATH | O_DIRECTORY) != 1)
            return 1;
        return secure_standard_streams() == 0 ? 0 : 2;
    });
}

TEST(StartupTest, WritingToAPipeWithoutAReaderEndsNothing)
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
