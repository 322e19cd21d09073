/* Preloaded into the tool: holds the run before one of its calls that take a directory and a name, or change an owner.
 * Between two such calls nothing depends on names, so a test that changes the tree before each of them in turn has
 * tried every moment.
 *
 * HELD_NUMBER  which of these calls is held, from 1
 * HELD_SOCKET  a descriptor: the run writes the call's name there, and goes on when it has read a byte
 */
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

int rendezvous = -1;
int calls_left = 0;

__attribute__((constructor)) void take_settings()
{
    rendezvous = std::atoi(std::getenv("HELD_SOCKET"));
    calls_left = std::atoi(std::getenv("HELD_NUMBER"));
    fcntl(rendezvous, F_SETFD, FD_CLOEXEC);
    unsetenv("LD_PRELOAD"); /* the programs that the tool starts are not held */
}

void hold(const char *call)
{
    char byte = 0;
    if (--calls_left == 0 &&
        (write(rendezvous, call, std::strlen(call)) < 0 || read(rendezvous, &byte, sizeof byte) < 0))
        std::abort();
}

} // namespace

/* The raw calls: the functions of the C library are the ones replaced here. */
#define PLACE int directory, const char *path

extern "C" int openat(PLACE, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    hold("openat");
    return static_cast<int>(syscall(SYS_openat, directory, path, flags, mode));
}

extern "C" int fstatat(PLACE, struct stat *status, int flags)
{
    hold("fstatat");
    return static_cast<int>(syscall(SYS_newfstatat, directory, path, status, flags));
}

extern "C" int statx(PLACE, int flags, unsigned mask, struct statx *status)
{
    hold("statx");
    return static_cast<int>(syscall(SYS_statx, directory, path, flags, mask, status));
}

extern "C" ssize_t readlinkat(PLACE, char *target, size_t size)
{
    hold("readlinkat");
    return syscall(SYS_readlinkat, directory, path, target, size);
}

extern "C" int mkdir(const char *path, mode_t mode)
{
    hold("mkdir");
    return static_cast<int>(syscall(SYS_mkdirat, AT_FDCWD, path, mode));
}

extern "C" int mkdirat(PLACE, mode_t mode)
{
    hold("mkdirat");
    return static_cast<int>(syscall(SYS_mkdirat, directory, path, mode));
}

extern "C" int unlinkat(PLACE, int flags)
{
    hold("unlinkat");
    return static_cast<int>(syscall(SYS_unlinkat, directory, path, flags));
}

extern "C" int chown(const char *path, uid_t uid, gid_t gid)
{
    hold("chown");
    return static_cast<int>(syscall(SYS_fchownat, AT_FDCWD, path, uid, gid, 0));
}

extern "C" int fchown(int fd, uid_t uid, gid_t gid)
{
    hold("fchown");
    return static_cast<int>(syscall(SYS_fchown, fd, uid, gid));
}

extern "C" int fchownat(PLACE, uid_t uid, gid_t gid, int flags)
{
    hold("fchownat");
    return static_cast<int>(syscall(SYS_fchownat, directory, path, uid, gid, flags));
}

/* The same functions under the names that optimized or 64-bit code calls them by. */
extern "C" int openat64(PLACE, int flags, ...) __attribute__((alias("openat")));
extern "C" int fstatat64(PLACE, struct stat64 *status, int flags) __attribute__((alias("fstatat")));
extern "C" int __openat_2(PLACE, int flags)
{
    return openat(directory, path, flags);
}
extern "C" int __openat64_2(PLACE, int flags)
{
    return openat(directory, path, flags);
}
extern "C" ssize_t __readlinkat_chk(PLACE, char *target, size_t size, size_t)
{
    return readlinkat(directory, path, target, size);
}
