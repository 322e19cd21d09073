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

/* Opens the directory of the file `path` and unlinks the file, whose name is what follows `name` in it. */
Descriptor unlink_in_tree(const std::string &path, std::size_t name, std::size_t root_length)
{
    if (path.size() >= PATH_MAX) { /* the walk by names would not notice, unlike unlink() */
        errno = ENAMETOOLONG;
        return Descriptor();
    }
    Descriptor directory = open_mail_directory(path.substr(0, name), root_length);
    if (directory && unlinkat(directory.get(), path.c_str() + name, 0) != 0)
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
    /* The last name keeps its trailing slashes: they make the kernel refuse what is no directory. */
    const std::size_t last_name = path.rfind('/', path.find_last_not_of('/')) + 1;
    const Descriptor directory = unlink_in_tree(path, last_name, root_length_);
    if (!directory) {
        if (errno == ENOENT)
            return 0;
        log_message(LOG_ERR, "Unable to delete attachment %s: %s", path.c_str(), std::strerror(errno));
        return -1;
    }
    if (flush(directory.get()) != 0) {
        log_flush_failure(path.substr(0, last_name - 1).c_str());
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
