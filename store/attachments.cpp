#include "store/attachments.h"

#include <optional>

#include <sys/syslog.h>

#include "store/attachment_copy.h"
#include "store/attachment_dir.h"
#include "store/attachment_row.h"
#include "store/run_statement.h"
#include "store/transaction.h"
#include "support/log.h"

using namespace arsp;

int selectRealOwner(ResponderDb &db, const std::string &mailname, std::string &real_owner)
{
    ResponderStatement stmt;
    if (stmt.prepare(db, "SELECT real_owner FROM autoresponder WHERE mn=?") != 0 ||
        bind_params(db, stmt, {{"mailname", mailname}}) != 0) {
        stmt.finalize();
        db.close();
        return -1;
    }
    const int step = stmt.step();
    if (step == SQLITE_ROW) {
        if (const char *owner = stmt.columnText(0); owner != nullptr)
            real_owner = owner;
        stmt.finalize();
        if (db.errorCode() != SQLITE_NOMEM)
            return 0;
        log_message(LOG_ERR, "Unable to read data from database: %s", db.errorText());
        return -1;
    }
    if (db.interrupted())
        return -1;
    if (step == SQLITE_DONE) {
        stmt.finalize();
        log_message(LOG_ERR, "No autoresponder found for mailname (%s)", mailname.c_str());
        return -1;
    }
    log_message(LOG_ERR, "Unable to read data from database: %s", db.errorText());
    stmt.finalize();
    log_message(LOG_ERR, "Error selecting autoresponder for mailname (%s)", mailname.c_str());
    return -1;
}

namespace {

/* Returns a function that ends the transaction and begins it again, to resolve a deadlock: the END of another writer
 * waits for the read lock that selectRealOwner took, while this process waits for that writer's lock. Nothing has been
 * written yet, so nothing is lost. A changed owner is ignored: the file is already in the former owner's directory. */
auto let_other_writer_finish(ResponderDb &db, const std::string &mailname)
{
    return [&db, &mailname] {
        std::string owner; /* ignored */
        const bool restarted = db.end() == 0 && db.begin() == 0 && selectRealOwner(db, mailname, owner) == 0;
        return restarted ? 0 : -1;
    };
}

/* The part after the last "/"; empty after a slash at the end. */
std::string base_name(const std::string &filename)
{
    return filename.substr(filename.rfind('/') + 1); /* npos + 1 is 0 */
}

Outcome add_file_and_row(ResponderDb &db, const std::string &source, const std::string &name,
                         const std::string &mailname)
{
    std::string real_owner;
    if (selectRealOwner(db, mailname, real_owner) != 0 || copy_attachment(source, real_owner, name) != 0)
        return GIVEN_UP;
    const StepResult result = replace_attachment_row(db, mailname, name, let_other_writer_finish(db, mailname));
    if (result == StepResult::refused)
        log_message(LOG_ERR, "Unable to add autoresponder attachment (%s:%s): %s", mailname.c_str(), name.c_str(),
                    db.errorText());
    return result == StepResult::done ? COMMITTED : GIVEN_UP;
}

/* Sets `dir` to the directory of the mail name itself, whose file is unlinked after the commit. */
Outcome delete_attachment_row(ResponderDb &db, const std::string &mailname, const std::string &filename,
                              std::optional<AttachmentDir> &dir)
{
    std::string real_owner; /* only its existence matters */
    if (selectRealOwner(db, mailname, real_owner) != 0)
        return GIVEN_UP;
    dir.emplace(mailname);
    const StepResult result =
        run_statement(db, "DELETE FROM attachments WHERE mn=? AND filename=?",
                      {{"mailname", mailname}, {"filename", filename}}, let_other_writer_finish(db, mailname));
    if (result == StepResult::refused)
        log_message(LOG_ERR, "Unable to delete autoresponder attachment (%s:%s): %s", mailname.c_str(),
                    filename.c_str(), db.errorText());
    return result == StepResult::done ? COMMITTED : GIVEN_UP;
}

} // namespace

int arsp::add_attach(const std::string &source, const std::string &filename, const std::string &mailname)
{
    const std::string name = base_name(filename);
    return in_own_transaction([&](ResponderDb &db) { return add_file_and_row(db, source, name, mailname); });
}

int arsp::del_attach(const std::string &mailname, const std::string &filename)
{
    std::optional<AttachmentDir> dir;
    const int result =
        in_own_transaction([&](ResponderDb &db) { return delete_attachment_row(db, mailname, filename, dir); });
    return result == 0 ? dir->unlinkFile(filename) : result;
}
