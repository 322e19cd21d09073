#include "support/remove_contents.h"

#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/c_handles.h"
#include "support/dir_stream.h"
#include "support/file_id.h"

namespace arsp {

namespace {

constexpr int READ_DIRECTORY = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

constexpr std::size_t MOST_OPEN = 8; /* outer levels that stay open, so that a wide tree is listed once */

/* A directory above the one being emptied. */
struct Level {
    FileId id;
    DirPtr stream; /* null but for the outermost levels */
};

/* Empties a tree with a bounded number of open directories: it returns to a deep one through "..", and lists it again.
 */
class Remover {
public:
    explicit Remover(std::string path) : path_(std::move(path)) {}

    /* Both return 0; or -1 with the text in error(). */
    int open(Descriptor directory);
    int removeAll();

    const std::string &error() const { return error_; }

private:
    int removeEntry(const char *name);
    int enterDirectory(const char *name); /* path_ already ends in `name` */
    int removeAndLeaveDirectory();        /* continues in the directory above */
    int fail(const char *what);           /* stores the error; returns -1 */

    DirPtr directory_;         /* being emptied */
    std::string path_;         /* of directory_, in messages */
    std::vector<Level> above_; /* outermost first */
    std::string error_;
};

int Remover::fail(const char *what)
{
    error_ = failure_text(what, path_);
    return -1;
}

int Remover::open(Descriptor directory)
{
    directory_ = open_dir_stream(std::move(directory));
    return directory_ ? 0 : fail("cannot open directory");
}

int Remover::removeAll()
{
    for (;;) {
        const char *name = next_entry(directory_.get());
        if (name != nullptr) {
            if (removeEntry(name) != 0)
                return -1;
            continue;
        }
        if (errno != 0)
            return fail("cannot read directory");
        if (above_.empty())
            return 0;
        if (removeAndLeaveDirectory() != 0)
            return -1;
    }
}

int Remover::removeEntry(const char *name)
{
    if (unlinkat(dirfd(directory_.get()), name, 0) == 0 || errno == ENOENT)
        return 0;
    const bool is_directory = errno == EISDIR;
    {
        const KeepErrno keep; /* for fail() */
        path_.append("/").append(name);
    }
    return is_directory ? enterDirectory(name) : fail("cannot remove");
}

int Remover::enterDirectory(const char *name)
{
    const int current = dirfd(directory_.get());
    struct stat status = {};
    if (fstat(current, &status) != 0)
        return fail("cannot open directory");
    above_.push_back({FileId(status), above_.size() < MOST_OPEN ? std::move(directory_) : nullptr});
    return open(Descriptor(openat(current, name, READ_DIRECTORY)));
}

int Remover::removeAndLeaveDirectory()
{
    Descriptor parent(openat(dirfd(directory_.get()), "..", READ_DIRECTORY));
    struct stat status = {};
    if (!parent || fstat(parent.get(), &status) != 0)
        return fail("cannot leave directory");
    if (FileId(status) != above_.back().id) {
        errno = ESTALE; /* the directory was moved to another place */
        return fail("cannot leave directory");
    }
    const std::size_t slash = path_.rfind('/');
    if (unlinkat(parent.get(), path_.c_str() + slash + 1, AT_REMOVEDIR) != 0 && errno != ENOENT)
        return fail("cannot remove");
    path_.resize(slash);
    DirPtr stream = std::move(above_.back().stream);
    above_.pop_back();
    if (stream == nullptr)
        return open(std::move(parent)); /* lists again: the entries listed before are gone */
    directory_ = std::move(stream);
    return 0;
}

} // namespace

std::string failure_text(const char *what, const std::string &path)
{
    constexpr std::size_t LONGEST = 1000;  /* bytes */
    constexpr std::size_t BEGINNING = 600; /* bytes */
    const int number = errno;
    const bool is_long = path.size() > LONGEST;
    const std::string shown = is_long ? path.substr(0, BEGINNING) + "..." + path.substr(path.rfind('/')) : path;
    return std::string(what) + " " + shown + ": " + std::strerror(number);
}

int remove_contents(int fd, const std::string &path, std::string &error)
{
    Remover remover(path);
    const int result = remover.open(Descriptor(fcntl(fd, F_DUPFD_CLOEXEC, 0))) == 0 ? remover.removeAll() : -1;
    error = remover.error();
    return result;
}

} // namespace arsp
