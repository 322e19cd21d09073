#include "info/check_place.h"

#include <string>
#include <string_view>
#include <tuple>

#include <fcntl.h>
#include <sys/stat.h>

#include "info/database.h"
#include "info/printable.h"
#include "info/records.h"
#include "info/repair.h"
#include "store/schema.h"
#include "support/c_handles.h"

namespace arsp {

namespace {

/* The database or its directory as --init-db leaves it, and the codes of what differs. */
struct Place {
    std::string path;
    const char *type_name;
    mode_t type; /* of S_IFMT */
    gid_t gid;
    mode_t mode;
    const char *link_code, *type_code, *owner_code, *mode_code;
    std::string replace_link, chown, chmod; /* repairs; the first for a link that root made */
};

/* A path that holds no file is reported when the database is opened. */
class PlaceCheck {
public:
    PlaceCheck(const MailUser &mail_user, Findings &findings)
        : mail_user_(mail_user), repair_(mail_user), findings_(findings)
    {
    }

    void checkDirectory();
    void checkFile();
    void checkJournal();

private:
    void checkPlace(const Place &place);

    MailUser mail_user_;
    Repair repair_;
    Findings &findings_;
};

void PlaceCheck::checkPlace(const Place &place)
{
    struct stat status = {};
    if (lstat(place.path.c_str(), &status) != 0)
        return;
    if (S_ISLNK(status.st_mode)) {
        findings_.add(status.st_uid == 0 ? Severity::warning : Severity::error, place.link_code, place.path,
                      "is a symbolic link", status.st_uid == 0 ? place.replace_link : Repair::newDatabase(place.path));
        return;
    }
    if ((status.st_mode & S_IFMT) != place.type) {
        findings_.add(Severity::error, place.type_code, place.path, std::string("is no ") + place.type_name,
                      Repair::newDatabase(place.path));
        return;
    }
    const bool foreign = status.st_uid != mail_user_.uid || status.st_gid != place.gid;
    if (foreign) {
        findings_.add(Severity::error, place.owner_code, place.path,
                      "belongs to " + owner_text(status.st_uid, status.st_gid) + " instead of " +
                          owner_text(mail_user_.uid, place.gid),
                      place.chown);
    }
    if ((status.st_mode & 07777) != place.mode) {
        findings_.add(Severity::error, place.mode_code, place.path,
                      "has mode " + mode_text(status.st_mode) + " instead of " + mode_text(place.mode),
                      foreign ? Repair::both(place.chown, place.chmod) : place.chmod);
    }
}

void PlaceCheck::checkDirectory()
{
    checkPlace({database_directory(), "directory", S_IFDIR, 0, 0755, "db-dir-link", "db-dir-type", "db-dir-owner",
                "db-dir-mode", Repair::replaceDirectoryLink(), repair_.directoryOwner(), Repair::directoryMode()});
}

void PlaceCheck::checkFile()
{
    checkPlace({RESPONDER_DB_PATH, "regular file", S_IFREG, mail_user_.gid, 0600, "db-link", "db-type", "db-owner",
                "db-mode", repair_.replaceDatabaseLink(), repair_.databaseOwner(), repair_.databaseMode()});
}

bool is_regular_file(const char *path)
{
    struct stat status = {};
    return lstat(path, &status) == 0 && S_ISREG(status.st_mode);
}

/* Whether a process writes to the database or rolls a journal back. SQLite's locks are these 512 bytes. */
bool is_being_written()
{
    const Descriptor database(open(RESPONDER_DB_PATH, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct flock lock = {};
    lock.l_type = F_RDLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = 0x40000000;
    lock.l_len = 512;
    return fcntl(database.get(), F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

void PlaceCheck::checkJournal()
{
    const std::string journal = std::string(RESPONDER_DB_PATH) + "-journal";
    struct stat before = {};
    struct stat after = {};
    if (lstat(journal.c_str(), &before) != 0 || is_being_written() || lstat(journal.c_str(), &after) != 0)
        return;
    const auto state = [](const struct stat &status) {
        return std::tuple(status.st_dev, status.st_ino, status.st_ctim.tv_sec, status.st_ctim.tv_nsec);
    };
    if (!S_ISREG(after.st_mode)) {
        findings_.add(Severity::error, "db-journal", journal, "is no regular file",
                      repair_.asMailUser({"rm", "-r", "--", journal}));
    } else if (state(before) == state(after)) { /* otherwise a writer came in between */
        /* The journal of a linked database lies beside the link's target: this one would damage whatever database
         * takes the place of the link, or of a missing file. */
        findings_.add(Severity::error, "db-journal", journal, "was left behind by an interrupted command",
                      is_regular_file(RESPONDER_DB_PATH) ? repair_.journal() : repair_.setAside(journal));
    }
}

} // namespace

void check_place(const MailUser &mail_user, Findings &findings)
{
    PlaceCheck check(mail_user, findings);
    check.checkDirectory();
    check.checkFile();
    check.checkJournal();
}

void add_database_failure(const MailUser &mail_user, const DatabaseFailure &failure, Findings &findings)
{
    if (findings.has(failure.code))
        return;
    const Repair repair(mail_user);
    const std::string_view code = failure.code;
    std::string command = Repair::newDatabase(RESPONDER_DB_PATH);
    if (code == "db-missing")
        command = shell_command({"arspctl", "--init-db"});
    else if (code == "db-unreadable") {
        command = Repair::both(Repair::both(repair.directoryOwner(), Repair::directoryMode()),
                               Repair::both(repair.databaseOwner(), repair.databaseMode()));
    } else if (code == "db-journal") {
        command = repair.rollBack();
    } else if (code == "db-wal") {
        command = repair.sql("PRAGMA journal_mode=DELETE");
    }
    findings.add(Severity::error, failure.code, RESPONDER_DB_PATH, failure.what(), command);
}

} // namespace arsp
