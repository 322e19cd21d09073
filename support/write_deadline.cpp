#include "support/write_deadline.h"

namespace {

volatile std::sig_atomic_t a_write_was_given_up = 0;

void give_up_write(int)
{
    a_write_was_given_up = 1;
}

} // namespace

WriteDeadline::WriteDeadline()
{
    struct sigaction interrupt = {}; /* no SA_RESTART: the waiting call is to fail */
    interrupt.sa_handler = give_up_write;
    sigaction(SIGALRM, &interrupt, &old_action_);
    sigset_t alarm_only;
    sigemptyset(&alarm_only);
    sigaddset(&alarm_only, SIGALRM);
    sigprocmask(SIG_UNBLOCK, &alarm_only, &old_mask_);
    /* Again and again: syslog tries a second time, and there may be several writes. */
    const timeval wait = a_write_was_given_up != 0 ? timeval{0, 1000} : timeval{1, 0};
    const itimerval timer = {wait, wait};
    setitimer(ITIMER_REAL, &timer, &old_timer_);
}

bool WriteDeadline::wasMissed()
{
    return a_write_was_given_up != 0;
}

void WriteDeadline::forget()
{
    a_write_was_given_up = 0;
}

WriteDeadline::~WriteDeadline()
{
    setitimer(ITIMER_REAL, &old_timer_, nullptr);
    sigprocmask(SIG_SETMASK, &old_mask_, nullptr);
    sigaction(SIGALRM, &old_action_, nullptr);
}
