#ifndef ARSP_STORE_INIT_DB_H
#define ARSP_STORE_INIT_DB_H

#include <sys/types.h>

/* The command --init-db: deletes the database, whatever is in it, builds an empty one, gives it to the mail user and
 * flushes it. Takes no lock: a process that has the old file open keeps using the deleted file. An old file that cannot
 * be deleted is worked on instead.
 *
 * The directory belongs to the mail user. The file is made with mode 0600, and owner and mode are set on what was made,
 * through a descriptor: whatever takes its place meanwhile is reported by both records of set_owner_and_mode, a link
 * with the text of ELOOP, any other file with that of ESTALE or EEXIST.
 *
 * Returns 0; -1 when the directory cannot be made (two or more records at LOG_CRIT); 1 when the schema, the owner, the
 * modes or the flushing failed (records at LOG_ERR, "Unable to flush %s: %s" for the last). */
int init_responder_db();

/* Makes the missing directories above the file `path`; `label` is the database's word in messages.
 * Returns 0; or -1 with `errno` set, having logged at LOG_CRIT "Memory allocation error", "Unable to get dirname for %s
 * database (%s): %s (%d)" or "Unable to create directories for %s database (%s): %s (%d)". */
int db_make_parent_dir(const char *path, const char *label);

/* Opens `path` and executes the script `sql`, which brings its own BEGIN and COMMIT. Waits while others hold the file.
 * Returns 0; or -1, having logged at LOG_ERR "Unable to open database %s: %s", "Unable to re-create %s database: %s"
 * or, when SQLite gives no text, "Unable to re-create %s database"; or -1 in silence after an interrupted pause. */
int db_recreate(const char *path, const char *sql, const char *label);

/* Gives the directory of `path` to the mail user and root's group with mode 0755, and the file to the mail user and its
 * primary group with mode 0600; no link in the file's place is followed. Both are always tried.
 * Returns 0 or -1; logs at LOG_ERR "Unable to get uid/gid for %s: %s (%d)", "Unable to fix '%s' permissions. Failed to
 * get directory path: %s (%d)", and what set_owner_and_mode logs. */
int fix_responder_db_permissions(const char *path);

/* chown, then chmod, the second also when the first fails. Returns 0 or -1; logs at LOG_ERR "Unable to change
 * owner/group of '%s' to %d/%d: %s (%d)" and "Unable to change permissions of '%s' to 0%o: %s (%d)". */
int set_owner_and_mode(const char *path, uid_t uid, gid_t gid, mode_t mode);

#endif
