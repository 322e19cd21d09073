#ifndef ARSP_SUPPORT_REMOVE_CONTENTS_H
#define ARSP_SUPPORT_REMOVE_CONTENTS_H

#include <string>

namespace arsp {

/* Returns "WHAT PATH: TEXT" with the text of errno. Leaves out the middle of a long path: the system log drops a record
 * that is too long. */
[[nodiscard]] std::string failure_text(const char *what, const std::string &path);

/* Removes every entry of the open directory `fd` with everything below it, and keeps the directory itself. `path` is
 * its name in messages. The tree may belong to an adversary: no link is followed, depth costs neither stack nor
 * descriptors, and the removal ends if a directory is moved out of the tree meanwhile. Ignores entries that vanish.
 * Returns 0; or -1 after the first failure, with a message of at most about a kilobyte in `error`. */
[[nodiscard]] int remove_contents(int fd, const std::string &path, std::string &error);

} // namespace arsp

#endif
