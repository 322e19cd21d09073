#ifndef ARSP_STORE_ATTACHMENT_DIR_H
#define ARSP_STORE_ATTACHMENT_DIR_H

#include <string>

namespace arsp {

/* The directory that holds the attachments of a mailbox. Its path is resolved by MailTree, which states the rule for
 * symbolic links. */
class AttachmentDir {
public:
    /* Splits `address` at its first "@". The path is the root of the mail names (kel.conf), the domain, the local part
     * and "@attachments". Without "@" the whole address is both domain and local part. Nothing is normalised. */
    explicit AttachmentDir(const std::string &address);

    const std::string &path() const { return path_; }
    std::string pathOf(const std::string &name) const { return path_ + "/" + name; }

    /* The length of the part of path() that is trusted: the root of the mail names. */
    std::size_t rootLength() const { return root_length_; }

    /* Unlinks the attachment `name`, which may hold "/", and flushes its directory. A symbolic link of that name is
     * itself unlinked, whatever its owner; a missing file is no error. Returns 0; or -1 after logging at LOG_ERR
     * "Unable to delete attachment %s: %s" or, once the file is unlinked, "Unable to flush %s: %s". */
    [[nodiscard]] int unlinkFile(const std::string &name) const;

    /* Removes every entry of the directory with everything below it, keeps the directory itself and flushes it. Links
     * below it are unlinked, not followed. The first failure to remove ends the work, logs "Unable to remove
     * autoresponder attachments: %s" at LOG_ERR and does not change the result. Returns 0; or -1 after logging "Unable
     * to flush %s: %s" at LOG_ERR. */
    [[nodiscard]] int clear() const;

private:
    std::string path_;
    std::size_t root_length_;
};

} // namespace arsp

#endif
