#include "support/files.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <pwd.h>
#include <unistd.h>

#include "support/c_handles.h"
#include "support/fatal.h"
#include "support/log.h"
#include "support/text.h"

using namespace arsp;

namespace {

/* Creates `path` unless it exists, with further flags of open. Returns 0; or -1 with errno set. */
int create_and_close(const char *path, int flags)
{
    const int fd = open(path, O_WRONLY | O_CREAT | O_CLOEXEC | flags, 0644);
    return fd < 0 ? -1 : close(fd);
}

} // namespace

int chown_chmod(const char *path, uid_t uid, gid_t gid, mode_t mode)
{
    if (chown(path, uid, gid) != 0) {
        log_message(LOG_ERR, "ERROR: unable to chown %s: %s\n", path, std::strerror(errno));
        return -1;
    }
    if (chmod(path, mode) != 0) {
        log_message(LOG_ERR, "ERROR: unable to chmod %s: %s\n", path, std::strerror(errno));
        return -1;
    }
    return 0;
}

int chown_chmod_if_exists(const char *path, uid_t uid, gid_t gid, mode_t mode)
{
    struct stat status = {};
    return stat(path, &status) != 0 ? 0 : chown_chmod(path, uid, gid, mode);
}

int chown_chmod_to_user(const char *path, const char *user, mode_t mode)
{
    const passwd *account = getpwnam(user);
    if (account == nullptr) {
        fatal_error(0, 1, "user %s not found", user);
        return -1;
    }
    return chown_chmod(path, account->pw_uid, account->pw_gid, mode);
}

int create_truncate_file(const char *path)
{
    if (create_and_close(path, O_TRUNC) == 0)
        return 0;
    log_message(LOG_ERR, "Unable to truncate or create file %s: %s", path, std::strerror(errno));
    return -1;
}

int create_file(const char *path)
{
    if (create_and_close(path, 0) == 0)
        return 0;
    fatal_error(0, 1, "Unable to create file %s: %s", path, std::strerror(errno));
    return -1;
}

int close_file(FILE *stream)
{
    const int result = std::fclose(stream);
    if (result != 0)
        fatal_error(0, 1, "Unable to close the file: %s\n", std::strerror(errno));
    return result;
}

int first_existing_path(const char **out, const char *const *candidates)
{
    for (; *candidates != nullptr; ++candidates) {
        struct stat status = {};
        if (stat(*candidates, &status) == 0)
            break;
        errno = 0;
    }
    *out = *candidates;
    return *out != nullptr ? 1 : 0;
}

int read_first_line(char *buffer, size_t size, const char *path)
{
    const FilePtr file(std::fopen(path, "re"));
    if (file == nullptr) {
        fatal_error(0, 1, "Unable to open file %s: %s\n", path, std::strerror(errno));
        return -1;
    }
    LineBuffer line;
    const bool found = getline(&line.text, &line.size, file.get()) != -1;
    if (std::ferror(file.get()) != 0 || (!found && std::feof(file.get()) == 0)) {
        fatal_error(0, 1, "Unable to read line from file: %s\n", path);
        return -1;
    }
    if (!found) {
        std::memset(buffer, 0, size);
        return 0;
    }
    const char *text = str_trim_space(line.text);
    const size_t length = std::strlen(text);
    if (length >= size) {
        fatal_error(0, 1, "The buffer too short\n");
        return -1;
    }
    std::memcpy(buffer, text, length + 1);
    return 0;
}

const char *file_type_name(mode_t mode)
{
    switch (mode & S_IFMT) {
    case S_IFREG:
        return "regular file";
    case S_IFDIR:
        return "directory";
    case S_IFCHR:
        return "character device";
    case S_IFBLK:
        return "block device";
    case S_IFIFO:
        return "fifo";
    case S_IFLNK:
        return "symbolic link";
    case S_IFSOCK:
        return "socket";
    default:
        return "unknown";
    }
}
