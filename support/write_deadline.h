#ifndef ARSP_SUPPORT_WRITE_DEADLINE_H
#define ARSP_SUPPORT_WRITE_DEADLINE_H

#include <csignal>
#include <sys/time.h>

namespace arsp {

/* Limits, while it lives, how long each write may wait for a reader: syslog(3) and the standard streams wait for ever
 * for a process that does not read, and a run may hold a database lock meanwhile. After a second an alarm interrupts
 * the waiting call, which fails with EINTR; after the first alarm, later deadlines allow a millisecond.
 *
 * Uses SIGALRM and the real-time timer of the process and restores both. An alarm of the caller's that was blocked and
 * pending is pending again afterwards. */
class WriteDeadline {
public:
    WriteDeadline();
    WriteDeadline(const WriteDeadline &) = delete;
    WriteDeadline &operator=(const WriteDeadline &) = delete;
    ~WriteDeadline();

    /* Begins the wait anew, and forgets an alarm: the reader is slow, but it reads. */
    void restart();

    /* Returns whether an alarm has come since this deadline began. */
    bool passed() const;

    /* Whether any deadline has passed; forget() starts anew, once the stream in question is left alone. */
    static bool wasMissed();
    static void forget();

private:
    itimerval old_timer_ = {};
    struct sigaction old_action_ = {};
    sigset_t old_mask_ = {};
    bool was_pending_ = false;
    const int alarms_before_;
};

} // namespace arsp

#endif
