#include "info/check_files.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <set>
#include <string>
#include <string_view>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "info/printable.h"
#include "info/records.h"
#include "info/repair.h"
#include "store/attachment_dir.h"
#include "store/mail_tree.h"
#include "support/conf.h"
#include "support/dir_stream.h"

namespace arsp {

namespace {

/* Returns the name of the next entry, or null at the end of the directory or if it could not be opened. */
const char *next_entry_of(const DirPtr &directory)
{
    return directory ? next_entry(directory.get()) : nullptr;
}

class FileCheck {
public:
    FileCheck(const MailUser &mail_user, Findings &findings)
        : mail_user_(mail_user), repair_(mail_user), root_(conf_get(CONF_QUARN_MAILNAMES_D)), findings_(findings)
    {
    }

    void checkMailbox(const std::string &address, const std::vector<AttachmentRow> &rows);

    /* Checks the attachment directories of mailboxes that no row concerns. */
    void checkOthers(const AttachmentRows &rows);

private:
    void checkDomain(const std::string &domain, const AttachmentRows &rows);
    void checkPath(const AttachmentFolder &folder);
    void checkDirectory(const AttachmentFolder &folder, const std::vector<AttachmentRow> &rows);
    void checkAttachment(const AttachmentFolder &folder, const std::string &owner, const AttachmentRow &row);
    bool isReadable(const AttachmentFolder &folder, const std::string &name, const struct stat &status) const;
    std::string removeRow(const AttachmentRow &row) const;
    std::string removeAttachment(const std::string &owner, const AttachmentRow &row) const;
    std::string copyFile(const AttachmentFolder &folder, const std::string &name) const;
    std::string copyDirectory(const std::string &path) const;
    bool isInRoot(const std::string &path) const { return path.rfind('/') == root_.size(); }
    std::string remove(const std::string &path) const;

