#ifndef ARSP_STORE_ATTACHMENT_DIR_H
#define ARSP_STORE_ATTACHMENT_DIR_H

#include <string>

/* Where the attachments of a mailbox lie, and the only ways in which this tool, which is root, goes there: the tree
 * below the mail names' root belongs to the mail user, so a symbolic link in it is followed only if root owns the link
 * (an administrator put it there). Any other link is refused with ELOOP. */

class AttachmentDir {
public:
    /* Takes `address` apart at its first "@": root of the mail names (kel.conf), domain, local part, "@attachments".
     * An address without "@" is its own domain and local part. Nothing is normalised. */
    explicit AttachmentDir(const std::string &address);

    const std::string &path() const { return path_; }
    std::string pathOf(const std::string &name) const { return path_ + "/" + name; }

    /* Whether root may write to the attachment `name`: neither it nor a directory on the way to it is a link of
     * somebody else's. What does not exist yet is fine. Returns 0; or -1 with `errno` set. */
    int checkLinks(const std::string &name) const;

    /* Unlinks the attachment `name`, which may hold "/"; a link in its place is unlinked, whoever owns it.
     * Returns 0; or -1 with `errno` set. */
    int unlinkFile(const std::string &name) const;

    /* Removes every entry of the directory with everything below it, and keeps the directory itself. Below it no link
     * is followed at all. Stops at the first failure: returns -1 and puts a text with the path and the system's error
     * into `error`. Otherwise returns 0. */
    int clear(std::string &error) const;

private:
    std::string path_;
    std::size_t root_length_; /* of the part of path_ that is trusted: the root of the mail names */
};

#endif
