#include "store/mail_tree.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include "store/schema.h"
#include "support/links.h"

namespace arsp {

namespace {

/* O_DIRECTORY makes the kernel mount an automount point; O_PATH alone opens the empty directory below it. */
constexpr int DIRECTORY = O_PATH | O_DIRECTORY | O_CLOEXEC;

/* Whether only root can create or rename entries of the directory. */
bool only_root_may_write(int directory)
{
    struct stat status = {};
    return fstat(directory, &status) == 0 && status.st_uid == 0 && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

bool belongs_to_mail_user(int fd)
{
    const passwd *user = getpwnam(MAIL_USER);
    struct stat status = {};
    return user != nullptr && fstat(fd, &status) == 0 && status.st_uid == user->pw_uid;
}

} // namespace

TreeEntry MailTree::resolve(const std::string &path, std::size_t root_length)
{
    return resolveBelow(Descriptor(open(path.substr(0, root_length).c_str(), DIRECTORY)),
                        std::string_view(path).substr(root_length));
}

TreeEntry MailTree::resolveBelow(Descriptor start, std::string_view path)
{
    TreeEntry entry = {Descriptor(), ".", std::move(start)};
    for (std::size_t from = 0; entry.fd && from < path.size();) {
        const std::size_t end = std::min(path.find('/', from), path.size());
        if (end > from)
            entry = openEntry(std::move(entry.fd), std::string(path.substr(from, end - from)));
        from = end + 1;
    }
    struct stat status = {}; /* a slash at the end asks for a directory */
    if (entry.fd && path.ends_with('/') && fstat(entry.fd.get(), &status) == 0 && !S_ISDIR(status.st_mode)) {
        errno = ENOTDIR;
        return {};
    }
    return entry;
}

TreeEntry MailTree::openEntry(Descriptor directory, std::string name)
{
    if (in_link_ && !only_root_may_write(directory.get()))
        only_root_chose_ = false;
    Descriptor fd(openat(directory.get(), name.c_str(), DIRECTORY | O_NOFOLLOW));
    if (fd)
        return {std::move(directory), std::move(name), std::move(fd)};
    if (errno != ENOTDIR) /* set for links, too */
        return {};
    fd.reset(openat(directory.get(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat status = {};
    if (!fd || fstat(fd.get(), &status) != 0)
        return {};
    if (S_ISLNK(status.st_mode))
        return followLink(std::move(directory), fd.get(), status);
    return {std::move(directory), std::move(name), std::move(fd)};
}

TreeEntry MailTree::followLink(Descriptor directory, int link, const struct stat &status)
{
    const bool in_protected_directory = only_root_may_write(directory.get());
    const bool of_root = status.st_uid == 0;
    if (!of_root && !(in_link_ && in_protected_directory))
        return refuse();
    if (!of_root || !in_protected_directory)
        only_root_chose_ = false;
    char target[PATH_MAX];
    if (read_link_target(link, target) != 0)
        return {};
    if (++links_ > MOST_LINKS) {
        errno = ELOOP;
        return {};
    }
    const bool was_in_link = std::exchange(in_link_, true);
    TreeEntry entry = resolveBelow(*target == '/' ? Descriptor(open("/", DIRECTORY)) : std::move(directory), target);
    in_link_ = was_in_link;
    if (entry.fd && of_root && !in_protected_directory && !belongs_to_mail_user(entry.fd.get()))
        return refuse();
    return entry;
}

TreeEntry MailTree::refuse()
{
    refused_ = true;
    errno = ELOOP;
    return {};
}

Descriptor open_mail_directory(const std::string &path, std::size_t root_length)
{
    const TreeEntry entry = MailTree().resolve(path, root_length);
    return Descriptor(entry.fd ? openat(entry.fd.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC) : -1);
}

} // namespace arsp
