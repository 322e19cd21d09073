#ifndef ARSP_SUPPORT_MAKE_DIRS_H
#define ARSP_SUPPORT_MAKE_DIRS_H

#include <cstddef>
#include <cstring>
#include <functional>
#include <vector>

#include <sys/types.h>

#include "support/c_handles.h"

namespace arsp {

/* Calls `visit(name, last)` for each name of `path`, from the first on, with `path` cut behind the name: the start of
 * the name, and whether nothing follows it. An empty path is one empty name. Stops when `visit` returns false, and
 * leaves `path` cut there. Returns whether it reached the end. */
template <typename Visit>
bool visit_prefixes(char *path, Visit visit)
{
    for (char *name = path + std::strspn(path, "/"); *name != '\0' || name == path;) {
        char *slash = std::strchr(name, '/');
        if (slash == nullptr)
            return visit(name, true);
        *slash = '\0';
        if (!visit(name, false))
            return false;
        *slash = '/';
        name = slash + std::strspn(slash, "/");
    }
    return true;
}

/* What make_dirs makes, and how. */
struct DirTree {
    const char *path;
    std::size_t trusted_length; /* of the beginning of `path` whose existing directories are opened through any link */
    uid_t uid;
    gid_t gid;
    mode_t mode;
    /* Opens the existing directory `name` in `parent`, behind the trusted beginning. Returns an empty descriptor with
     * `errno` set on failure. May be null when all is trusted. */
    std::function<Descriptor(Descriptor parent, const char *name)> open_existing;
    std::vector<Descriptor> *changed; /* gets the directories that got a new entry, open for reading; may be null */
};

/* Does what create_dir_tree does, below directories that it holds open. A new directory gets its owner through a
 * descriptor: another directory or a link that takes its place meanwhile does not get it. */
void make_dirs(const DirTree &tree);

} // namespace arsp

#endif
