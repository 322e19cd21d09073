#ifndef ARSP_STORE_ATTACHMENT_COPY_H
#define ARSP_STORE_ATTACHMENT_COPY_H

#include <string>

namespace arsp {

/* Whether an owner from the database has a character that the shell interprets between double quotes, or its attachment
 * directory a component "..". --set-resp stores no such address. */
[[nodiscard]] bool is_harmful_owner(const std::string &owner);

/* Copies the file `source` into the attachment directory of the mailbox `real_owner` under `name`, which holds no "/".
 * Makes the missing directories; these and the copy belong to the mail user. Flushes new directories and the copy. All
 * of it stays after a failure.
 *
 * `real_owner` comes from the database, which the mail user may write, and becomes part of a path and of a shell's
 * command line: an owner with a shell character or a component ".." is refused before anything is made. So is a link
 * that MailTree refuses. `source` is passed to the shell unchanged.
 *
 * Returns 0; or -1 after logging at LOG_ERR "Unable to get uid:gid for %s: %s", "Unable to move attachment %s to %s:
 * %s" or "...: Child status %d", or "Unable to change owner for %s: %s". A directory that cannot be made ends the
 * process (make_dirs). */
[[nodiscard]] int copy_attachment(const std::string &source, const std::string &real_owner, const std::string &name);

} // namespace arsp

#endif
