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

using namespace arsp;

namespace {

enum class Interruption { by_deadline, by_deadline_after_a_byte, by_another_signal };

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
        raise(SIGRTMIN);
    if (now == Interruption::by_deadline_after_a_byte)
        return write(fd, parts->iov_base, 1);
    errno = EINTR;
    return -1;
}

namespace {

TEST(WriteTextTest, WritesItsPartsAfterTheBufferedText)
{
    const ChildResult child = run_in_child([] {
        std::fputs("zero ", stdout);
        write_text(stdout, "one", "", " two", "\n");
        write_text(stdout, "");
        write_text(stdout, "three\n");
    });
    EXPECT_EQ(child.out, "zero one two\nthree\n");
}

TEST(WriteTextTest, KeepsErrno)
{
    for (const char *path : {"/dev/null", "/dev/full"}) {
        FILE *stream = std::fopen(path, "w");
        errno = ENOENT;
        write_text(stream, "one\n");
        EXPECT_EQ(errno, ENOENT) << path;
        std::fclose(stream);
    }
}

TEST(WriteTextTest, StreamWithoutADescriptorGetsTheTextToo)
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

/* Returns what is written of "one\n" when writev is interrupted like this, and then of "two\n" when a signal other than
 * the deadline's interrupts it once. */
std::string written(const std::deque<Interruption> &of_first)
{
    return run_in_child([&] {
               enable_write_deadlines();
               interruptions = of_first;
               write_text(stdout, "one\n");
               interruptions = {Interruption::by_another_signal};
               write_text(stdout, "two\n");
           })
        .out;
}

TEST(WriteTextTest, OnlyADeadlineWithoutProgressEndsTheWait)
{
    using enum Interruption;
    EXPECT_EQ(written({by_another_signal, by_another_signal}), "one\ntwo\n");
    EXPECT_EQ(written({by_deadline_after_a_byte, by_another_signal, by_deadline_after_a_byte}), "one\ntwo\n");
    EXPECT_EQ(written({by_deadline}), "two\n");
    EXPECT_EQ(written({by_deadline_after_a_byte, by_deadline}), "otwo\n");
}

class FullPipeTest : public testing::TestWithParam<int> {};

TEST_P(FullPipeTest, WaitForAReaderEndsWithTheDeadline)
{
    const FullPipe pipe(GetParam());
    const ChildResult child = run_in_child([&] {
        kill_after(20);
        enable_write_deadlines();
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
        enable_write_deadlines();
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
