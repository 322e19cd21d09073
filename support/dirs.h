#ifndef ARSP_SUPPORT_DIRS_H
#define ARSP_SUPPORT_DIRS_H

#include <sys/stat.h>
#include <sys/types.h>

/* Directories. Thread-safe, except create_dir_tree and the functions that print. Throws nothing. Pointers must not be
 * null. Commands call only mkdir_p. */

/* Makes `path` and every missing directory above it. Each new directory gets the owner uid:gid and exactly the
 * permission bits `mode`; the umask of the process is 0 meanwhile. Existing directories stay as they are.
 * Always returns 0. If a directory cannot be made it prints "Cannot create directory ..." through fatal_error, which
 * ends the process with status 1. If its owner cannot be set it prints "Cannot chown ..." and continues. */
int create_dir_tree(const char *path, uid_t uid, gid_t gid, mode_t mode);

/* Makes every missing directory of `path`, the last one included, with mode 0755 less the umask. Returns 1; or 0 with
 * errno set: ENOTDIR if a component is no directory, ENOMEM, or the error of stat or mkdir. Neither logs nor prints. */
[[nodiscard]] int mkdir_p(const char *path);

/* Makes the directory `path`, unless it exists, and sets its owner and mode in both cases. Succeeds if it vanishes
 * meanwhile. Returns 0; or -1 with errno set after printing "ERROR: Unable to mkdir|chown|chmod ..." through
 * fatal_error. */
[[nodiscard]] int mkdir_chown_chmod(const char *path, uid_t uid, gid_t gid, mode_t mode);

/* Renames a directory. Returns 0, also if `from` does not exist; or -1 after printing "Directory rename error: ..."
 * (`to` exists) or "Remaming ..." (errno is rename's) through fatal_error. errno is not cleared before the first: a
 * line about an earlier error may follow. */
[[nodiscard]] int rename_dir(const char *from, const char *to);

/* Looks in directory `dir` for an entry whose name equals `name` regardless of case, and overwrites `name` with the
 * directory's spelling.
 *   type   S_IFDIR, S_IFREG, ...: an entry of that type only. Any other value, 0 included: of any type.
 *   check  whether to lstat an entry whose type the directory does not report. With 0 it counts as of that type.
 * Returns 0; or -1 with errno set, to ENOENT if no entry matches. Neither logs nor prints. */
[[nodiscard]] int find_dir_entry(const char *dir, char *name, mode_t type, int check);

#endif
