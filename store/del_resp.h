#ifndef ARSP_STORE_DEL_RESP_H
#define ARSP_STORE_DEL_RESP_H

#include <string>

namespace arsp {

/* The command --del-resp: removes the attachment rows of `mailname`, the files in its own attachment directory (not its
 * owner's), its autoresponder row and its answer counters, in one transaction. The files are gone once they were
 * reached, whatever the database does afterwards. Returns 0; SQLite's code when the attachment rows could not be
 * deleted (the autoresponder is then kept, the rest is committed); -1 for other failures. Logs at LOG_ERR "Unable to
 * delete from attachments (%s): %s", "Error removing attachments for mailname (%s)", "Unable to remove autoresponder
 * attachments: %s" (which is no failure of the command), "Unable to delete autoresponder (%s): %s", and what
 * ResponderDb and run_statement log. */
int del_resp(const std::string &mailname);

} // namespace arsp

#endif
