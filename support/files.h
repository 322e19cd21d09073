#ifndef ARSP_SUPPORT_FILES_H
#define ARSP_SUPPORT_FILES_H

#include <cstddef>
#include <cstdio>
#include <sys/stat.h>
#include <sys/types.h>

/* Unless a function says otherwise it returns 0 for success, and -1 with errno set after its message. Messages are
 * logged at LOG_ERR, or printed through fatal_error, after which the process goes on. */

/* chown, then chmod. Logs "ERROR: unable to chown|chmod ...". */
int chown_chmod(const char *path, uid_t uid, gid_t gid, mode_t mode);

/* The same; also returns 0, having done nothing, when stat does not find `path`. */
int chown_chmod_if_exists(const char *path, uid_t uid, gid_t gid, mode_t mode);

/* The same with the ids of a user; prints "user ... not found". errno is not cleared first: a line about an earlier
 * error may follow. */
int chown_chmod_to_user(const char *path, const char *user, mode_t mode);

/* Creates `path` with mode 0644 less the umask, or empties it. Logs "Unable to truncate or create file ...". */
int create_truncate_file(const char *path);

/* Creates `path` with mode 0644 less the umask, or leaves it as it is. Prints "Unable to create file ...". */
int create_file(const char *path);

/* Closes a stream, which is gone afterwards in any case. Returns what fclose returned; prints
 * "Unable to close the file: ...". */
int close_file(FILE *stream);

/* Stores in `*out` the first path of a null-terminated list that stat finds, and returns 1. Returns 0 with `*out` null
 * when it finds none. errno is 0 after a path that was not found. The result belongs to the list. */
int first_existing_path(const char **out, const char *const *candidates);

/* Reads the first line of `path` into `buffer`, without the white space at its ends; an empty file fills the buffer
 * with NUL bytes.
 *   size  bytes in `buffer`: the line and its NUL must fit.
 * Prints "Unable to open file ...", "Unable to read line from file: ...", or "The buffer too short". errno is not
 * cleared before the last: a line about an earlier error may follow. */
int read_first_line(char *buffer, size_t size, const char *path);

/* Names the file type of a stat mode; "unknown" when it is none. The result is a literal. */
const char *file_type_name(mode_t mode);

#endif
