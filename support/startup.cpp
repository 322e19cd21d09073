#include "support/startup.h"

#include <csignal>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace {

constexpr int STANDARD_STREAMS = STDERR_FILENO + 1;

bool is_closed(int fd)
{
    return fcntl(fd, F_GETFD) == -1; /* it has no other failure */
}

/* Opens `fd` so that it can be neither read nor written. Returns 0 or -1. */
int occupy(int fd)
{
    /* With O_PATH the root directory can be opened without any right; reading and writing fail with EBADF. */
    const int opened = open("/", O_PATH | O_DIRECTORY);
    if (opened != fd && opened >= 0)
        close(opened);
    return opened == fd ? 0 : -1;
}

} // namespace

int secure_standard_streams()
{
    signal(SIGPIPE, SIG_IGN);
    signal(SIGXFSZ, SIG_IGN); /* beyond the caller's limit on file sizes a write fails instead, and is reported */

    /* One call for the usual case that all three are open. poll() fails when the caller's limit on open files is below
     * three and reports descriptors opened with O_PATH as closed, so fcntl() decides on the others. */
    pollfd streams[STANDARD_STREAMS] = {{STDIN_FILENO, 0, 0}, {STDOUT_FILENO, 0, 0}, {STDERR_FILENO, 0, 0}};
    const bool polled = poll(streams, STANDARD_STREAMS, 0) >= 0;
    for (const pollfd &stream : streams) {
        const bool maybe_closed = !polled || (stream.revents & POLLNVAL) != 0;
        if (maybe_closed && is_closed(stream.fd) && occupy(stream.fd) != 0)
            return -1;
    }
    return 0;
}