    MailUser mail_user_;
    Repair repair_;
    std::string root_; /* of the mail names */
    Findings &findings_;
    std::set<std::string> reported_; /* places on the path of several mailboxes */
};

/* Root's rights are taken only for names in the root of the mail names: the mail user cannot exchange a directory on
 * the path to it, and rm follows no link. */
std::string FileCheck::remove(const std::string &path) const
{
    const std::vector<std::string> command = {"rm", "-r", "--", path};
    return isInRoot(path) ? shell_command(command) : repair_.asMailUser(command);
}

void FileCheck::checkMailbox(const std::string &address, const std::vector<AttachmentRow> &rows)
{
    const AttachmentFolder folder(address);
    const int error = folder.errorNumber();
    if (error == ELOOP || error == EACCES) {
        checkPath(folder); /* it hides the files, which may be in order */
        return;
    }
    if (error == 0)
        checkDirectory(folder, rows);
    for (const AttachmentRow &row : rows)
        checkAttachment(folder, address, row);
}

/* Finds the place on the path because of which the directory could not be opened. */
void FileCheck::checkPath(const AttachmentFolder &folder)
{
    const std::string &path = folder.path();
    std::string passed = root_;
    while (passed != path) {
        const std::string next = path.substr(0, path.find('/', passed.size() + 1));
        if (!MailTree().resolve(next, folder.rootLength()).fd) {
            const int error = errno;
            if (error == ELOOP && reported_.insert(next).second)
                findings_.add(Severity::error, "link", next, "is a symbolic link that arspctl does not follow",
                              remove(next));
            if (error != EACCES)
                return;
            break;
        }
        passed = next;
    }
    struct stat status = {};
    if (!reported_.insert(passed).second || lstat(passed.c_str(), &status) != 0)
        return;
    std::string repair = repair_.setAside(passed);
    if (status.st_uid == mail_user_.uid)
        repair = repair_.asMailUser({"chmod", "u+rwx", passed});
    else if (isInRoot(passed))
        repair = shell_command({"chown", "-h", std::to_string(mail_user_.uid), passed});
    findings_.add(Severity::error, "attachments-unreadable", passed, "cannot be read by the mail user", repair);
}

void FileCheck::checkDirectory(const AttachmentFolder &folder, const std::vector<AttachmentRow> &rows)
{
    struct stat status = {};
    fstat(folder.get(), &status); /* it is open: this cannot fail */
    if ((status.st_mode & 077) != 0) {
        findings_.add(Severity::warning, "attachments-mode", folder.path(),
                      "lets other users in: mode " + mode_text(status.st_mode),
                      status.st_uid == mail_user_.uid ? repair_.asMailUser({"chmod", "0700", folder.path()})
                                                      : copyDirectory(folder.path()));
    }
    std::set<std::string_view> registered;
    for (const AttachmentRow &row : rows)
        registered.insert(row.name);
    const DirPtr stream = open_dir_stream(Descriptor(fcntl(folder.get(), F_DUPFD_CLOEXEC, 0)));
    while (const char *name = next_entry_of(stream)) {
        if (fstatat(folder.get(), name, &status, AT_SYMLINK_NOFOLLOW) != 0)
            continue; /* removed meanwhile */
        const std::string path = folder.pathOf(name);
        if (S_ISLNK(status.st_mode) && status.st_uid != 0)
            findings_.add(Severity::error, "link", path, "is a symbolic link that root does not own", remove(path));
        else if (registered.count(name) == 0)
            findings_.add(Severity::note, "file-orphan", path, "is not the attachment of any mailbox", remove(path));
    }
}

void FileCheck::checkAttachment(const AttachmentFolder &folder, const std::string &owner, const AttachmentRow &row)
{
    const std::string subject = "has the attachment " + folder.pathOf(row.name);
    struct stat status = {};
    if (folder.status(row.name, status) != 0) {
        findings_.add(Severity::error, "attachment-missing", row.mn, subject + ": " + std::strerror(errno),
                      removeAttachment(owner, row));
    } else if (S_ISLNK(status.st_mode)) {
        return; /* checkDirectory reports it; arspctl follows one of root's */
    } else if (!S_ISREG(status.st_mode)) {
        findings_.add(Severity::error, "attachment-type", row.mn, subject + ", which is no regular file",
                      removeRow(row));
    } else if (status.st_size == 0) {
        findings_.add(Severity::warning, "attachment-empty", row.mn, subject + ", which is empty",
                      removeAttachment(owner, row));
    } else if (!isReadable(folder, row.name, status)) {
        findings_.add(Severity::error, "attachment-unreadable", row.mn, subject + ", which the mail user cannot read",
                      status.st_uid == mail_user_.uid ? repair_.asMailUser({"chmod", "u+r", folder.pathOf(row.name)})
                                                      : removeAttachment(owner, row));
    } else if (status.st_uid != mail_user_.uid) {
        findings_.add(Severity::warning, "attachment-owner", row.mn,
                      subject + ", which belongs to user " + std::to_string(status.st_uid), copyFile(folder, row.name));
    }
}

bool FileCheck::isReadable(const AttachmentFolder &folder, const std::string &name, const struct stat &status) const
{
    const bool own = status.st_uid == mail_user_.uid && (status.st_mode & S_IRUSR) != 0;
    return own || faccessat(folder.get(), name.c_str(), R_OK, 0) == 0;
}

std::string FileCheck::removeRow(const AttachmentRow &row) const
{
    return repair_.sql("DELETE FROM attachments WHERE " + sql_equals("mn", row.mn) + " AND " +
                       sql_equals("filename", row.name));
}

/* --del-attach removes the file of that name from the directory of the mail name, even if it is not the owner. */
std::string FileCheck::removeAttachment(const std::string &owner, const AttachmentRow &row) const
{
    if (owner != row.mn || !is_file_name(row.name) || row.name.size() > NAME_MAX)
        return removeRow(row);
    return shell_command({"arspctl", "--del-attach", "--mailname", row.mn, "--filename=" + row.name});
}

/* A copy belongs to the mail user. Root's chown could be led to any file: see Repair. */
std::string FileCheck::copyFile(const AttachmentFolder &folder, const std::string &name) const
{
    return repair_.asMailUser({"sh", "-c", R"(cp --preserve=mode -- "$1" "$2" && mv -f -- "$2" "$1")", "sh",
                               folder.pathOf(name), folder.pathOf(".arspinfo-copy")});
}

std::string FileCheck::copyDirectory(const std::string &path) const
{
    constexpr char SCRIPT[] = R"(cp -R -- "$1" "$2" && chmod 0700 "$2" && mv -T --backup=numbered -- "$1" "$3" && )"
                              R"(mv -T -- "$2" "$1")";
    return repair_.asMailUser({"sh", "-c", SCRIPT, "sh", path, path + ".copy", path + ".set-aside"});
}

void FileCheck::checkOthers(const AttachmentRows &rows)
{
    const DirPtr domains = open_dir_stream(Descriptor(open(root_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)));
    while (const char *domain = next_entry_of(domains))
        checkDomain(domain, rows);
}

void FileCheck::checkDomain(const std::string &domain, const AttachmentRows &rows)
{
    const DirPtr mailboxes = open_dir_stream(open_mail_directory(root_ + "/" + domain, root_.size()));
    while (const char *mailbox = next_entry_of(mailboxes)) {
        const std::string address = std::string(mailbox) + "@" + domain;
        if (rows.count(address) != 0)
            continue;
        const AttachmentFolder folder(address);
        if (folder.get() >= 0 && folder.path() == root_ + "/" + domain + "/" + mailbox + "/@attachments")
            checkDirectory(folder, {});
    }
}

} // namespace

void check_files(const MailUser &mail_user, const AttachmentRows &rows, Findings &findings)
{
    FileCheck check(mail_user, findings);
    for (const auto &[address, its_rows] : rows)
        check.checkMailbox(address, its_rows);
    check.checkOthers(rows);
}

} // namespace arsp
