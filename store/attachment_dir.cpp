#include "store/attachment_dir.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/c_handles.h"
#include "support/conf.h"

namespace {

/* Owns a descriptor; -1 owns none. */
class Descriptor {
public:
    explicit Descriptor(int fd) : fd_(fd) {}
    Descriptor(Descriptor &&other) noexcept : fd_(other.release()) {}
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    ~Descriptor() { reset(-1); }

    int get() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd)
    {
        const KeepErrno keep;
        if (fd_ >= 0)
            close(fd_); /* nothing was written through it */
        fd_ = fd;
    }

private:
    int fd_;
};

/* Opens the entry `name` of the directory `parent` as a mere place (O_PATH), through a link only if root owns it.
 * Returns a descriptor, or -1 with `errno` set. */
int open_place(int parent, const std::string &name)
{
    Descriptor place(openat(parent, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat status = {};
    if (place.get() < 0 || fstat(place.get(), &status) != 0)
        return -1;
    if (!S_ISLNK(status.st_mode))
        return place.release();
    if (status.st_uid != 0) {
        errno = ELOOP;
        return -1;
    }
    return openat(parent, name.c_str(), O_PATH | O_CLOEXEC);
}

/* Walks from the first `root_length` bytes of `path` down to its end, one name at a time.
 * Returns a descriptor of that place, or -1 with `errno` set. */
int walk(const std::string &path, std::size_t root_length)
{
    Descriptor place(open(path.substr(0, root_length).c_str(), O_PATH | O_CLOEXEC));
    for (std::size_t start = root_length; place.get() >= 0 && start < path.size();) {
        const std::size_t end = std::min(path.find('/', start), path.size());
        if (end > start)
            place.reset(open_place(place.get(), path.substr(start, end - start)));
        start = end + 1;
    }
    return place.release();
}

/* Says what went wrong where. Returns -1. */
int failed(std::string &error, const char *what, const std::string &path)
{
    const int number = errno;
    error = std::string(what) + " " + path + ": " + std::strerror(number);
    return -1;
}

/* Adds the open directory `fd`, which it takes over, to `levels`. Returns 0; or -1 with `errno` set. */
int enter(std::vector<DirPtr> &levels, Descriptor fd)
{
    DirPtr directory(fd.get() < 0 ? nullptr : fdopendir(fd.get()));
    if (!directory)
        return -1;
    static_cast<void>(fd.release()); /* closedir closes it */
    levels.push_back(std::move(directory));
    return 0;
}

bool is_dot_entry(const char *name)
{
    return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

/* Leaves the emptied innermost level and removes its directory, the last name of `path`, from the one above. */
int leave(std::vector<DirPtr> &levels, std::string &path)
{
    levels.pop_back();
    if (levels.empty())
        return 0;
    const std::size_t slash = path.rfind('/');
    if (unlinkat(dirfd(levels.back().get()), path.c_str() + slash + 1, AT_REMOVEDIR) != 0 && errno != ENOENT)
        return -1;
    path.resize(slash);
    return 0;
}

/* Removes everything in the directory `top`, whose name is `path`. The levels lie on the heap, not on the stack: how
 * deep they are nested is the mail user's choice. An entry that somebody else has just removed is fine. */
int clear_directory(Descriptor top, std::string path, std::string &error)
{
    std::vector<DirPtr> levels;
    if (enter(levels, std::move(top)) != 0)
        return failed(error, "cannot open directory", path);
    while (!levels.empty()) {
        DIR *const directory = levels.back().get();
        errno = 0;
        const dirent *const entry = readdir(directory);
        if (entry == nullptr) {
            if (errno != 0)
                return failed(error, "cannot read directory", path);
            if (leave(levels, path) != 0)
                return failed(error, "cannot remove", path);
            continue;
        }
        if (is_dot_entry(entry->d_name))
            continue;
        const std::size_t own_length = path.size();
        path.append("/").append(entry->d_name);
        if (unlinkat(dirfd(directory), entry->d_name, 0) == 0 || errno == ENOENT) {
            path.resize(own_length);
            continue;
        }
        if (errno != EISDIR)
            return failed(error, "cannot remove", path);
        if (enter(levels, Descriptor(openat(dirfd(directory), entry->d_name,
                                            O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC))) != 0)
            return failed(error, "cannot open directory", path);
    }
    return 0;
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

int AttachmentDir::checkLinks(const std::string &name) const
{
    const Descriptor place(walk(pathOf(name), root_length_));
    /* A way that does not lead on is no way for a link either: making the directory, or the copy, reports it. */
    return place.get() >= 0 || errno == ENOENT || errno == ENOTDIR || errno == ENAMETOOLONG ? 0 : -1;
}

int AttachmentDir::unlinkFile(const std::string &name) const
{
    const std::string path = pathOf(name);
    /* The last name keeps its trailing slashes: they make the kernel refuse what is no directory. */
    const std::size_t last_name = path.rfind('/', path.find_last_not_of('/')) + 1;
    const Descriptor directory(walk(path.substr(0, last_name), root_length_));
    return directory.get() < 0 ? -1 : unlinkat(directory.get(), path.c_str() + last_name, 0);
}

int AttachmentDir::clear(std::string &error) const
{
    const Descriptor place(walk(path_, root_length_));
    return clear_directory(
        Descriptor(place.get() < 0 ? -1 : openat(place.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)), path_, error);
}
