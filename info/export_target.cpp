#include "info/export_target.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/sendfile.h>
#include <unistd.h>

#include "info/failure.h"
#include "support/dir_stream.h"

namespace arsp {

namespace {

/* Copies bytes from `position` to `end`, or to the end of a file that has become shorter. Returns false with `errno`
 * set. */
bool copy_range(int source, int target, off_t position, off_t end)
{
    constexpr off_t AT_ONCE = 1 << 30; /* bytes */
    ssize_t sent = 1;
    while (position < end && sent != 0) {
        sent = sendfile(target, source, &position, static_cast<std::size_t>(std::min(end - position, AT_ONCE)));
        if (sent < 0 && errno != EINTR)
            return false;
    }
    return true;
}

} // namespace

void ExportTarget::fail(const std::string &name) const
{
    throw Failure("cannot write " + path_ + (name.empty() ? "" : "/" + name) + ": " + std::strerror(errno));
}

ExportTarget::ExportTarget(const std::string &path) : path_(path)
{
    const RootRights root;
    const bool made = mkdir(path.c_str(), 0700) == 0;
    if (!made && errno != EEXIST)
        fail("");
    directory_.reset(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status = {};
    if (!directory_ || fstat(directory_.get(), &status) != 0)
        fail("");
    if (status.st_uid != geteuid() || (!made && (status.st_mode & (S_IWGRP | S_IWOTH)) != 0))
        throw Failure(path + " can be written by another user");
    const DirPtr entries = open_dir_stream(Descriptor(fcntl(directory_.get(), F_DUPFD_CLOEXEC, 0)));
    if (!entries)
        fail("");
    if (next_entry(entries.get()) != nullptr)
        throw Failure(path + " exists and is not empty");
    if (fchmod(directory_.get(), 0700) != 0)
        fail("");
}

void ExportTarget::makeDirectory(const char *name)
{
    const RootRights root;
    if (mkdirat(directory_.get(), name, 0700) != 0)
        fail(name);
}

Descriptor ExportTarget::create(const RootRights &, const std::string &name, mode_t mode) const
{
    Descriptor file(openat(directory_.get(), name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
    if (!file)
        fail(name);
    return file;
}

void ExportTarget::remove(const std::string &name) const
{
    const RootRights root;
    unlinkat(directory_.get(), name.c_str(), 0); /* ignored: the script does not name a file that stays */
}

void ExportTarget::write(int file, const std::string &name, std::string_view bytes) const
{
    while (!bytes.empty()) {
        const ssize_t written = ::write(file, bytes.data(), bytes.size());
        if (written < 0 && errno != EINTR)
            fail(name);
        bytes.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(written, 0)));
    }
}

void ExportTarget::write(const std::string &name, std::string_view bytes, mode_t mode) const
{
    Descriptor file;
    {
        const RootRights root;
        file = create(root, name, mode);
    }
    write(file.get(), name, bytes);
}

void ExportTarget::complete(const char *name, std::string_view bytes) const
{
    const std::string part = std::string(name) + ".part";
    write(part, bytes, 0700);
    if (syncfs(directory_.get()) != 0)
        fail(part);
    const RootRights root;
    if (renameat(directory_.get(), part.c_str(), directory_.get(), name) != 0 || fsync(directory_.get()) != 0)
        fail(name);
}

bool copy_data(int source, int target, const struct stat &status)
{
    constexpr off_t BLOCK = 512; /* bytes, the unit of st_blocks */
    if (status.st_blocks * BLOCK >= status.st_size)
        return copy_range(source, target, 0, status.st_size);
    off_t begin = 0;
    off_t end = 0;
    while (end < status.st_size && (begin = lseek(source, end, SEEK_DATA)) >= 0) {
        end = std::min(lseek(source, begin, SEEK_HOLE), status.st_size);
        if (end < 0 || lseek(target, begin, SEEK_SET) < 0 || !copy_range(source, target, begin, end))
            return false;
    }
    return (begin >= 0 || errno == ENXIO) && ftruncate(target, status.st_size) == 0;
}

} // namespace arsp
