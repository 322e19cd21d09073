#include "store/attachment_copy.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/syslog.h>
#include <unistd.h>

#include "store/attachment_dir.h"
#include "store/mail_tree.h"
#include "store/schema.h"
#include "support/file_id.h"
#include "support/flush.h"
#include "support/log.h"
#include "support/make_dirs.h"

namespace arsp {

namespace {

constexpr int READ_DIRECTORY = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

/* The last name of a path as cp determines it: without the slashes at its end. */
std::string last_component(const std::string &path)
{
    const std::size_t end = path.find_last_not_of('/') + 1; /* npos + 1 is 0, and 0 - 1 is npos again */
    const std::size_t slash = path.rfind('/', end - 1);
    return path.substr(slash + 1, end - (slash + 1));
}

bool is_shortage(int error)
{
    return error == EMFILE || error == ENFILE || error == ENOMEM;
}

bool is_directory(int fd)
{
    struct stat status = {};
    return fstat(fd, &status) == 0 && S_ISDIR(status.st_mode);
}

/* Opens `file` again, for reading, and flushes it. Only regular files have content to flush. Returns 0; or -1 with
 * `errno` set, to ESTALE when another file has replaced it. */
int flush_regular_file(const TreeEntry &file)
{
    struct stat found = {};
    struct stat opened = {};
    if (fstat(file.fd.get(), &found) != 0)
        return -1;
    if (!S_ISREG(found.st_mode))
        return 0;
    /* O_NONBLOCK: a pipe that has replaced the file, or a lease on it, must not block the run. */
    const Descriptor fd(
        openat(file.directory.get(), file.name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!fd || fstat(fd.get(), &opened) != 0)
        return -1;
    if (FileId(opened) != FileId(found)) {
        errno = ESTALE;
        return -1;
    }
    return flush(fd.get());
}

/* Logs, with the text of `errno`, that the attachment was not copied. Returns -1. */
int fail_to_move(const std::string &source, const std::string &path)
{
    log_message(LOG_ERR, "Unable to move attachment %s to %s: %s", source.c_str(), path.c_str(), std::strerror(errno));
    return -1;
}

/* The steps of one copy around the run of cp. Functions that return an int return 0; or -1 with `errno` set. They log
 * nothing. */
class Copy {
public:
    Copy(const std::string &source, const AttachmentDir &dir, const std::string &name)
        : dir_(dir), name_(name), source_name_(last_component(source))
    {
    }

    /* Fails when cp would write through a link that must not be followed. Succeeds when the kernel refuses the path or
     * a part of it is missing: mkdir or cp reports that. */
    [[nodiscard]] int rejectUnsafeLinks();

    /* Makes the attachment directory and the missing directories above it. */
    void makeDirectory(const passwd &user);

    /* Gives the file or directory at the attachment's path to `user`. */
    [[nodiscard]] int setOwner(const passwd &user);

    /* Flushes the copy and the directories that got a new entry. To be called after setOwner. */
    [[nodiscard]] int flushAll();

private:
    [[nodiscard]] int findEntry(int directory, const std::string &name, TreeEntry &found);

    const AttachmentDir &dir_;
    const std::string name_;
    const std::string source_name_;   /* the copy's name when name_ is a directory */
    MailTree tree_;                   /* for the check before the copy */
    bool existed_ = false;            /* whether the copy replaces a file */
    std::vector<Descriptor> changed_; /* directories that got a new directory */
    TreeEntry target_;                /* the attachment's path, resolved after the copy */
};

/* Sets `found` to the entry `name` of `directory` as cp would resolve it, or to an empty entry when it is missing or
 * the kernel refuses it. Fails at a link that must not be followed, and at a dangling link whose target another
 * user than root can have chosen. */
int Copy::findEntry(int directory, const std::string &name, TreeEntry &found)
{
    struct stat status = {};
    found = tree_.openEntry(Descriptor(fcntl(directory, F_DUPFD_CLOEXEC, 0)), name);
    if (found.fd)
        return 0;
    const bool unsafe_target = errno == ENOENT && !tree_.followedOnlyRootsChoice() &&
                               fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
    if (unsafe_target)
        errno = ELOOP; /* cp could create the target of the link */
    return unsafe_target || tree_.refused() || is_shortage(errno) ? -1 : 0;
}

int Copy::rejectUnsafeLinks()
{
    const TreeEntry directory = tree_.resolve(dir_.path(), dir_.rootLength());
    if (!directory.fd)
        return tree_.refused() || is_shortage(errno) ? -1 : 0;
    TreeEntry target;
    if (findEntry(directory.fd.get(), name_.empty() ? "." : name_, target) != 0)
        return -1;
    if (target.fd && is_directory(target.fd.get())) { /* cp copies into it */
        TreeEntry entry;
        if (findEntry(target.fd.get(), source_name_, entry) != 0)
            return -1;
        target = std::move(entry);
    }
    existed_ = static_cast<bool>(target.fd);
    return 0;
}

void Copy::makeDirectory(const passwd &user)
{
    const auto open_existing = [tree = MailTree()](Descriptor parent, const char *name) mutable {
        return tree.openEntry(std::move(parent), name).fd;
    };
    make_dirs({.path = dir_.path().c_str(),
               .trusted_length = dir_.rootLength(),
               .uid = user.pw_uid,
               .gid = user.pw_gid,
               .mode = 0700,
               .open_existing = open_existing,
               .changed = &changed_});
}

int Copy::setOwner(const passwd &user)
{
    target_ = MailTree().resolve(dir_.pathOf(name_), dir_.rootLength());
    return target_.fd ? fchownat(target_.fd.get(), "", user.pw_uid, user.pw_gid, AT_EMPTY_PATH) : -1;
}

int Copy::flushAll()
{
    if (is_directory(target_.fd.get())) /* cp copied into it */
        target_ = MailTree().openEntry(std::move(target_.fd), source_name_);
    if (!target_.fd || flush_regular_file(target_) != 0)
        return -1;
    if (!existed_)
        changed_.emplace_back(openat(target_.directory.get(), ".", READ_DIRECTORY));
    for (const Descriptor &directory : changed_) {
        if (flush(directory.get()) != 0)
            return -1;
    }
    return 0;
}

/* Runs cp. Only its exit code counts: a shell that a signal ended counts as success. Returns 0; or -1 after logging. */
int run_cp(const std::string &source, const std::string &path)
{
    const std::string command = "/bin/cp \"" + source + "\" \"" + path + "\""; /* not escaped: SECURITY.md */
    const int status = std::system(command.c_str());
    if (status == -1)
        return fail_to_move(source, path);
    const int exit_code = (status >> 8) & 0xff;
    if (exit_code != 0) {
        log_message(LOG_ERR, "Unable to move attachment %s to %s: Child status %d", source.c_str(), path.c_str(),
                    exit_code);
        return -1;
    }
    return 0;
}

} // namespace

bool is_harmful_owner(const std::string &owner)
{
    const AttachmentDir dir(owner);
    return owner.find_first_of("\"$`\\") != std::string::npos ||
           dir.path().find("/../", dir.rootLength()) != std::string::npos;
}

int copy_attachment(const std::string &source, const std::string &real_owner, const std::string &name)
{
    const AttachmentDir dir(real_owner);
    const std::string path = dir.pathOf(name);
    const auto cannot_move = [&] { return fail_to_move(source, path); };
    const passwd *user = getpwnam(MAIL_USER); /* errno is not cleared first: the message may show an older error */
    if (user == nullptr) {
        log_message(LOG_ERR, "Unable to get uid:gid for %s: %s", MAIL_USER, std::strerror(errno));
        return -1;
    }
    if (is_harmful_owner(real_owner)) {
        errno = EINVAL;
        return cannot_move();
    }
    Copy copy(source, dir, name);
    if (copy.rejectUnsafeLinks() != 0)
        return cannot_move();
    copy.makeDirectory(*user);
    if (run_cp(source, path) != 0)
        return -1;
    if (copy.setOwner(*user) != 0) {
        log_message(LOG_ERR, "Unable to change owner for %s: %s", path.c_str(), std::strerror(errno));
        return -1;
    }
    return copy.flushAll() == 0 ? 0 : cannot_move();
}

} // namespace arsp
