#ifndef ARSP_STORE_MAIL_TREE_H
#define ARSP_STORE_MAIL_TREE_H

#include <string>
#include <string_view>

#include <sys/stat.h>

#include "support/c_handles.h"

namespace arsp {

/* Resolves paths below the root of the mail names. The tree belongs to the mail user, who may be hostile, and the tool
 * runs as root: each name is opened in a directory that is held open, and a symbolic link is followed only when no
 * other user can have chosen its target:
 *
 * - A link in the tree that root does not own is refused.
 * - Where others may write to the directory of a link of root's, they can have renamed it to that place: such a link is
 *   followed only if its target belongs to the mail user.
 * - The target of a link is resolved by the same rule. On its path, a link that root does not own is followed only in a
 *   directory that belongs to root and that only root may write.
 *
 * The root of the mail names itself is trusted, with all links in its path. */

/* A resolved path: `fd` was opened with O_PATH and is no link; the file is called `name` in `directory`. After a
 * failure `fd` is empty and `errno` has the reason; `directory` and `name` are then not set. */
struct [[nodiscard]] TreeEntry {
    Descriptor directory;
    std::string name;
    Descriptor fd;
};

/* Failures set `errno`; nothing is logged. */
class MailTree {
public:
    /* Resolves `path`, whose first `root_length` bytes are trusted. */
    TreeEntry resolve(const std::string &path, std::size_t root_length);

    /* Resolves `path` from the open directory `start`. */
    TreeEntry resolveBelow(Descriptor start, std::string_view path);

    /* Opens the entry `name` of `directory`, through links that may be followed. */
    TreeEntry openEntry(Descriptor directory, std::string name);

    /* True after a link that must not be followed; `errno` was then set to ELOOP. In all other failures the kernel
     * refuses the path to every process. */
    bool refused() const { return refused_; }

    /* True after links were followed whose targets only root can have chosen and can change: root owns the links, and
     * only root may write the directories that hold them and the names on their targets' paths. */
    bool followedOnlyRootsChoice() const { return links_ > 0 && only_root_chose_; }

private:
    TreeEntry followLink(Descriptor directory, int link, const struct stat &status);
    TreeEntry refuse();

    int links_ = 0;               /* followed so far */
    bool in_link_ = false;        /* whether the path being resolved is the target of a link */
    bool only_root_chose_ = true; /* the targets of all links so far */
    bool refused_ = false;
};

/* Resolves `path` as above and opens the directory at its end for reading. Returns an empty descriptor with `errno` set
 * on failure. */
[[nodiscard]] Descriptor open_mail_directory(const std::string &path, std::size_t root_length);

} // namespace arsp

#endif
