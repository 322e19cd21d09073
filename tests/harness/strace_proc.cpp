/* Preloaded into strace inside a chroot. strace tells the file behind a descriptor by a link below /proc, which is not
 * there; so it reads that link in the /proc outside, through a directory opened before. The kernel writes the target as
 * it is seen from the reader's root. Neither the directory nor this library reaches the traced program. */
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

namespace {

int proc = -1;

__attribute__((constructor)) void take_proc()
{
    proc = std::atoi(std::getenv("STRACE_PROC"));
    fcntl(proc, F_SETFD, FD_CLOEXEC);
}

} // namespace

extern "C" ssize_t readlink(const char *path, char *target, size_t size)
{
    if (std::strncmp(path, "/proc/", 6) == 0)
        return readlinkat(proc, path + 6, target, size);
    return readlinkat(AT_FDCWD, path, target, size);
}
