#ifndef ARSP_SUPPORT_LINKS_H
#define ARSP_SUPPORT_LINKS_H

#include <climits>

namespace arsp {

constexpr int MOST_LINKS = 40; /* on one path, as in the kernel */

/* Reads the text of a symbolic link, opened as the descriptor `link` with O_PATH and O_NOFOLLOW, and adds a NUL.
 * Returns 0; or -1 with errno set, to ENAMETOOLONG for a text that does not fit. Logs nothing. */
[[nodiscard]] int read_link_target(int link, char (&target)[PATH_MAX]);

} // namespace arsp

#endif
