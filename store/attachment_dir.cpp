#include "store/attachment_dir.h"

#include <cerrno>
#include <climits>
#include <cstring>

#include <sys/syslog.h>
#include <unistd.h>

#include "store/mail_tree.h"
#include "support/conf.h"
#include "support/flush.h"
#include "support/log.h"
#include "support/remove_contents.h"

namespace arsp {

namespace {

/* Unlinks the file `path`, whose last name begins at `name_start`. Returns its directory, open for reading; or an empty
 * descriptor with `errno` set. */
Descriptor unlink_in_tree(const std::string &path, std::size_t name_start, std::size_t root_length)
{
    if (path.size() >= PATH_MAX) { /* refused here as by unlink(), since MailTree passes the kernel single names */
        errno = ENAMETOOLONG;
        return Descriptor();
    }
    Descriptor directory = open_mail_directory(path.substr(0, name_start), root_length);
    if (directory && unlinkat(directory.get(), path.c_str() + name_start, 0) != 0)
        return Descriptor();
    return directory;
}

} // namespace

AttachmentDir::AttachmentDir(const std::string &address)
    : path_(conf_get(CONF_QUARN_MAILNAMES_D)), root_length_(path_.size())
{
    const std::size_t at = address.find('@');
    const std::string local_part = address.substr(0, at);
    const std::string domain = at == std::string::npos ? address : address.substr(at + 1);
    path_.append("/").append(domain).append("/").append(local_part).append("/@attachments");
}

int AttachmentDir::unlinkFile(const std::string &name) const
{
    const std::string path = pathOf(name);
    /* The last name keeps its trailing slashes: with them the kernel refuses to unlink a file. */
    const std::size_t name_start = path.rfind('/', path.find_last_not_of('/')) + 1;
    const Descriptor directory = unlink_in_tree(path, name_start, root_length_);
    if (!directory) {
        if (errno == ENOENT)
            return 0;
        log_message(LOG_ERR, "Unable to delete attachment %s: %s", path.c_str(), std::strerror(errno));
        return -1;
    }
    if (flush(directory.get()) != 0) {
        log_flush_failure(path.substr(0, name_start - 1).c_str());
        return -1;
    }
    return 0;
}

int AttachmentDir::clear() const
{
    std::string error;
    const Descriptor directory = open_mail_directory(path_, root_length_);
    if (!directory)
        error = failure_text("cannot open directory", path_);
    if (!directory || remove_contents(directory.get(), path_, error) != 0) {
        log_message(LOG_ERR, "Unable to remove autoresponder attachments: %s", error.c_str());
        return 0;
    }
    if (flush(directory.get()) != 0) {
        log_flush_failure(path_.c_str());
        return -1;
    }
    return 0;
}

} // namespace arsp
