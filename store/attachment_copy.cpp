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
#include "support/flush.h"
#include "support/log.h"
#include "support/make_dirs.h"

namespace arsp {

namespace {

constexpr int READ_DIRECTORY = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

/* The last name of a path, as cp takes it: without the slashes after it. */
std::string last_component(const std::string &path)
{
    const std::size_t end = path.find_last_not_of('/') + 1; /* npos + 1 is 0 */
    const std::size_t slash = path.rfind('/', end == 0 ? 0 : end - 1);
    return path.substr(slash + 1, end - (slash + 1));
}

bool is_shortage(int error)
{
    return error == EMFILE || error == ENFILE || error == ENOMEM;
}

bool is_directory(int place)
{
    struct stat status = {};
    return fstat(place, &status) == 0 && S_ISDIR(status.st_mode);
}

/* Opens the file that a walk found once more, to read, and flushes it. What is no regular file has nothing to flush. */
int flush_regular_file(const TreeEntry &file)
{
    struct stat found = {};
    struct stat opened = {};
    if (fstat(file.place.get(), &found) != 0)
        return -1;
    if (!S_ISREG(found.st_mode))
        return 0;
    /* O_NONBLOCK: neither a pipe nor a lease that takes the place meanwhile may hold the run. */
    const Descriptor fd(
        openat(file.directory.get(), file.name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!fd || fstat(fd.get(), &opened) != 0)
        return -1;
    if (opened.st_dev != found.st_dev || opened.st_ino != found.st_ino) {
        errno = ESTALE;
        return -1;
    }
    return flush(fd.get());
}

/* The file of one copy. The functions that return an int return 0; or -1 with `errno` set. They log nothing. */
class Copy {
public:
    Copy(const std::string &source, const AttachmentDir &dir, const std::string &name)
        : dir_(dir), name_(name), source_name_(last_component(source))
    {
    }

    /* Whether cp would write through a link that must not be followed. What the kernel itself refuses is left to mkdir
     * and cp, which report it. */
    int checkLinks();

    void makeDirectory(const passwd &user);
    int setOwner(const passwd &user);

    /* Flushes the copy and the directories that got a new entry. */
    int flushAll();

private:
    int checkName(int directory, const std::string &name, TreeEntry &found);

    const AttachmentDir &dir_;
    const std::string name_;
    const std::string source_name_; /* the copy's name when name_ is a directory */
    MailTree check_;
    bool existed_ = false;            /* before the copy */
    std::vector<Descriptor> changed_; /* directories that got a new directory */
    TreeEntry target_;                /* what the attachment's path leads to, after the copy */
};

/* Looks at what cp would find as `name` in `directory`. */
int Copy::checkName(int directory, const std::string &name, TreeEntry &found)
{
    struct stat status = {};
    found = check_.findName(Descriptor(fcntl(directory, F_DUPFD_CLOEXEC, 0)), name);
    if (found.place)
        return 0;
    const bool dangling = errno == ENOENT && fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
    if (dangling)
        errno = ELOOP; /* cp would make a file at a place that the link chose */
    return dangling || check_.refused() || is_shortage(errno) ? -1 : 0;
}

int Copy::checkLinks()
{
    const TreeEntry directory = check_.find(dir_.path(), dir_.rootLength());
    if (!directory.place)
        return check_.refused() || is_shortage(errno) ? -1 : 0;
    TreeEntry target;
    if (checkName(directory.place.get(), name_.empty() ? "." : name_, target) != 0)
        return -1;
    if (target.place && is_directory(target.place.get())) { /* cp writes to an entry of it */
        TreeEntry entry;
        if (checkName(target.place.get(), source_name_, entry) != 0)
            return -1;
        target = std::move(entry);
    }
    existed_ = static_cast<bool>(target.place);
    return 0;
}

void Copy::makeDirectory(const passwd &user)
{
    const auto open_existing = [walk = MailTree()](Descriptor parent, const char *name) mutable {
        return walk.findName(std::move(parent), name).place;
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
    target_ = MailTree().find(dir_.pathOf(name_), dir_.rootLength());
    return target_.place ? fchownat(target_.place.get(), "", user.pw_uid, user.pw_gid, AT_EMPTY_PATH) : -1;
}

int Copy::flushAll()
{
    if (is_directory(target_.place.get())) /* the copy is an entry of it */
        target_ = MailTree().findName(std::move(target_.place), source_name_);
    if (!target_.place || flush_regular_file(target_) != 0)
        return -1;
    if (!existed_)
        changed_.emplace_back(openat(target_.directory.get(), ".", READ_DIRECTORY));
    for (const Descriptor &directory : changed_) {
        if (flush(directory.get()) != 0)
            return -1;
    }
    return 0;
}

/* Whether `owner` holds a shell character that works between double quotes, or its directory a component "..". No
 * address that --set-resp stores does. */
bool is_harmful(const std::string &owner, const AttachmentDir &dir)
{
    return owner.find_first_of("\"$`\\") != std::string::npos ||
           dir.path().find("/../", dir.rootLength()) != std::string::npos;
}

/* Runs cp. Only its exit code counts: a shell that a signal ended counts as success. Returns 0; or -1, logged. */
int run_cp(const std::string &source, const std::string &path)
{
    const std::string command = "/bin/cp \"" + source + "\" \"" + path + "\""; /* not escaped: SECURITY.md */
    const int status = std::system(command.c_str());
    if (status == -1) {
        log_message(LOG_ERR, "Unable to move attachment %s to %s: %s", source.c_str(), path.c_str(),
                    std::strerror(errno));
        return -1;
    }
    const int exit_code = (status >> 8) & 0xff;
    if (exit_code != 0) {
        log_message(LOG_ERR, "Unable to move attachment %s to %s: Child status %d", source.c_str(), path.c_str(),
                    exit_code);
        return -1;
    }
    return 0;
}

} // namespace

int copy_attachment(const std::string &source, const std::string &real_owner, const std::string &name)
{
    const AttachmentDir dir(real_owner);
    const std::string path = dir.pathOf(name);
    const auto cannot_move = [&] {
        log_message(LOG_ERR, "Unable to move attachment %s to %s: %s", source.c_str(), path.c_str(),
                    std::strerror(errno));
        return -1;
    };
    const passwd *user = getpwnam(MAIL_USER); /* errno is not cleared first: the message may show an older error */
    if (user == nullptr) {
        log_message(LOG_ERR, "Unable to get uid:gid for %s: %s", MAIL_USER, std::strerror(errno));
        return -1;
    }
    if (is_harmful(real_owner, dir)) {
        errno = EINVAL;
        return cannot_move();
    }
    Copy copy(source, dir, name);
    if (copy.checkLinks() != 0)
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
