#include "support/standard_input.h"

#include <cerrno>
#include <cstring>
#include <new>

#include <poll.h>
#include <sys/syslog.h>
#include <unistd.h>

#include "support/log.h"

namespace arsp {

namespace {

constexpr std::size_t FIRST_BLOCK = 65536; /* bytes; the capacity of a pipe */

void double_capacity(CString &bytes, std::size_t &capacity)
{
    const std::size_t wanted = capacity == 0 ? FIRST_BLOCK : capacity * 2; /* no block is too large to be doubled */
    if (!resize(bytes, wanted))
        throw std::bad_alloc();
    capacity = wanted;
}

void wait_until_readable()
{
    pollfd input = {STDIN_FILENO, POLLIN, 0};
    poll(&input, 1, -1); /* ignored: the next read reports errors */
}

} // namespace

int read_standard_input(InputText &input)
{
    std::size_t capacity = 0;
    input = InputText();
    for (;;) {
        if (input.length == capacity)
            double_capacity(input.bytes, capacity);
        const ssize_t got = read(STDIN_FILENO, input.bytes.get() + input.length, capacity - input.length);
        if (got == 0)
            return 0;
        if (got > 0) {
            input.length += static_cast<std::size_t>(got);
        } else if (errno == EAGAIN) {
            wait_until_readable();
        } else if (errno != EINTR) {
            log_message(LOG_ERR, "Unable to read standard input: %s", std::strerror(errno));
            return -1;
        }
    }
}

} // namespace arsp
