#ifndef ARSP_STORE_MAIL_TREE_H
#define ARSP_STORE_MAIL_TREE_H

#include <string>
#include <string_view>

#include <sys/stat.h>

#include "support/c_handles.h"

namespace arsp {

/* The walk through the tree below the root of the mail names. The tree belongs to the mail user, who may be hostile,
 * and the tool is root: a path is taken one name at a time from held directories, and a symbolic link on it is followed
 * only if root stands behind it.
 *
 * - In the tree, a link that root does not own is refused.
 * - A link of root's proves nothing by its owner where others may write to its directory, since they can rename it to
 *   that place: it is followed only if what it leads to belongs to the mail user.
 * - The target of a link is walked by the same rule. On the way through it, a link that root does not own is followed
 *   only in a directory that belongs to root and that only root may write.
 *
 * The root of the mail names itself is trusted, with all links in its path. */

/* What a walk found: `place` was opened with O_PATH and is no link; it is called `name` in `directory`. Without a
 * `place`, `errno` says why; `directory` and `name` are then not set. */
struct TreeEntry {
    Descriptor directory;
    std::string name;
    Descriptor place;
};

/* One walk. Failures set `errno`; nothing is logged. */
class MailTree {
public:
    /* Walks from the first `root_length` bytes of `path`, which are trusted, to its end. */
    TreeEntry find(const std::string &path, std::size_t root_length);

    /* Walks the names of `path` from the open directory `start`. */
    TreeEntry findBelow(Descriptor start, std::string_view path);

    /* Opens what is called `name` in `directory`, through links that may be followed. */
    TreeEntry findName(Descriptor directory, std::string name);

    /* Whether the walk ended at a link that must not be followed; `errno` was set to ELOOP then. Other failures are the
     * kernel's own: it refuses the same path to anyone. */
    bool refused() const { return refused_; }

private:
    TreeEntry followLink(Descriptor directory, int link, const struct stat &status);
    TreeEntry refuse();

    int links_ = 0;        /* followed so far */
    bool in_link_ = false; /* whether the names being walked are those of a link's target */
    bool refused_ = false;
};

/* Opens the directory at the end of `path` for reading, walked as above. Returns an empty descriptor with `errno` set
 * on failure. */
[[nodiscard]] Descriptor open_mail_directory(const std::string &path, std::size_t root_length);

} // namespace arsp

#endif
