#include "store/del_resp.h"

#include <sys/syslog.h>

#include "store/attachment_dir.h"
#include "store/transaction.h"
#include "support/log.h"

namespace {

/* Returns SQLITE_DONE, or what run_statement returned, logged. */
int delete_attachment_rows(ResponderDb &db, const std::string &mailname)
{
    const int step = run_statement(db, "DELETE FROM attachments WHERE mn=?", {{"mailname", mailname}});
    if (step == -1)
        static_cast<void>(db.close()); /* before the record that the caller adds */
    else if (step >= 0 && step != SQLITE_DONE)
        log_message(LOG_ERR, "Unable to delete from attachments (%s): %s", mailname.c_str(), db.errorText());
    return step;
}

void clear_attachment_dir(const std::string &mailname)
{
    std::string error;
    if (AttachmentDir(mailname).clear(error) != 0)
        log_message(LOG_ERR, "Unable to remove autoresponder attachments: %s", error.c_str());
}

Outcome delete_row_and_counters(ResponderDb &db, const std::string &mailname)
{
    const int row = run_statement(db, "DELETE FROM autoresponder WHERE mn=?", {{"mailname", mailname}});
    if (row < 0)
        return GIVEN_UP;
    /* How the counters' step ended is left unexamined: the mail side makes them anew. */
    if (run_statement(db, "DELETE FROM resp_freq WHERE mn=?", {{"mailname", mailname}}) < 0)
        return GIVEN_UP;
    if (row != SQLITE_DONE) {
        /* Said only now, so the error text is that of this moment, after the counters. */
        log_message(LOG_ERR, "Unable to delete autoresponder (%s): %s", mailname.c_str(), db.errorText());
        return {Ending::commit, -1};
    }
    return COMMITTED;
}

Outcome delete_all(ResponderDb &db, const std::string &mailname)
{
    const int attachments = delete_attachment_rows(db, mailname);
    if (attachments == RETRY_INTERRUPTED)
        return GIVEN_UP;
    if (attachments >= 0)
        clear_attachment_dir(mailname);
    if (attachments != SQLITE_DONE) {
        log_message(LOG_ERR, "Error removing attachments for mailname (%s)", mailname.c_str());
        return attachments < 0 ? GIVEN_UP : Outcome{Ending::commit, attachments};
    }
    return delete_row_and_counters(db, mailname);
}

} // namespace

int del_resp(const std::string &mailname)
{
    return with_connection(
        nullptr, [&](ResponderDb &db) { return in_transaction(db, [&] { return delete_all(db, mailname); }); });
}
