#include "support/flush.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

#include "support/c_handles.h"
#include "support/log.h"

namespace arsp {

int flush(int fd)
{
    const int result = fsync(fd);
    return result != 0 && errno == EINVAL ? 0 : result;
}

int flush_directory(const char *path)
{
    const Descriptor directory(open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory && flush(directory.get()) == 0)
        return 0;
    log_flush_failure(path);
    return -1;
}

void log_flush_failure(const char *path)
{
    log_message(LOG_ERR, "Unable to flush %s: %s", path, std::strerror(errno));
}

} // namespace arsp
