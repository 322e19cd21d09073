#include "support/log.h"

#include <cerrno>
#include <csignal>

#include <sys/time.h>

#include <gtest/gtest.h>

#include "support/write_deadline.h"
#include "tests/unit/support/child_process.h"
#include "tests/unit/support/full_pipe.h"
#include "tests/unit/support/syslog_capture.h"

using namespace arsp;

namespace {

/* What a caller has arranged for SIGALRM, put back at the end. */
class LogDeadlineTest : public testing::Test {
protected:
    void SetUp() override
    {
        capture_syslog();
        sigaction(SIGALRM, nullptr, &action_);
        sigprocmask(SIG_SETMASK, nullptr, &mask_);
    }
    void TearDown() override
    {
        const itimerval off = {};
        setitimer(ITIMER_REAL, &off, nullptr);
        sigaction(SIGALRM, &action_, nullptr);
        sigprocmask(SIG_SETMASK, &mask_, nullptr);
    }

private:
    struct sigaction action_ = {};
    sigset_t mask_ = {};
};

void callers_handler(int)
{
}

itimerval timer_now()
{
    itimerval timer = {};
    getitimer(ITIMER_REAL, &timer);
    return timer;
}

TEST_F(LogDeadlineTest, HandlerOfTheCallerIsBackAfterARecord)
{
    struct sigaction mine = {};
    mine.sa_handler = callers_handler;
    mine.sa_flags = SA_RESTART | SA_NODEFER;
    sigaddset(&mine.sa_mask, SIGUSR1);
    sigaction(SIGALRM, &mine, nullptr);

    log_message(LOG_ERR, "text");

    struct sigaction now = {};
    sigaction(SIGALRM, nullptr, &now);
    EXPECT_EQ(now.sa_handler, callers_handler);
    EXPECT_EQ(now.sa_flags & (SA_RESTART | SA_NODEFER), SA_RESTART | SA_NODEFER);
    EXPECT_EQ(sigismember(&now.sa_mask, SIGUSR1), 1);
}

TEST_F(LogDeadlineTest, IgnoredAlarmIsIgnoredAfterARecord)
{
    signal(SIGALRM, SIG_IGN);

    log_message(LOG_ERR, "text");

    EXPECT_EQ(signal(SIGALRM, SIG_IGN), SIG_IGN);
}

TEST_F(LogDeadlineTest, BlockedAlarmIsBlockedAfterARecord)
{
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGALRM);
    sigaddset(&blocked, SIGUSR2);
    sigprocmask(SIG_SETMASK, &blocked, nullptr);

    log_message(LOG_ERR, "text");

    sigset_t now;
    sigprocmask(SIG_SETMASK, nullptr, &now);
    EXPECT_EQ(sigismember(&now, SIGALRM), 1);
    EXPECT_EQ(sigismember(&now, SIGUSR2), 1);
    EXPECT_EQ(sigismember(&now, SIGUSR1), 0);
}

TEST_F(LogDeadlineTest, TimerOfTheCallerRunsOnAfterARecord)
{
    const itimerval mine = {{50, 0}, {1000, 0}};
    setitimer(ITIMER_REAL, &mine, nullptr);

    log_message(LOG_ERR, "text");

    EXPECT_EQ(timer_now().it_interval.tv_sec, 50);
    EXPECT_GT(timer_now().it_value.tv_sec, 900);
    EXPECT_LE(timer_now().it_value.tv_sec, 1000);
}

TEST_F(LogDeadlineTest, WithoutATimerOfTheCallerNoneRunsAfterARecord)
{
    log_message(LOG_ERR, "text");

    EXPECT_EQ(timer_now().it_value.tv_sec, 0);
    EXPECT_EQ(timer_now().it_value.tv_usec, 0);
}

TEST_F(LogDeadlineTest, PendingAlarmIsPendingAfterARecord)
{
    sigset_t alarm;
    sigemptyset(&alarm);
    sigaddset(&alarm, SIGALRM);
    sigprocmask(SIG_BLOCK, &alarm, nullptr);
    raise(SIGALRM);

    log_message(LOG_ERR, "text");

    const timespec at_once = {0, 0};
    EXPECT_EQ(sigtimedwait(&alarm, nullptr, &at_once), SIGALRM);
    EXPECT_FALSE(WriteDeadline::wasMissed());
}

TEST_F(LogDeadlineTest, RecordWithTraceIdLeavesNoTimerEither)
{
    setenv("QUARN_LOG_TRACE_ID", "trace", 1);
    log_init(nullptr, LOG_ERR, LOG_MAIL, LOG_OPT_TRACE_ID, "unit-test");

    log_message(LOG_ERR, "text");

    unsetenv("QUARN_LOG_TRACE_ID");
    EXPECT_EQ(timer_now().it_value.tv_sec, 0);
    EXPECT_EQ(timer_now().it_value.tv_usec, 0);
    capture_syslog();
}

/* What the console back end writes to standard output of a record, and whether it returns, when standard error, or both
 * streams, are the pipe. */
ChildResult logged_to(const FullPipe &pipe, bool standard_output)
{
    return run_in_child([&] {
        kill_after(20);
        dup2(pipe.writer(), STDERR_FILENO);
        if (standard_output)
            dup2(pipe.writer(), STDOUT_FILENO);
        log_init("console", LOG_ERR, LOG_MAIL, 0, "unit-test");
        log_message(LOG_ERR, "%s", "text");
        _exit(7);
    });
}

class LogToFullPipeTest : public testing::TestWithParam<int> {};

TEST_P(LogToFullPipeTest, ConsoleWaitsNoLongerThanTheDeadline)
{
    const FullPipe pipe(GetParam());
    EXPECT_EQ(logged_to(pipe, true).exit_status, 7);
}

TEST_P(LogToFullPipeTest, StandardOutputGetsTheRecordThatStandardErrorDoesNotTake)
{
    const FullPipe pipe(GetParam());
    const ChildResult child = logged_to(pipe, false);
    EXPECT_EQ(child.exit_status, 7);
    EXPECT_EQ(child.out, "text\n");
}

INSTANTIATE_TEST_SUITE_P(BlockingOrNot, LogToFullPipeTest, testing::Values(0, O_NONBLOCK));

} // namespace
