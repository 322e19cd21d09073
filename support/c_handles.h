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

/* RAII owners for C resources. Functions pass plain pointers and descriptors. */

/* Restores errno at the end of its scope. */
class KeepErrno {
public:
    KeepErrno() = default;
    KeepErrno(const KeepErrno &) = delete;
    KeepErrno &operator=(const KeepErrno &) = delete;
    ~KeepErrno() { errno = saved_; }
    int saved() const { return saved_; } /* errno at the beginning of the scope */

private:
    const int saved_ = errno;
};

/* Owns a descriptor, or none (-1). Ignores errors of close(): a writer flushes first. */
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
        std::fclose(file); /* result ignored: for reading only; a writer calls fclose itself */
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
        const KeepErrno keep; /* free() may change it */
        std::free(memory);
    }
};
using CString = std::unique_ptr<char, FreeMemory>; /* a text or bytes from malloc */

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

/* The buffer of getdelim() and getline(). Not a unique_ptr: they replace the pointer. */
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
