#ifndef ARSP_SUPPORT_MAKE_DIRS_H
#define ARSP_SUPPORT_MAKE_DIRS_H

#include <cstddef>
#include <cstring>
#include <functional>
#include <vector>

#include <sys/types.h>

#include "support/c_handles.h"

namespace arsp {

/* Calls `visit(name, last)` for each component of `path`, with `path` cut after it: the start of the component, and
 * whether it is the last one. An empty path has one empty component. Stops if `visit` returns false, and leaves `path`
 * cut there. Returns whether it reached the end. */
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

/* The arguments of make_dirs. */
struct DirTree {
    const char *path;
    std::size_t trusted_length; /* bytes at the beginning of `path` where links are followed */
    uid_t uid;
    gid_t gid;
    mode_t mode;
    /* Opens the existing directory `name` in `parent`, after the trusted beginning. Returns an empty descriptor with
     * errno set on failure. May be null if all of `path` is trusted. */
    std::function<Descriptor(Descriptor parent, const char *name)> open_existing;
    std::vector<Descriptor> *changed; /* gets each directory with a new entry, open for reading; may be null */
};

/* Does the same as create_dir_tree, below directories that it keeps open. Sets the owner of a new directory through a
 * descriptor: a directory or link that replaces it meanwhile keeps its owner. */
void make_dirs(const DirTree &tree);

} // namespace arsp

#endif
