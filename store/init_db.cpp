#include "store/init_db.h"

#include <cerrno>
#include <cstring>

#include <libgen.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/syslog.h>
#include <unistd.h>

#include "store/responder_db.h"
#include "support/c_handles.h"
#include "support/dirs.h"
#include "support/log.h"

int init_responder_db()
{
    constexpr char LABEL[] = "autoresponders";
    static_cast<void>(unlink(RESPONDER_DB_PATH)); /* there may be none */
    if (db_make_parent_dir(RESPONDER_DB_PATH, LABEL) != 0) {
        log_message(LOG_CRIT, "Unable to create directory for autoresponders database for(%s): %s", RESPONDER_DB_PATH,
                    std::strerror(errno));
        return -1;
    }
    if (db_recreate(RESPONDER_DB_PATH, RESPONDER_DB_SCHEMA, LABEL) != 0)
        return 1;
    return fix_responder_db_permissions(RESPONDER_DB_PATH) == 0 ? 0 : 1;
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
    errno = 0; /* getpwnam leaves it alone when there is simply no such user */
    const passwd *user = getpwnam(MAIL_USER);
    if (user == nullptr) {
        log_message(LOG_ERR, "Unable to get uid/gid for %s: %s (%d)", MAIL_USER, std::strerror(errno), errno);
        return -1;
    }
    const CString copy(strdup(path));
    if (!copy) {
        log_message(LOG_ERR, "Unable to fix '%s' permissions. Failed to get directory path: %s (%d)", path,
                    std::strerror(errno), errno);
        return -1;
    }
    const int directory = set_owner_and_mode(dirname(copy.get()), user->pw_uid, 0, 0755);
    const int file = set_owner_and_mode(path, user->pw_uid, user->pw_gid, 0600);
    return directory | file;
}

int set_owner_and_mode(const char *path, uid_t uid, gid_t gid, mode_t mode)
{
    int result = 0;
    if (chown(path, uid, gid) != 0) {
        log_message(LOG_ERR, "Unable to change owner/group of '%s' to %d/%d: %s (%d)", path, static_cast<int>(uid),
                    static_cast<int>(gid), std::strerror(errno), errno);
        result = -1;
    }
    if (chmod(path, mode) != 0) {
        log_message(LOG_ERR, "Unable to change permissions of '%s' to 0%o: %s (%d)", path, mode, std::strerror(errno),
                    errno);
        result = -1;
    }
    return result;
}
