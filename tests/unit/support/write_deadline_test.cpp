#include "support/write_deadline.h"

#include <csignal>

#include <gtest/gtest.h>

namespace {

bool alarm_is_blocked()
{
    sigset_t now;
    sigprocmask(SIG_BLOCK, nullptr, &now);
    return sigismember(&now, SIGALRM) == 1;
}

TEST(WriteDeadlineTest, AlarmThatTheCallerHasBlockedComesThroughMeanwhile)
{
    sigset_t alarm_only;
    sigemptyset(&alarm_only);
    sigaddset(&alarm_only, SIGALRM);
    sigprocmask(SIG_BLOCK, &alarm_only, nullptr);

    {
        const WriteDeadline deadline;
        EXPECT_FALSE(alarm_is_blocked());
    }

    EXPECT_TRUE(alarm_is_blocked());
    sigprocmask(SIG_UNBLOCK, &alarm_only, nullptr);
}

} // namespace
