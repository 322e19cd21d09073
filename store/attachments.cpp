#include "store/attachments.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <pwd.h>
#include <sys/stat.h>
#include <sys/syslog.h>
#include <sys/wait.h>
#include <unistd.h>

#include "store/attachment_dir.h"
#include "store/transaction.h"
#include "support/dirs.h"
#include "support/log.h"

int selectRealOwner(ResponderDb &db, const std::string &mailname, std::string &real_owner)
{
    ResponderStatement stmt;
    int result = stmt.prepare(db, "SELECT real_owner FROM autoresponder WHERE mn=?");
    if (result == 0)
        result = stmt.bind({{"mailname", mailname}});
    if (result != 0) {
        stmt.finalize();
        static_cast<void>(db.close());
        return result;
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
    if (step == RETRY_INTERRUPTED)
        return step;
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

/* Begins the transaction anew, for a write that another writer keeps out. Our look-up's read lock, which lasts until
 * END, is what that writer's END waits for, while our write waits for its lock: neither would ever go on. Nothing has
 * been written yet, so ending loses nothing. A changed owner is ignored: the file already lies with the former one. */
auto let_other_writer_finish(ResponderDb &db, const std::string &mailname)
{
    return [&db, &mailname] {
        std::string owner;
        int result = db.end();
        if (result == 0)
            result = db.begin();
        return result == 0 ? selectRealOwner(db, mailname, owner) : result;
    };
}

/* What follows the last "/"; the GNU rule. */
std::string base_name(const std::string &filename)
{
    return filename.substr(filename.rfind('/') + 1); /* npos + 1 is 0 */
}

/* Copies by the system's own command. Only the exit code is looked at: a shell that a signal ended counts as success.
 * Returns 0; or -1, logged. */
int copy_file(const std::string &source, const std::string &path)
{
    const std::string command = "/bin/cp \"" + source + "\" \"" + path + "\""; /* not escaped: SECURITY.md */
    const int status = std::system(command.c_str());
    if (status == -1) {
        log_message(LOG_ERR, "Unable to move attachment %s to %s: %s", source.c_str(), path.c_str(),
                    std::strerror(errno));
        return -1;
    }
    const int exit_code = (status >> 8) & 0xff;
    if (exit_code != 0) {
        log_message(LOG_ERR, "Unable to move attachment %s to %s: Child status %d", source.c_str(), path.c_str(),
                    exit_code);
        return -1;
    }
    return 0;
}

/* Puts a copy of `source` into `dir` as `name`, directory and copy owned by the mail user. Returns 0; or -1, logged. */
int place_file(const std::string &source, const AttachmentDir &dir, const std::string &name)
{
    const std::string path = dir.pathOf(name);
    const passwd *user = getpwnam(MAIL_USER); /* errno is not cleared first, so the message may tell an older error */
    if (user == nullptr) {
        log_message(LOG_ERR, "Unable to get uid:gid for %s: %s", MAIL_USER, std::strerror(errno));
        return -1;
    }
    if (dir.checkLinks(name) != 0) {
        log_message(LOG_ERR, "Unable to move attachment %s to %s: %s", source.c_str(), path.c_str(),
                    std::strerror(errno));
        return -1;
    }
    static_cast<void>(
        create_dir_tree(dir.path().c_str(), user->pw_uid, user->pw_gid, 0700)); /* it ends the process itself */
    if (copy_file(source, path) != 0)
        return -1;
    if (chown(path.c_str(), user->pw_uid, user->pw_gid) != 0) {
        log_message(LOG_ERR, "Unable to change owner for %s: %s", path.c_str(), std::strerror(errno));
        return -1;
    }
    return 0;
}

Outcome add_file_and_row(ResponderDb &db, const std::string &source, const std::string &name,
                         const std::string &mailname)
{
    std::string real_owner;
    if (selectRealOwner(db, mailname, real_owner) != 0 || place_file(source, AttachmentDir(real_owner), name) != 0)
        return GIVEN_UP;
    const int step = run_statement(db, "REPLACE INTO attachments VALUES (?, ?  );",
                                   {{"mailname", mailname}, {"filename", name}}, let_other_writer_finish(db, mailname));
    if (step == SQLITE_DONE)
        return COMMITTED;
    if (step >= 0)
        log_message(LOG_ERR, "Unable to add autoresponder attachment (%s:%s): %s", mailname.c_str(), name.c_str(),
                    db.errorText());
    return GIVEN_UP;
}

Outcome delete_attachment_row(ResponderDb &db, const std::string &mailname, const std::string &filename)
{
    std::string real_owner; /* only that there is one matters: the file is looked for with the mail name itself */
    if (selectRealOwner(db, mailname, real_owner) != 0)
        return GIVEN_UP;
    const int step =
        run_statement(db, "DELETE FROM attachments WHERE mn=? AND filename=?",
                      {{"mailname", mailname}, {"filename", filename}}, let_other_writer_finish(db, mailname));
    if (step == SQLITE_DONE)
        return COMMITTED;
    if (step >= 0)
        log_message(LOG_ERR, "Unable to delete autoresponder attachment (%s:%s): %s", mailname.c_str(),
                    filename.c_str(), db.errorText());
    return GIVEN_UP;
}

} // namespace

int add_attach(const std::string &source, const std::string &filename, const std::string &mailname)
{
    const std::string name = base_name(filename);
    return with_connection(nullptr, [&](ResponderDb &db) {
        return in_transaction(db, [&] { return add_file_and_row(db, source, name, mailname); });
    });
}

int del_attach(const std::string &mailname, const std::string &filename)
{
    const AttachmentDir dir(mailname);
    const int result = with_connection(nullptr, [&](ResponderDb &db) {
        return in_transaction(db, [&] { return delete_attachment_row(db, mailname, filename); });
    });
    if (result != 0)
        return result;
    if (dir.unlinkFile(filename) != 0 && errno != ENOENT) {
        log_message(LOG_ERR, "Unable to delete attachment %s: %s", dir.pathOf(filename).c_str(), std::strerror(errno));
        return -1;
    }
    return 0;
}
