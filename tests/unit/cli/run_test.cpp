#include "cli/run.h"

#include <functional>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "store/init_db.h"
#include "tests/unit/support/child_process.h"

namespace {

std::function<int()> command; /* what --init-db does in these tests */

} // namespace

int init_responder_db()
{
    return command();
}

namespace {

/* Expects that the tool prints `output` and ends with `status` when its command does `body`. */
void expect_run(std::function<int()> body, int status, const std::string &output)
{
    command = std::move(body);
    std::string words[] = {"arspctl", "--init-db"};
    char *argv[] = {words[0].data(), words[1].data(), nullptr};
    testing::internal::CaptureStdout();
    EXPECT_EQ(arsp::run_command_line(2, argv), status);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), output);
}

TEST(GuardTest, StandardExceptionOfACommandIsReportedByItsMessage)
{
    expect_run([]() -> int { throw std::runtime_error("something unforeseen"); }, 1, "Error: something unforeseen\n");
    expect_run([]() -> int { throw std::runtime_error(""); }, 1, "Error: \n");
}

TEST(GuardTest, ExhaustedMemoryIsReportedLikeOtherExceptions)
{
    expect_run([]() -> int { throw std::bad_alloc(); }, 1, "Error: std::bad_alloc\n");
}

TEST(GuardTest, ExhaustedMemoryIsReportedEvenWhenThereIsNoneForAnException)
{
    const ChildResult child = run_in_child(arsp::exit_without_memory);
    EXPECT_EQ(child.exit_status, 1);
    EXPECT_EQ(child.out, "Error: std::bad_alloc\n");
    EXPECT_EQ(child.err, "");
}

TEST(GuardTest, OtherThrownObjectIsAnUnknownError)
{
    expect_run([]() -> int { throw 42; }, 1, "Unknown error\n");
    expect_run([]() -> int { throw "a text"; }, 1, "Unknown error\n");
}

TEST(GuardTest, OnlyResultZeroIsASuccess)
{
    expect_run([] { return 0; }, 0, "");
    for (const int result : {1, -1, 26, 256})
        expect_run([=] { return result; }, 1, "");
}

} // namespace
