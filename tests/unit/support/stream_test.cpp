#include "support/stream.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <deque>
#include <string>

#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include "support/write_deadline.h"
#include "tests/unit/support/child_process.h"
#include "tests/unit/support/full_pipe.h"
#include "tests/unit/support/scratch_dir.h"

using namespace arsp;

namespace {

enum class Interruption { by_alarm, by_alarm_after_a_byte, by_another_signal };

std::deque<Interruption> interruptions; /* of the next calls of writev */

} // namespace

/* The linker takes this for writev. */
ssize_t writev_that_is_interrupted(int fd, const iovec *parts, int count) __asm__("writev");
ssize_t writev_that_is_interrupted(int fd, const iovec *parts, int count)
{
    if (interruptions.empty())
        return syscall(SYS_writev, fd, parts, count);
    const Interruption now = interruptions.front();
    interruptions.pop_front();
    if (now != Interruption::by_another_signal)
        raise(SIGALRM);
    if (now == Interruption::by_alarm_after_a_byte)
        return write(fd, parts->iov_base, 1);
    errno = EINTR;
    return -1;
}

namespace {

class WriteTextTest : public testing::Test {
protected:
    ~WriteTextTest() override
    {
        std::fclose(stream_);
        interruptions.clear();
        WriteDeadline::forget();
    }

    std::string written() const { return file_text(path_); }

private:
    ScratchDir dir_;
    std::string path_ = dir_.file("stream");

protected:
    FILE *stream_ = std::fopen(path_.c_str(), "w");
};

TEST_F(WriteTextTest, PartsFollowEachOther)
{
    write_text(stream_, "one", " ", "two", "\n");
    write_text(stream_, "three\n");
    EXPECT_EQ(written(), "one two\nthree\n");
}

TEST_F(WriteTextTest, EmptyPartsAreHarmless)
{
    write_text(stream_, "");
    write_text(stream_, "", "one", "", "\n");
    EXPECT_EQ(written(), "one\n");
}

TEST_F(WriteTextTest, BufferedTextIsWrittenFirst)
{
    std::fputs("one ", stream_);
    write_text(stream_, "two\n");
    EXPECT_EQ(written(), "one two\n");
}

TEST_F(WriteTextTest, KeepsErrno)
{
    errno = ENOENT;
    write_text(stream_, "one\n");
    EXPECT_EQ(errno, ENOENT);
    FILE *full = std::fopen("/dev/full", "w");
    errno = ENOENT;
    write_text(full, "one\n");
    EXPECT_EQ(errno, ENOENT);
    std::fclose(full);
}

TEST_F(WriteTextTest, SignalOfAnotherNumberDoesNotEndTheWait)
{
    interruptions = {3, Interruption::by_another_signal};
    write_text(stream_, "one\n");
    EXPECT_EQ(written(), "one\n");
}

TEST_F(WriteTextTest, AlarmEndsTheWait)
{
    interruptions = {Interruption::by_alarm};
    write_text(stream_, "one\n");
    EXPECT_EQ(written(), "");
}

TEST_F(WriteTextTest, AlarmDoesNotEndTheWaitForAReaderThatReads)
{
    interruptions = {Interruption::by_alarm_after_a_byte, Interruption::by_another_signal,
                     Interruption::by_alarm_after_a_byte};
    write_text(stream_, "one\n");
    EXPECT_EQ(written(), "one\n");
    EXPECT_FALSE(WriteDeadline::wasMissed());
}

TEST_F(WriteTextTest, SignalOfAnotherNumberDoesNotEndALaterWait)
{
    interruptions = {Interruption::by_alarm};
    write_text(stream_, "one\n");
    interruptions = {Interruption::by_another_signal};
    write_text(stream_, "two\n");
    EXPECT_EQ(written(), "two\n");
}

TEST(WriteTextToMemoryTest, StreamWithoutADescriptorGetsTheTextToo)
{
    char *text = nullptr;
    size_t size = 0;
    FILE *stream = open_memstream(&text, &size);
    std::fputs("one ", stream);
    write_text(stream, "two", " ", "three", "\n");
    EXPECT_EQ(std::string(text, size), "one two three\n");
    std::fclose(stream);
    std::free(text);
}

class FullPipeTest : public testing::TestWithParam<int> {};

TEST_P(FullPipeTest, ReaderThatDoesNotReadIsWaitedForNoLongerThanTheDeadline)
{
    const FullPipe pipe(GetParam());
    const ChildResult child = run_in_child([&] {
        kill_after(20);
        write_text(fdopen(pipe.writer(), "w"), "one\n");
        _exit(7);
    });
    EXPECT_EQ(child.exit_status, 7);
}

TEST_P(FullPipeTest, SlowReaderGetsAllOfALongText)
{
    FullPipe pipe(GetParam());
    const std::string text(1000000, 'y');
    const pid_t child = fork();
    if (child == 0) {
        kill_after(20);
        write_text(fdopen(pipe.writer(), "w"), text.substr(1), "z");
        _exit(0);
    }
    pipe.closeWriter();
    std::string got;
    char bytes[1000];
    while (got.empty() || got.back() != 'z') {
        const ssize_t length = read(pipe.reader(), bytes, sizeof bytes);
        ASSERT_GT(length, 0);
        got.append(bytes, static_cast<size_t>(length));
    }
    waitpid(child, nullptr, 0);
    EXPECT_EQ(got.substr(got.find('y')), text.substr(1) + "z");
}

INSTANTIATE_TEST_SUITE_P(BlockingOrNot, FullPipeTest, testing::Values(0, O_NONBLOCK));

} // namespace
