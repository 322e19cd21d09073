#include "store/del_resp.h"

#include <sys/syslog.h>

#include "store/attachment_dir.h"
#include "store/run_statement.h"
#include "store/transaction.h"
#include "support/log.h"

using namespace arsp;

namespace {

Outcome delete_row_and_counters(ResponderDb &db, const std::string &mailname)
{
    const StepResult row = run_statement(db, "DELETE FROM autoresponder WHERE mn=?", {{"mailname", mailname}});
    if (gave_up(row))
        return GIVEN_UP;
    /* A refused deletion of the counters is ignored: the mail side writes them again. */
    if (gave_up(run_statement(db, "DELETE FROM resp_freq WHERE mn=?", {{"mailname", mailname}})))
        return GIVEN_UP;
    if (row == StepResult::refused) {
        /* Logged after the counters, with the error text of this moment: the message is an interface. */
        log_message(LOG_ERR, "Unable to delete autoresponder (%s): %s", mailname.c_str(), db.errorText());
        return {Ending::commit, -1};
    }
    return COMMITTED;
}

void log_attachments_failure(const std::string &mailname)
{
    log_message(LOG_ERR, "Error removing attachments for mailname (%s)", mailname.c_str());
}

Outcome delete_all(ResponderDb &db, const std::string &mailname)
{
    const StepResult rows = run_statement(db, "DELETE FROM attachments WHERE mn=?", {{"mailname", mailname}});
    if (rows == StepResult::interrupted)
        return GIVEN_UP;
    if (rows == StepResult::failed) {
        db.close(); /* here, not at the end of the transaction: the record below follows the closing */
        log_attachments_failure(mailname);
        return GIVEN_UP;
    }
    if (rows == StepResult::refused)
        log_message(LOG_ERR, "Unable to delete from attachments (%s): %s", mailname.c_str(), db.errorText());
    const int refusal = db.errorCode();
    const int cleared = AttachmentDir(mailname).clear();
    if (rows == StepResult::refused) {
        log_attachments_failure(mailname);
        return {Ending::commit, refusal};
    }
    Outcome outcome = delete_row_and_counters(db, mailname);
    if (outcome.result == 0)
        outcome.result = cleared;
    return outcome;
}

} // namespace

int arsp::del_resp(const std::string &mailname)
{
    return in_own_transaction([&](ResponderDb &db) { return delete_all(db, mailname); });
}
