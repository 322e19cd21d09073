#ifndef ARSP_STORE_ATTACHMENTS_H
#define ARSP_STORE_ATTACHMENTS_H

#include <string>

#include "store/responder_db.h"

namespace arsp {

/* The command --add-attach: copies the file `source` into the attachment directory of the mailbox that owns `mailname`,
 * under the base name of `filename`, gives the copy to the mail user and registers it for `mailname`. Directory, copy
 * and owner come before the row: after a later failure they stay. Returns 0, or -1. Logs at LOG_ERR what
 * selectRealOwner logs, "Unable to get uid:gid for %s: %s", "Unable to move attachment %s to %s: %s" or "...: Child
 * status %d", "Unable to change owner for %s: %s", "Unable to add autoresponder attachment (%s:%s): %s", and what
 * ResponderDb and run_statement log. A directory that can't be made ends the process (create_dir_tree). */
int add_attach(const std::string &source, const std::string &filename, const std::string &mailname);

/* The command --del-attach: unregisters `filename` for `mailname`, and only then removes the file of that name, which
 * may hold "/", from the attachment directory of `mailname` itself (not its owner's). A row or file that is not there
 * is fine. Returns 0, or -1. Logs at LOG_ERR what selectRealOwner logs, "Unable to delete autoresponder attachment
 * (%s:%s): %s", "Unable to delete attachment %s: %s" (the row is gone then), and what ResponderDb and run_statement
 * log. */
int del_attach(const std::string &mailname, const std::string &filename);

} // namespace arsp

/* Looks up the mailbox that owns `mailname` on an open connection, inside the caller's transaction. A row without an
 * owner counts as found and leaves `real_owner` as it is. Returns 0; -1, logged at LOG_ERR: "No autoresponder found for
 * mailname (%s)", "Unable to read data from database: %s" (and "Error selecting autoresponder for mailname (%s)"), or
 * the prepare and bind messages, after which the connection is closed; or RETRY_INTERRUPTED. */
int selectRealOwner(ResponderDb &db, const std::string &mailname, std::string &real_owner);

#endif
