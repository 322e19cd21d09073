#ifndef ARSP_STORE_ATTACHMENT_DIR_H
#define ARSP_STORE_ATTACHMENT_DIR_H

#include <string>

namespace arsp {

/* The directory that holds the attachments of a mailbox. All access goes through MailTree, whose rule for symbolic
 * links holds for it. */
class AttachmentDir {
public:
    /* Takes `address` apart at its first "@": root of the mail names (kel.conf), domain, local part, "@attachments".
     * An address without "@" is its own domain and local part. Nothing is normalised. */
    explicit AttachmentDir(const std::string &address);

    const std::string &path() const { return path_; }
    std::string pathOf(const std::string &name) const { return path_ + "/" + name; }

    /* The length of the part of path() that is trusted: the root of the mail names. */
    std::size_t rootLength() const { return root_length_; }

    /* Unlinks the attachment `name`, which may hold "/", and flushes its directory. A link in its place is unlinked,
     * whoever owns it; a missing file is no error. Returns 0; or -1 after logging at LOG_ERR "Unable to delete
     * attachment %s: %s" or, when the file is gone already, "Unable to flush %s: %s". */
    [[nodiscard]] int unlinkFile(const std::string &name) const;

    /* Removes every entry of the directory with everything below it, keeps the directory itself and flushes it. Below
     * it no link is followed. Logs "Unable to remove autoresponder attachments: %s" at LOG_ERR at the first failure,
     * which is no failure of the result. Returns 0; or -1 after logging "Unable to flush %s: %s". */
    [[nodiscard]] int clear() const;

private:
    std::string path_;
    std::size_t root_length_;
};

} // namespace arsp

#endif
