#ifndef ARSP_STORE_RECORDS_H
#define ARSP_STORE_RECORDS_H

/* Writing and deleting whole records, for the panel's other programs. No command calls these functions.
 *
 * A mail name is `local_part`, "@" and `domain` in lower case; its syntax is not checked. Every operation is one
 * transaction. It comes in two forms: the worker takes an open connection; the wrapper takes a connection or null,
 * which makes it open the database, call the worker and close the database. After a failure in the transaction the
 * worker has closed its connection (but see replace_autoresponder_record); closing it again is harmless.
 *
 * Results are 0 and -1. Failures are logged at LOG_ERR: "Unable to open database %s: %s", "Unable to prepare SQL
 * statement for query '%s': %s", "Unable to bind parameter %s: %s" with the column's name, "Unable to begin sqlite
 * transaction: %s", "Unable to end sqlite transaction: %s", and those given with each worker. When a signal interrupts
 * the pause between two attempts on a busy database, the result is -1, nothing is logged, and the connection is
 * abandoned without being closed.
 *
 * - Single-threaded, as responder_db.h states.
 * - std::bad_alloc leaves these functions. A borrowed connection then stays open, with its transaction. Without memory
 *   for a mail name the process ends (xasprintf).
 * - Closing waits for ever while a ResponderStatement of the caller's is alive on a borrowed connection.
 * - No pointer may be null, except `db` of the wrappers and, with a count of 0, `file_names`. */

#include "store/responder_db.h"

namespace arsp {

/* One autoresponder. All texts are NUL-terminated and not null, and must outlive the call. */
struct AutoresponderRecord {
    const void *caller_data[2] = {}; /* not read by the library */
    const char *keystr = "";
    const char *key_where = "";
    const char *subject = "";
    const char *reply_to = "";
    const char *content_type = "";
    const char *charset = "";
    const char *body = "";
    int ans_freq = 0;  /* replies per sender address and day */
    int ans_limit = 0; /* deprecated, still stored */
    const char *forward_to = "";
    const char *owner_local_part = ""; /* the real owner is this, "@" and the record's own domain */
};

} // namespace arsp

/* Replace the autoresponder's whole row. A step that fails logs "Unable to add/update autoresponder (%s): %s"; the
 * worker then leaves connection and transaction open, and the caller rolls back or closes. */
[[nodiscard]] int replace_autoresponder_record(ResponderDb &db, const char *local_part, const char *domain,
                                               const arsp::AutoresponderRecord &record);
[[nodiscard]] int store_autoresponder_record(ResponderDb *db, const char *local_part, const char *domain,
                                             const arsp::AutoresponderRecord &record);

/* Add a row for each of `count` file names; a count of 0 touches nothing. A row that fails logs "Unable to add
 * autoresponder attachment (%s): %s" and is skipped; the result is still 0. */
[[nodiscard]] int replace_attachment_records(ResponderDb &db, const char *local_part, const char *domain,
                                             const char *const *file_names, int count);
[[nodiscard]] int store_attachment_records(ResponderDb *db, const char *local_part, const char *domain,
                                           const char *const *file_names, int count);

/* Delete the autoresponder's row; a missing row is no failure. A step that fails logs "Unable to add autoresponder data
 * (%s): %s" (these words, although it is a deletion: log scanners match them); the result is still 0. */
[[nodiscard]] int delete_autoresponder_record(ResponderDb &db, const char *local_part, const char *domain);
[[nodiscard]] int remove_autoresponder_record(ResponderDb *db, const char *local_part, const char *domain);

/* Delete the attachments' rows; missing rows are no failure. A step that fails logs "Unable to add autoresponder
 * attachment (%s): %s" (likewise); the result is still 0. */
[[nodiscard]] int delete_attachment_records(ResponderDb &db, const char *local_part, const char *domain);
[[nodiscard]] int remove_attachment_records(ResponderDb *db, const char *local_part, const char *domain);

#endif
