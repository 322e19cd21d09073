#ifndef ARSP_STORE_INIT_DB_H
#define ARSP_STORE_INIT_DB_H

#include <sys/types.h>

/* The command --init-db and the functions that it consists of.
 *
 * - Single-threaded: a database is opened with the umask of the process changed, and the log has one state per process.
 * - Nothing throws.
 * - No pointer may be null.
 * - No command calls fix_responder_db_permissions and set_owner_and_mode. */

/* The command --init-db: deletes the database with all its content, makes an empty one, gives it to the mail user and
 * flushes it. Takes no lock: a process that has the old file open keeps using the deleted file. If the old file cannot
 * be deleted, the script runs on it.
 *
 * The directory belongs to the mail user, who can replace the file. It is made with mode 0600, and its owner and mode
 * are set through its descriptor. A file that replaces it meanwhile is left alone; both messages of set_owner_and_mode
 * report a link there with the text of ELOOP, any other file with that of ESTALE or EEXIST.
 *
 * Returns 0; -1 when the directory cannot be made (two records at LOG_CRIT); 1 when the schema, the owner, the
 * modes or the flushing failed (records at LOG_ERR; "Unable to flush %s: %s" for the flushing). */
[[nodiscard]] int init_responder_db();

/* Makes the missing directories above the file `path`; messages call the database `label`. Returns 0; or -1 with
 * `errno` set, after logging at LOG_CRIT "Memory allocation error", "Unable to get dirname for %s database (%s): %s
 * (%d)" or "Unable to create directories for %s database (%s): %s (%d)". */
[[nodiscard]] int db_make_parent_dir(const char *path, const char *label);

/* Opens `path` and executes the script `sql`, which has its own BEGIN and COMMIT. Waits while another process holds a
 * lock. Returns 0; or -1 after logging at LOG_ERR "Unable to open database %s: %s", "Unable to re-create %s database:
 * %s" or, when SQLite supplies no text, "Unable to re-create %s database"; or -1 in silence after an interrupted pause.
 */
[[nodiscard]] int db_recreate(const char *path, const char *sql, const char *label);

/* Gives the directory of `path` to the mail user and root's group with mode 0755, and the file to the mail user and its
 * primary group with mode 0600; a symbolic link at `path` itself is not followed. Tries the file also when the
 * directory fails. Returns 0 or -1; logs at LOG_ERR "Unable to get uid/gid for %s: %s (%d)", "Unable to fix '%s'
 * permissions. Failed to get directory path: %s (%d)", and what set_owner_and_mode logs. */
[[nodiscard]] int fix_responder_db_permissions(const char *path);

/* Sets the owner, then the mode, the mode also when setting the owner fails. Returns 0 or -1; logs at LOG_ERR "Unable
 * to change owner/group of '%s' to %d/%d: %s (%d)" and "Unable to change permissions of '%s' to 0%o: %s (%d)". */
[[nodiscard]] int set_owner_and_mode(const char *path, uid_t uid, gid_t gid, mode_t mode);

#endif
