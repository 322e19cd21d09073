#ifndef ARSP_SUPPORT_LINKS_H
#define ARSP_SUPPORT_LINKS_H

#include <climits>

namespace arsp {

constexpr int MOST_LINKS = 40; /* that one path may lead through, as in the kernel */

/* Reads the text of the symbolic link that `link`, a descriptor opened with O_PATH and O_NOFOLLOW, refers to, and adds
 * a NUL. Returns 0; or -1 with `errno` set, to ENAMETOOLONG for a text that does not fit. Logs nothing. */
[[nodiscard]] int read_link_target(int link, char (&target)[PATH_MAX]);

} // namespace arsp

#endif
