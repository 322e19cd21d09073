#ifndef ARSP_SUPPORT_DIRS_H
#define ARSP_SUPPORT_DIRS_H

#include <sys/stat.h>
#include <sys/types.h>

/* Makes `path` and every missing directory above it. Each one made gets the owner uid:gid and exactly the permission
 * bits `mode`, whatever the umask (which is 0 meanwhile, for the whole process); those that exist stay as they are.
 * Always returns 0. When a directory can't be made it prints "Cannot create directory ..." through fatal_error, which
 * ends the process with status 1. When one can't be given away it prints "Cannot chown ..." and goes on. */
int create_dir_tree(const char *path, uid_t uid, gid_t gid, mode_t mode);

/* Makes every missing directory of `path`, the last one included, with mode 0755 less the umask. Returns 1, or 0 with
 * errno set: ENOTDIR when something in the way is no directory, ENOMEM, or what stat or mkdir said. Neither logs nor
 * prints. */
int mkdir_p(const char *path);

/* Makes the directory `path`, unless it exists, and gives it that owner and mode either way; that it vanished meanwhile
 * is no failure. Returns 0, or -1 with errno set after printing "ERROR: Unable to mkdir|chown|chmod ..." through
 * fatal_error. */
int mkdir_chown_chmod(const char *path, uid_t uid, gid_t gid, mode_t mode);

/* Renames a directory. Returns 0, also when there is no `from`; or -1 after printing "Directory rename error: ..."
 * (`to` exists) or "Remaming ..." (errno is rename's) through fatal_error. errno is not cleared before
 * the first: a line about an earlier error may follow. */
int rename_dir(const char *from, const char *to);

/* Looks in directory `dir` for an entry that is called `name`, in whatever case, and overwrites `name` with the
 * directory's spelling.
 *   type   S_IFDIR, S_IFREG, ...: only an entry of that type. Any other value, 0 included: of any type.
 *   check  whether to lstat an entry whose type the directory does not tell. With 0 it counts as being of that type.
 * Returns 0; or -1 with errno set, to ENOENT when there is none. Neither logs nor prints. */
int find_dir_entry(const char *dir, char *name, mode_t type, int check);

#endif
