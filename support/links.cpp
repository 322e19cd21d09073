#include "support/links.h"

#include <cerrno>

#include <unistd.h>

namespace arsp {

int read_link_target(int link, char (&target)[PATH_MAX])
{
    const ssize_t length = readlinkat(link, "", target, sizeof target);
    if (length < 0)
        return -1;
    if (length == sizeof target) {
        errno = ENAMETOOLONG;
        return -1;
    }
    target[length] = '\0';
    return 0;
}

} // namespace arsp
