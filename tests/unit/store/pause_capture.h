#ifndef ARSP_TESTS_UNIT_STORE_PAUSE_CAPTURE_H
#define ARSP_TESTS_UNIT_STORE_PAUSE_CAPTURE_H

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <vector>

#include <unistd.h>

/* A program that includes this header never sleeps: how long it would have is kept here instead. */

struct PauseCapture {
    std::vector<long long> pauses;           /* ns, as nanosleep was asked for: the store's own */
    std::vector<long> waits;                 /* us, as usleep was asked for: SQLite's busy timeout */
    std::function<int()> on_pause = nullptr; /* called in each of the store's own, and its answer is nanosleep's */
};

inline PauseCapture pause_capture;

constexpr size_t MOST_PAUSES = 1'000'000;

/* The linker takes these for the C library's functions of the names in the asm labels. */
inline int captured_nanosleep(const timespec *length, timespec *rest) __asm__("nanosleep") __attribute__((used));
inline int captured_nanosleep(const timespec *length, timespec * /*rest*/)
{
    if (length->tv_sec < 0 || length->tv_nsec < 0 || length->tv_nsec > 999'999'999) {
        errno = EINVAL;
        return -1;
    }
    if (pause_capture.pauses.size() == MOST_PAUSES) {
        std::fprintf(stderr, "%zu pauses: what is waited for does not come\n", MOST_PAUSES);
        std::abort(); /* without sleeping, an endless loop would soon have used up the memory */
    }
    pause_capture.pauses.push_back(length->tv_sec * 1'000'000'000LL + length->tv_nsec);
    return pause_capture.on_pause ? pause_capture.on_pause() : 0;
}

inline int captured_usleep(useconds_t length) __asm__("usleep") __attribute__((used));
inline int captured_usleep(useconds_t length)
{
    pause_capture.waits.push_back(length);
    return 0;
}

/* What a signal does to a pause. */
inline int interrupted()
{
    errno = EINTR;
    return -1;
}

#endif
