#ifndef ARSP_INFO_RIGHTS_H
#define ARSP_INFO_RIGHTS_H

#include <sys/types.h>

namespace arsp {

/* The mail user may put anything into the database and the mail tree, so arspinfo reads both with the rights of that
 * user and no others. */

/* The mail user. */
struct MailUser {
    uid_t uid;
    gid_t gid;
};

/* Takes the mail user's rights: effective and file-system ids, no supplementary groups. Root's ids are kept for
 * RootRights if `keep_root`, and are given up for good otherwise. Without effect for a process of the mail user itself.
 * Throws Failure for any other user, for a missing mail user and for a failed system call. */
MailUser become_mail_user(bool keep_root);

/* Gives the process root's rights for as long as the object lives, if become_mail_user kept them. A failure to give
 * them up again ends the process: it would read hostile data as root. */
class RootRights {
public:
    RootRights();
    RootRights(const RootRights &) = delete;
    RootRights &operator=(const RootRights &) = delete;
    ~RootRights();
};

} // namespace arsp

#endif
