#ifndef ARSP_STORE_ATTACHMENTS_H
#define ARSP_STORE_ATTACHMENTS_H

#include <string>

#include "store/responder_db.h"

/* The commands on attachments.
 *
 * - Single-threaded, as responder_db.h states.
 * - std::bad_alloc leaves all three functions. The commands then discard their transaction; selectRealOwner leaves the
 *   caller's open. */

namespace arsp {

/* The command --add-attach: copies the file `source` into the attachment directory of the mailbox that owns `mailname`,
 * under the base name of `filename`, gives the copy to the mail user and registers it for `mailname`. The row is
 * written last: after a failure the directories and the copy stay. Returns 0 or -1. Logs at LOG_ERR what
 * selectRealOwner and ResponderDb log, "Unable to bind parameter %s: %s", "Unable to get uid:gid for %s: %s", "Unable
 * to move attachment %s to %s: %s" or "...: Child status %d", "Unable to change owner for %s: %s", and "Unable to add
 * autoresponder attachment (%s:%s): %s". A directory that cannot be made ends the process, as in create_dir_tree. */
[[nodiscard]] int add_attach(const std::string &source, const std::string &filename, const std::string &mailname);

/* The command --del-attach: deletes the row of `filename` for `mailname`, then the file of that name, which may hold
 * "/", in the attachment directory of `mailname` itself (not its owner's). A missing row or file is no failure. Returns
 * 0 or -1. Logs at LOG_ERR what selectRealOwner and ResponderDb log, "Unable to bind parameter %s: %s", "Unable to
 * delete autoresponder attachment (%s:%s): %s", and, after the row is deleted, "Unable to delete attachment %s: %s" and
 * "Unable to flush %s: %s". */
[[nodiscard]] int del_attach(const std::string &mailname, const std::string &filename);

} // namespace arsp

/* Reads the mailbox that owns `mailname`, on an open connection and inside the caller's transaction. A row whose owner
 * is NULL counts as found and leaves `real_owner` unchanged. Returns 0; or -1, in silence after an interrupted pause,
 * otherwise after logging at LOG_ERR "No autoresponder found for mailname (%s)", "Unable to read data from database:
 * %s", which "Error selecting autoresponder for mailname (%s)" follows unless the row was found, or the message of
 * ResponderStatement::prepare or "Unable to bind parameter mailname: %s". After the latter two `db` is closed, which
 * waits for ever while a statement of the caller's is alive. */
[[nodiscard]] int selectRealOwner(ResponderDb &db, const std::string &mailname, std::string &real_owner);

#endif
