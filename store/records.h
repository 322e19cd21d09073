#ifndef ARSP_STORE_RECORDS_H
#define ARSP_STORE_RECORDS_H

/* Whole records written and removed for the panel's other programs; no command uses these.
 *
 * A mail name is `local_part` "@" `domain`, lower-cased; nothing checks it. Every operation is one transaction of its
 * own. Each comes as a worker on an open connection and as a wrapper that takes a connection or null: with null it
 * opens the database, calls the worker and closes again. Of a connection that is handed in, the worker's failures close
 * it (but see replace_autoresponder_record); closing it once more is harmless.
 *
 * Results are 0 and -1. Failures are logged at LOG_ERR: "Unable to open database %s: %s", "Unable to prepare SQL
 * statement for query '%s': %s", "Unable to bind parameter %s: %s" with the column's name, "Unable to begin sqlite
 * transaction: %s", "Unable to end sqlite transaction: %s", and what stands with each worker. After a pause between two
 * tries on a busy database was interrupted, -1 is returned in silence and the connection is let go, not closed. */

#include "store/responder_db.h"

namespace arsp {

/* One autoresponder as callers keep it. All texts are NUL-terminated, not null, and outlive the call. */
struct AutoresponderRecord {
    const void *caller_data[2]; /* the caller's own; never read here */
    const char *keystr;
    const char *key_where;
    const char *subject;
    const char *reply_to;
    const char *content_type;
    const char *charset;
    const char *body;
    int ans_freq;  /* answers per sender address and day */
    int ans_limit; /* deprecated, still stored */
    const char *forward_to;
    const char *owner_local_part; /* the real owner is this, "@" and the record's own domain */
};

} // namespace arsp

/* Replaces the autoresponder's row whole. A step that fails logs "Unable to add/update autoresponder (%s): %s" and
 * leaves the transaction open and the connection as it is: the caller rolls back or closes. */
int replace_autoresponder_record(ResponderDb &db, const char *local_part, const char *domain,
                                 const arsp::AutoresponderRecord &record);
int store_autoresponder_record(ResponderDb *db, const char *local_part, const char *domain,
                               const arsp::AutoresponderRecord &record);

/* Adds a row for each of `count` file names; a count of 0 touches nothing. A row that fails logs "Unable to add
 * autoresponder attachment (%s): %s"; the others are written all the same, and the result is still 0. */
int replace_attachment_records(ResponderDb &db, const char *local_part, const char *domain,
                               const char *const *file_names, int count);
int store_attachment_records(ResponderDb *db, const char *local_part, const char *domain, const char *const *file_names,
                             int count);

/* Deletes the autoresponder's row; none is fine. A step that fails logs "Unable to add autoresponder data (%s): %s"
 * (said of a deletion too: log scanners match on it), and the result is still 0. */
int delete_autoresponder_record(ResponderDb &db, const char *local_part, const char *domain);
int remove_autoresponder_record(ResponderDb *db, const char *local_part, const char *domain);

/* Deletes the attachments' rows; none is fine. A step that fails logs "Unable to add autoresponder attachment (%s): %s"
 * (likewise), and the result is still 0. */
int delete_attachment_records(ResponderDb &db, const char *local_part, const char *domain);
int remove_attachment_records(ResponderDb *db, const char *local_part, const char *domain);

#endif
