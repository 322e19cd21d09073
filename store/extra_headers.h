#ifndef ARSP_STORE_EXTRA_HEADERS_H
#define ARSP_STORE_EXTRA_HEADERS_H

#include <string>

#include "store/responder_db.h"

/* The list of extra header lines that every automatic reply carries; one list for all mailboxes.
 *
 * `db` may be null: the function then opens a connection of its own, closes it before it returns, and returns -1 after
 * logging "Unable to open database %s: %s" when opening fails. No other pointer may be null unless `count` is 0, nor
 * any of `names` and `values`. All failures are logged at LOG_ERR.
 *
 * - Single-threaded, as responder_db.h states.
 * - std::bad_alloc leaves these functions. A borrowed connection then stays open, with its transaction.
 * - A failure inside a transaction closes a borrowed connection, too. Closing waits for ever while a ResponderStatement
 *   of the caller's is alive on it. */

/* The command --set-extra-headers: reads a JSON document from standard input and empties the table, which is committed
 * at once; then parses the document and stores its members. The table thus stays empty when parsing or storing fails.
 * Returns 0; -1; or SQLite's code when emptying failed. */
[[nodiscard]] int set_extra_headers_command();

/* Deletes every row. Returns 0; SQLite's code after logging "Unable to remove autoresponder extra headers: %s"; or -1.
 */
[[nodiscard]] int delete_extra_headers(ResponderDb *db);

/* Stores a row for each top-level member of the JSON document `text`, in its order. Returns what
 * store_extra_headers returns; or -1, with nothing written, after logging "Unable to parse auto-reply headers json:
 * %s". */
[[nodiscard]] int import_extra_headers_json(ResponderDb *db, const std::string &text);

/* Add `count` rows of NUL-terminated `names` and `values`, in one transaction; a count of 0 touches nothing. A row that
 * fails logs "Unable to add autoresponder extra headers: %s" and is skipped. Return 0 or -1. */
[[nodiscard]] int store_extra_headers(ResponderDb *db, const char *const *names, const char *const *values, int count);
[[nodiscard]] int replace_extra_headers(ResponderDb &db, const char *const *names, const char *const *values,
                                        int count);

#endif
