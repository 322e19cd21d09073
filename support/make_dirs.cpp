#include "support/make_dirs.h"

#include <cerrno>
#include <climits>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/dir_stream.h"
#include "support/fatal.h"
#include "support/text.h"

namespace arsp {

namespace {

bool is_empty_directory(int directory)
{
    const DirPtr stream = open_dir_stream(Descriptor(fcntl(directory, F_DUPFD_CLOEXEC, 0)));
    return stream != nullptr && next_entry(stream.get()) == nullptr;
}

/* Opens the directory `name` that was just made in `parent`. A user who may write to `parent` can replace it: a
 * directory of another owner, or with an entry in it, is refused. */
Descriptor open_new_dir(int parent, const char *name)
{
    Descriptor made(openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status = {};
    if (made && fstat(made.get(), &status) == 0 && (status.st_uid != geteuid() || !is_empty_directory(made.get()))) {
        errno = ESTALE;
        return Descriptor();
    }
    return made;
}

void exit_unable_to_create(const char *path)
{
    fatal_error(1, 1, "Cannot create directory %s: %s", path, std::strerror(errno));
}

Descriptor open_existing(const DirTree &tree, Descriptor parent, const char *name, std::size_t offset)
{
    if (offset >= tree.trusted_length)
        return tree.open_existing(std::move(parent), name);
    return Descriptor(openat(parent.get(), name, O_PATH | O_DIRECTORY | O_CLOEXEC));
}

/* Makes the directory `name` in `parent`, unless it exists, and sets its owner. `path` is its name in messages.
 * Returns it; or an empty descriptor if it existed or was replaced meanwhile. Ends the process if it cannot be made. */
Descriptor make_dir(const DirTree &tree, int parent, const char *path, const char *name, mode_t mode)
{
    if (mkdirat(parent, name, mode) != 0) {
        if (errno != EEXIST)
            exit_unable_to_create(path);
        return Descriptor();
    }
    if (tree.changed != nullptr)
        tree.changed->emplace_back(openat(parent, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    Descriptor made = open_new_dir(parent, name);
    if (!made || fchown(made.get(), tree.uid, tree.gid) != 0)
        fatal_error(0, 1, "Cannot chown %s: %s", path, std::strerror(errno));
    return made;
}

} // namespace

void make_dirs(const DirTree &tree)
{
    const CString path(xasprintf("%s", tree.path));
    const mode_t old_umask = umask(0);
    Descriptor directory(open(*tree.path == '/' ? "/" : ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
    int error = errno; /* why `directory` is not open */
    visit_prefixes(path.get(), [&](const char *name, bool last) {
        if (std::strlen(path.get()) >= PATH_MAX) { /* not checked by calls relative to an open directory */
            directory.reset(-1);
            error = ENAMETOOLONG;
        }
        if (!directory) {
            errno = error;
            exit_unable_to_create(path.get());
        }
        Descriptor made = make_dir(tree, directory.get(), path.get(), name, last ? tree.mode : tree.mode & 0777);
        if (made || last)
            directory = std::move(made);
        else
            directory = open_existing(tree, std::move(directory), name, static_cast<std::size_t>(name - path.get()));
        error = errno;
        return true;
    });
    umask(old_umask);
}

} // namespace arsp
