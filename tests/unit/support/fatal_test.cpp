#include "support/fatal.h"

#include <cerrno>
#include <cstdio>
#include <string>

#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/unit/support/child_process.h"
#include "tests/unit/support/stream_order.h"

namespace {

/* Sets errno, calls fatal_error(0, ...) with the text, and returns what both streams got; they must agree. */
std::string printed(int error, const std::string &text)
{
    const ChildResult child = run_in_child([&] {
        errno = error;
        fatal_error(0, 1, "%s", text.c_str());
    });
    EXPECT_EQ(child.exit_status, 0);
    EXPECT_EQ(child.out, child.err);
    return child.err;
}

void fatal_through_va_list(int status, const char *format, ...) __attribute__((format(printf, 2, 3)));
void fatal_through_va_list(int status, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    fatal_verror(status, 0, format, args);
    va_end(args);
}

TEST(FatalErrorTest, PrintsOnStandardErrorAndStandardOutput)
{
    const ChildResult child = run_in_child([] {
        errno = 0;
        fatal_error(0, 1, "%s has %d", "mailbox", 7);
    });
    EXPECT_EQ(child.err, "mailbox has 7\n");
    EXPECT_EQ(child.out, "mailbox has 7\n");
}

TEST(FatalErrorTest, PrintsOnStandardErrorFirstAndFlushesBoth)
{
    const ChildResult child = run_in_child([] {
        std::string shown;
        {
            const StreamOrder order;
            errno = 0;
            fatal_error(0, 1, "hello");
            shown = order.text();
        }
        std::printf("%s", shown.c_str());
    });
    EXPECT_EQ(child.out, "[err]hello\n[out]hello\n");
}

TEST(FatalErrorTest, ReturnsForStatusZero)
{
    const ChildResult child = run_in_child([] {
        errno = 0;
        fatal_error(0, 1, "hello");
        _exit(7);
    });
    EXPECT_EQ(child.exit_status, 7);
}

TEST(FatalErrorTest, EndsTheProcessWithAnyOtherStatus)
{
    const ChildResult child = run_in_child([] {
        errno = 0;
        fatal_error(3, 0, "hello");
        _exit(7);
    });
    EXPECT_EQ(child.exit_status, 3);
    EXPECT_EQ(child.err, "hello\n");
    EXPECT_EQ(child.out, "hello\n");
}

TEST(FatalErrorTest, FlagHasNoEffect)
{
    for (const int flag : {0, 1, -1}) {
        const ChildResult child = run_in_child([&] {
            errno = 0;
            fatal_error(0, flag, "hello");
        });
        EXPECT_EQ(child.exit_status, 0);
        EXPECT_EQ(child.err, "hello\n");
    }
}

TEST(FatalErrorTest, TakesAVaListToo)
{
    const ChildResult child = run_in_child([] {
        errno = ENOENT;
        fatal_through_va_list(4, "%s has %d", "mailbox", 7);
    });
    EXPECT_EQ(child.exit_status, 4);
    EXPECT_EQ(child.err, "mailbox has 7\nSystem error 2: No such file or directory\n");
}

TEST(FatalErrorTest, AddsTheSystemErrorOfItsCaller)
{
    EXPECT_EQ(printed(ENOENT, "hello"), "hello\nSystem error 2: No such file or directory\n");
}

TEST(FatalErrorTest, AddsNoSystemErrorWhenThereIsNone)
{
    EXPECT_EQ(printed(0, "hello"), "hello\n");
}

TEST(FatalErrorTest, LineFeedAtTheEndIsNotDoubled)
{
    EXPECT_EQ(printed(0, "hello\n"), "hello\n");
}

TEST(FatalErrorTest, LineFeedBeforeTheSystemErrorLeavesABlankLine)
{
    EXPECT_EQ(printed(ENOENT, "hello\n"), "hello\n\nSystem error 2: No such file or directory\n");
}

TEST(FatalErrorTest, PercentSignsInArgumentsAreNoFormat)
{
    EXPECT_EQ(printed(0, "100%s %n"), "100%s %n\n");
}

TEST(FatalErrorTest, KeepsErrno)
{
    const ChildResult child = run_in_child([] {
        close(STDOUT_FILENO);
        close(STDERR_FILENO);
        errno = ENOENT;
        fatal_error(0, 1, "hello");
        _exit(errno == ENOENT ? 7 : 8);
    });
    EXPECT_EQ(child.exit_status, 7);
}

TEST(FatalErrorTest, EndsTheProcessWithClosedStreamsToo)
{
    const ChildResult child = run_in_child([] {
        close(STDOUT_FILENO);
        close(STDERR_FILENO);
        fatal_error(1, 1, "hello");
    });
    EXPECT_EQ(child.exit_status, 1);
}

TEST(FatalErrorTest, MessageOf5000BytesIsWholeButHasNoSystemError)
{
    EXPECT_EQ(printed(ENOENT, std::string(5000, 'm')), std::string(5000, 'm') + "\n");
}

TEST(FatalErrorTest, MessagesAroundTheFirstBufferAreWholeButHaveNoSystemError)
{
    for (const size_t length : {4094U, 4095U, 4096U, 4097U})
        EXPECT_EQ(printed(ENOENT, std::string(length, 'm')), std::string(length, 'm') + "\n") << length;
}

TEST(FatalErrorTest, SystemErrorIsAddedAsLongAsAllOfItFits)
{
    const std::string suffix = "\nSystem error 2: No such file or directory";
    const std::string last_that_fits(4095 - suffix.size(), 'm');
    EXPECT_EQ(printed(ENOENT, last_that_fits), last_that_fits + suffix + "\n");
    const std::string too_long(4096 - suffix.size(), 'm');
    EXPECT_EQ(printed(ENOENT, too_long), too_long + "\n");
}

class ErrorProgramPathTest : public testing::Test {
protected:
    void TearDown() override { error_program_path = nullptr; }
};

TEST_F(ErrorProgramPathTest, IsUnsetUntilSomeoneSetsIt)
{
    EXPECT_EQ(error_program_path, nullptr);
}

TEST_F(ErrorProgramPathTest, ItsBaseNamePrefixesTheMessage)
{
    error_program_path = "/usr/local/bin/tool";
    EXPECT_EQ(printed(ENOENT, "hello"), "tool: hello\nSystem error 2: No such file or directory\n");
    error_program_path = "tool2";
    EXPECT_EQ(printed(0, "hello"), "tool2: hello\n");
}

TEST_F(ErrorProgramPathTest, WithoutABaseNameThereIsNoPrefix)
{
    error_program_path = "/usr/local/bin/";
    EXPECT_EQ(printed(0, "hello"), "hello\n");
    error_program_path = "";
    EXPECT_EQ(printed(0, "hello"), "hello\n");
}

TEST(ErrorEmitTest, PrintsAFinishedMessageOnBothStreams)
{
    const ChildResult child = run_in_child([] {
        errno = ENOENT;
        _exit(error_emit("100%s", 0, 1));
    });
    EXPECT_EQ(child.exit_status, 0);
    EXPECT_EQ(child.err, "100%s\n");
    EXPECT_EQ(child.out, "100%s\n");
}

TEST(ErrorEmitTest, KeepsErrno)
{
    const ChildResult child = run_in_child([] {
        close(STDOUT_FILENO);
        close(STDERR_FILENO);
        errno = ENOENT;
        error_emit("hello", 0, 1);
        _exit(errno == ENOENT ? 7 : 8);
    });
    EXPECT_EQ(child.exit_status, 7);
}

TEST(ErrorEmitTest, EmptyMessageIsAnEmptyLine)
{
    EXPECT_EQ(run_in_child([] { error_emit("", 0, 1); }).err, "\n");
}

TEST(ErrorEmitTest, EndsTheProcessUnlessStatusIsZero)
{
    const ChildResult child = run_in_child([] { error_emit("hello\n", 5, 0); });
    EXPECT_EQ(child.exit_status, 5);
    EXPECT_EQ(child.err, "hello\n");
    EXPECT_EQ(child.out, "hello\n");
}

} // namespace
