#ifndef ARSP_STORE_AUTORESPONDER_ROW_H
#define ARSP_STORE_AUTORESPONDER_ROW_H

#include <string_view>

#include "store/responder_db.h"
#include "store/transaction.h"

namespace arsp {

/* One row of the table autoresponder. The texts are not copied and must outlive the call. */
struct AutoresponderRow {
    std::string_view keystr;
    std::string_view key_where;
    std::string_view subject;
    std::string_view reply_to;
    std::string_view forward_to;
    std::string_view content_type;
    std::string_view charset;
    std::string_view body;
    int ans_freq = 0;  /* replies per sender address and day */
    int ans_limit = 0; /* deprecated, still stored */
    std::string_view real_owner;
    std::string_view mn; /* mail name, the key; NUL-terminated, for the messages */
};

/* Replaces the whole row of `row.mn`, inside the caller's transaction. Returns {commit, 0}; {give_up, -1} when the
 * statement cannot be prepared or bound; {`when_refused`, -1} when its step fails. Logs at LOG_ERR what run_statement
 * logs and "Unable to add/update autoresponder (%s): %s". */
Outcome replace_autoresponder_row(ResponderDb &db, const AutoresponderRow &row, Ending when_refused);

} // namespace arsp

#endif
