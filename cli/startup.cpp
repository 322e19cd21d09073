#include "cli/startup.h"

#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace {

constexpr int STANDARD_STREAMS = STDERR_FILENO + 1;

bool is_closed(int fd)
{
    return fcntl(fd, F_GETFD) == -1 && errno == EBADF;
}

int fill(int fd)
{
    /* O_PATH on the root directory: it opens whatever the process may read, and what inherits it finds EBADF too. */
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

    /* One call for the usual case, in which all three are open. poll() fails as a whole when the caller's limit on
     * open files is below three, and takes a descriptor opened with O_PATH for a closed one: fcntl() has the last word.
     */
    pollfd streams[STANDARD_STREAMS] = {{STDIN_FILENO, 0, 0}, {STDOUT_FILENO, 0, 0}, {STDERR_FILENO, 0, 0}};
    const bool polled = poll(streams, STANDARD_STREAMS, 0) >= 0;
    for (const pollfd &stream : streams) {
        const bool suspect = !polled || (stream.revents & POLLNVAL) != 0;
        if (suspect && is_closed(stream.fd) && fill(stream.fd) != 0)
            return -1;
    }
    return 0;
}
