#include "support/stream.h"

#include <cerrno>
#include <cstddef>
#include <iterator>

#include <poll.h>
#include <sys/uio.h>

#include "support/c_handles.h"
#include "support/write_deadline.h"

namespace arsp {

namespace {

using Parts = iovec[4];

iovec as_iovec(std::string_view text)
{
    return {const_cast<char *>(text.data()), text.size()};
}

/* Writes `parts`, which it modifies, until all is written, an error occurs or the deadline passes. */
void write_parts(int fd, Parts &parts, WriteDeadline &deadline)
{
    iovec *rest = parts;
    while (rest != std::end(parts)) {
        const ssize_t written = writev(fd, rest, static_cast<int>(std::end(parts) - rest));
        if (written < 0 && (errno == EAGAIN || errno == EINTR) && !deadline.passed()) {
            pollfd room = {fd, POLLOUT, 0};
            poll(&room, 1, -1); /* ignored: the next writev reports errors */
            continue;
        }
        if (written <= 0)
            return;
        auto taken = static_cast<std::size_t>(written);
        for (; rest != std::end(parts) && taken >= rest->iov_len; ++rest)
            taken -= rest->iov_len;
        if (rest != std::end(parts)) {
            rest->iov_base = static_cast<char *>(rest->iov_base) + taken;
            rest->iov_len -= taken;
            deadline.restart();
        }
    }
}

} // namespace

void write_text(FILE *stream, std::string_view first, std::string_view second, std::string_view third,
                std::string_view fourth)
{
    const KeepErrno keep;
    WriteDeadline deadline;
    Parts parts = {as_iovec(first), as_iovec(second), as_iovec(third), as_iovec(fourth)};
    const int fd = fileno(stream);
    if (fd < 0) {
        for (const iovec &part : parts)
            std::fwrite(part.iov_base, 1, part.iov_len, stream);
    }
    std::fflush(stream);
    if (fd >= 0)
        write_parts(fd, parts, deadline);
}

} // namespace arsp
