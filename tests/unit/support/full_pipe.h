#ifndef ARSP_TESTS_UNIT_SUPPORT_FULL_PIPE_H
#define ARSP_TESTS_UNIT_SUPPORT_FULL_PIPE_H

#include <csignal>
#include <ctime>

#include <fcntl.h>
#include <unistd.h>

/* A full pipe. `flags` are those of its writing end: 0 or O_NONBLOCK. */
class FullPipe {
public:
    explicit FullPipe(int flags)
    {
        if (pipe2(ends_, O_CLOEXEC) != 0 || fcntl(ends_[1], F_SETFL, O_NONBLOCK) != 0)
            _exit(98);
        while (write(ends_[1], "x", 1) == 1)
            continue;
        fcntl(ends_[1], F_SETFL, flags);
    }
    FullPipe(const FullPipe &) = delete;
    FullPipe &operator=(const FullPipe &) = delete;
    ~FullPipe()
    {
        close(ends_[0]);
        close(ends_[1]);
    }

    int reader() const { return ends_[0]; }
    int writer() const { return ends_[1]; }
    void closeWriter()
    {
        close(ends_[1]);
        ends_[1] = -1;
    }

private:
    int ends_[2] = {-1, -1};
};

/* Kills the process after this time, so that a test of an endless wait fails. */
inline void kill_after(time_t seconds)
{
    sigevent event = {};
    event.sigev_notify = SIGEV_SIGNAL;
    event.sigev_signo = SIGKILL;
    timer_t timer = nullptr;
    const itimerspec limit = {{0, 0}, {seconds, 0}};
    if (timer_create(CLOCK_MONOTONIC, &event, &timer) != 0 || timer_settime(timer, 0, &limit, nullptr) != 0)
        _exit(98);
}

#endif
