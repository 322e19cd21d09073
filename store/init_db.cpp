#include "store/init_db.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <libgen.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/syslog.h>
#include <unistd.h>

#include "store/responder_db.h"
#include "support/c_handles.h"
#include "support/dirs.h"
#include "support/file_id.h"
#include "support/flush.h"
#include "support/log.h"

using namespace arsp;

namespace {

/* A file or directory that is held open, or the error of opening it. */
class HeldFile {
public:
    HeldFile(const char *path, int flags) : fd_(open(path, flags | O_CLOEXEC, 0600)), error_(fd_ ? 0 : errno) {}

    int get() const { return fd_.get(); }

    /* Makes setOwner and setMode fail with `error`. */
    void failWith(int error) { error_ = error; }

    int setOwner(uid_t uid, gid_t gid) const { return usable() ? fchown(get(), uid, gid) : -1; }
    int setMode(mode_t mode) const { return usable() ? fchmod(get(), mode) : -1; }

private:
    bool usable() const
    {
        errno = error_;
        return error_ == 0;
    }

    Descriptor fd_;
    int error_; /* an errno, 0 for none */
};

/* Makes `file` fail when `path` has become another file or a link: the mail user may rename files there. */
void check_not_replaced(const char *path, HeldFile &file)
{
    struct stat current = {};
    struct stat held = {};
    if (lstat(path, &current) != 0)
        file.failWith(errno);
    else if (S_ISLNK(current.st_mode))
        file.failWith(ELOOP);
    else if (fstat(file.get(), &held) == 0 && FileId(current) != FileId(held))
        file.failWith(ESTALE);
}

int set_owner_and_mode(const HeldFile &file, const char *path, uid_t uid, gid_t gid, mode_t mode)
{
    int result = 0;
    if (file.setOwner(uid, gid) != 0) {
        log_message(LOG_ERR, "Unable to change owner/group of '%s' to %d/%d: %s (%d)", path, static_cast<int>(uid),
                    static_cast<int>(gid), std::strerror(errno), errno);
        result = -1;
    }
    if (file.setMode(mode) != 0) {
        log_message(LOG_ERR, "Unable to change permissions of '%s' to 0%o: %s (%d)", path, mode, std::strerror(errno),
                    errno);
        result = -1;
    }
    return result;
}

/* Does what fix_responder_db_permissions does, to a file that is already open. With `flush_too` it also flushes the
 * owners and modes. */
int fix_permissions(const char *path, HeldFile &file, bool flush_too)
{
    errno = 0; /* getpwnam leaves it unchanged when the user does not exist */
    const passwd *user = getpwnam(MAIL_USER);
    if (user == nullptr) {
        log_message(LOG_ERR, "Unable to get uid/gid for %s: %s (%d)", MAIL_USER, std::strerror(errno), errno);
        return -1;
    }
    const CString copy(strdup(path)); /* dirname changes its argument */
    if (!copy) {
        log_message(LOG_ERR, "Unable to fix '%s' permissions. Failed to get directory path: %s (%d)", path,
                    std::strerror(errno), errno);
        return -1;
    }
    const char *directory_path = dirname(copy.get());
    const HeldFile directory(directory_path, O_RDONLY | O_DIRECTORY);
    int result = set_owner_and_mode(directory, directory_path, user->pw_uid, 0, 0755);
    check_not_replaced(path, file);
    result |= set_owner_and_mode(file, path, user->pw_uid, user->pw_gid, 0600);
    if (result != 0 || !flush_too)
        return result;
    if (flush(file.get()) != 0) {
        log_flush_failure(path);
        return -1;
    }
    if (flush(directory.get()) != 0) {
        log_flush_failure(directory_path);
        return -1;
    }
    return 0;
}

} // namespace

int init_responder_db()
{
    constexpr char LABEL[] = "autoresponders";
    /* A directory is not an old file: opening it with O_EXCL fails. */
    const bool old_file_remains = unlink(RESPONDER_DB_PATH) != 0 && errno != ENOENT && errno != EISDIR;
    if (db_make_parent_dir(RESPONDER_DB_PATH, LABEL) != 0) {
        log_message(LOG_CRIT, "Unable to create directory for autoresponders database for(%s): %s", RESPONDER_DB_PATH,
                    std::strerror(errno));
        return -1;
    }
    /* Made here, not by SQLite, so that the owner is set on this very file. Closing the descriptor would release the
     * locks that SQLite holds on the file, so it stays open until SQLite has closed its own. */
    HeldFile file(RESPONDER_DB_PATH,
                  O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | (old_file_remains ? 0 : O_EXCL));
    if (db_recreate(RESPONDER_DB_PATH, RESPONDER_DB_SCHEMA, LABEL) != 0)
        return 1;
    return fix_permissions(RESPONDER_DB_PATH, file, true) == 0 ? 0 : 1;
}

int db_make_parent_dir(const char *path, const char *label)
{
    const CString copy(strdup(path)); /* dirname changes its argument */
    if (!copy) {
        log_message(LOG_CRIT, "Memory allocation error");
        return -1;
    }
    const char *directory = dirname(copy.get());
    if (directory == nullptr) {
        log_message(LOG_CRIT, "Unable to get dirname for %s database (%s): %s (%d)", label, path, std::strerror(errno),
                    errno);
        return -1;
    }
    if (mkdir_p(directory) == 0) {
        log_message(LOG_CRIT, "Unable to create directories for %s database (%s): %s (%d)", label, directory,
                    std::strerror(errno), errno);
        return -1;
    }
    return 0;
}

int db_recreate(const char *path, const char *sql, const char *label)
{
    ResponderDb db;
    if (db.open(path) != 0)
        return -1;
    SqliteText message;
    int result = db.execScript(path, sql, message);
    if (result > 0) {
        if (message)
            log_message(LOG_ERR, "Unable to re-create %s database: %s", label, message.get());
        else
            log_message(LOG_ERR, "Unable to re-create %s database", label);
    }
    if (db.close() != 0)
        result = -1;
    return result == 0 ? 0 : -1;
}

int fix_responder_db_permissions(const char *path)
{
    HeldFile file(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
    return fix_permissions(path, file, false);
}

int set_owner_and_mode(const char *path, uid_t uid, gid_t gid, mode_t mode)
{
    return set_owner_and_mode(HeldFile(path, O_RDONLY | O_NONBLOCK | O_NOCTTY), path, uid, gid, mode);
}
