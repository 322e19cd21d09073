#include "support/write_deadline.h"

#include <unistd.h>

namespace arsp {

namespace {

volatile std::sig_atomic_t alarms = 0;

void count_alarm(int)
{
    alarms = alarms + 1;
}

constexpr itimerval OFF = {};

} // namespace

WriteDeadline::WriteDeadline() : alarms_before_(alarms)
{
    setitimer(ITIMER_REAL, &OFF, &old_timer_); /* first: our handler must not take an alarm of the caller's timer */
    sigset_t pending = {};
    sigpending(&pending);
    was_pending_ = sigismember(&pending, SIGALRM) == 1;
    struct sigaction interrupt = {}; /* no SA_RESTART: the waiting call has to fail */
    interrupt.sa_handler = count_alarm;
    sigaction(SIGALRM, &interrupt, &old_action_);
    sigset_t alarm_only;
    sigemptyset(&alarm_only);
    sigaddset(&alarm_only, SIGALRM);
    sigprocmask(SIG_UNBLOCK, &alarm_only, &old_mask_); /* a pending alarm comes now; restart() forgets it */
    restart();
}

void WriteDeadline::restart()
{
    /* Again and again: syslog tries a second time, and there may be several writes. */
    const timeval wait = alarms_before_ != 0 ? timeval{0, 1000} : timeval{1, 0};
    const itimerval timer = {wait, wait};
    setitimer(ITIMER_REAL, &timer, nullptr);
    alarms = alarms_before_;
}

bool WriteDeadline::passed() const
{
    return alarms != alarms_before_;
}

bool WriteDeadline::wasMissed()
{
    return alarms != 0;
}

void WriteDeadline::forget()
{
    alarms = 0;
}

WriteDeadline::~WriteDeadline()
{
    setitimer(ITIMER_REAL, &OFF, nullptr);
    sigprocmask(SIG_SETMASK, &old_mask_, nullptr);
    sigaction(SIGALRM, &old_action_, nullptr);
    if (was_pending_)
        kill(getpid(), SIGALRM);
    setitimer(ITIMER_REAL, &old_timer_, nullptr);
}

} // namespace arsp
