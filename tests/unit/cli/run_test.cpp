#include "cli/run.h"

#include <functional>
#include <new>
#include <ostream>
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

struct Reported {
    int status;
    std::string output;

    bool operator==(const Reported &) const = default;
};

std::ostream &operator<<(std::ostream &stream, const Reported &reported)
{
    return stream << reported.status << " \"" << reported.output << '"';
}

Reported run_with(std::function<int()> body)
{
    command = std::move(body);
    std::string words[] = {"arspctl", "--init-db"};
    char *argv[] = {words[0].data(), words[1].data(), nullptr};
    testing::internal::CaptureStdout();
    const int status = arsp::run_command_line(2, argv);
    return {status, testing::internal::GetCapturedStdout()};
}

TEST(GuardTest, StandardExceptionOfACommandIsReportedByItsMessage)
{
    EXPECT_EQ(run_with([]() -> int { throw std::runtime_error("something unforeseen"); }),
              (Reported{1, "Error: something unforeseen\n"}));
}

TEST(GuardTest, ExhaustedMemoryIsReportedLikeOtherExceptions)
{
    EXPECT_EQ(run_with([]() -> int { throw std::bad_alloc(); }), (Reported{1, "Error: std::bad_alloc\n"}));
}

TEST(GuardTest, ExhaustedMemoryIsReportedEvenWhenThereIsNoneForAnException)
{
    const ChildResult child = run_in_child(arsp::exit_without_memory);
    EXPECT_EQ(child.exit_status, 1);
    EXPECT_EQ(child.out, "Error: std::bad_alloc\n");
    EXPECT_EQ(child.err, "");
}

TEST(GuardTest, ExceptionWithoutAMessageIsReportedAllTheSame)
{
    EXPECT_EQ(run_with([]() -> int { throw std::runtime_error(""); }), (Reported{1, "Error: \n"}));
}

TEST(GuardTest, ThrownNumberIsAnUnknownError)
{
    EXPECT_EQ(run_with([]() -> int { throw 42; }), (Reported{1, "Unknown error\n"}));
}

TEST(GuardTest, ThrownTextIsAnUnknownError)
{
    EXPECT_EQ(run_with([]() -> int { throw "a text"; }), (Reported{1, "Unknown error\n"}));
}

TEST(GuardTest, ZeroIsTheOnlyResultThatIsASuccess)
{
    EXPECT_EQ(run_with([] { return 0; }), (Reported{0, ""}));
    EXPECT_EQ(run_with([] { return 1; }), (Reported{1, ""}));
    EXPECT_EQ(run_with([] { return -1; }), (Reported{1, ""}));
    EXPECT_EQ(run_with([] { return 26; }), (Reported{1, ""}));
    EXPECT_EQ(run_with([] { return 256; }), (Reported{1, ""}));
}

} // namespace
