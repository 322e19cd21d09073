#ifndef ARSP_STORE_DEL_RESP_H
#define ARSP_STORE_DEL_RESP_H

#include <string>

namespace arsp {

/* The command --del-resp: deletes, in one transaction, the attachment rows of `mailname`, the files in its own
 * attachment directory (not its owner's), its autoresponder row and its answer counters. A failure after the files does
 * not bring them back. Returns 0; SQLite's code when the attachment rows cannot be deleted, which keeps the
 * autoresponder; -1 for other failures. Throws std::bad_alloc. Logs at LOG_ERR "Unable to delete from attachments (%s):
 * %s", "Error removing attachments for mailname (%s)", "Unable to remove autoresponder attachments: %s" (the command
 * still succeeds), "Unable to delete autoresponder (%s): %s", and what ResponderDb and run_statement log. */
[[nodiscard]] int del_resp(const std::string &mailname);

} // namespace arsp

#endif
