#include "store/records.h"

#include <sys/syslog.h>

#include "store/attachment_row.h"
#include "store/autoresponder_row.h"
#include "store/run_statement.h"
#include "store/transaction.h"
#include "support/c_handles.h"
#include "support/log.h"
#include "support/text.h"

using namespace arsp;

namespace {

CString mail_name(const char *local_part, const char *domain)
{
    CString name(xasprintf("%s@%s", local_part, domain));
    str_tolower(name.get());
    return name;
}

/* Deletes the rows of `mn` with `sql`. A step that fails is logged with the words `failure`; the transaction is still
 * committed. */
int delete_rows(ResponderDb &db, const char *sql, const char *mn, const char *failure)
{
    return in_transaction(db, [&] {
        const StepResult result = run_statement(db, sql, {{"mailname", mn}});
        if (result == StepResult::refused)
            log_message(LOG_ERR, "%s (%s): %s", failure, mn, db.errorText());
        return gave_up(result) ? GIVEN_UP : COMMITTED;
    });
}

Outcome insert_attachments(ResponderDb &db, const char *mn, const char *const *file_names, int count)
{
    for (int i = 0; i < count; ++i) {
        const StepResult result = replace_attachment_row(db, mn, file_names[i]);
        if (gave_up(result))
            return GIVEN_UP;
        if (result == StepResult::refused)
            log_message(LOG_ERR, "Unable to add autoresponder attachment (%s): %s", mn, db.errorText());
    }
    return COMMITTED;
}

} // namespace

int replace_autoresponder_record(ResponderDb &db, const char *local_part, const char *domain,
                                 const AutoresponderRecord &record)
{
    const CString mn = mail_name(local_part, domain);
    const CString real_owner = mail_name(record.owner_local_part, domain);
    const AutoresponderRow row = {
        .keystr = record.keystr,
        .key_where = record.key_where,
        .subject = record.subject,
        .reply_to = record.reply_to,
        .forward_to = record.forward_to,
        .content_type = record.content_type,
        .charset = record.charset,
        .body = record.body,
        .ans_freq = record.ans_freq,
        .ans_limit = record.ans_limit,
        .real_owner = real_owner.get(),
        .mn = mn.get(),
    };
    return in_transaction(db, [&] { return replace_autoresponder_row(db, row, Ending::leave_open); });
}

int store_autoresponder_record(ResponderDb *db, const char *local_part, const char *domain,
                               const AutoresponderRecord &record)
{
    return with_connection(
        db, [&](ResponderDb &open_db) { return replace_autoresponder_record(open_db, local_part, domain, record); });
}

int replace_attachment_records(ResponderDb &db, const char *local_part, const char *domain,
                               const char *const *file_names, int count)
{
    if (count == 0)
        return 0;
    const CString mn = mail_name(local_part, domain);
    return in_transaction(db, [&] { return insert_attachments(db, mn.get(), file_names, count); });
}

int store_attachment_records(ResponderDb *db, const char *local_part, const char *domain, const char *const *file_names,
                             int count)
{
    return with_connection(db, [&](ResponderDb &open_db) {
        return replace_attachment_records(open_db, local_part, domain, file_names, count);
    });
}

int delete_autoresponder_record(ResponderDb &db, const char *local_part, const char *domain)
{
    const CString mn = mail_name(local_part, domain);
    return delete_rows(db, "DELETE FROM autoresponder WHERE mn = ?;", mn.get(), "Unable to add autoresponder data");
}

int remove_autoresponder_record(ResponderDb *db, const char *local_part, const char *domain)
{
    return with_connection(
        db, [&](ResponderDb &open_db) { return delete_autoresponder_record(open_db, local_part, domain); });
}

int delete_attachment_records(ResponderDb &db, const char *local_part, const char *domain)
{
    const CString mn = mail_name(local_part, domain);
    return delete_rows(db, "DELETE FROM attachments WHERE mn = ?;", mn.get(), "Unable to add autoresponder attachment");
}

int remove_attachment_records(ResponderDb *db, const char *local_part, const char *domain)
{
    return with_connection(
        db, [&](ResponderDb &open_db) { return delete_attachment_records(open_db, local_part, domain); });
}
