#include "support/write_deadline.h"

#include <csignal>
#include <ctime>

namespace arsp {

namespace {

constexpr timespec FIRST_WAIT = {1, 0};         /* a second */
constexpr timespec LATER_WAIT = {0, 1'000'000}; /* a millisecond, after a missed deadline */

bool enabled = false;
bool missed = false;                    /* an earlier deadline passed */
volatile std::sig_atomic_t expired = 0; /* the current one passed */

void set_expired(int)
{
    expired = 1;
}

/* A timer and a signal of our own: the caller's SIGALRM and its timer, which survive exec, stay as they are. */
timer_t make_timer()
{
    struct sigaction interrupt = {}; /* no SA_RESTART: the waiting call has to fail */
    interrupt.sa_handler = set_expired;
    sigaction(SIGRTMIN, &interrupt, nullptr);
    sigset_t unblocked = {};
    sigaddset(&unblocked, SIGRTMIN);
    sigprocmask(SIG_UNBLOCK, &unblocked, nullptr);
    sigevent event = {};
    event.sigev_notify = SIGEV_SIGNAL;
    event.sigev_signo = SIGRTMIN;
    timer_t timer = {};
    timer_create(CLOCK_MONOTONIC, &event, &timer); /* result ignored: without a timer there is no deadline */
    return timer;
}

/* Makes the timer expire after each `interval`, or stops it if that is zero. It repeats because syslog tries a second
 * time and there may be several writes. */
void set_timer(timespec interval)
{
    if (!enabled)
        return;
    static const timer_t timer = make_timer();
    const itimerspec setting = {interval, interval};
    timer_settime(timer, 0, &setting, nullptr);
}

} // namespace

void enable_write_deadlines()
{
    enabled = true;
}

void WriteDeadline::restart()
{
    set_timer(missed ? LATER_WAIT : FIRST_WAIT);
    expired = 0;
}

bool WriteDeadline::passed() const
{
    return expired != 0;
}

WriteDeadline::~WriteDeadline()
{
    set_timer({0, 0});
    missed = missed || passed();
}

} // namespace arsp
