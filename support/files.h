#ifndef ARSP_SUPPORT_FILES_H
#define ARSP_SUPPORT_FILES_H

#include <cstddef>
#include <cstdio>
#include <sys/stat.h>
#include <sys/types.h>

/* Files. Unless a function says otherwise it returns 0 for success, and -1 with errno set after its message. Messages
 * are logged at LOG_ERR, or printed through fatal_error, which then returns.
 *
 * Not thread-safe: the logger, fatal_error and getpwnam are not. Throws nothing. Pointers must not be null. No command
 * calls these functions. */

/* Calls chown, then chmod. Logs "ERROR: unable to chown|chmod ...". */
[[nodiscard]] int chown_chmod(const char *path, uid_t uid, gid_t gid, mode_t mode);

/* Does nothing and returns 0 if stat fails for `path`; else the same as chown_chmod. */
[[nodiscard]] int chown_chmod_if_exists(const char *path, uid_t uid, gid_t gid, mode_t mode);

/* chown_chmod with the ids of a user. Prints "user ... not found"; errno is not cleared first: a line about an earlier
 * error may follow. */
[[nodiscard]] int chown_chmod_to_user(const char *path, const char *user, mode_t mode);

/* Creates `path` with mode 0644 less the umask, or empties it. Logs "Unable to truncate or create file ...". */
[[nodiscard]] int create_truncate_file(const char *path);

/* Creates `path` with mode 0644 less the umask, or leaves an existing file as it is. Prints "Unable to create file
 * ...". */
[[nodiscard]] int create_file(const char *path);

/* Closes a stream, which is invalid afterwards in any case. Returns the result of fclose. Prints
 * "Unable to close the file: ...". */
[[nodiscard]] int close_file(FILE *stream);

/* Stores in `*out` the first path of a null-terminated list for which stat succeeds, and returns 1. If none exists it
 * stores null and returns 0. Sets errno to 0 after each miss. `*out` points into the list. */
[[nodiscard]] int first_existing_path(const char **out, const char *const *candidates);

/* Reads the first line of `path` into `buffer`, without the white space at its ends; an empty file fills the buffer
 * with NUL bytes.
 *   size  bytes in `buffer`: the line and its NUL must fit.
 * Prints "Unable to open file ...", "Unable to read line from file: ...", or "The buffer too short". errno is not
 * cleared before the last: a line about an earlier error may follow. */
[[nodiscard]] int read_first_line(char *buffer, size_t size, const char *path);

/* Returns the name of the file type of a stat mode, or "unknown"; a literal. */
[[nodiscard]] const char *file_type_name(mode_t mode);

#endif
