#ifndef ARSP_SUPPORT_WRITE_DEADLINE_H
#define ARSP_SUPPORT_WRITE_DEADLINE_H

namespace arsp {

/* Switches write deadlines on, for the rest of the process. For a program that must not wait for ever while it holds a
 * lock. The first deadline then takes over the signal SIGRTMIN. Without this call a WriteDeadline has no effect. */
void enable_write_deadlines();

/* Limits, while it lives, how long each write may wait for a reader: syslog(3) and the standard streams wait for ever
 * for a process that does not read. After a second a signal interrupts the waiting call, which fails with EINTR; after
 * the first missed deadline, later ones allow a millisecond. One at a time. */
class WriteDeadline {
public:
    WriteDeadline() { restart(); }
    WriteDeadline(const WriteDeadline &) = delete;
    WriteDeadline &operator=(const WriteDeadline &) = delete;
    ~WriteDeadline();

    /* Starts the wait again, as if the deadline had not passed. */
    void restart();

    [[nodiscard]] bool passed() const;
};

} // namespace arsp

#endif
