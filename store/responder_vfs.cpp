#include "store/responder_vfs.h"

#include <climits>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>

#include "support/c_handles.h"
#include "support/links.h"

namespace arsp {

namespace {

/* Copies `text` with its NUL and returns whether it fits into `size` bytes. */
bool copy_text(char *to, std::size_t size, const char *text)
{
    return static_cast<std::size_t>(std::snprintf(to, size, "%s", text)) < size;
}

/* Replaces the path of a link by its target, which may be relative to the link's directory. Returns whether it fits. */
bool replace_by_target(char (&path)[PATH_MAX], const char *target)
{
    char *slash = *target == '/' ? nullptr : std::strrchr(path, '/');
    char *name = slash == nullptr ? path : slash + 1;
    return copy_text(name, sizeof path - static_cast<std::size_t>(name - path), target);
}

/* Replaces `path` by what it leads to, while it is a link of root's. Returns false at a link of another owner and after
 * MOST_LINKS links. Returns true when the file is missing, since SQLite creates it, and when it cannot be examined,
 * since SQLite's own open then fails. */
bool follow_links_of_root(char (&path)[PATH_MAX])
{
    for (int links = 0; links <= MOST_LINKS; ++links) {
        const Descriptor fd(open(path, O_PATH | O_NOFOLLOW | O_CLOEXEC));
        struct stat status = {};
        if (!fd || fstat(fd.get(), &status) != 0 || !S_ISLNK(status.st_mode))
            return true;
        char target[PATH_MAX];
        if (status.st_uid != 0 || read_link_target(fd.get(), target) != 0 || !replace_by_target(path, target))
            return false;
    }
    return false;
}

} // namespace

ResponderVfs::ResponderVfs() : sqlite3_vfs(), default_vfs_(sqlite3_vfs_find(nullptr))
{
    if (default_vfs_ == nullptr)
        return;
    static_cast<sqlite3_vfs &>(*this) = *default_vfs_;
    std::snprintf(name_, sizeof name_, "arsp-%p", static_cast<void *>(this)); /* each connection has its own */
    zName = name_;
    xFullPathname = fullPathname;
    xDelete = deleteFile;
    registered_ = sqlite3_vfs_register(this, 0) == SQLITE_OK;
}

ResponderVfs::~ResponderVfs()
{
    if (registered_)
        sqlite3_vfs_unregister(this);
}

/* Resolves links at the file itself by the rule above, then those in its directory's path like the default VFS. SQLite
 * opens the result with O_NOFOLLOW, so a link that replaces the file later is not followed either. */
int ResponderVfs::fullPathname(sqlite3_vfs *vfs, const char *path, int size, char *resolved)
{
    auto *self = static_cast<ResponderVfs *>(vfs);
    char file[PATH_MAX];
    if (!copy_text(file, sizeof file, path) || !follow_links_of_root(file))
        return SQLITE_CANTOPEN;

    char *slash = std::strrchr(file, '/');
    const char *name = slash == nullptr ? file : slash + 1;
    char *directory = self->directory_;
    directory[0] = '\0'; /* for a file in the root directory */
    if (slash != file) {
        if (slash != nullptr)
            *slash = '\0';
        const int rc = self->default_vfs_->xFullPathname(self->default_vfs_, slash == nullptr ? "." : file,
                                                         sizeof self->directory_, directory);
        if ((rc & 0xff) != SQLITE_OK) /* SQLITE_OK_SYMLINK is a success, too */
            return rc;
    }
    const int length = std::snprintf(resolved, static_cast<std::size_t>(size), "%s/%s", directory, name);
    if (length >= size || !copy_text(self->database_, sizeof self->database_, resolved))
        return SQLITE_CANTOPEN;
    if (directory[0] == '\0')
        copy_text(directory, sizeof self->directory_, "/");
    return SQLITE_OK;
}

int ResponderVfs::deleteFile(sqlite3_vfs *vfs, const char *path, int sync_directory)
{
    const auto *self = static_cast<ResponderVfs *>(vfs);
    const std::size_t length = std::strlen(self->database_);
    const char *suffix = std::strncmp(path, self->database_, length) == 0 ? path + length : "";
    if (std::strcmp(suffix, "-journal") != 0 && std::strcmp(suffix, "-wal") != 0)
        return SQLITE_OK;
    return self->default_vfs_->xDelete(self->default_vfs_, path, sync_directory);
}

} // namespace arsp
