#ifndef ARSP_SUPPORT_C_HANDLES_H
#define ARSP_SUPPORT_C_HANDLES_H

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

#include <dirent.h>
#include <unistd.h>

namespace arsp {

/* RAII owners for C resources; signatures pass plain pointers and descriptors. */

/* Puts errno back, when its scope ends, to what it was when its scope began. */
class KeepErrno {
public:
    KeepErrno() = default;
    KeepErrno(const KeepErrno &) = delete;
    KeepErrno &operator=(const KeepErrno &) = delete;
    ~KeepErrno() { errno = saved_; }
    int saved() const { return saved_; } /* errno as it was when the scope began */

private:
    const int saved_ = errno;
};

/* Owns a descriptor; -1 owns none. Errors of close() are ignored: a writer flushes first. */
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int fd) : fd_(fd) {}
    Descriptor(Descriptor &&other) noexcept : fd_(other.release()) {}
    Descriptor &operator=(Descriptor &&other) noexcept
    {
        reset(other.release());
        return *this;
    }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    ~Descriptor() { reset(-1); }

    explicit operator bool() const { return fd_ >= 0; }
    int get() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd)
    {
        const KeepErrno keep;
        const int old = std::exchange(fd_, fd);
        if (old >= 0)
            close(old);
    }

private:
    int fd_ = -1;
};

struct CloseFile {
    void operator()(FILE *file) const
    {
        const KeepErrno keep;
        std::fclose(file); /* ignored: the owner only reads; a writer calls fclose itself */
    }
};
using FilePtr = std::unique_ptr<FILE, CloseFile>;

struct CloseDir {
    void operator()(DIR *dir) const
    {
        const KeepErrno keep;
        closedir(dir);
    }
};
using DirPtr = std::unique_ptr<DIR, CloseDir>;

struct FreeMemory {
    void operator()(void *memory) const
    {
        const KeepErrno keep; /* POSIX lets free() change it */
        std::free(memory);
    }
};
using CString = std::unique_ptr<char, FreeMemory>; /* text from malloc: xasprintf, strdup, str_dup_lower */

/* Changes the size of a block, which keeps its contents. Returns false without memory, with the block as it was. */
[[nodiscard]] inline bool resize(CString &block, std::size_t size)
{
    char *moved = static_cast<char *>(std::realloc(block.get(), size));
    if (moved == nullptr)
        return false;
    static_cast<void>(block.release()); /* realloc has taken the old block over */
    block.reset(moved);
    return true;
}

/* The buffer of getdelim() and getline(), which replace the pointer that they are given, so no unique_ptr fits. */
struct LineBuffer {
    LineBuffer() = default;
    LineBuffer(const LineBuffer &) = delete;
    LineBuffer &operator=(const LineBuffer &) = delete;
    ~LineBuffer() { FreeMemory()(text); }

    char *text = nullptr;
    size_t size = 0; /* bytes allocated, not the length of the line */
};

} // namespace arsp

#endif
