#include "info/rights.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include "info/failure.h"
#include "store/schema.h"
#include "support/c_handles.h"

namespace arsp {

namespace {

constexpr uid_t UNCHANGED_UID = static_cast<uid_t>(-1);
constexpr gid_t UNCHANGED_GID = static_cast<gid_t>(-1);

/* What RootRights returns to: the mail user, if become_mail_user kept root's ids. */
MailUser current_user = {UNCHANGED_UID, UNCHANGED_GID};
bool root_is_kept = false;

void abort_unless(bool done)
{
    if (!done)
        std::abort();
}

} // namespace

MailUser become_mail_user(bool keep_root)
{
    errno = 0;
    const passwd *user = getpwnam(MAIL_USER);
    if (user == nullptr)
        throw Failure(std::string("no user ") + MAIL_USER +
                      (errno != 0 ? std::string(": ") + std::strerror(errno) : ""));
    const MailUser mail_user = {user->pw_uid, user->pw_gid};
    if (geteuid() == mail_user.uid)
        return mail_user;
    if (geteuid() != 0)
        throw Failure(std::string("must be run as root or as ") + MAIL_USER);
    const uid_t uid = keep_root ? 0 : mail_user.uid;
    const gid_t gid = keep_root ? 0 : mail_user.gid;
    if (setgroups(0, nullptr) != 0 || setresgid(gid, mail_user.gid, gid) != 0 ||
        setresuid(uid, mail_user.uid, uid) != 0)
        throw Failure(std::string("cannot take the rights of ") + MAIL_USER + ": " + std::strerror(errno));
    current_user = mail_user;
    root_is_kept = keep_root;
    return mail_user;
}

RootRights::RootRights()
{
    if (!root_is_kept)
        return;
    if (setresuid(UNCHANGED_UID, 0, UNCHANGED_UID) != 0 || setresgid(UNCHANGED_GID, 0, UNCHANGED_GID) != 0)
        throw Failure(std::string("cannot take root's rights: ") + std::strerror(errno));
}

RootRights::~RootRights()
{
    const KeepErrno keep;
    if (!root_is_kept)
        return;
    abort_unless(setresgid(UNCHANGED_GID, current_user.gid, UNCHANGED_GID) == 0);
    abort_unless(setresuid(UNCHANGED_UID, current_user.uid, UNCHANGED_UID) == 0);
}

} // namespace arsp
