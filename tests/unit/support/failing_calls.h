#ifndef ARSP_TESTS_UNIT_SUPPORT_FAILING_CALLS_H
#define ARSP_TESTS_UNIT_SUPPORT_FAILING_CALLS_H

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

/* In a program that includes this header, one call of fstat or readlinkat, or all calls of fsync, can fail with EIO. */

constexpr int NONE_FAILS = -1;

inline int calls_before_failure = NONE_FAILS;
inline bool fsync_fails = false;

inline bool this_call_fails()
{
    if (calls_before_failure == NONE_FAILS || calls_before_failure-- > 0)
        return false;
    errno = EIO;
    return true;
}

/* The linker takes these for fstat, readlinkat and fsync. */
inline int fstat_that_may_fail(int fd, struct stat *status) __asm__("fstat") __attribute__((used));
inline int fstat_that_may_fail(int fd, struct stat *status)
{
    return this_call_fails() ? -1 : fstatat(fd, "", status, AT_EMPTY_PATH);
}

inline ssize_t readlinkat_that_may_fail(int dir, const char *path, char *target, size_t size) __asm__("readlinkat")
    __attribute__((used));
inline ssize_t readlinkat_that_may_fail(int dir, const char *path, char *target, size_t size)
{
    return this_call_fails() ? -1 : syscall(SYS_readlinkat, dir, path, target, size);
}

inline int fsync_that_may_fail(int fd) __asm__("fsync") __attribute__((used));
inline int fsync_that_may_fail(int fd)
{
    if (!fsync_fails)
        return static_cast<int>(syscall(SYS_fsync, fd));
    errno = EIO;
    return -1;
}

#endif
