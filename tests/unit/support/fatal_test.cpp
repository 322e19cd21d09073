#include "support/fatal.h"

#include <cerrno>
#include <cstdio>
#include <string>

#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/unit/support/child_process.h"
#include "tests/unit/support/little_memory.h"
#include "tests/unit/support/stream_order.h"

namespace {

/* Returns what `call` prints, which must be the same on both streams, with errno as `error`. It must end the process
 * with `status`, or return if that is 0. */
template <typename Call>
std::string printed_by(Call call, int error = 0, int status = 0)
{
    const ChildResult child = run_in_child([&] {
        errno = error;
        call();
        _exit(errno == error ? 0 : 99);
    });
    EXPECT_EQ(child.exit_status, status);
    EXPECT_EQ(child.out, child.err);
    return child.err;
}

std::string printed(int error, const std::string &text)
{
    return printed_by([&] { fatal_error(0, 1, "%s", text.c_str()); }, error);
}

void fatal_through_va_list(int status, const char *format, ...) __attribute__((format(printf, 2, 3)));
void fatal_through_va_list(int status, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    fatal_verror(status, 0, format, args);
    va_end(args);
}

TEST(FatalErrorTest, PrintsOnBothStreamsAndReturnsForStatusZeroOnly)
{
    for (const int flag : {0, 1, -1}) {
        EXPECT_EQ(printed_by([&] { fatal_error(0, flag, "%s has %d", "mailbox", 7); }), "mailbox has 7\n");
        EXPECT_EQ(printed_by([&] { fatal_error(3, flag, "hello"); }, 0, 3), "hello\n");
        EXPECT_EQ(printed_by([&] { error_emit("100%s", 0, flag); }, ENOENT), "100%s\n");
        EXPECT_EQ(printed_by([&] { error_emit("hello\n", 5, flag); }, 0, 5), "hello\n");
    }
    EXPECT_EQ(error_emit("", 0, 1), 0);
    EXPECT_EQ(printed_by([] { error_emit("", 0, 1); }), "\n");
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

TEST(FatalErrorTest, AcceptsAVaList)
{
    EXPECT_EQ(printed_by([] { fatal_through_va_list(4, "%s has %d", "mailbox", 7); }, ENOENT, 4),
              "mailbox has 7\nSystem error 2: No such file or directory\n");
}

TEST(FatalErrorTest, AddsTheSystemErrorOfItsCaller)
{
    EXPECT_EQ(printed(ENOENT, "hello"), "hello\nSystem error 2: No such file or directory\n");
    EXPECT_EQ(printed(ENOENT, "hello\n"), "hello\n\nSystem error 2: No such file or directory\n");
    EXPECT_EQ(printed(0, "hello\n"), "hello\n");
    EXPECT_EQ(printed(0, "100%s %n"), "100%s %n\n");
}

TEST(FatalErrorTest, ClosedStreamsChangeNothing)
{
    EXPECT_EQ(printed_by(
                  [] {
                      close(STDOUT_FILENO);
                      close(STDERR_FILENO);
                      fatal_error(0, 1, "hello");
                      error_emit("hello", 0, 1);
                      if (errno == ENOENT)
                          fatal_error(7, 1, "hello");
                  },
                  ENOENT, 7),
              "");
}

TEST(FatalErrorTest, LongMessageIsWholeButHasNoSystemError)
{
    for (const size_t length : {4094U, 4095U, 4096U, 4097U, 5000U})
        EXPECT_EQ(printed(ENOENT, std::string(length, 'm')), std::string(length, 'm') + "\n") << length;
    const std::string suffix = "\nSystem error 2: No such file or directory";
    const std::string last_that_fits(4095 - suffix.size(), 'm');
    EXPECT_EQ(printed(ENOENT, last_that_fits), last_that_fits + suffix + "\n");
    EXPECT_EQ(printed(ENOENT, last_that_fits + "m"), last_that_fits + "m\n");
}

TEST(FatalErrorTest, LongMessageIsCutWithoutMemoryForTheWhole)
{
    const auto print_with_little_memory = [] {
        largest_block = 4096;
        fatal_error(0, 1, "%s", std::string(5000, 'm').c_str());
    };
    EXPECT_EQ(printed_by(print_with_little_memory, ENOENT), std::string(4095, 'm') + "\n");
}

TEST(FatalErrorTest, BaseNameOfTheProgramPathPrefixesTheMessage)
{
    EXPECT_EQ(error_program_path, nullptr);
    error_program_path = "/usr/local/bin/tool";
    EXPECT_EQ(printed(ENOENT, "hello"), "tool: hello\nSystem error 2: No such file or directory\n");
    error_program_path = "tool2";
    EXPECT_EQ(printed(0, "hello"), "tool2: hello\n");
    for (const char *without_base_name : {"/usr/local/bin/", ""}) {
        error_program_path = without_base_name;
        EXPECT_EQ(printed(0, "hello"), "hello\n");
    }
    error_program_path = nullptr;
}

} // namespace
