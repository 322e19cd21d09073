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
#include "support/flush.h"
#include "support/log.h"

using namespace arsp;

namespace {

/* A file or directory held open, or the reason why it is not. */
class Held {
public:
    Held(const char *path, int flags) : fd_(open(path, flags | O_CLOEXEC, 0600)), error_(fd_ ? 0 : errno) {}

    int get() const { return fd_.get(); }

    /* Makes further use fail with `error`. */
    void spoil(int error) { error_ = error; }

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

/* Spoils `file` when something else lies at `path` now: the mail user may rename files and links there. */
void check_place(const char *path, Held &file)
{
    struct stat there = {};
    struct stat held = {};
    if (lstat(path, &there) != 0)
        file.spoil(errno);
    else if (S_ISLNK(there.st_mode))
        file.spoil(ELOOP);
    else if (fstat(file.get(), &held) == 0 && (there.st_dev != held.st_dev || there.st_ino != held.st_ino))
        file.spoil(ESTALE);
}

int set_owner_and_mode(const Held &held, const char *path, uid_t uid, gid_t gid, mode_t mode)
{
    int result = 0;
    if (held.setOwner(uid, gid) != 0) {
        log_message(LOG_ERR, "Unable to change owner/group of '%s' to %d/%d: %s (%d)", path, static_cast<int>(uid),
                    static_cast<int>(gid), std::strerror(errno), errno);
        result = -1;
    }
    if (held.setMode(mode) != 0) {
        log_message(LOG_ERR, "Unable to change permissions of '%s' to 0%o: %s (%d)", path, mode, std::strerror(errno),
                    errno);
        result = -1;
    }
    return result;
}

/* What fix_responder_db_permissions does, to a file that is held open already. With `flush_too` it flushes owners and
 * modes. */
int fix_permissions(const char *path, Held &file, bool flush_too)
{
    errno = 0; /* getpwnam leaves it alone when there is simply no such user */
    const passwd *user = getpwnam(MAIL_USER);
    if (user == nullptr) {
        log_message(LOG_ERR, "Unable to get uid/gid for %s: %s (%d)", MAIL_USER, std::strerror(errno), errno);
        return -1;
    }
    const CString copy(strdup(path)); /* dirname cuts its argument */
    if (!copy) {
        log_message(LOG_ERR, "Unable to fix '%s' permissions. Failed to get directory path: %s (%d)", path,
                    std::strerror(errno), errno);
        return -1;
    }
    const char *directory_path = dirname(copy.get());
    const Held directory(directory_path, O_RDONLY | O_DIRECTORY);
    int result = set_owner_and_mode(directory, directory_path, user->pw_uid, 0, 0755);
    check_place(path, file);
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
    const bool stays = unlink(RESPONDER_DB_PATH) != 0 && errno != ENOENT && errno != EISDIR;
    if (db_make_parent_dir(RESPONDER_DB_PATH, LABEL) != 0) {
        log_message(LOG_CRIT, "Unable to create directory for autoresponders database for(%s): %s", RESPONDER_DB_PATH,
                    std::strerror(errno));
        return -1;
    }
    /* Made here, not by SQLite, so that its owner can be set on this very file. SQLite opens it by its path: closing
     * this descriptor would drop SQLite's locks, so it outlives the connection. */
    Held file(RESPONDER_DB_PATH, O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | (stays ? 0 : O_EXCL));
    if (db_recreate(RESPONDER_DB_PATH, RESPONDER_DB_SCHEMA, LABEL) != 0)
        return 1;
    return fix_permissions(RESPONDER_DB_PATH, file, true) == 0 ? 0 : 1;
}

int db_make_parent_dir(const char *path, const char *label)
{
    const CString copy(strdup(path)); /* dirname cuts its argument */
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
    Held file(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
    return fix_permissions(path, file, false);
}

int set_owner_and_mode(const char *path, uid_t uid, gid_t gid, mode_t mode)
{
    return set_owner_and_mode(Held(path, O_RDONLY | O_NONBLOCK | O_NOCTTY), path, uid, gid, mode);
}
