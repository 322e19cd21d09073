#ifndef ARSP_STORE_EXTRA_HEADERS_H
#define ARSP_STORE_EXTRA_HEADERS_H

#include <string>

#include "store/responder_db.h"

/* The list of extra header lines that every automatic reply carries; one list for all mailboxes. All failures are
 * logged at LOG_ERR. Where a connection is taken, null means none: the function opens and closes its own, and returns
 * -1 when that fails ("Unable to open database %s: %s"). A failure inside a transaction closes the connection. */

/* The command --set-extra-headers: reads a JSON document from standard input, empties the table, which is committed at
 * once, and only then parses the document and stores its members: after a failure to do so the table stays empty.
 * Returns 0; -1; or SQLite's code when emptying failed. */
int set_extra_headers_command();

/* Deletes every row. Returns 0; SQLite's code, having logged "Unable to remove autoresponder extra headers: %s"; or -1.
 */
int delete_extra_headers(ResponderDb *db);

/* Stores a row for each top-level member of the JSON document `text`, in the document's order. Returns what
 * store_extra_headers does; or -1, with nothing written, having logged "Unable to parse auto-reply headers json: %s".
 */
int import_extra_headers_json(ResponderDb *db, const std::string &text);

/* Adds `count` rows of NUL-terminated `names` and `values`, in one transaction; a count of 0 touches nothing. A row
 * that fails logs "Unable to add autoresponder extra headers: %s" and is left out. Returns 0 or -1. */
int store_extra_headers(ResponderDb *db, const char *const *names, const char *const *values, int count);
int replace_extra_headers(ResponderDb &db, const char *const *names, const char *const *values, int count);

#endif
