#ifndef ARSP_TESTS_UNIT_STORE_PAUSE_CAPTURE_H
#define ARSP_TESTS_UNIT_STORE_PAUSE_CAPTURE_H

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <vector>

#include <unistd.h>

/* A program that includes this header never sleeps: the requested lengths are recorded instead. */

struct PauseCapture {
    std::vector<long long> pauses;           /* of nanosleep, in ns: the store's own */
    std::vector<long> waits;                 /* of usleep, in us: SQLite's busy timeout */
    std::function<int()> on_pause = nullptr; /* called in each nanosleep, which returns its result */
};

inline PauseCapture pause_capture;

constexpr size_t MOST_PAUSES = 1'000'000;

/* The linker resolves nanosleep and usleep to these. */
inline int captured_nanosleep(const timespec *length, timespec *rest) __asm__("nanosleep") __attribute__((used));
inline int captured_nanosleep(const timespec *length, timespec * /*rest*/)
{
    if (length->tv_sec < 0 || length->tv_nsec < 0 || length->tv_nsec > 999'999'999) {
        errno = EINVAL;
        return -1;
    }
    if (pause_capture.pauses.size() == MOST_PAUSES) {
        std::fprintf(stderr, "%zu pauses: the loop does not end\n", MOST_PAUSES);
        std::abort(); /* before the records fill the memory */
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

/* For on_pause: fails like a pause that a signal interrupts. */
inline int interrupted()
{
    errno = EINTR;
    return -1;
}

#endif
