#ifndef ARSP_SUPPORT_WRITE_DEADLINE_H
#define ARSP_SUPPORT_WRITE_DEADLINE_H

#include <csignal>
#include <sys/time.h>

/* Bounds, while it lives, the time that each write may wait for a reader: syslog(3) and the standard streams wait for
 * ever when nobody reads the other end, and a run may hold a database lock meanwhile. The waiting call fails with EINTR
 * after a second; once that happened, those after it, in this and all later deadlines, get a millisecond.
 * Uses SIGALRM and the real-time timer of the process, and puts both back. */
class WriteDeadline {
public:
    WriteDeadline();
    WriteDeadline(const WriteDeadline &) = delete;
    WriteDeadline &operator=(const WriteDeadline &) = delete;
    ~WriteDeadline();

    /* Whether a write was given up so far; forget() starts anew, once the stream in question is left alone. */
    static bool wasMissed();
    static void forget();

private:
    struct sigaction old_action_ = {};
    sigset_t old_mask_ = {};
    itimerval old_timer_ = {};
};

#endif
