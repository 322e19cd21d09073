#include "store/autoresponder_row.h"

#include <vector>

#include <sys/syslog.h>

#include "store/run_statement.h"
#include "support/log.h"

namespace arsp {

namespace {

std::vector<Param> row_params(const AutoresponderRow &row)
{
    return {{"keystr", row.keystr},         {"key_where", row.key_where},
            {"subject", row.subject},       {"reply_to", row.reply_to},
            {"forward_to", row.forward_to}, {"content_type", row.content_type},
            {"charset", row.charset},       {"body", row.body},
            {"ans_freq", row.ans_freq},     {"ans_limit", row.ans_limit},
            {"real_owner", row.real_owner}, {"mailname", row.mn}}; /* the column mn; messages say mailname */
}

} // namespace

Outcome replace_autoresponder_row(ResponderDb &db, const AutoresponderRow &row, Ending when_refused)
{
    const StepResult result =
        run_statement(db,
                      "REPLACE INTO autoresponder (keystr, key_where, subject, reply_to, forward_to, content_type, "
                      "charset, body, ans_freq, ans_limit, real_owner, mn) "
                      "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?  );",
                      row_params(row));
    if (result == StepResult::refused) {
        log_message(LOG_ERR, "Unable to add/update autoresponder (%s): %s", row.mn.data(), db.errorText());
        return {when_refused, -1};
    }
    return result == StepResult::done ? COMMITTED : GIVEN_UP;
}

} // namespace arsp
