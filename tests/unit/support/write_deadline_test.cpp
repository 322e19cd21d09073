#include "support/write_deadline.h"

#include <cerrno>
#include <csignal>
#include <ctime>

#include <sys/time.h>

#include <gtest/gtest.h>

#include "tests/unit/support/child_process.h"
#include "tests/unit/support/full_pipe.h"

using namespace arsp;

namespace {

/* Each test runs in a process of its own: deadlines stay enabled, and a missed one shortens the others. */
template <typename Body>
int status_with_deadlines(Body body)
{
    return run_in_child([&] {
               enable_write_deadlines();
               _exit(body());
           })
        .exit_status;
}

constexpr long MILLISECOND = 1000000; /* nanoseconds */

/* Returns whether a sleep of a minute is interrupted, and no earlier than after `least` nanoseconds. */
bool interrupts_after(long least)
{
    timespec start = {};
    timespec end = {};
    clock_gettime(CLOCK_MONOTONIC, &start);
    const timespec minute = {60, 0};
    const bool interrupted = nanosleep(&minute, nullptr) != 0 && errno == EINTR;
    clock_gettime(CLOCK_MONOTONIC, &end);
    return interrupted && (end.tv_sec - start.tv_sec) * 1000 * MILLISECOND + end.tv_nsec - start.tv_nsec >= least;
}

TEST(WriteDeadlineTest, HasNoEffectUntilEnabled)
{
    const WriteDeadline deadline;
    struct sigaction action = {};
    sigaction(SIGRTMIN, nullptr, &action);
    EXPECT_EQ(action.sa_handler, SIG_DFL);
    EXPECT_FALSE(deadline.passed());
}

TEST(WriteDeadlineTest, InterruptsEachWaitAfterASecondAndLaterOnesAfterAMillisecond)
{
    EXPECT_EQ(status_with_deadlines([] {
                  {
                      const WriteDeadline deadline;
                      if (deadline.passed() || !interrupts_after(900 * MILLISECOND) || !deadline.passed())
                          return 1;
                      if (!interrupts_after(900 * MILLISECOND))
                          return 2;
                  }
                  const WriteDeadline later;
                  if (later.passed())
                      return 3;
                  kill_after(10);
                  for (int wait = 0; wait < 20; ++wait) {
                      if (!interrupts_after(0))
                          return 4;
                  }
                  return 0;
              }),
              0);
}

TEST(WriteDeadlineTest, RestartForgetsThatItPassed)
{
    EXPECT_EQ(status_with_deadlines([] {
                  {
                      WriteDeadline deadline;
                      raise(SIGRTMIN);
                      deadline.restart();
                      if (deadline.passed())
                          return 1;
                  }
                  const WriteDeadline later;
                  return interrupts_after(900 * MILLISECOND) ? 0 : 2;
              }),
              0);
}

TEST(WriteDeadlineTest, TimerStopsWithTheDeadline)
{
    EXPECT_EQ(status_with_deadlines([] {
                  {
                      const WriteDeadline deadline;
                      raise(SIGRTMIN);
                  }
                  {
                      const WriteDeadline brief;
                  }
                  const timespec longer = {0, 50 * MILLISECOND};
                  return nanosleep(&longer, nullptr);
              }),
              0);
}

TEST(WriteDeadlineTest, SignalThatTheCallerBlockedOrIgnoredInterruptsAllTheSame)
{
    EXPECT_EQ(status_with_deadlines([] {
                  sigset_t all;
                  sigfillset(&all);
                  sigprocmask(SIG_SETMASK, &all, nullptr);
                  signal(SIGRTMIN, SIG_IGN);
                  const WriteDeadline deadline;
                  return interrupts_after(0) ? 0 : 1;
              }),
              0);
}

TEST(WriteDeadlineTest, AlarmTimerOfTheCallerKeepsRunning)
{
    EXPECT_EQ(status_with_deadlines([] {
                  const itimerval alarm_soon = {{0, 0}, {0, 500000}};
                  setitimer(ITIMER_REAL, &alarm_soon, nullptr);
                  const WriteDeadline deadline;
                  pause();
                  return 0;
              }),
              -1); /* SIGALRM ended the process */
}

} // namespace
