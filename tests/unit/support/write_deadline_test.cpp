#include "support/write_deadline.h"

#include <csignal>

#include <dlfcn.h>
#include <sys/time.h>

#include <gtest/gtest.h>

using namespace arsp;

namespace {

volatile std::sig_atomic_t alarms_of_the_caller = 0;

void count_alarm_of_the_caller(int)
{
    alarms_of_the_caller = alarms_of_the_caller + 1;
}

constexpr time_t CALLERS_SECONDS = 77; /* what the caller's timer is set to */

/* Lets the caller's timer expire now, if it runs. */
void expire_timer_of_the_caller()
{
    itimerval timer = {};
    getitimer(ITIMER_REAL, &timer);
    if (timer.it_value.tv_sec < CALLERS_SECONDS - 10 || timer.it_value.tv_sec > CALLERS_SECONDS)
        return;
    const itimerval off = {};
    setitimer(ITIMER_REAL, &off, nullptr);
    raise(SIGALRM);
}

} // namespace

/* The linker takes this for sigaction. The caller's timer, where it runs, expires while a handler other than the
 * caller's is there. */
int sigaction_when_the_timer_expires(int number, const struct sigaction *action,
                                     struct sigaction *old) __asm__("sigaction");
int sigaction_when_the_timer_expires(int number, const struct sigaction *action, struct sigaction *old)
{
    using Sigaction = int(int, const struct sigaction *, struct sigaction *);
    static const auto real_sigaction = reinterpret_cast<Sigaction *>(dlsym(RTLD_NEXT, "sigaction"));
    const bool is_callers = action != nullptr && action->sa_handler == count_alarm_of_the_caller;
    if (is_callers)
        expire_timer_of_the_caller();
    const int result = real_sigaction(number, action, old);
    if (!is_callers)
        expire_timer_of_the_caller();
    return result;
}

namespace {

sigset_t only_alarm()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGALRM);
    return signals;
}

bool alarm_is_blocked()
{
    sigset_t now;
    sigprocmask(SIG_BLOCK, nullptr, &now);
    return sigismember(&now, SIGALRM) == 1;
}

bool alarm_is_pending()
{
    sigset_t now;
    sigpending(&now);
    return sigismember(&now, SIGALRM) == 1;
}

/* The caller has blocked SIGALRM. */
class BlockedAlarmTest : public testing::Test {
protected:
    void SetUp() override { sigprocmask(SIG_BLOCK, &alarm_, &old_mask_); }
    void TearDown() override
    {
        const timespec at_once = {0, 0};
        while (sigtimedwait(&alarm_, nullptr, &at_once) == SIGALRM)
            continue;
        sigprocmask(SIG_SETMASK, &old_mask_, nullptr);
        WriteDeadline::forget();
    }

private:
    const sigset_t alarm_ = only_alarm();
    sigset_t old_mask_ = {};
};

TEST_F(BlockedAlarmTest, AlarmIsUnblockedMeanwhile)
{
    {
        const WriteDeadline deadline;
        EXPECT_FALSE(alarm_is_blocked());
    }
    EXPECT_TRUE(alarm_is_blocked());
}

TEST_F(BlockedAlarmTest, PendingAlarmIsPendingAgainAfterwards)
{
    raise(SIGALRM);
    {
        const WriteDeadline deadline;
    }
    EXPECT_TRUE(alarm_is_pending());
}

TEST_F(BlockedAlarmTest, PendingAlarmIsNoMissedWrite)
{
    raise(SIGALRM);
    {
        const WriteDeadline deadline;
        EXPECT_FALSE(deadline.passed());
    }
    EXPECT_FALSE(WriteDeadline::wasMissed());
}

TEST_F(BlockedAlarmTest, WithoutAPendingAlarmNoneIsPendingAfterwards)
{
    {
        const WriteDeadline deadline;
        raise(SIGALRM);
    }
    EXPECT_FALSE(alarm_is_pending());
}

TEST(WriteDeadlineTest, AlarmMeanwhileIsAMissedWrite)
{
    {
        const WriteDeadline deadline;
        EXPECT_FALSE(deadline.passed());
        raise(SIGALRM);
        EXPECT_TRUE(deadline.passed());
    }
    EXPECT_TRUE(WriteDeadline::wasMissed());
    EXPECT_FALSE(WriteDeadline().passed());
    WriteDeadline::forget();
    EXPECT_FALSE(WriteDeadline::wasMissed());
}

TEST(WriteDeadlineTest, RestartForgetsTheAlarm)
{
    {
        WriteDeadline deadline;
        raise(SIGALRM);
        deadline.restart();
        EXPECT_FALSE(deadline.passed());
    }
    EXPECT_FALSE(WriteDeadline::wasMissed());
}

TEST(WriteDeadlineTest, LaterDeadlinesAllowAMillisecond)
{
    const auto limit = [] {
        const WriteDeadline deadline;
        itimerval timer = {};
        getitimer(ITIMER_REAL, &timer);
        return timer.it_interval.tv_sec * 1000000 + timer.it_interval.tv_usec;
    };
    EXPECT_EQ(limit(), 1000000);
    {
        const WriteDeadline deadline;
        raise(SIGALRM);
    }
    EXPECT_EQ(limit(), 1000);
    WriteDeadline::forget();
    EXPECT_EQ(limit(), 1000000);
}

TEST(WriteDeadlineTest, CallersTimerExpiresInTheCallersHandler)
{
    struct sigaction mine = {};
    mine.sa_handler = count_alarm_of_the_caller;
    struct sigaction old = {};
    sigaction(SIGALRM, &mine, &old);
    const itimerval later = {{0, 0}, {CALLERS_SECONDS, 0}};
    setitimer(ITIMER_REAL, &later, nullptr);
    {
        const WriteDeadline deadline;
    }
    expire_timer_of_the_caller();
    sigaction(SIGALRM, &old, nullptr);
    EXPECT_EQ(alarms_of_the_caller, 1);
}

} // namespace
